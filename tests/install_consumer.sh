#!/bin/sh
# Installs the build in BUILD_DIR under a scratch prefix and builds a small
# program against it, once with find_package(zorvi-core) and once with
# pkg-config, then runs both. The trace shows where a failure stopped it.
#   tests/install_consumer.sh BUILD_DIR VERSION [COMPILER_FLAGS]
set -eux
build=$1 version=$2 flags=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
for program in zorvi-shortcut zorvi-bootstrap zorvi-install zorvi-tuf-client; do [ -x "$prefix/bin/$program" ]; done
for program in zorvi-shortcut-test-intake process_probe json_test; do [ ! -e "$prefix/bin/$program" ]; done

# Installed headers reach no private dependency and no header left uninstalled.
if grep -rnE '#include <(curl|archive|zstd|acl|sys/acl|openssl/ssl)' "$prefix/include"; then exit 1; fi
(cd "$prefix/include/zorvi-core" && find client -name '*.hpp' | sed 's/.*/#include "&"/') >"$scratch/headers.cpp"
c++ -std=c++20 -fsyntax-only -I"$prefix/include/zorvi-core" "$scratch/headers.cpp"

input='{"b":true,"a":[1,"x"]}'
expected='{"a":[1,"x"],"b":true} c817ea2211dc960ff318c03b8414e1c9f63f6010af61d11cca0cf7f920ac9dae a%20b'
cmake -S "$here/consumer" -B "$scratch/by-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DZORVI_EXPECTED_VERSION="$version" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$scratch/by-cmake" >/dev/null
[ "$("$scratch/by-cmake/consumer" "$input")" = "$expected" ]

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zorvi-core.pc)")
export PKG_CONFIG_PATH
[ "$(pkg-config --modversion zorvi-core)" = "$version" ]
# shellcheck disable=SC2046,SC2086  # the flags are meant to split into words
c++ -std=c++20 $flags "$here/consumer/consumer.cpp" -o "$scratch/by-pkg-config" $(pkg-config --static --cflags --libs zorvi-core)
[ "$("$scratch/by-pkg-config" "$input")" = "$expected" ]
