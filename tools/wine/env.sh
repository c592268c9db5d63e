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
