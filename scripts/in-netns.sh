#!/usr/bin/env bash
# Runs a command inside a private network namespace with only loopback up, so
# that the test cloud may listen on 127.0.0.1:80, SO_MARK is permitted, and
# nothing the tests do can reach or clash with the machine's own network.
# The namespace also has a /tmp of its own (a tmpfs, as on the device): the
# request calls write fixed answer files there, so two runs side by side (two
# build trees, a test run beside the demo) never write each other's files.
set -euo pipefail
inner='mount -t tmpfs -o mode=1777 tmpfs /tmp && ip link set lo up && exec "$@"'
if [ "$(id -u)" -eq 0 ]; then
  exec unshare --net --mount -- bash -c "$inner" netns "$@"
else
  exec unshare --user --map-root-user --net --mount -- bash -c "$inner" netns "$@"
fi
