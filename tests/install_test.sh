#!/bin/sh
# install_test.sh SOURCE BUILD: installs what was built in BUILD under an empty prefix, builds the
# example of SOURCE against it from outside both, once with CMake and once with pkg-config (and all
# headers), and has each log to port 50000. The build's own compiler flags, such as sanitizers, come in CXXFLAGS.
set -eu

source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >"$work/install.log"
# Nothing in the package may remember where it was installed.
mv "$work/first" "$work/prefix"
mkdir "$work/project"
cp "$source/examples/producer.cpp" "$work/project"
cd "$work/project"

echo "With find_package"
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
