#!/usr/bin/env bash
# Every installed header compiles on its own, and none brings the libraries beneath into the user's program.
set -euo pipefail
work=$TAVO_WORK/headers
rm -rf "$work"
mkdir -p "$work"
PKG_CONFIG_PATH=$(dirname "$(find "$TAVO_PREFIX" -name tavo_ldap.pc)")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags tavo_ldap)
export flags work

compile() {
    local file=$work/${1//\//.}
    echo "#include <$1>" >"$file.cpp"
    # shellcheck disable=SC2086 # the flags are words, and there may be no launcher
    $CMAKE_CXX_COMPILER_LAUNCHER "$CXX" -fPIC -Wall -Wextra -Wpedantic -Werror $flags -MD -c "$file.cpp" -o "$file.o"
}
export -f compile

cd "$TAVO_PREFIX/include/tavo"
# shellcheck disable=SC2016 # expanded by the inner shell
find . -name '*.h' -printf '%P\n' | xargs --max-procs="$(nproc)" --max-args=1 bash -c 'compile "$1"' compile
[ "$(find "$work" -name '*.d' | wc -l)" -eq "$(find . -name '*.h' | wc -l)" ]
if grep -lE '/(ldap|lber)[a-z_]*\.h( |$)|/openssl/|/rapidjson/|/QtCore/qjson' "$work"/*.d | sed 's/\.d$//'; then
    echo "these headers bring in a header of the libraries beneath" >&2
    exit 1
fi
