#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when missing.
set -euo pipefail
pkgs=(build-essential cmake pkg-config openssl iproute2 util-linux
      libcurl4-openssl-dev libssl-dev zlib1g-dev libxml2-dev libcjson-dev libwebsockets-dev
      libgtest-dev libbenchmark-dev libcpp-httplib-dev libwslay-dev "$@")
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
