#!/usr/bin/env bash
# Everything from a fresh Debian machine: packages, both builds, then one CTest run that covers the
# native (sanitized) tests and the Wine tests and ends with CTest's summary.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"
"$root/tools/build.sh"
ctest --test-dir "$root/build/win" --output-on-failure -j2
