#!/usr/bin/env bash
# The library exports exactly what exported_symbols.txt says. Given `--update`, writes that file instead: do so when
# the interface was meant to change, and read the difference before committing it.
set -euo pipefail
list=$(dirname "$0")/exported_symbols.txt
exported() {
    nm -DC --defined-only "$(find "$TAVO_PREFIX" -name libtavo_ldap.so)" | cut -d ' ' -f 3- | LC_ALL=C sort -u
}
if [ "${1:-}" = --update ]; then
    exported >"$list"
elif ! diff -u --label intended --label exported "$list" <(exported); then
    echo "If this is meant: TAVO_PREFIX=$TAVO_PREFIX $0 --update" >&2
    exit 1
fi
