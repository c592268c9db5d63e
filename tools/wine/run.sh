#!/usr/bin/env bash
# Runs a Windows program in the given test prefix: run.sh PREFIX PROGRAM [ARGS...]
# CTest uses it as the emulator of every cross-built test program.
#
# The program's output (stdout and stderr together) goes through a file, followed while it runs, and not
# straight to the caller: a Wine process the program starts inherits its Unix descriptors. The desktop
# process that a program's first window starts is one; when the program exits before that process is up,
# Wine never asks it to close, and it would hold the caller's pipe (CTest's) open until the prefix stops.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/env.sh"
prefix=$1
shift
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)

output=$(mktemp "${TMPDIR:-/tmp}/dorwex-run.XXXXXX")
trap 'rm -f "$output"' EXIT
"$wine" "$@" <&0 >"$output" 2>&1 &
program=$!
tail -n +1 -s 0.1 -f --pid="$program" "$output" &
follower=$!
status=0
wait "$program" || status=$?
wait "$follower" || true
exit "$status"
