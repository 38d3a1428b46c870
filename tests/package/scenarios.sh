#!/usr/bin/env bash
# The package host, installed from its own package, updates itself from a signed catalogue served
# on 127.0.0.1:8080 (run it in a private network: tests/in-private-network.sh), once per scenario.
# The scenarios run in lanes side by side, each lane with a site and a home per scenario of its
# own; within a lane they run one after the other.
#   scenarios.sh <host build folder> <installed prefix>
set -uo pipefail
build=$1
prefix=$2
packages=$build/packages
work=$(mktemp -d)
trap 'kill $server 2>/dev/null; rm -rf "$work"' EXIT
export PATH="$prefix/bin:$PATH"
minisign -G -W -p "$work/updates.pub" -s "$work/updates.key" >/dev/null || exit 1
key=$(sed -n 2p "$work/updates.pub")
mkdir -p "$work/sites"
python3 -m http.server 8080 --bind 127.0.0.1 --directory "$work/sites" >/dev/null 2>&1 &
server=$!
# The first scenario must not start before the server listens (on a loaded machine it takes a while).
for _ in $(seq 200); do curl -s -o /dev/null http://127.0.0.1:8080/ && break; sleep 0.1; done
failures=0

# publish <package file> [add options]: a catalogue offering only it, signed, on the lane's site.
publish() {
  rm -f "$site/list.xml"* "$site/"*.delta
  cp "$1" "$site/"
  local file=${1##*/} release=${1##*-}
  release=${release%.zip}
  release=${release%.tar.gz}
  shift
  softupdate add "$site/list.xml" "$site/$file" --type Application --name PackageHost \
    --release "$release" --base-url "http://127.0.0.1:8080/$lane/" "$@" >/dev/null &&
    softupdate sign "$site/list.xml" --key "$work/updates.key" >/dev/null
}

# install_old <name>: 1.0 in a home of its own.
install_old() {
  mkdir -p "$work/$1/apps" && chmod 700 "$work/$1" &&
    (cd "$work/$1/apps" && cmake -E tar xf "${old_package:-$packages/PackageHost-1.0.zip}" &&
      mv PackageHost-1.0 PackageHost)
}

# scenario <name> <host arguments...>: runs 1.0 (installed now unless it was beforehand).
scenario() {
  name=$1
  shift
  home=$work/$name
  app=$home/apps/PackageHost
  [ -d "$app" ] || install_old "$name"
  out=$home/output.txt
  : >"$out" # appended to: the versions the updater starts write there too
  HOME=$home XDG_CONFIG_HOME=$home/.config XDG_STATE_HOME=$home/.local/state \
    QT_QPA_PLATFORM=offscreen "$app/package_host" update "http://127.0.0.1:8080/$lane/list.xml" \
    "$key" "$@" >>"$out" 2>&1
  echo "exit $?" >>"$out"
}

# expect <text>...: each text turns up in the scenario's output within 20 s.
expect() {
  for text in "$@"; do
    for _ in $(seq 200); do grep -qF -- "$text" "$out" && continue 2; sleep 0.1; done
    fail "no \"$text\" in:"
    sed 's/^/    /' "$out"
    cat "$home/.local/state/SoftwareUpdate/UpdateInstaller.log" 2>/dev/null | sed 's/^/    log: /'
    return
  done
  echo "ok   $name"
}
fail() {
  echo "FAIL $name: $*"
  failures=$((failures + 1))
}
release() { cat "$app/release.txt" 2>/dev/null; }
# wait_release <text>: the installed release.txt says it within 10 s.
wait_release() {
  for _ in $(seq 100); do [ "$(release)" = "$1" ] && return 0; sleep 0.1; done
  return 1
}

# in_lane <name> <function>: runs the function in the background on the site sites/<name>, its
# exit code its count of failures; join_lane <name> adds them and shows what the lane said.
declare -A lane_pid
in_lane() {
  (lane=$1; site=$work/sites/$1; "$2"; exit "$failures") >"$work/lane-$1.txt" 2>&1 &
  lane_pid[$1]=$!
}
join_lane() {
  wait "${lane_pid[$1]}" || failures=$((failures + $?))
  cat "$work/lane-$1.txt"
}

lane_install() {
  publish "$packages/PackageHost-2.0.zip"
  scenario install
  expect "readyToRestart: 2.0" "quit handler: work saved, quitting" "restartNow: 1" "exit 0" \
    "running 2.0" "boxes shown: 0"
  [ "$(release)" = "2.0" ] || fail "$(release)"
  scenario refuse-quit refuse-quit
  expect "quit handler: not now" "restartNow: 0" "exit 0"
  wait_release 2.0 && ! grep -q "running 2.0" "$out" ||
    fail "installed on quit, not started: $(release)"
}

lane_rolled_back() {
  publish "$packages/PackageHost-2.1.zip"
  scenario rolled-back
  expect "running 2.1" "updateRolledBack: 2.1 | the new program exited with code 3" "boxes shown: 0"
  [ "$(release)" = "1.0" ] || fail "$(release)"
}

lane_late() {
  publish "$packages/PackageHost-2.2.tar.gz"
  scenario late-confirmation-in-time 10
  expect "running 2.2" "confirmed late"
  sleep 1
  [ "$(release)" = "2.2 late 1200" ] || fail "$(release)"
  scenario late-confirmation-too-late 1
  expect "running 2.2" "updateRolledBack: 2.2 | the new program did not confirm within 1 s"
}

# Delta updates: 1.0 -> 2.0 from the delta alone, or from the full package when the delta cannot
# be used (a changed installed file, a broken or unpublished delta), never both twice. The pair
# has changed, added, removed, renamed and unchanged files, a link and changed modes.
lane_delta() {
  head -c 300000 /dev/urandom >"$files/library"
  enrich() { # enrich <version> <shell command run inside its folder>: $files/PackageHost-<version>.zip
    rm -rf "$files/rich-$1" && mkdir -p "$files/rich-$1" &&
      (cd "$files/rich-$1" && cmake -E tar xf "$packages/PackageHost-$1.zip" &&
        cd "PackageHost-$1" && mkdir lib data && echo same >data/same.txt && eval "$2" && cd .. &&
        cmake -E tar cf "$files/PackageHost-$1.zip" --format=zip "PackageHost-$1")
  }
  enrich 1.0 'cp "$files/library" lib/libfoo.so.1 && ln -s libfoo.so.1 lib/libfoo.so &&
    echo gone >data/removed.txt && echo "#!/bin/sh" >tool.sh && chmod 700 tool.sh'
  enrich 2.0 'cp "$files/library" lib/libfoo.so.2 && ln -s libfoo.so.2 lib/libfoo.so &&
    seq 10000 >data/added.txt && chmod 600 data/added.txt && echo "#!/bin/sh" >tool.sh &&
    chmod 755 tool.sh'
  old_package=$files/PackageHost-1.0.zip
  publish "$files/PackageHost-2.0.zip" --delta-from "$old_package=1.0"
  local delta full
  delta=$(stat -c %s "$site/PackageHost-2.0.zip.from-1.0.delta")
  full=$(stat -c %s "$files/PackageHost-2.0.zip")
  # badly <name> <why the log gives>: the delta is not used, the full package is.
  badly() {
    scenario "$1" delta
    expect "is not used: $2; downloading the full package" \
      "readyToRestart: 2.0 (downloaded $full bytes)" "running 2.0" "boxes shown: 0"
    grep -rqs "badDeltas=" "$home/.config" || fail "not remembered"
  }
  # Three chains side by side, each on a copy of the site (delta_changed_source, delta_broken).
  for chain in delta-changed delta-broken; do
    cp -r "$site" "$work/sites/$chain" &&
      sed -i "s#8080/delta/#8080/$chain/#" "$work/sites/$chain/list.xml" &&
      softupdate sign "$work/sites/$chain/list.xml" --key "$work/updates.key" >/dev/null
  done
  in_lane delta-changed delta_changed_source
  in_lane delta-broken delta_broken
  scenario delta delta
  expect "readyToRestart: 2.0 (downloaded $delta bytes)" "restartNow: 1" "running 2.0" \
    "boxes shown: 0"
  wait_release 2.0
  diff -r --no-dereference "$app" "$files/rich-2.0/PackageHost-2.0" >/dev/null &&
    [ "$(stat -c %a "$app/data/added.txt" "$app/tool.sh" | tr '\n' ' ')" = "600 755 " ] ||
    fail "the installed folder is not 2.0"
  join_lane delta-changed
  join_lane delta-broken
}
# The delta's chains beside it (with its badly and sizes): each on a copy of its site.
delta_changed_source() {
  # The installed library differs from the one the delta was made from.
  install_old delta-changed-source &&
    printf 'x' >>"$work/delta-changed-source/apps/PackageHost/lib/libfoo.so.1"
  badly delta-changed-source \
    "the installed file lib/libfoo.so.1 is not the one the delta was made from"
}
delta_broken() {
  # Published as it is, but broken: a payload does not decode (the catalogue lists its hash).
  local site_delta=$site/PackageHost-2.0.zip.from-1.0.delta before
  before=$(sha256sum "$site_delta" | cut -c1-64)
  python3 - "$site_delta" <<'PY'
import json, struct, subprocess, sys
data = bytearray(open(sys.argv[1], "rb").read())
length = struct.unpack("<I", data[8:12])[0]
manifest = subprocess.run(["zstd", "-dc"], input=bytes(data[12:12 + length]), capture_output=True)
entry = [e for e in json.loads(manifest.stdout)["files"] if e["op"] == "add"][0]
at = 12 + length + entry["offset"]
for i in range(at + 14, at + entry["length"]): # the blocks, after the frame header
    data[i] ^= 0x55
open(sys.argv[1], "wb").write(data)
PY
  sed -i "s/$before/$(sha256sum "$site_delta" | cut -c1-64)/" "$site/list.xml"
  softupdate sign "$site/list.xml" --key "$work/updates.key" >/dev/null
  badly delta-broken "data/added.txt: zstd: Data corruption detected"
  printf 'x' >>"$site_delta"
  badly delta-not-published "the download is not the delta the catalogue published"
}

# Refused packages: the signal says why, no box is shown, nothing changes.
lane_mismatch() {
  publish "$packages/PackageHost-2.0.zip"
  printf 'x' >>"$site/PackageHost-2.0.zip"
  scenario mismatch
  expect "installFailed: 2.0 | " "does not match" "boxes shown: 0" "exit 1"
}
repack() { # repack <shell command run inside the unpacked folder>: $files/PackageHost-2.0.zip
  rm -rf "$files/repack" && mkdir -p "$files/repack" &&
    (cd "$files/repack" && cmake -E tar xf "$packages/PackageHost-2.0.zip" &&
      cd PackageHost-2.0 && eval "$1" && cd .. &&
      cmake -E tar cf "$files/PackageHost-2.0.zip" --format=zip PackageHost-2.0)
}
lane_name_case() {
  repack 'mv package_host Package_Host'
  publish "$files/PackageHost-2.0.zip"
  scenario name-case
  expect "installFailed: 2.0 | The package holds Package_Host, not the program package_host" \
    "exit 1"
}
lane_no_exec_bits() {
  repack 'chmod 644 package_host'
  publish "$files/PackageHost-2.0.zip"
  scenario no-exec-bits
  expect "installFailed: 2.0 | The program package_host in the package is not marked as" \
    "exit 1"
  [ "$(release)" = "1.0" ] || fail "$(release)"
}

lanes=(install rolled_back late delta mismatch name_case no_exec_bits)
for lane in "${lanes[@]}"; do
  files=$work/files-$lane
  mkdir -p "$work/sites/$lane" "$files"
  in_lane "$lane" "lane_$lane"
done
for lane in "${lanes[@]}"; do join_lane "$lane"; done
echo "$failures scenario(s) failed"
[ "$failures" -eq 0 ]
