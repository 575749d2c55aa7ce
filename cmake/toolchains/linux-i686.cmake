# Linux on 32-bit x86 with Debian's i686-linux-gnu cross compiler. Test
# programs run natively through the target's own dynamic loader where the
# kernel runs i386 code (an x86-64 kernel built with IA-32 emulation), and
# under qemu-user otherwise (some virtual machines' kernels leave it out).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(OKU_TARGET_TRIPLE i686-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
execute_process(COMMAND /usr/${OKU_TARGET_TRIPLE}/lib/ld-linux.so.2 --version
                RESULT_VARIABLE oku_native_i386 OUTPUT_QUIET ERROR_QUIET)
if(oku_native_i386 EQUAL 0)
  set(CMAKE_CROSSCOMPILING_EMULATOR
      /usr/${OKU_TARGET_TRIPLE}/lib/ld-linux.so.2 --library-path /usr/${OKU_TARGET_TRIPLE}/lib)
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-i386 -L /usr/${OKU_TARGET_TRIPLE})
endif()
