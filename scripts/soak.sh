#!/usr/bin/env bash
# soak.sh [SECONDS]   the server under mixed traffic, bad datagrams, viewers of every habit and dumps,
#                     for 180 seconds; status 0 if nothing is lost, memory is flat and no descriptor
#                     is left over
# Takes the executable from HVLOGGER, else builds a release into build/ first.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
install_missing g++ cmake ninja-build gzip util-linux iproute2 python3 python3-pexpect
if [ -z "${HVLOGGER-}" ]; then
    quietly cmake --preset release
    quietly cmake --build --preset release
    export HVLOGGER=$PWD/build/hvlogger
fi
exec tests/support/isolated.sh /usr/bin/python3 -B bench/reliability/soak.py "$@"
