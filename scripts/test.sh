#!/usr/bin/env bash
# test.sh   check everything: format, warnings, clang-tidy, and all tests, first with the sanitizers,
#           last with what ships
# Installs what is missing first. Takes about eight minutes from nothing on two cores, half of that when
# little has changed. HVLOGGER_ARM=1 also runs the unit tests on emulated 32-bit ARM. Ends with CTest's
# summary of the tests of what ships.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
if [ $# -gt 0 ]; then
    usage >&2
    exit 2
fi

install_missing g++ cmake ninja-build ccache gzip bsdutils util-linux iproute2 pkg-config \
    libgtest-dev libgmock-dev clang-format clang-tidy python3 python3-pytest python3-pexpect \
    file lintian systemd rsyslog rsyslog-relp nftables openssh-client
[ "${HVLOGGER_ARM-}" != 1 ] || install_missing g++-arm-linux-gnueabihf qemu-user googletest

# Folders that are built with the same flags share their objects.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
jobs=$(nproc)

step() { printf '\n=== %s\n' "$*"; }
build() { # PRESET [TARGET] [OPTION FOR CMAKE]...
    quietly cmake --preset "$1" -D CMAKE_CXX_COMPILER_LAUNCHER=ccache "${@:3}"
    cmake --build --preset "$1" --target "${2-all}"
}

step "Format"
find app bench console examples lib server store tests vocabulary -name '*.h' -o -name '*.cpp' |
    xargs clang-format --dry-run --Werror

step "Build with the address and undefined-behaviour sanitizers and clang-tidy, warnings are errors"
# clang-tidy looks at each file that the compiler is called for: later at what has changed only. Of the
# tests it looks at all if CI is set, on a desk at those that differ from the last commit.
tidy=(clang-tidy --quiet --extra-arg=-Wno-unknown-warning-option)
build asan all -D "CMAKE_CXX_CLANG_TIDY=$(IFS=';' && echo "${tidy[*]}")"
changed=$(git diff --name-only --diff-filter=d HEAD -- 'tests/*.cpp' 2>/dev/null) || changed=
xargs -r "${tidy[@]}" -p build-asan 2>/dev/null <<<"$changed"

step "Tests with these sanitizers"
ctest --preset asan -j "$jobs"

step "Tests that have threads, with the thread sanitizer"
build tsan server_test
ctest --preset tsan -j "$jobs"

step "32-bit ARM, emulated"
if type arm-linux-gnueabihf-g++ qemu-arm >/dev/null 2>&1 && [ -d /usr/src/googletest ]; then
    build armhf-test
    ctest --preset armhf-test -j "$jobs"
else
    echo "Skipped: HVLOGGER_ARM=1 $0 installs what it needs."
fi

step "What ships: the show, in one static file"
build release all -D CMAKE_COMPILE_WARNING_AS_ERROR=ON
scripts/run.sh </dev/null
build static hvlogger

step "Tests of what ships: end to end, the packages, a soak"
# These wait more than they work.
ctest --preset shipped -j $((2 * jobs))
