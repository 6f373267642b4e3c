#!/usr/bin/env bash
# Installs the product into a folder of its own, builds the example host against the installed package
# alone, and runs it. Usage: package_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

quietly() {
    "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
}
programs() {
    (cd "$work/prefix/bin" 2>/dev/null && echo *)
}

quietly cmake --install "$build" --prefix "$work/prefix"
if grep -q '^NAV_BUILD_AGENT:BOOL=ON' "$build/CMakeCache.txt"; then
    [[ $(programs) == "nav-agent nav-demo nav-forwarder navctl" ]] || { echo "installed: $(programs)"; exit 1; }
    grep -q "^ExecStart=$work/prefix/bin/nav-agent " "$work/prefix/lib/systemd/system/nav-agent.service"
    # Formatters warn of what they cannot set; the pages are made of the programs' help.
    for page in "$work"/prefix/share/man/man*/*.gz; do
        command -v man >/dev/null || { echo "not checked: man is not installed"; break; }
        LC_ALL=C.UTF-8 man --warnings --local-file -Tutf8 "$page" 2>&1 >/dev/null | tee "$work/warnings"
        [[ ! -s $work/warnings ]] || exit 1
    done
fi

flags=$(sed -n 's/^NAV_SANITIZE:STRING=\(..*\)/-fsanitize=\1/p' "$build/CMakeCache.txt")
type=$(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$build/CMakeCache.txt")
quietly cmake -S "$source/examples/host" -B "$work/host" -G Ninja -DCMAKE_BUILD_TYPE="$type" \
    -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_FLAGS="$flags -Wall -Wextra -Wpedantic -Werror"
quietly cmake --build "$work/host"

libraries=$(dirname "$(find "$work/prefix" -name libVel.so)")
answer=$(printf '%s\n' "wan1 203.0.113.1/24" "wan1 203.0.113.1/33" "wan1 down" "wan1 203.0.113.9/24" |
    LD_LIBRARY_PATH=$libraries "$work/host/host" 2>"$work/log")
echo "$answer"
[[ $answer == *"203.0.113.1 -> 198.51.100.2 is up"*"203.0.113.1 -> 198.51.100.2 is removed"* ]]
[[ $answer == *"'source' : '203.0.113.9', 'destination' : '198.51.100.6', "*"'state' : 'Estab',  'pathName': 'Path4'"* ]]
[[ $(<"$work/log") == 'host: "wan1 203.0.113.1/33": expected INTERFACE ADDRESS/LENGTH or down' ]]

# A program of the other kind of build must not link.
other=-DNDEBUG
[[ $type == Debug ]] || other=-UNDEBUG
echo '#include "platform/vel/Entity.h"
int main() {}' >"$work/other.cpp"
# shellcheck disable=SC2086  # there may be no flags
if g++ -std=c++20 $flags $other -I "$work/prefix/include/libnav" "$work/other.cpp" \
    -L "$libraries" -lVel -o "$work/other" 2>"$work/log"; then
    echo "a program compiled with $other links with a $type build of the libraries"
    exit 1
fi
grep -q 'undefined reference to .*built.*NDEBUG' "$work/log" || { cat "$work/log"; exit 1; }
