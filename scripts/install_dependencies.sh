#!/usr/bin/env bash
# Installs the packages of scripts/packages.txt that are missing (Debian 12),
# or those of the list file given as the first argument. Sourced by
# run_demo.sh and run_tests.sh; can also be run by itself.
set -u

mvdab_install_dependencies() {
    local list="${1:-$(dirname "${BASH_SOURCE[0]}")/packages.txt}"
    local missing=()
    local package
    while read -r package; do
        package="${package%%#*}"
        package="${package//[[:space:]]/}"
        [ -z "$package" ] && continue
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$package")
        fi
    done < "$list"
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}"
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo > /dev/null; then
            echo "Not root and no sudo: please install ${missing[*]}" >&2
            return 1
        fi
        sudo=(sudo)
    fi
    "${sudo[@]}" apt-get update -qq &&
        DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
    mvdab_install_dependencies "$@"
fi
