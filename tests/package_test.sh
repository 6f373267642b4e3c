#!/usr/bin/env bash
# Installs the libraries into a folder of its own, builds the example host against the installed
# package alone, and runs it. Usage: package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/log" || { cat "$work/log"; exit 1; }
flags=$(sed -n 's/^NAV_SANITIZE:STRING=\(..*\)/-fsanitize=\1/p' "$build/CMakeCache.txt")
cmake -S "$source/examples/host" -B "$work/host" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_CXX_FLAGS="$flags -Wall -Wextra -Wpedantic -Werror" >"$work/log" &&
    cmake --build "$work/host" >>"$work/log" || { cat "$work/log"; exit 1; }

answer=$(LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu" "$work/host/host")
echo "$answer"
[[ $answer == *"'destination' : '198.51.100.2'"*"'state' : 'Route Pending'"*"'Path2'"* ]]
