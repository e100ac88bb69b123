# SPDX-License-Identifier: MIT
# Helpers of ./run, ./test and bench/run. Sourced, never run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin="$root/build/bin"

# What it takes to build everything, and the clients by which it is tried.
build_packages=(g++ g++-multilib cmake ninja-build mingw-w64-common g++-mingw-w64-i686 libgtest-dev
                libcli11-dev libfmt-dev libnbd-dev libtomlplusplus-dev libspdlog-dev nlohmann-json3-dev python3)
client_packages=(libnbd-bin nbdkit qemu-utils qemu-system-common fio e2fsprogs)
# For the manuals and the Windows media of the packages, and the tests of those.
package_packages=(scdoc mtools xorriso dpkg-dev file)
# The clients, and a linker that is three times as fast: some seventy test programs, twice.
test_packages=("${client_packages[@]}" lld)
long_packages=(tshark debootstrap chromium "${package_packages[@]}")
fuzz_packages=(clang libclang-rt-dev)

# One line per argument.
say() { printf '%s\n' "$@"; }

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# A wrong command line: one line, status 2.
usage_error() {
    printf '%s: %s (see --help)\n' "$(basename "$0")" "$*" >&2
    exit 2
}

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        command -v sudo >/dev/null || fail "must install packages: run as root, or install sudo"
        sudo "$@"
    fi
}

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# Installs those of the named Debian packages that are missing; fetches nothing when none is.
need_packages() {
    if ! command -v dpkg-query >/dev/null; then
        say "no Debian system: what these packages hold must be there already: $*"
        return
    fi
    local installed missing=() package log
    installed=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
    for package in "$@"; do
        grep -qx "$package installed" <<<"$installed" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    say "installing ${missing[*]}"
    mkdir -p "$root/build"
    log="$root/build/packages.log"
    # The package lists of a long-lived machine may be stale, those of a fresh one absent.
    if ! apt_install "${missing[@]}" >"$log" 2>&1; then
        if ! { as_root apt-get update && apt_install "${missing[@]}"; } >>"$log" 2>&1; then
            tail -n 20 "$log" >&2
            fail "could not install ${missing[*]}"
        fi
    fi
}

# Builds the programs, the tests and qrndisk.sys.
build_all() { build_preset host; }

# build_preset NAME [TARGET...]: all that the preset builds, or these targets. The compiler's output shows on a
# failure or with a terminal to show progress on.
build_preset() {
    cd "$root"
    mkdir -p build
    local preset=$1 log="$root/build/build.log" what=()
    shift
    [ $# = 0 ] || what=(--target "$@")
    say "building"
    if ! cmake --preset "$preset" >"$log" 2>&1; then
        cat "$log" >&2
        fail "cmake failed"
    fi
    if [ -t 1 ]; then
        cmake --build "build/$preset" -j2 "${what[@]}"
    elif ! cmake --build "build/$preset" -j2 "${what[@]}" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        fail "the build failed (all of it: build/build.log)"
    fi
}

# wait_for_ready FILE PID SECONDS: until FILE has a line starting "ready", or PID has ended.
wait_for_ready() {
    local file=$1 pid=$2 deadline=$((SECONDS + $3))
    until grep -q '^ready' "$file" 2>/dev/null; do
        kill -0 "$pid" 2>/dev/null || return 1
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.05
    done
}

# stop PID SIGNAL SECONDS: asks it to end, then insists.
stop() {
    local pid=$1 deadline=$((SECONDS + $3))
    kill -"$2" "$pid" 2>/dev/null || return 0
    while kill -0 "$pid" 2>/dev/null; do
        if [ $SECONDS -ge $deadline ]; then
            kill -KILL "$pid" 2>/dev/null || true
            break
        fi
        sleep 0.05
    done
    wait "$pid" 2>/dev/null || return $?
}
