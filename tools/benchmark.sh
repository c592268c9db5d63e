#!/usr/bin/env bash
# Builds, registers the provider and the emulators in the test prefix, and runs the content benchmark and
# the companion pipe benchmark:
#   tools/benchmark.sh [megabytes] [entries] [messages per pipe client]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/build.sh" >/dev/null
. "$root/tools/wine/env.sh"
prefix="$root/build/win/wineprefix"
bin="$root/build/win/bin"
bash "$root/tools/wine/prefix.sh" up "$prefix" >/dev/null
trap 'bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null' EXIT
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
for dll in dorwex_wpd_provider dorwex_wpd_emulator dorwex_wmi_emulator; do
    dorwex_regsvr32 "$bin/$dll.dll"
done
"$wine" "$bin/benchmark_content.exe" "${@:1:2}" | tr -d '\r'
echo
"$wine" "$bin/benchmark_pipe.exe" "${3:-20000}" | tr -d '\r'
