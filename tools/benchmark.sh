#!/usr/bin/env bash
# Builds, registers the provider and the emulators in the test prefix, and runs the content benchmark and
# the companion pipe benchmark, each case at least five times (minimum and median), the provider beside a
# bare client, the platform and a bare pipe server:
#   tools/benchmark.sh [megabytes] [runs] [largest listing] [messages per pipe client]
# The last line sums up: copy and pipe ratios are the bare time over the provider's (medians; higher is
# better), list_vs_bare the provider's 10,000-entry listing time over the bare bulk client's at 1 ms latency,
# list_requests_per_entry the device requests of that listing per entry.
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
content=$("$wine" "$bin/benchmark_content.exe" "${1:-256}" "${2:-5}" "${3:-100000}" | tr -d '\r' | tee /dev/stderr)
echo >&2
pipe=$("$wine" "$bin/benchmark_pipe.exe" "${4:-20000}" "${2:-5}" | tr -d '\r' | tee /dev/stderr)
figure() { printf '%s\n' "$1" | sed -n "s/.*[ :]$2=\([^ ]*\).*/\1/p" | tail -1; }
echo "summary: copy_to=$(figure "$content" copy_to) copy_from=$(figure "$content" copy_from)" \
     "list_vs_bare=$(figure "$content" list_vs_bare)" \
     "list_requests_per_entry=$(figure "$content" list_requests_per_entry) pipe=$(figure "$pipe" pipe)"
