#!/usr/bin/env bash
# The tree installs under any prefix, and the installed tool runs from there.
set -euo pipefail
rm -rf "$TAVO_PREFIX"
cmake --install "$TAVO_BUILD" --prefix "$TAVO_PREFIX"
"$TAVO_PREFIX/bin/tavo-ldap" --version
