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
# The device's content is made here, on the host: under Wine each new file name costs a case-insensitive
# search of its folder, which makes 100,000 files take many minutes.
work=$(mktemp -d /tmp/dorwex-benchmark.XXXXXX)
trap 'rm -rf "$work"; bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null' EXIT
entries() {  # entries FOLDER COUNT
    mkdir -p "$1"
    (cd "$1" && seq 0 $(($2 - 1)) | sed 's/^/entry-/; s/$/.txt/' | xargs touch)
}
for size in 1000 10000 100000; do
    [ "$size" -le "${3:-100000}" ] && entries "$work/storage/list$size" "$size"
done
entries "$work/storage/deep1" 9999
entries "$work/storage/deep1/deep2" 9999
entries "$work/storage/deep1/deep2/deep3" 9999
printf target > "$work/storage/deep1/deep2/deep3/target.txt"
"$wine" "$bin/benchmark_content.exe" "${1:-256}" "${2:-5}" "${3:-100000}" "Z:${work//\//\\}" | tr -d '\r' \
    > "$work/content.txt"
cat "$work/content.txt"
echo
"$wine" "$bin/benchmark_pipe.exe" "${4:-20000}" "${2:-5}" | tr -d '\r' > "$work/pipe.txt"
cat "$work/pipe.txt"
content=$(cat "$work/content.txt")
pipe=$(cat "$work/pipe.txt")
figure() { printf '%s\n' "$1" | sed -n "s/.*[ :]$2=\([^ ]*\).*/\1/p" | tail -1; }
echo "summary: copy_to=$(figure "$content" copy_to) copy_from=$(figure "$content" copy_from)" \
     "list_vs_bare=$(figure "$content" list_vs_bare)" \
     "list_requests_per_entry=$(figure "$content" list_requests_per_entry) pipe=$(figure "$pipe" pipe)"
