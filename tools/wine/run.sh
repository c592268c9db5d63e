#!/usr/bin/env bash
# Runs a Windows program in the given test prefix: run.sh PREFIX PROGRAM [ARGS...]
# CTest uses it as the emulator of every cross-built test program.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/env.sh"
prefix=$1
shift
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
exec "$wine" "$@"
