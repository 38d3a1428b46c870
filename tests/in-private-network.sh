#!/bin/sh
# Runs the command in network and process namespaces of its own, with its loopback up, where
# they can be made (as root): packages download from port 80, which another program may hold
# outside, and what the command finds or stops by name (pgrep, pkill) is only its own. Whatever
# it leaves running ends with it.
if [ "$(id -u)" = 0 ] && unshare --net --pid --fork --mount-proc true 2>/dev/null; then
  exec unshare --net --pid --fork --mount-proc sh -c 'ip link set lo up && "$@"' sh "$@"
fi
exec "$@"
