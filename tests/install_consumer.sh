#!/bin/sh
# Installs the build in BUILD_DIR under a scratch prefix and builds a small
# program against it, once with find_package(zorvi-core) and once with
# pkg-config, then runs both.
#   tests/install_consumer.sh BUILD_DIR VERSION [COMPILER_FLAGS]
set -eu
build=$1 version=$2 flags=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

for program in zorvi-shortcut zorvi-bootstrap zorvi-install zorvi-tuf-client; do
  [ -x "$prefix/bin/$program" ] || { echo "missing bin/$program" >&2; exit 1; }
done
for program in zorvi-shortcut-test-intake process_probe json_test; do
  [ ! -e "$prefix/bin/$program" ] || { echo "test program bin/$program installed" >&2; exit 1; }
done

# Installed headers reach only the public dependencies' headers, and only
# headers that are installed too.
if grep -rnE '#include <(curl|archive|zstd|acl|sys/acl|openssl/ssl)' "$prefix/include"; then
  echo "an installed header includes a private dependency" >&2; exit 1
fi
(cd "$prefix/include/zorvi-core" && find client -name '*.hpp' | sed 's/.*/#include "&"/') >"$scratch/headers.cpp"
c++ -std=c++20 -fsyntax-only -I"$prefix/include/zorvi-core" "$scratch/headers.cpp"

input='{"b":true,"a":[1,"x"]}'
expected='{"a":[1,"x"],"b":true} c817ea2211dc960ff318c03b8414e1c9f63f6010af61d11cca0cf7f920ac9dae a%20b'
check() {  # PROGRAM
  actual=$("$1" "$input")
  [ "$actual" = "$expected" ] || { printf 'expected %s\n     got %s\n' "$expected" "$actual" >&2; exit 1; }
}

cmake -S "$here/consumer" -B "$scratch/by-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DZORVI_EXPECTED_VERSION="$version" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$scratch/by-cmake" >/dev/null
check "$scratch/by-cmake/consumer"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zorvi-core.pc)")
export PKG_CONFIG_PATH
[ "$(pkg-config --modversion zorvi-core)" = "$version" ] || { echo "zorvi-core.pc has the wrong version" >&2; exit 1; }
# shellcheck disable=SC2046,SC2086  # word splitting of the flags is meant
c++ -std=c++20 $flags "$here/consumer/consumer.cpp" -o "$scratch/by-pkg-config" $(pkg-config --static --cflags --libs zorvi-core)
check "$scratch/by-pkg-config"
echo "installed tree found by CMake and pkg-config"
