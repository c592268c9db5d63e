#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing; packages named as
# arguments (what one tool alone needs, such as gcovr for tools/coverage.sh) join the list.
set -euo pipefail
packages=(cmake make g++ g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64 wine64 googletest clang libclang-rt-14-dev
          wixl msitools osslsigncode openssl wine64-tools libwine-dev "$@")
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
