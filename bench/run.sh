#!/usr/bin/env bash
# run.sh NAME [ARGUMENT...]   installs what is missing, builds what ships into build-bench/, and runs
#   compare, viewer, memory, burst   what it costs, beside other systems (bench/system)
#   reliability [--runs N] [CASE...] what it does over bad links and when others misbehave (bench/reliability)
#   micro                            what the message store and the calendar cost (bench/micro)
# in namespaces of its own. Needs root; figures that are to be told need an idle machine.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/packages.sh

# rsyslog, and syslog-ng, which Debian does not install beside it: unpacked into build/peers.
peers() {
    install_missing rsyslog libcap2 libglib2.0-0 libivykis0 libjson-c5 libnet1 libpcre3 libssl3 libsystemd0 libwrap0
    mkdir -p build/peers
    (cd build/peers && [ -x usr/sbin/syslog-ng ] ||
        { apt-get download syslog-ng-core && dpkg -x syslog-ng-core_*.deb .; } >&2)
}

name=${1-}
case $name in
compare | viewer | memory | burst) command=(/usr/bin/python3 -B "bench/system/$name.py") ;;
micro) command=(build-bench/bench/micro/micro_bench) ;;
reliability) command=(/usr/bin/python3 -B bench/reliability/run.py) ;;
*)
    usage >&2
    exit 1
    ;;
esac
shift

install_missing g++ cmake ninja-build libbenchmark-dev gzip util-linux iproute2 python3 python3-pexpect
case $name in
compare) peers ;;
viewer) install_missing rsyslog ;;
reliability) install_missing rsyslog rsyslog-relp ;;
esac
cmake --preset bench >/dev/null
cmake --build --preset bench >&2
export HVLOGGER=${HVLOGGER-$PWD/build-bench/hvlogger}
if [ "$name" = reliability ]; then # isolates each case by itself
    PYTHONPATH=tests exec "${command[@]}" "$@"
fi
exec tests/support/isolated.sh "${command[@]}" "$@"
