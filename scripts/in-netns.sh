#!/usr/bin/env bash
# Runs a command inside a private network namespace with only loopback up, so
# that the test cloud may listen on 127.0.0.1:80, SO_MARK is permitted, and
# nothing the tests do can reach or clash with the machine's own network.
set -euo pipefail
if [ "$(id -u)" -eq 0 ]; then
  exec unshare --net -- bash -c 'ip link set lo up && exec "$@"' netns "$@"
else
  exec unshare --user --map-root-user --net -- bash -c 'ip link set lo up && exec "$@"' netns "$@"
fi
