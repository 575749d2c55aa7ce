# Windows on 32-bit x86 with Debian's mingw-w64 compilers (posix thread
# model); test programs run under Wine where a 32-bit Wine is installed.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(OKU_TARGET_TRIPLE i686-w64-mingw32)
set(OKU_COMPILER_SUFFIX -posix)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_RC_COMPILER ${OKU_TARGET_TRIPLE}-windres)
find_program(OKU_WINE NAMES wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(OKU_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${OKU_WINE})
endif()
