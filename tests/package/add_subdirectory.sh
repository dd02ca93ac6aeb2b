#!/usr/bin/env bash
# A project takes the library in as a part of itself.
set -euo pipefail
work=$TAVO_WORK/add_subdirectory
rm -rf "$work"
# With the flags of the dev preset, so that the compiler cache has it all already where there is one.
cmake -S "$(dirname "$0")/consumer" -B "$work" -G Ninja -DTAVO_SOURCE="$TAVO_SOURCE" -DTAVO_WERROR=ON \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1"
cmake --build "$work"
"$work/consumer"
# What only this project's own developers need is not forced upon others.
for target in tavo_ldap_tool fetch_users tavo_test_support; do
    if ninja -C "$work" -t targets all | grep -q "$target"; then
        echo "$target is built for a project that only takes the library in" >&2
        exit 1
    fi
done
