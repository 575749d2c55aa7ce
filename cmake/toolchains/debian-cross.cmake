# What every cross toolchain file here shares: Debian's compilers named by
# their triple, and searches (headers, libraries, CMake packages, pkg-config)
# confined to the target's own folders, so that nothing built for the build
# machine is picked up. An optional part whose target packages are missing is
# then skipped with its usual line.
set(CMAKE_C_COMPILER ${OKU_TARGET_TRIPLE}-gcc${OKU_COMPILER_SUFFIX})
set(CMAKE_CXX_COMPILER ${OKU_TARGET_TRIPLE}-g++${OKU_COMPILER_SUFFIX})
set(CMAKE_FIND_ROOT_PATH /usr/${OKU_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config looks only where Debian keeps the target architecture's files.
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
if(OKU_TARGET_TRIPLE MATCHES "^i686-linux")
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig)
elseif(OKU_TARGET_TRIPLE MATCHES "linux")
  set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${OKU_TARGET_TRIPLE}/pkgconfig)
else()
  set(ENV{PKG_CONFIG_LIBDIR} /usr/${OKU_TARGET_TRIPLE}/lib/pkgconfig)
endif()
