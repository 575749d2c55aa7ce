# Linux on 64-bit ARM with Debian's aarch64-linux-gnu cross compiler; test
# programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(OKU_TARGET_TRIPLE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${OKU_TARGET_TRIPLE})
