#!/usr/bin/env bash
# Line and branch coverage of the provider's code (wmi/, monitor/, device/, channels/, common/) by the tests:
# builds build/coverage (the Windows build) and build/coverage-native (the Windows-free logic with the
# host compiler) with gcov instrumentation, runs every Wine test once, one at a time (each process adds its
# counts to the same .gcda files when it ends), and the native tests, and prints a table per folder, then
#   coverage: lines N% branches M%
# for all of them together. Branches that only an exception can take, and those the compiler proved
# unreachable, are left out: they are the runtime's, not the code's decisions.
#   tools/coverage.sh            build, run, report
#   tools/coverage.sh --report   report the counts of the last run again
#   tools/coverage.sh --files    also list each file with what it leaves uncovered
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build/coverage"
native="$root/build/coverage-native"
jobs=${DORWEX_JOBS:-2}
run=1
files=0
for argument in "$@"; do
    case "$argument" in
    --report) run=0 ;;
    --files) files=1 ;;
    *) echo "usage: tools/coverage.sh [--report] [--files]" >&2; exit 2 ;;
    esac
done

"$root/tools/install-deps.sh" gcovr
status=0
if [ "$run" -eq 1 ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DDORWEX_COVERAGE=ON \
        -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" >/dev/null
    cmake --build "$build" -j"$jobs"
    cmake -S "$root" -B "$native" -DCMAKE_BUILD_TYPE=Debug -DDORWEX_SANITIZE=OFF \
        -DCMAKE_CXX_FLAGS="--coverage -O0 -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
    cmake --build "$native" -j"$jobs" --target native_tests
    find "$build" "$native" -name '*.gcda' -delete
    "$native/bin/native_tests" --gtest_brief=1 || status=$?
    # The export check reads the DLL's imports, which the instrumentation changes; it is no test of the code.
    ctest --test-dir "$build" -E 'dll\.exports' --output-on-failure || status=$?
fi

folders=(wmi monitor device channels common)
filters=()
for folder in "${folders[@]}"; do
    filters+=(--filter "$root/$folder/")
done
# Both compilers are GCC 12: one gcov reads the counts of both builds, and gcovr adds them up per file.
gcovr --root "$root" --gcov-executable x86_64-w64-mingw32-gcov \
    "${filters[@]}" --exclude-throw-branches --exclude-unreachable-branches \
    --json-summary "$build/coverage-summary.json" "$build" "$native" >/dev/null 2>"$build/gcovr.log" || {
    echo "gcovr failed: $(tail -n 5 "$build/gcovr.log")" >&2
    exit 1
}
python3 - "$build/coverage-summary.json" "$files" "${folders[@]}" <<'PY'
import json, sys
summary = json.load(open(sys.argv[1]))
show_files = sys.argv[2] == "1"
folders = sys.argv[3:]
totals = {f: [0, 0, 0, 0] for f in folders}
for entry in summary["files"]:
    folder = entry["filename"].split("/")[0]
    if folder not in totals:
        continue
    t = totals[folder]
    t[0] += entry["line_covered"]; t[1] += entry["line_total"]
    t[2] += entry["branch_covered"]; t[3] += entry["branch_total"]
def percent(covered, total):
    return 100.0 * covered / total if total else 100.0
print(f"{'folder':<10} {'lines':>17} {'branches':>17}")
all_ = [0, 0, 0, 0]
for folder in folders:
    t = totals[folder]
    all_ = [a + b for a, b in zip(all_, t)]
    print(f"{folder + '/':<10} {t[0]:>6}/{t[1]:<6} {percent(t[0], t[1]):5.1f}% {t[2]:>6}/{t[3]:<6} {percent(t[2], t[3]):5.1f}%")
if show_files:
    print()
    for entry in sorted(summary["files"], key=lambda e: e["filename"]):
        missed_lines = entry["line_total"] - entry["line_covered"]
        missed_branches = entry["branch_total"] - entry["branch_covered"]
        print(f"{entry['filename']:<45} lines {percent(entry['line_covered'], entry['line_total']):5.1f}% "
              f"({missed_lines} left) branches {percent(entry['branch_covered'], entry['branch_total']):5.1f}% "
              f"({missed_branches} left)")
print(f"coverage: lines {percent(all_[0], all_[1]):.0f}% branches {percent(all_[2], all_[3]):.0f}%")
PY
exit "$status"
