#!/bin/sh
# package_test.sh SOURCE BUILD: what was built in BUILD as others meet it. Makes the Debian packages,
# unpacks them under an empty root, looks at what is where, and runs the program from there. Then
# installs under a prefix, moves it, and builds the example of SOURCE against it from outside both,
# once with CMake and once with pkg-config (and all headers); each logs to port 50000. The build's own
# compiler flags, such as sanitizers, come in CXXFLAGS.
set -eu

source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "package_test.sh: $*" >&2
    exit 1
}

echo "Packages"
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" >"$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    exit 1
}
program=$(echo "$work"/packages/hvlogger_*.deb)
library=$(echo "$work"/packages/libhvlogger-dev_*.deb)
root=$work/root
install_into_root() {
    mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info"
    touch "$root/var/lib/dpkg/status"
    # Dependencies are the machine's; the packages' scripts run outside the root and find no systemd.
    dpkg --root="$root" --log="$work/dpkg.log" --force-depends --force-script-chrootless \
        --force-not-root --force-bad-path -i "$@" >"$work/install.log" 2>&1 || fail "$(cat "$work/install.log")"
}
install_into_root "$program"
for path in bin/hvlogger share/man/man1/hvlogger.1.gz lib/systemd/system/hvlogger.service \
    share/doc/hvlogger/60-hvlogger.conf share/doc/hvlogger/docs/security.md \
    share/doc/hvlogger/examples/fleet/device.conf; do
    [ -f "$root/usr/$path" ] || fail "$program has no $path"
done
[ ! -e "$root/usr/include" ] || fail "$program has headers"
! readelf -S "$root/usr/bin/hvlogger" | grep -q '\.symtab' || fail "the program is not stripped"
for dependency in libc6 libstdc++6 gzip; do
    dpkg-deb -f "$program" Depends | grep -qwF "$dependency" || fail "$program does not depend on $dependency"
done
dpkg-deb -x "$library" "$work/development"
for path in include/hvlogger/QELselector.h libqellogger.a pkgconfig/hvlogger.pc cmake/hvlogger/hvloggerConfig.cmake; do
    find "$work/development/usr" -path "*/$path" | grep -q . || fail "$library has no $path"
done
[ ! -e "$work/development/usr/bin" ] || fail "$library has the program"
install_into_root "$library"
for script in postinst prerm; do
    [ -x "$root/var/lib/dpkg/info/hvlogger.$script" ] || fail "$program has no $script"
done

echo "The program runs from there"
cat >"$work/run.py" <<'PYTHON'
import sys
from support.harness import Server, Viewer, message, send_datagrams, shown

with Server(), Viewer() as viewer:
    viewer.expect(Viewer.GREETING)
    send_datagrams(message("packed"))
    viewer.expect(shown("packed"))
    viewer.keys(b"q")
    assert viewer.wait() == 0
PYTHON
HVLOGGER=$root/usr/bin/hvlogger python3 -B "$work/run.py"

if command -v systemd-analyze >/dev/null; then
    echo "Unit"
    # With the program at its place; the manual page is looked at below.
    unit=$work/hvlogger.service
    sed -e "s|^ExecStart=hvlogger|ExecStart=$root/usr/bin/hvlogger|" -e /^Documentation/d \
        "$root/usr/lib/systemd/system/hvlogger.service" >"$unit"
    grep -q "^ExecStart=$root" "$unit"
    complaints=$(systemd-analyze verify "$unit" 2>&1) || fail "$complaints"
    [ -z "$complaints" ] || fail "$complaints"
    systemd-analyze security --offline=true --threshold=20 --no-pager "$unit" >"$work/security" || fail "$(cat "$work/security")"
fi
if command -v man >/dev/null; then
    echo "Manual page"
    complaints=$(LC_ALL=C.UTF-8 man --warnings -l "$root/usr/share/man/man1/hvlogger.1.gz" 2>&1 >"$work/page")
    [ -z "$complaints" ] || fail "$complaints"
    grep -q "EXIT STATUS" "$work/page"
fi

echo "With find_package"
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
# Nothing in the package may remember where it was installed.
mv "$work/first" "$work/prefix"
mkdir "$work/project"
cp "$source/examples/producer.cpp" "$work/project"
cd "$work/project"

cat >CMakeLists.txt <<'EOF'
cmake_minimum_required(VERSION 3.13)
project(device LANGUAGES CXX)
find_package(hvlogger 1.0 REQUIRED)
foreach(part mediator selector socket time logger)
  if(NOT TARGET hvlogger::${part})
    message(FATAL_ERROR "hvlogger::${part} is missing")
  endif()
endforeach()
add_executable(producer producer.cpp)
target_link_libraries(producer PRIVATE hvlogger::logger)
EOF
cmake -B cmake -G Ninja -D CMAKE_PREFIX_PATH="$work/prefix" >"$work/cmake.log"
cmake --build cmake >>"$work/cmake.log"

echo "With pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name hvlogger.pc)")
export PKG_CONFIG_PATH
for header in "$work"/prefix/include/hvlogger/*.h; do
    echo "#include \"$(basename "$header")\""
done >headers.cpp
# shellcheck disable=SC2046,SC2086 # the flags are words
"${CXX:-g++}" -std=c++20 ${CXXFLAGS-} $(pkg-config --cflags hvlogger) headers.cpp producer.cpp \
    $(pkg-config --libs hvlogger) -o producer

cat >"$work/receive.py" <<'EOF'
import re, socket, subprocess, sys

with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as collector:
    collector.bind(("127.0.0.1", 50000))
    collector.settimeout(60)
    with subprocess.Popen([sys.argv[1], "sip", "2", "1"]) as producer:
        for n in range(16):
            line = collector.recv(5000).decode()
            shape = rf"<{8 + n % 8}>1 [0-9T:.-]+Z {re.escape(socket.gethostname())} sip {producer.pid} - .+"
            assert re.fullmatch(shape, line), line
    assert producer.returncode == 0, producer.returncode

for arguments in [], [""], ["two words"], ["sip", "x"], ["sip", "1", "-1"], ["sip", "1", "1", "1"]:
    bad = subprocess.run([sys.argv[1], *arguments], capture_output=True, text=True)
    assert bad.returncode != 0 and bad.stderr.count("\n") == 1, (arguments, bad)
EOF
for producer in cmake/producer ./producer; do
    echo "$producer logs"
    python3 -B "$work/receive.py" "$producer"
done
