#!/usr/bin/env bash
# Builds, registers the provider and the emulators in the test prefix, and runs the content benchmark and
# the companion pipe benchmark, each case at least five times (minimum and median), the provider beside a
# bare client, the platform and a bare pipe server:
#   tools/benchmark.sh [megabytes] [runs] [largest listing] [messages per pipe client]
# The last line sums up: copy and pipe ratios are the bare time over the provider's (medians; higher is
# better), list_vs_bare the provider's 10,000-entry listing time over the bare bulk client's at 1 ms latency,
# list_requests_per_entry the device requests of that listing per entry, w1 and w2 the provider's time over the
# bare client's for 200 copies and 200 deletes out of a folder of 10,000 (lower is better), w5_s the seconds
# until 16 phones taking 500 ms each to open are published and w5_held_ms the longest Initialize held WMI.
# W3 (an event burst) and W4 (four client processes) need one provider host shared by all clients and are
# not measured yet.
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
# On a memory file system when there is one: the write-back of each copy's 256 MiB to a disk made the
# copies' times vary by half from run to run, whichever side was measured.
scratch=/tmp
[ -d /dev/shm ] && [ -w /dev/shm ] && scratch=/dev/shm
work=$(mktemp -d "$scratch/dorwex-benchmark.XXXXXX")
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
# W1/W2: a camera folder of 10,000 photos of 16 KiB.
mkdir -p "$work/storage/w10000"
head -c $((16384 * 10000)) /dev/urandom |
    (cd "$work/storage/w10000" && split -b 16384 -a 5 -d --additional-suffix=.jpg - IMG_)
"$wine" "$bin/benchmark_content.exe" "${1:-256}" "${2:-5}" "${3:-100000}" "Z:${work//\//\\}" | tr -d '\r' \
    > "$work/content.txt"
cat "$work/content.txt"
echo
# The memory of one 100,000-entry listing, each run in a process of its own: the provider through WMI, and
# the same two device requests made directly (the emulated device's and the runtime's share).
if [ "${3:-100000}" -ge 100000 ]; then
    for run in $(seq 1 "$(( ${2:-5} < 5 ? 5 : ${2:-5} ))"); do
        for who in provider device; do
            "$wine" "$bin/benchmark_content.exe" memory "$who" 100000 "Z:${work//\//\\}" | tr -d '\r'
        done
    done > "$work/memory.txt"
    awk -F'[=+ ]+' '
        /^memory: provider=/ { provider[np++] = $3; text = $5 }
        /^memory: device=/   { device[nd++] = $3 }
        function sort(a, n,    i, j, t) { for (i = 1; i < n; i++) for (j = i; j > 0 && a[j-1] > a[j]; j--) { t = a[j]; a[j] = a[j-1]; a[j-1] = t } }
        END {
            sort(provider, np); sort(device, nd)
            printf "memory of one 100,000-entry listing (result text %.1f MiB), %d runs each, a process per run:\n", text, np
            printf "  provider through WMI          min +%.1f MiB  median +%.1f MiB\n", provider[0], provider[int(np/2)]
            printf "  device and runtime alone      min +%.1f MiB  median +%.1f MiB\n", device[0], device[int(nd/2)]
            printf "  the provider'\''s own share: +%.1f MiB, %.1f times the result text (medians)\n",
                   provider[int(np/2)] - device[int(nd/2)], (provider[int(np/2)] - device[int(nd/2)]) / text
        }' "$work/memory.txt"
    echo
fi
"$wine" "$bin/benchmark_pipe.exe" "${4:-20000}" "${2:-5}" | tr -d '\r' > "$work/pipe.txt"
cat "$work/pipe.txt"
bash "$root/tools/benchmark_workloads.sh" "$wine" "$bin" "$work" "${2:-5}"
echo
content=$(cat "$work/content.txt")
pipe=$(cat "$work/pipe.txt")
figure() { printf '%s\n' "$1" | sed -n "s/.*[ :]$2=\([^ ]*\).*/\1/p" | tail -1; }
calls=$(cat "$work/workloads.txt")
echo "summary: copy_to=$(figure "$content" copy_to) copy_from=$(figure "$content" copy_from)" \
     "list_vs_bare=$(figure "$content" list_vs_bare)" \
     "list_requests_per_entry=$(figure "$content" list_requests_per_entry) pipe=$(figure "$pipe" pipe)" \
     "w1=$(figure "$calls" w1) w2=$(figure "$calls" w2) w5_s=$(cat "$work/w5_s") w5_held_ms=$(cat "$work/w5_held_ms")"
