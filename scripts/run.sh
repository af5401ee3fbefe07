#!/usr/bin/env bash
# run.sh              show hvlogger at work on this machine: server, senders, viewer
# run.sh server [ip]  run the log collector
# run.sh client [ip]  run the viewer
# Installs what is missing and builds a release into build/ first: about a minute the first time.
set -euo pipefail
here=$(pwd)
cd "$(dirname "$0")/.."
. scripts/packages.sh
case "$#:${1-}" in
0: | [1-9]:server | [1-9]:client) ;;
*)
    usage >&2
    exit 2
    ;;
esac

# However this ends, nothing that it started is left. What may have children of its own runs under
# setsid: then the number names the whole group.
finish() {
    trap '' INT TERM HUP
    for pid in $(jobs -p); do
        kill -- "-$pid" 2>/dev/null || kill "$pid" 2>/dev/null || true
    done
    wait
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

install_missing g++ cmake ninja-build gzip
echo "Building ..." >&2
mkdir -p build
setsid sh -c 'cmake --preset release && cmake --build --preset release' >build/build.log 2>&1 &
wait $! || {
    cat build/build.log >&2
    exit 1
}

hvlogger=$PWD/build/hvlogger producer=$PWD/build/producer log=$PWD/build/server.log
cd "$here"
if [ $# -gt 0 ]; then
    trap - EXIT INT TERM HUP
    exec "$hvlogger" "$@"
fi

# wait_for PID CONDITION: looks every few milliseconds; fails when the process ends before.
wait_for() {
    until $2; do
        kill -0 "$1" 2>/dev/null || return 1
        sleep 0.02
    done
}

"$hvlogger" server 127.0.0.1 >"$log" 2>&1 &
server=$!
# Port 50000 is C350. The socket that listens is the server's own.
listening() {
    local inode
    inode=$(awk '$2 == "0100007F:C350" && $4 == "0A" { print $10 }' /proc/net/tcp)
    [ -n "$inode" ] && readlink "/proc/$server/fd/"* 2>/dev/null | grep -qF "[$inode]"
}
wait_for "$server" listening || {
    cat "$log" >&2
    exit 1
}

# Five programs log, each with all severities: one round before the viewer comes, and more at their own
# pace once it has shown that. In between nobody logs, else a line could come to it twice: in its
# listing and as a new one.
senders=()
for program in prothandler sip nmos router sap; do
    "$producer" "$program" &
    senders+=($!)
done
wait "${senders[@]}"
all_taken() { awk '$2 ~ /:C350$/ && $5 !~ /:00000000$/ { exit 1 }' /proc/net/udp; }
wait_for "$server" all_taken

if [ -t 0 ]; then
    echo "A server collects on port 50000, five programs log to it, this is the viewer: ? for help, q to quit."
    "$hvlogger" client <&0 &
else
    echo "A server collects on port 50000, five programs log to it, this is what a viewer shows for 4 seconds:"
    setsid sh -c '{ sleep 4; printf q; } | "$0" client' "$hvlogger" &
fi
viewer=$!
sleep 1
for program in prothandler:700 sip:300 nmos:1100 router:500 sap:1900; do
    "$producer" "${program%:*}" 100000 "${program#*:}" &
done
wait "$viewer"
