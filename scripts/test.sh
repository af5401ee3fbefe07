#!/usr/bin/env bash
# Installs what is missing, builds with warnings as errors, checks format and clang-tidy, and runs
# all tests: under the sanitizers first, for 32-bit ARM where its tools are installed (HVLOGGER_ARM=1
# installs them), then as shipped, after a go at what the documents have people do. Ends with CTest's
# summary.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/packages.sh
install_missing g++ cmake ninja-build gzip bsdutils util-linux iproute2 pkg-config \
    libgtest-dev libgmock-dev clang-format clang-tidy python3 python3-pytest python3-pexpect \
    dpkg-dev file systemd man-db rsyslog rsyslog-relp nftables openssh-client
[ "${HVLOGGER_ARM-}" != 1 ] || install_missing g++-arm-linux-gnueabihf qemu-user googletest

step() { printf '\n=== %s\n' "$*"; }
sources() { git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp'; }

step "Format"
sources | xargs clang-format --dry-run --Werror

step "Build, warnings are errors"
cmake --preset test
cmake --build --preset test

step "clang-tidy"
sources | grep '\.cpp$' | grep -vE '^(bench|tests/fuzz)/' |
    xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p build-test

step "Address and undefined-behaviour sanitizers"
cmake --preset asan
cmake --build --preset asan
ctest --test-dir build-asan --output-on-failure -j "$(nproc)"

step "Thread sanitizer"
cmake --preset tsan
cmake --build --preset tsan --target server_test # the one that has threads
ctest --test-dir build-tsan --output-on-failure -j "$(nproc)" -L threads --no-tests=error

step "32-bit ARM, emulated"
if type arm-linux-gnueabihf-g++ qemu-arm >/dev/null 2>&1 && [ -d /usr/src/googletest ]; then
    cmake --preset test -B build-armhf-test --toolchain cmake/arm-linux-gnueabihf.cmake
    cmake --build build-armhf-test
    # qemu-user takes MADV_WIPEONFORK and does nothing.
    ctest --test-dir build-armhf-test --output-on-failure -j "$(nproc)" -L unit --no-tests=error \
        -E AForkedProcessLogsUnderItsOwnId
else
    echo "Skipped: HVLOGGER_ARM=1 $0 installs what it needs."
fi

step "What ships: packages, the show, a short soak, a burst"
scripts/run.sh </dev/null
cpack --preset release
cmake --preset static
cmake --build --preset static
cpack --preset static
export HVLOGGER=$PWD/build/hvlogger
scripts/soak.sh 40
if [ -w /proc/sys/net/core/rmem_default ]; then
    bench/system/burst.py 6000
else
    echo "Skipped: bench/system/burst.py sets net.core.rmem_default, as root."
fi

step "As shipped"
ctest --test-dir build-test --output-on-failure -j "$(nproc)"
