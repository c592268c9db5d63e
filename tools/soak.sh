#!/usr/bin/env bash
# Repeats the tests that hunt races and hangs until the time is up, and counts what failed:
#   tools/soak.sh [minutes]      (default 30)
# One run is: the thread, pipe, collection and core tests of the device test program; the WMI stress test;
# the linked WMI tests (eject, BlackBerry, a device vanishing during its start-up); and the host-exit test
# when the build has it. The output of a failed run is kept in build/soak/. The last line is
#   soak: N runs, F failures
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
minutes=${1:-30}
"$root/tools/build.sh" >/dev/null || { echo "soak: build failed"; exit 1; }
. "$root/tools/wine/env.sh"
prefix="$root/build/win/wineprefix"
bin="$root/build/win/bin"
logs="$root/build/soak"
rm -rf "$logs" && mkdir -p "$logs"
bash "$root/tools/wine/prefix.sh" up "$prefix" >/dev/null
trap 'bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null' EXIT
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
dorwex_regsvr32 "$bin/dorwex_wpd_emulator.dll"
host_exit=$(ctest --test-dir "$root/build/win" -N -R '^wine\.host\.exit$' 2>/dev/null | grep -c 'wine.host.exit')

# run NAME COMMAND...: one step of a run, at most 10 minutes; its output goes to the log of the run.
run_step() {
    local name=$1
    shift
    echo "== $name" >>"$log"
    timeout 600 "$@" >>"$log" 2>&1
}

deadline=$(($(date +%s) + minutes * 60))
runs=0
failures=0
while [ "$(date +%s)" -lt "$deadline" ]; do
    runs=$((runs + 1))
    log="$logs/run-$runs.log"
    ok=1
    run_step devices "$wine" "$bin/device_tests.exe" \
        --gtest_filter='ThreadBase.*:WPDEventsProcessor.*:NamedPipe.*:ApplePipe.*:BlackBerryPipe.*:Collection.*:Core.*:DeviceIdentity.*' || ok=0
    run_step wmi-stress "$wine" "$bin/wmi_tests.exe" --gtest_filter='WmiStress.*' || ok=0
    run_step wmi-linked "$wine" "$bin/wmi_linked_tests.exe" || ok=0
    if [ "$host_exit" -gt 0 ]; then
        run_step host-exit ctest --test-dir "$root/build/win" -R '^wine\.host\.exit$' --output-on-failure || ok=0
    fi
    if [ "$ok" -eq 1 ]; then
        rm -f "$log"
    else
        failures=$((failures + 1))
        echo "run $runs failed: $log"
    fi
done
echo "soak: $runs runs, $failures failures"
[ "$failures" -eq 0 ]
