#!/bin/sh
# package_test.sh SOURCE: the Debian packages as others meet them. Makes them of what is in build/ (built
# if it is not), installs them under an empty root, runs the program from there, builds the examples
# with the library from there, and purges.
set -eu
source=$1
work=$(mktemp -d)
root=$work/root
trap 'rm -rf "$work"' EXIT
fail() { echo "package_test.sh: $*" >&2 && exit 1; }
quietly() { "$@" >"$work/log" 2>&1 || fail "$*: $(cat "$work/log")"; }

cd "$source"
quietly sh -c "cmake --preset release && cmake --build --preset release"
for times in first second; do quietly cpack --preset release -B "$work/$times"; done
quietly diff -r --exclude=_CPack_Packages "$work/first" "$work/second"
! command -v lintian >/dev/null ||
    quietly lintian --fail-on error,warning --suppress-tags no-copyright-file "$work"/first/*.deb

echo "Installed"
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info" "$root/var/lib/hvlogger"
touch "$root/var/lib/dpkg/status" "$root/var/lib/hvlogger/logger.txt.gz"
# Dependencies are the machine's; the packages' scripts run outside the root and leave its systemd alone.
in_root="quietly dpkg --root=$root --log=$work/dpkg.log --force-depends --force-script-chrootless --force-bad-path"
$in_root -i "$work"/first/hvlogger_*.deb
quietly ls "$root/usr/lib/sysctl.d/60-hvlogger.conf" "$root/usr/share/man/man1/hvlogger.1.gz"
[ ! -e "$root/usr/include" ] || fail "the library's headers are in the program's package"
cd "$root/usr/share/doc/hvlogger/docs"
! grep -nE '(bench|build|packaging|scripts|tests)/' ./*.md || fail "documents name what is not in the package"
for link in $(sed -n 's/.*](\([^)]*\)).*/\1/p' ./*.md); do
    [ -e "$link" ] || fail "documents link to $link, which is not in the package"
done
if command -v systemd-analyze >/dev/null; then
    unit=$work/hvlogger.service # with the program at its place
    sed -e "s|^ExecStart=hvlogger|ExecStart=$root/usr/bin/hvlogger|" -e /^Documentation/d \
        "$root/usr/lib/systemd/system/hvlogger.service" >"$unit"
    quietly systemd-analyze security --offline=true --threshold=20 --no-pager "$unit"
    quietly systemd-analyze verify "$unit"
    [ ! -s "$work/log" ] || fail "$(cat "$work/log")"
fi

echo "Examples, with find_package and with pkg-config"
$in_root -i "$work"/first/libhvlogger-dev_*.deb
cd "$work"
cat >CMakeLists.txt <<EOF
cmake_minimum_required(VERSION 3.13)
project(examples LANGUAGES CXX)
find_package(hvlogger 1.0 REQUIRED)
foreach(example producer device)
  add_executable(\${example} $source/examples/\${example}.cpp)
  target_link_libraries(\${example} PRIVATE hvlogger::mediator hvlogger::selector hvlogger::logger)
endforeach()
EOF
quietly sh -c "cmake -B cmake -D CMAKE_PREFIX_PATH=$root/usr && cmake --build cmake"
find "$root/usr/include/hvlogger" -name '*.h' -printf '#include "%f"\n' >headers.cpp
PKG_CONFIG_PATH=$root/usr/lib/$(g++ -print-multiarch)/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # the flags are words
quietly g++ -std=c++20 $(pkg-config --cflags hvlogger) headers.cpp "$source/examples/producer.cpp" \
    $(pkg-config --libs hvlogger) -o producer

echo "Running"
HVLOGGER=$root/usr/bin/hvlogger PYTHONPATH=$source/tests /usr/bin/python3 -B - <<'EOF'
import socket
import subprocess
from support.harness import Server, Viewer, await_true, sockets

with Server(), Viewer() as viewer:
    viewer.expect(Viewer.GREETING)
    for producer in "cmake/producer", "./producer":
        process = subprocess.Popen([producer, "sip"])
        for severity in range(8):
            viewer.read_until(f" sip {process.pid}-{severity}: ".encode())
    device = subprocess.Popen(["cmake/device", "127.0.0.1:50001"])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as neighbour:
        await_true(lambda: any(row[1] == 50001 for row in sockets("udp")), "a device that listens")
        neighbour.sendto(b"up", ("127.0.0.1", 50001))
    viewer.read_until(f" router {device.pid}-6: Neighbour 127.0.0.1\r\n".encode())
    viewer.read_until(f" router {device.pid}-4: Neighbour silent\r\n".encode())
    device.kill()
    assert viewer.quit() == 0
EOF

echo "Purged"
$in_root --purge hvlogger
[ ! -e "$root/var/lib/hvlogger" ] || fail "the dumps are still there"
