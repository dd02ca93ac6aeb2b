#!/usr/bin/env bash
# A project finds the installed library with CMake.
set -euo pipefail
work=$TAVO_WORK/find_package
rm -rf "$work"
cmake -S "$(dirname "$0")/consumer" -B "$work" -G Ninja -DCMAKE_PREFIX_PATH="$TAVO_PREFIX"
cmake --build "$work"
"$work/consumer"
