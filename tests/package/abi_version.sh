#!/usr/bin/env bash
# While the major version is 0, a new minor one breaks programs: both the loader and CMake must then keep such a program
# from the wrong library.
set -euo pipefail
minor=$(sed -nE 's/^project\(tavo_ldap VERSION (0\.[0-9]+)\..*/\1/p' "$TAVO_SOURCE/CMakeLists.txt")
library=$(find "$TAVO_PREFIX" -name libtavo_ldap.so)
if ! readelf -d "$library" | grep -qF "Library soname: [libtavo_ldap.so.$minor]"; then
    echo "the soname of $library doesn't end in $minor:" >&2
    readelf -d "$library" | grep soname >&2
    exit 1
fi
work=$TAVO_WORK/abi_version
for version in 0.0 "0.$((${minor#0.} + 1))"; do
    rm -rf "$work"
    mkdir -p "$work"
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(p LANGUAGES CXX)\nfind_package(tavo_ldap %s REQUIRED)\n' \
        "$version" >"$work/CMakeLists.txt"
    if cmake -S "$work" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$TAVO_PREFIX" >"$work/log" 2>&1; then
        echo "a program written for version $version takes this library" >&2
        exit 1
    fi
    grep -q "version: $minor" "$work/log"
done
