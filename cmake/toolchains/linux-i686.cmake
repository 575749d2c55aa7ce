# Linux on 32-bit x86 with Debian's i686-linux-gnu cross compiler. Test
# programs run natively through the target's own dynamic loader (an x86-64
# kernel runs i386 code), so no emulator is needed beyond pointing the loader
# at the target's libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(OKU_TARGET_TRIPLE i686-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR
    /usr/${OKU_TARGET_TRIPLE}/lib/ld-linux.so.2 --library-path /usr/${OKU_TARGET_TRIPLE}/lib)
