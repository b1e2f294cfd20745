#!/usr/bin/env bash
# The 32-bit Arm build, tested: cross-builds the library, the platform
# stand-ins, the test suites and the local cloud for armhf (the device's ABI:
# 32-bit pointers, size_t and time_t), then runs the suites under qemu-arm in
# a private network namespace, as scripts/test.sh runs them natively.
#
#   scripts/armhf.sh                 every suite
#   scripts/armhf.sh -R 'core|sign'  arguments go to ctest
#   scripts/armhf.sh --build-only    make the root and build, run nothing
#
# The dependencies come from a Debian armhf root made with debootstrap under
# build/ (KX_ARMHF_ROOT overrides), used as the cross compiler's sysroot and as
# qemu's library root. A root keeps the armhf packages apart from the
# machine's own: multi-arch -dev packages would have to match the x86-64
# ones version for version, which fails whenever the two archives' indexes
# disagree. The root is made once and remade only when its package list or
# suite changes (the list is written into it); everything else is an ordinary
# incremental build in build/armhf (ARMHF_BUILD_DIR overrides).
#
# It also prints the figures of the device build: the stripped size of the
# library, and the heap that sign-in and sign-out hold at most, by owner
# (reliability/heap_peak.cpp).
set -euo pipefail
cd "$(dirname "$0")/.."

root=$(realpath -m "${KX_ARMHF_ROOT:-build/armhf-root}")
build=$(realpath -m "${ARMHF_BUILD_DIR:-build/armhf}")
jobs=${JOBS:-2}
suite=bookworm
mirror=${KX_DEBIAN_MIRROR:-http://deb.debian.org/debian}
# The armhf -dev packages the build links against: the library's dependencies,
# GoogleTest for the suites, cpp-httplib and wslay for the local cloud.
root_packages=(libstdc++-12-dev libcurl4-openssl-dev libssl-dev zlib1g-dev libxml2-dev
               libcjson-dev libwebsockets-dev libgtest-dev libcpp-httplib-dev libwslay-dev)

build_only=0
if [ "${1:-}" = "--build-only" ]; then build_only=1; shift; fi

# The machine's side: the native dependencies (the test credentials are made
# with the host's openssl), the cross compiler, qemu's user-mode emulator and
# debootstrap.
scripts/install-deps.sh gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf qemu-user debootstrap

make_root() {
  local wanted stamp=$root/.kx-armhf-root new=$root.new
  wanted="$suite armhf ${root_packages[*]}"
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
    return
  fi
  echo "armhf: making the Debian $suite armhf root in $root"
  rm -rf "$root" "$new"
  local list
  list=$(IFS=,; echo "${root_packages[*]}")
  # First stage only: it resolves and fetches the packages and unpacks the
  # base system; nothing armhf is run (no binfmt, no chroot needed).
  debootstrap --foreign --arch=armhf --variant=minbase --include="$list" "$suite" "$new" "$mirror" \
    >"$root.log" 2>&1 || { tail -20 "$root.log"; return 1; }
  # A sysroot needs the files, not the maintainer scripts: unpack every
  # fetched package over the base.
  local deb
  for deb in "$new"/var/cache/apt/archives/*.deb; do
    dpkg-deb -x "$deb" "$new"
  done
  # Absolute links (libz.so -> /lib/arm-linux-gnueabihf/...) would lead the
  # cross linker to the machine's own files: make them relative to the root.
  local link target
  while IFS= read -r link; do
    target=$(readlink "$link")
    ln -sfn --relative "$new$target" "$link"
  done < <(find "$new" -type l -lname '/*')
  # qemu looks a path up in the root first and falls back to the machine's:
  # leave out what must be the machine's (/tmp, /dev, /proc, /sys, /run), and
  # give the loader an empty cache instead of the machine's x86-64 one.
  rm -rf "$new"/{tmp,dev,proc,sys,run,var,home,root,boot,debootstrap}
  : >"$new/etc/ld.so.cache"
  echo "$wanted" >"$new/.kx-armhf-root"
  mv "$new" "$root"
}

mkdir -p "$(dirname "$build")" "$(dirname "$root")"
make_root

# Fresh test-cloud credentials for every run, as scripts/test.sh makes them.
rm -rf "$build/testcloud"
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" -DKX_ARMHF_ROOT="$root" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=ON -DKX_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$jobs"

lib=$(readlink -f "$build/libkx_cloud_openapi.so")
arm-linux-gnueabihf-strip -o "$build/libkx_cloud_openapi.stripped.so" "$lib"
size=$(stat -c %s "$build/libkx_cloud_openapi.stripped.so")
echo "armhf: stripped $(basename "$lib"): $size bytes ($(( (size + 1023) / 1024 )) KiB)"

[ "$build_only" -eq 1 ] && exit 0
status=0
ctest --test-dir "$build" --output-on-failure -j"${KX_TEST_JOBS:-$(( jobs + 1 ))}" "$@" || status=$?
echo "armhf: the heap a signed call holds at most, in bytes"
scripts/in-netns.sh qemu-arm -L "$root" -E LD_PRELOAD="$build/tests/libkx_emulator_so_mark.so" \
  "$build/tests/reliability/heap_peak" KX_AUTH_AUTHENTICATE KX_SIGN_OUT KX_SIGN_OUT/http || status=1
exit $status
