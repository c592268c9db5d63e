# Sourced by the Wine scripts: where Wine is and how a test prefix is set up.
#   DORWEX_WINEPREFIX  the prefix (default: build/win/wineprefix under the repository)

dorwex_find_wine() {
    local candidate
    for candidate in "${WINE:-}" /usr/lib/wine/wine64 "$(command -v wine64 2>/dev/null)"; do
        if [ -n "$candidate" ] && [ -x "$candidate" ]; then
            echo "$candidate"
            return 0
        fi
    done
    echo "wine64 not found; install the wine64 package" >&2
    return 1
}

dorwex_find_wineserver() {
    local candidate
    for candidate in "${WINESERVER:-}" /usr/lib/wine/wineserver "$(command -v wineserver 2>/dev/null)"; do
        if [ -n "$candidate" ] && [ -x "$candidate" ]; then
            echo "$candidate"
            return 0
        fi
    done
    echo "wineserver not found; install the wine64 package" >&2
    return 1
}

dorwex_wine_environment() {
    export WINEPREFIX="$1"
    export WINEARCH=win64
    export WINEDEBUG=-all
    # No Mono or Gecko installers in a test prefix.
    export WINEDLLOVERRIDES="mscoree=;mshtml="
    unset DISPLAY WAYLAND_DISPLAY
}
