#!/usr/bin/env bash
# Creates and starts, or stops, the Wine prefix of a test run:
#   prefix.sh up PREFIX    create it if needed (64-bit, null graphics driver), keep one wineserver alive
#   prefix.sh down PREFIX  stop that wineserver and every process of the prefix
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/env.sh"
action=$1
prefix=$2
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
wineserver=$(dorwex_find_wineserver)
log="$prefix.log"

case "$action" in
up)
    mkdir -p "$prefix"
    # A persistent server keeps each test process's start short. Its output, and that of the prefix's
    # service processes, must not hold the caller's pipes open.
    setsid "$wineserver" -p </dev/null >>"$log" 2>&1 || true
    if [ ! -f "$prefix/.dorwex-ready" ]; then
        # A first boot that stops before the system DLLs are in place leaves a prefix in which nothing
        # runs; it is seen by its missing kernel32.dll, thrown away and booted once more.
        for attempt in 1 2; do
            "$wine" wineboot -i </dev/null >>"$log" 2>&1 || true
            [ -f "$prefix/drive_c/windows/system32/kernel32.dll" ] && break
            echo "wineboot left $prefix without its system DLLs (attempt $attempt)" | tee -a "$log" >&2
            "$wineserver" -k </dev/null >>"$log" 2>&1 || true
            "$wineserver" -w </dev/null >>"$log" 2>&1 || true
            rm -rf "$prefix" && mkdir -p "$prefix"
            setsid "$wineserver" -p </dev/null >>"$log" 2>&1 || true
        done
        "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f </dev/null >>"$log" 2>&1
        # The desktop process that wineboot started still uses the old graphics driver, and windows
        # cannot be created until it is gone: start the server afresh.
        "$wineserver" -k </dev/null >>"$log" 2>&1 || true
        "$wineserver" -w </dev/null >>"$log" 2>&1 || true
        setsid "$wineserver" -p </dev/null >>"$log" 2>&1 || true
        touch "$prefix/.dorwex-ready"
    fi
    if [ ! -f "$prefix/.dorwex-no-debugger" ]; then
        # A crash ends its process at once, with Wine's "Unhandled ..." line: the debugger Wine starts by
        # default waits for ever in a test run, and the crash became a timeout minutes later. A debugger
        # that cannot be started makes Wine end the process instead.
        "$wine" reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger \
            /d 'dorwex-no-debugger.exe %ld %ld' /f </dev/null >>"$log" 2>&1
        touch "$prefix/.dorwex-no-debugger"
    fi
    # Touch the prefix once so its services are up before the first test starts.
    "$wine" cmd /c exit 0 </dev/null >>"$log" 2>&1
    echo "wine prefix ready: $prefix"
    ;;
down)
    "$wineserver" -k </dev/null >>"$log" 2>&1 || true
    "$wineserver" -w </dev/null >>"$log" 2>&1 || true
    echo "wine prefix stopped: $prefix"
    ;;
*)
    echo "usage: prefix.sh up|down PREFIX" >&2
    exit 2
    ;;
esac
