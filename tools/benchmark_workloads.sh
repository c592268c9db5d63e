#!/usr/bin/env bash
# The many-call workloads and the start-up with 16 phones (tools/benchmark_workloads.cpp), in a prefix where
# the provider and both emulators are registered; tools/benchmark.sh runs it:
#   tools/benchmark_workloads.sh WINE BIN WORK RUNS
# WORK holds storage/w10000 (the 10,000 photos). Writes WORK/workloads.txt, WORK/w5_s and WORK/w5_held_ms
# (medians) and prints what it measured.
set -euo pipefail
wine=$1 bin=$2 work=$3 runs=$4
"$wine" "$bin/benchmark_workloads.exe" calls "$runs" "Z:${work//\//\\}" | tr -d '\r' > "$work/workloads.txt"
cat "$work/workloads.txt"
# Each start-up in a process of its own: the provider starts once per process.
for run in $(seq 1 "$(( runs < 5 ? 5 : runs ))"); do
    rm -rf "$work/startup"
    "$wine" "$bin/benchmark_workloads.exe" startup "Z:${work//\//\\}\\startup" | tr -d '\r'
done > "$work/startup.txt"
awk -F'[= ]+' '
    BEGIN { n = 0 }
    /^startup: / { s[n] = $3; held[n] = $5; if ($7 != 16) short++; n++ }
    function sort(a, n,    i, j, t) { for (i = 1; i < n; i++) for (j = i; j > 0 && a[j-1] > a[j]; j--) { t = a[j]; a[j] = a[j-1]; a[j-1] = t } }
    END {
        sort(s, n); sort(held, n)
        printf "W5 start-up with 16 phones taking 500 ms each to open, %d runs, a process per run:\n", n
        printf "  all published after     min %.3f s  median %.3f s\n", s[0], s[int(n/2)]
        printf "  Initialize held WMI     min %d ms  median %d ms  max %d ms\n", held[0], held[int(n/2)], held[n-1]
        if (short) printf "  %d runs did not see all 16 published\n", short
        printf "%.3f", s[int(n/2)] > "'"$work"'/w5_s"
        printf "%d", held[int(n/2)] > "'"$work"'/w5_held_ms"
    }' "$work/startup.txt"
