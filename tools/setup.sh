# SPDX-License-Identifier: MIT
# Sourced by the commands of this folder, which run in the top directory.
ZEL_BUILD_PACKAGES="g++ cmake ninja-build pkg-config qtbase5-dev libqt5sql5-sqlite libutf8proc-dev"
ZEL_TEST_PACKAGES="libvterm-dev python3"
ZEL_AARCH64_PACKAGES="g++-aarch64-linux-gnu qemu-user-static qtbase5-dev:arm64 libqt5sql5-sqlite:arm64 libutf8proc-dev:arm64 libvterm-dev:arm64"

# zel_root COMMAND...: as root, through sudo where that is not who we are.
zel_root() {
    if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# zel_need PACKAGE...: installs the Debian packages that are missing.
zel_need() {
    missing=
    for package in "$@"; do
        dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    echo "Installing:$missing" >&2
    zel_root apt-get update -qq
    # shellcheck disable=SC2086
    zel_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
}

# zel_build PRESET [TARGET...]: configures and builds; quiet unless it fails.
zel_build() {
    preset=$1
    shift
    echo "Building ($preset)" >&2
    mkdir -p build
    log=build/$preset.log
    cmake --preset "$preset" >"$log" 2>&1 || { cat "$log" >&2; return 1; }
    cmake --build --preset "$preset" ${1:+--target "$@"} >"$log" 2>&1 || { cat "$log" >&2; return 1; }
}

# zel_build_shown PRESET TARGET...: the same with one line of progress on a terminal. Configures the first time only:
# afterwards the build does it by itself when it has to.
zel_build_shown() {
    [ -t 2 ] && [ "${TERM:-dumb}" != dumb ] && [ -t 1 ] || { zel_build "$@"; return; }
    preset=$1
    shift
    mkdir -p build
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >"build/$preset.log" 2>&1 ||
        { cat "build/$preset.log" >&2; return 1; }
    NINJA_STATUS='[%f/%t] %es ' cmake --build --preset "$preset" --target "$@"
}
