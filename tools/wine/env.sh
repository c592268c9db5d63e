# Sourced by the Wine scripts: where Wine is and how a test prefix is set up.

# dorwex_find_wine_tool NAME OVERRIDE: the override if set, else Debian's location, else PATH.
dorwex_find_wine_tool() {
    local name=$1 override=$2 candidate
    for candidate in "$override" "/usr/lib/wine/$name" "$(command -v "$name" 2>/dev/null)"; do
        if [ -n "$candidate" ] && [ -x "$candidate" ]; then
            echo "$candidate"
            return 0
        fi
    done
    echo "$name not found; install the wine64 package" >&2
    return 1
}

dorwex_find_wine() { dorwex_find_wine_tool wine64 "${WINE:-}"; }
dorwex_find_wineserver() { dorwex_find_wine_tool wineserver "${WINESERVER:-}"; }

dorwex_wine_environment() {
    export WINEPREFIX="$1"
    export WINEARCH=win64
    export WINEDEBUG=-all
    # No Mono or Gecko installers, and no desktop menu entries written outside the prefix.
    export WINEDLLOVERRIDES="mscoree=;mshtml=;winemenubuilder.exe=d"
    # Wine wants a home directory even when the caller's environment has none.
    if [ -z "${HOME:-}" ]; then
        HOME=$(getent passwd "$(id -u)" | cut -d: -f6)
        export HOME
    fi
    unset DISPLAY WAYLAND_DISPLAY
}

# dorwex_winpath FILE: the Windows path Wine gives a file of this machine (empty when winepath fails).
dorwex_winpath() { "$(dorwex_find_wine)" winepath -w "$1" 2>/dev/null | tr -d '\r'; }

# dorwex_regsvr32 [/u] FILE: registers (or with /u unregisters) a DLL of the build with Wine's regsvr32.
# On failure it says why, on standard error: the Windows path winepath gave (an empty one makes regsvr32
# fail at once), whether the file is there, and regsvr32's exit code; and returns that code.
dorwex_regsvr32() {
    local flags=(/s) wine winpath errors status
    if [ "$1" = /u ]; then
        flags=(/u /s)
        shift
    fi
    wine=$(dorwex_find_wine) || return 1
    errors=$(mktemp)
    winpath=$("$wine" winepath -w "$1" 2>"$errors" | tr -d '\r')
    if [ -z "$winpath" ]; then
        echo "winepath gave no Windows path for $1: $(tr -d '\r' <"$errors" | head -n 5)" >&2
        rm -f "$errors"
        return 1
    fi
    rm -f "$errors"
    status=0
    "$wine" regsvr32 "${flags[@]}" "$winpath" || status=$?
    if [ "$status" -ne 0 ]; then
        echo "regsvr32 ${flags[*]} $winpath returned $status (file $([ -f "$1" ] && echo present || echo missing))" >&2
    fi
    return "$status"
}
