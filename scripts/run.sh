#!/usr/bin/env bash
# run.sh              show hvlogger at work on this machine: server, senders, viewer
# run.sh server [ip]  run the log collector
# run.sh client [ip]  run the viewer
# Installs what is missing and builds a release into build/ first.
set -euo pipefail
here=$(pwd)
cd "$(dirname "$0")/.."
top=$(pwd)

case "$#:${1-}" in
0: | [1-9]:server | [1-9]:client) ;;
*)
    echo "Usage: $0 [server [ip] | client [ip]]" >&2
    exit 2
    ;;
esac

. scripts/packages.sh
install_missing g++ cmake ninja-build gzip
cmake --preset release >build.log 2>&1 && cmake --build --preset release >>build.log 2>&1 || {
    cat build.log >&2
    exit 1
}
rm -f build.log

cd "$here"
if [ $# -gt 0 ]; then
    exec "$top/build/hvlogger" "$@"
fi

work=$(mktemp -d)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT

"$top/build/hvlogger" server 127.0.0.1 >"$work/server.log" 2>&1 &
server=$!
pids+=("$server")
# Ready when the socket that listens on port 50000 (C350) is the server's own.
ready() {
    local inode
    inode=$(awk '$2 == "0100007F:C350" && $4 == "0A" { print $10 }' /proc/net/tcp)
    [ -n "$inode" ] && readlink "/proc/$server/fd/"* 2>/dev/null | grep -qF "[$inode]"
}
until ready; do
    if ! kill -0 "$server" 2>/dev/null; then
        cat "$work/server.log" >&2
        exit 1
    fi
    sleep 0.05
done

# Five programs log at their own pace, each with all severities.
for program in prothandler:700 sip:300 nmos:1100 router:500 sap:1900; do
    "$top/build/producer" "${program%:*}" 100000 "${program#*:}" &
    pids+=($!)
done

if [ -t 0 ]; then
    echo "A server collects on port 50000, five programs log to it, this is the viewer: ? for help, q to quit."
    "$top/build/hvlogger" client
else
    echo "A server collects on port 50000, five programs log to it, this is what a viewer shows for 4 seconds:"
    { sleep 4; printf q; } | "$top/build/hvlogger" client
fi
