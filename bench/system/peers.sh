#!/usr/bin/env bash
# peers.sh: makes the systems that bench/system/compare.py compares with available: rsyslog installed, and
# syslog-ng, which Debian does not install beside it, unpacked into build/peers. Neither is started.
set -euo pipefail
cd "$(dirname "$0")/../.."

. scripts/packages.sh
install_missing rsyslog libcap2 libglib2.0-0 libivykis0 libjson-c5 libnet1 libpcre3 libssl3 \
    libsystemd0 libwrap0
mkdir -p build/peers
cd build/peers
[ -x usr/sbin/syslog-ng ] || { apt-get download syslog-ng-core && dpkg -x syslog-ng-core_*.deb .; }
