#!/usr/bin/env bash
# The demo: from nothing to whole device sessions against a local cloud.
#   1. installs what is missing (scripts/install-deps.sh);
#   2. configures build/demo with a freshly generated CA, server certificate and
#      answer-signing key pair (the library embeds the public half and the CA path);
#   3. builds the local cloud (kx_local_cloud) and the examples listed below;
#   4. inside a private network namespace (nothing touches the machine's network):
#      starts the cloud on loopback, runs each example against the domain it
#      prints (the push example against its push endpoint, for 6 seconds of
#      sessions the server ends and reconnections with back-off), and stops
#      the cloud. The cloud also stops by itself after 60
#      seconds, should the demo die half-way.
# Every example runs even when an earlier one failed; the demo fails if any did.
# Set VTL_DEBUG_LEVEL=info to see every log line of the library.
set -euo pipefail

# The examples, in the order a device would run them.
examples=(device_session voice_session log_session fetch_session push_session)

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
  endpoint=$(sed -n 2p "$out")
  echo "demo: local cloud at https://$domain, push endpoint wss://$endpoint/push"
  status=0
  for example in "$@"; do
    echo "demo: $(basename "$example")"
    case $(basename "$example") in
      push_session) "$example" "$endpoint" 6 || status=1 ;;
      *) "$example" "$domain" || status=1 ;;
    esac
  done
  exit $status
fi

cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build/demo}
scripts/install-deps.sh
# A fresh CA and key pair for this run.
rm -rf "$build/testcloud"
cmake -S . -B "$build" -DKX_BUILD_TESTS=ON -DKX_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$build" --target kx_local_cloud "${examples[@]}" -j"$(nproc)"
scripts/in-netns.sh "$PWD/scripts/demo.sh" --session "$PWD/$build/localcloud/kx_local_cloud" \
  "${examples[@]/#/$PWD/$build/examples/}"
