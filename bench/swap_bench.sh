#!/usr/bin/env bash
# Time from "Restart now" (the updater starts) to the new program running, for a 200 MB
# application, by how the new version reaches the application's file system:
#   before: unpacked in another file system (a tmpfs /tmp), copied on the critical path, and
#           swapped by two renames;
#   after:  unpacked beside the application (what the client does now), swapped by one
#           exchange; and the same without the exchange, for reference.
# Each figure is the median of 3 runs, measured in this run.  bench/swap_bench.sh <UpdateInstaller>
set -euo pipefail
updater=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/swap-bench-XXXXXX")
other=$(mktemp -d /dev/shm/swap-bench-XXXXXX)
trap 'rm -rf "$work" "$other"' EXIT
export XDG_STATE_HOME=$work/state UPDATEINSTALLER_LOG=$work/updater.log

make_app() { # folder version
  mkdir -p "$1/lib"
  for i in $(seq 1 200); do head -c 1048576 /dev/urandom > "$1/lib/part-$i.bin"; done
  printf '#!/bin/sh\ndate +%%s.%%N > "%s/started-%s"\n' "$work" "$2" > "$1/app"
  chmod +x "$1/app"
}
make_app "$work/template-v2" v2

run_once() { # where-the-new-version-is, extra environment
  rm -rf "$work/Viewer" "$work/started-v2" "$work/new" "$other/new" "$work"/Viewer.update-*
  make_app "$work/Viewer" v1 >/dev/null
  local new=$1/new
  cp -a "$work/template-v2" "$new"
  sync
  local start
  start=$(date +%s.%N)
  env $2 "$updater" -oldDir "$work/Viewer" -newDir "$new" -exe app >/dev/null 2>&1
  while [ ! -s "$work/started-v2" ]; do sleep 0.01; done
  awk -v a="$(cat "$work/started-v2")" -v b="$start" 'BEGIN { printf "%.4f\n", a - b }' 
}

median() { sort -n | sed -n 2p; }

measure() { for _ in 1 2 3; do run_once "$1" "$2"; done | median; }

before=$(measure "$other" "UPDATEINSTALLER_NO_EXCHANGE=1")
after=$(measure "$work" "")
renames=$(measure "$work" "UPDATEINSTALLER_NO_EXCHANGE=1")
across=$(measure "$other" "")
printf 'restart to new program running, 200 MB application (median of 3)\n'
printf '  before: across file systems, copy + two renames   %6.3f s\n' "$before"
printf '  after:  beside the application, one exchange       %6.3f s   (%.3fx before)\n' \
  "$after" "$(awk -v a="$after" -v b="$before" 'BEGIN { print a / b }')"
printf '  beside the application, two renames (no exchange)  %6.3f s\n' "$renames"
printf '  across file systems, copy staged, then exchange    %6.3f s\n' "$across"
