#!/usr/bin/env bash
# A provider host with a short life must end promptly, every time (tests/wine/exit_host.cpp):
#   20 hosts that return from main with the module loaded (the process ends through process detach),
#   20 hosts that ask DllCanUnloadNow, free the module and return, and
#   20 hosts that free the module without asking while the core's threads run (it must stay loaded).
# Each must end within 10 s. All run while another process serves the companion pipes, as a second
# provider host of the machine does: the provider's companion workers then cannot make their pipes and are
# started again and again, so the end often comes while one of its threads is busy.
#   host_exit_test.sh PREFIX BIN-DIR SAMPLES-DIR WORK-DIR
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/../../tools/wine/env.sh"
prefix=$1
bin=$2
samples=$3
work=$4
runs=${DORWEX_HOST_EXIT_RUNS:-20}
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
fail() {
    echo "FAIL: $*"
    exit 1
}

dorwex_regsvr32 "$bin/dorwex_wmi_emulator.dll" || fail "regsvr32 of the WMI service returned $?"
dorwex_regsvr32 "$bin/dorwex_wpd_emulator.dll" || fail "regsvr32 of the WPD stack returned $?"
rm -rf "$work" && mkdir -p "$work" && cp -r "$samples" "$work/devices"
export DORWEX_WPD_DEVICES
DORWEX_WPD_DEVICES=$(dorwex_winpath "$work/devices")

# The holder keeps the companion pipes while its standard input (fd 3 here) is open, and says "holding"
# once it has them.
mkfifo "$work/holder.in" "$work/holder.out"
"$wine" "$bin/exit_host.exe" hold <"$work/holder.in" >"$work/holder.out" 2>&1 &
holder=$!
exec 3>"$work/holder.in"
stop_holder() {
    exec 3>&-
    timeout 10 tail --pid="$holder" -f /dev/null || kill "$holder" 2>/dev/null
    wait "$holder" 2>/dev/null
}
trap stop_holder EXIT
holding=""
read -r -t 60 holding <"$work/holder.out" || true
[ "${holding%$'\r'}" = "holding" ] || fail "the pipe holder did not start: '$holding'"

# run MODE INDEX: one host within 10 s; its output is kept for a failure.
hung=0
broken=0
run() {
    local out="$work/$1-$2.txt" status
    timeout -k 2 10 "$wine" "$bin/exit_host.exe" "$1" >"$out" 2>&1
    status=$?
    if [ "$status" = 124 ] || [ "$status" = 137 ]; then
        hung=$((hung + 1))
        echo "$1 run $2: did not end within 10 s; last step: $(tail -n 1 "$out" | tr -d '\r')"
    elif [ "$status" != 0 ] || ! grep -q '^returning from main' "$out"; then
        broken=$((broken + 1))
        echo "$1 run $2: exit code $status"
        tr -d '\r' <"$out" | tail -n 3
    fi
}
for mode in exit unload free; do
    hung=0
    broken=0
    for ((i = 1; i <= runs; i++)); do
        run "$mode" "$i"
    done
    echo "$mode: $hung of $runs did not end within 10 s, $broken ended wrongly"
    eval "hung_$mode=$hung broken_$mode=$broken"
done
stop_holder
trap - EXIT
# timeout killed a host that did not end; none may be left in the prefix.
left=$("$wine" winedbg --command "info proc" 2>/dev/null | grep -c "exit_host.exe")
[ "$left" = 0 ] || fail "$left exit_host processes left in the prefix"

[ $((hung_exit + broken_exit)) = 0 ] || fail "hosts returning from main with the provider loaded did not end properly"
[ $((hung_unload + broken_unload)) = 0 ] || fail "hosts unloading the provider did not end properly"
[ $((hung_free + broken_free)) = 0 ] || fail "hosts freeing the provider under its running threads did not end properly"
echo "all $((3 * runs)) hosts ended within 10 s"
