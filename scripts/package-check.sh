#!/usr/bin/env bash
# The installed package as a firmware project meets it: installs the library
# into a scratch prefix, builds examples/device_session.c outside the tree
# twice, through find_package(kx_cloud_openapi CONFIG) (examples/package/)
# and through pkg-config, and runs both against the local cloud inside a
# private network namespace.
#
#   scripts/package-check.sh                          builds build/package first
#   REUSE_BUILD=build/test scripts/package-check.sh   installs an existing test build (CI)
#
# The library embeds its server key and CA bundle path when it is built, so
# the installed one is a test build, like the demo's: it trusts the local
# cloud's generated CA and verifies answers signed with its generated key.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath -m "${REUSE_BUILD:-${PACKAGE_BUILD_DIR:-build/package}}")
scripts/install-deps.sh
if [ -z "${REUSE_BUILD:-}" ]; then
  rm -rf "$build/testcloud"
  cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=OFF >/dev/null
fi
cmake --build "$build" --target kx_cloud_openapi kx_cloud_openapi_static kx_platform kx_local_cloud \
  -j"${JOBS:-2}" >/dev/null

# Under build/, not /tmp: the namespace has a /tmp of its own.
work=$build/package-check
prefix=$work/prefix
rm -rf "$work"
cmake --install "$build" --prefix "$prefix" >/dev/null

echo "package: find_package(kx_cloud_openapi CONFIG)"
cmake -S examples/package -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null

echo "package: pkg-config kx_cloud_openapi"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
mkdir -p "$work/pkgconfig"
# shellcheck disable=SC2046 # pkg-config's words are separate arguments
"${CC:-cc}" -Wall -Wextra -Werror -o "$work/pkgconfig/device_session" examples/device_session.c \
  $(pkg-config --cflags --libs kx_cloud_openapi) -Wl,-rpath,"$(pkg-config --variable=libdir kx_cloud_openapi)"

for program in "$work/cmake/device_session" "$work/pkgconfig/device_session"; do
  echo "package: running ${program#"$PWD"/} against the local cloud"
  scripts/in-netns.sh "$PWD/scripts/demo.sh" --session "$build/localcloud/kx_local_cloud" "$program"
done
