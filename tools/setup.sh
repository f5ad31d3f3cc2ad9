# SPDX-License-Identifier: MIT
# Sourced by the commands of this folder: zel_need PACKAGE... installs the Debian packages that are missing.
ZEL_BUILD_PACKAGES="g++ cmake ninja-build qtbase5-dev libqt5sql5-sqlite"
ZEL_TEST_PACKAGES="libvterm-dev"

zel_need() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "Installing:$missing" >&2
    $sudo apt-get update -qq
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing >/dev/null
}
