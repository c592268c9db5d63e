#!/usr/bin/env bash
# Runs one fuzz target for a bounded time from a copy of its checked-in corpus:
#   run-fuzz.sh TARGET CORPUS WORKDIR SECONDS
# A crash, a leak or a broken invariant fails the run and leaves the input in WORKDIR (crash-*).
set -euo pipefail
target=$1 corpus=$2 work=$3 seconds=$4
rm -rf "$work/corpus"
mkdir -p "$work/corpus"
cp -r "$corpus"/. "$work/corpus/"
cd "$work"
exec "$target" -max_total_time="$seconds" -print_final_stats=1 -max_len=20000 corpus
