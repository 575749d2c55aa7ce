# Windows on x86-64 with Debian's mingw-w64 compilers (the posix thread model,
# which GoogleTest needs); test programs run under Wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(OKU_TARGET_TRIPLE x86_64-w64-mingw32)
set(OKU_COMPILER_SUFFIX -posix)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
set(CMAKE_RC_COMPILER ${OKU_TARGET_TRIPLE}-windres)
find_program(OKU_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
set(CMAKE_CROSSCOMPILING_EMULATOR ${OKU_WINE})
