#!/usr/bin/env bash
# The demo: from nothing to a whole device session against a local cloud.
#   1. installs what is missing (scripts/install-deps.sh);
#   2. configures build/demo with a freshly generated CA, server certificate and
#      answer-signing key pair (the library embeds the public half and the CA path);
#   3. builds the local cloud (kx_local_cloud) and the examples (device_session,
#      voice_session);
#   4. inside a private network namespace (nothing touches the machine's network):
#      starts the cloud on loopback, runs examples/device_session.c and then
#      examples/voice_session.c against the domain it prints, and stops the cloud.
#      The cloud also stops by itself after 60 seconds, should the demo die half-way.
# Set VTL_DEBUG_LEVEL=info to see every log line of the library.
set -euo pipefail

if [ "${1:-}" = "--session" ]; then
  # Runs inside the namespace: $2 = the cloud program, then the examples.
  cloud=$2
  shift 2
  out=$(mktemp)
  "$cloud" 60 >"$out" &
  pid=$!
  trap 'kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; rm -f "$out"' EXIT
  for _ in $(seq 100); do
    [ -s "$out" ] && break
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  domain=$(head -n 1 "$out")
  if [ -z "$domain" ]; then
    echo "demo: the local cloud did not start" >&2
    exit 1
  fi
  echo "demo: local cloud at https://$domain"
  status=0
  for session in "$@"; do
    "$session" "$domain" || status=1
  done
  exit $status
fi

cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build/demo}
scripts/install-deps.sh
# A fresh CA and key pair for this run.
rm -rf "$build/testcloud"
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$build" --target kx_local_cloud device_session voice_session -j"$(nproc)"
scripts/in-netns.sh "$PWD/scripts/demo.sh" --session "$PWD/$build/localcloud/kx_local_cloud" \
  "$PWD/$build/examples/device_session" "$PWD/$build/examples/voice_session"
