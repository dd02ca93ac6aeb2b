#!/usr/bin/env bash
# A makefile finds the installed library with pkg-config.
set -euo pipefail
work=$TAVO_WORK/pkg_config
mkdir -p "$work"
PKG_CONFIG_PATH=$(dirname "$(find "$TAVO_PREFIX" -name tavo_ldap.pc)")
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # the flags are words
"$CXX" -fPIC "$(dirname "$0")/consumer/main.cpp" -o "$work/consumer" $(pkg-config --cflags --libs tavo_ldap)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir tavo_ldap) "$work/consumer"
