#!/usr/bin/env bash
# Builds the library, GoogleTest (from Debian's sources) and the C/C++ suite
# for each target platform with Debian's cross compilers, and runs the suite
# under the target's emulator. Python, GStreamer and the command are for the
# build machine and are not built for targets (their tests say so).
#   Linux i686      natively through the target's loader, with SSE2 (the default)
#   Linux i686 x87  the same with OKU_X86_SSE2=OFF: the x87 unit only
#   Linux aarch64   qemu-user
#   Windows x86-64  Wine, with the SDK zip test
#   Windows i686    Wine where a 32-bit Wine is installed, else built only
# Usage: scripts/cross.sh [target ...]   (default: all; extra CMake flags in CMAKE_FLAGS)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh g++-i686-linux-gnu g++-aarch64-linux-gnu qemu-user g++-mingw-w64-x86-64-posix \
                 g++-mingw-w64-i686-posix wine64 googletest
jobs=${JOBS:-$(nproc)}
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(linux-i686 linux-i686-x87 linux-aarch64 windows-x86_64 windows-i686)
export WINEDEBUG=-all WINEPREFIX="$PWD/build-cross/wine"
mkdir -p build-cross
summary=()
for target in "${targets[@]}"; do
  toolchain=${target%-x87}
  flags=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$toolchain.cmake" -DCMAKE_BUILD_TYPE=Release -DOKU_ASSERTS=ON)
  [ "$target" = linux-i686-x87 ] && flags+=(-DOKU_X86_SSE2=OFF)
  echo "== $target"
  cmake -S . -B "build-cross/$target" -G Ninja "${flags[@]}" ${CMAKE_FLAGS:-} > "build-cross/$target.configure.log" ||
    { cat "build-cross/$target.configure.log"; exit 1; }
  grep "oku: skipping" "build-cross/$target.configure.log" || true
  if grep -q '^OKU_WINE:FILEPATH=.*NOTFOUND' "build-cross/$target/CMakeCache.txt"; then
    # Debian's 32-bit Wine (wine32) needs the i386 architecture added to the
    # machine; without it the DLL and the suite are built but not run.
    cmake --build "build-cross/$target" -j "$jobs" > "build-cross/$target.build.log" 2>&1 ||
      { cat "build-cross/$target.build.log"; exit 1; }
    summary+=("$target: built; tests skipped: no 32-bit Wine here (Debian's wine32 needs the i386 architecture)")
    continue
  fi
  cmake --build "build-cross/$target" -j "$jobs" > "build-cross/$target.build.log" 2>&1 ||
    { cat "build-cross/$target.build.log"; exit 1; }
  # Where the kernel cannot run i386 code, qemu-i386 runs the suite; on such
  # hosts it hangs at a program's first new thread (a plain std::thread
  # program does too), so the thread tests are left out there.
  skip=()
  note=""
  if [[ $target == linux-i686* ]] && ! /usr/i686-linux-gnu/lib/ld-linux.so.2 --version >/dev/null 2>&1; then
    skip=(-E Thread)
    note="; thread tests skipped: no native i386 here, and qemu-i386 cannot start threads"
  fi
  (cd "build-cross/$target" && ctest --output-on-failure --timeout 900 -j "$jobs" "${skip[@]}" > ../"$target.test.log" 2>&1) ||
    { cat "build-cross/$target.test.log"; exit 1; }
  summary+=("$target: $(grep -E 'tests passed' "build-cross/$target.test.log")$note")
done
printf '%s\n' "${summary[@]}"
