/*
 * Linked into the wheel's copy of libOKUVAD (setup.py), beside a static C++
 * runtime, so that the library loads with glibc 2.28 and later whatever
 * glibc the wheel was built with. The runtime's own objects refer to two
 * symbols that newer glibc versions added; this file answers both inside the
 * library:
 *
 * - __libc_single_threaded (glibc 2.32), which the runtime reads to skip
 *   atomic operations in a process without threads: a copy of our own that
 *   always says "threads may run", so reference counts stay atomic;
 * - pthread_once, whose default version moved into libc in glibc 2.34: the
 *   runtime's calls (linked with --wrap=pthread_once) go to the oldest
 *   version, which every glibc still provides (libpthread.so.0 before 2.34).
 */
#include <pthread.h>

#if defined(__x86_64__)
#define OKU_GLIBC_BASE "GLIBC_2.2.5"
#elif defined(__aarch64__)
#define OKU_GLIBC_BASE "GLIBC_2.17"
#elif defined(__i386__)
#define OKU_GLIBC_BASE "GLIBC_2.0"
#else
#error "no glibc base version known for this processor: build the wheel without wheel_runtime.c"
#endif

__attribute__((visibility("hidden"))) char __libc_single_threaded = 0;

__asm__(".symver pthread_once, pthread_once@" OKU_GLIBC_BASE);

__attribute__((visibility("hidden"))) int __wrap_pthread_once(pthread_once_t* once, void (*init)(void));

int __wrap_pthread_once(pthread_once_t* once, void (*init)(void))
{
    return pthread_once(once, init);
}
