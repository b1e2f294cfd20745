#!/usr/bin/env bash
# The demo: from nothing to a whole device session against a local cloud.
#   1. installs what is missing (scripts/install-deps.sh);
#   2. configures build/demo with a freshly generated CA, server certificate and
#      answer-signing key pair (the library embeds the public half and the CA path);
#   3. builds the local cloud (kx_local_cloud) and the examples (device_session,
#      push_session);
#   4. inside a private network namespace (nothing touches the machine's network):
#      starts the cloud on loopback, runs examples/device_session.c against the
#      domain it prints, then examples/push_session.c against its push endpoint
#      for 6 seconds (sessions the server ends, reconnections with back-off),
#      and stops the cloud. The cloud also stops by itself after 60 seconds,
#      should the demo die half-way.
# Set VTL_DEBUG_LEVEL=info to see every log line of the library.
set -euo pipefail

if [ "${1:-}" = "--session" ]; then
  # Runs inside the namespace: $2 = the cloud program, $3, $4 = the examples.
  cloud=$2 session=$3 push=$4
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
  "$session" "$domain"
  status=$?
  endpoint=$(sed -n 2p "$out")
  echo "demo: push endpoint wss://$endpoint/push"
  "$push" "$endpoint" 6 || status=1
  exit $status
fi

cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build/demo}
scripts/install-deps.sh
# A fresh CA and key pair for this run.
rm -rf "$build/testcloud"
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$build" --target kx_local_cloud device_session push_session -j"$(nproc)"
scripts/in-netns.sh "$PWD/scripts/demo.sh" --session "$PWD/$build/localcloud/kx_local_cloud" \
  "$PWD/$build/examples/device_session" "$PWD/$build/examples/push_session"
