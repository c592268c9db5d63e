#!/usr/bin/env bash
# Configures and builds both configurations:
#   build/native  the Windows-free logic with host g++, AddressSanitizer and UBSan
#   build/fuzz    libFuzzer targets of the parsers, with clang
#   build/win     the provider DLL, its tools and tests, cross-built with mingw-w64
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${DORWEX_JOBS:-2}
cmake -S "$root" -B "$root/build/native" -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$root/build/native" -j"$jobs"
# The fuzz targets need clang and its libFuzzer runtime.
fuzz_dir=""
if command -v clang++ >/dev/null 2>&1; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$root/build/fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDORWEX_FUZZ=ON >/dev/null
    cmake --build "$root/build/fuzz" -j"$jobs"
    fuzz_dir="$root/build/fuzz"
fi
cmake -S "$root" -B "$root/build/win" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DDORWEX_NATIVE_TEST_DIR="$root/build/native" -DDORWEX_FUZZ_TEST_DIR="$fuzz_dir" >/dev/null
cmake --build "$root/build/win" -j"$jobs"
