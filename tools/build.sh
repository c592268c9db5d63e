#!/usr/bin/env bash
# Configures and builds both configurations:
#   build/native  the Windows-free logic with host g++, AddressSanitizer and UBSan
#   build/win     the provider DLL, its tools and tests, cross-built with mingw-w64
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${DORWEX_JOBS:-2}
cmake -S "$root" -B "$root/build/native" -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$root/build/native" -j"$jobs"
cmake -S "$root" -B "$root/build/win" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DDORWEX_NATIVE_TEST_DIR="$root/build/native" >/dev/null
cmake --build "$root/build/win" -j"$jobs"
