#!/usr/bin/env bash
# Runs a fuzzer for the given number of seconds (default 600): the catalogue parser (seeded from
# tests/data) or the delta manifest and BSDIFF40 apply loop (seeded with a delta and a patch).
#   fuzz/run.sh [seconds] [catalogue|delta]
# Installs clang, its runtime and bsdiff from Debian's packages when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
target=${2:-catalogue}
need=()
for p in clang libclang-rt-14-dev bsdiff zstd; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${need[@]}"
fi
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DSUC_FUZZ=ON -DSUC_BUILD_TESTS=OFF -DSUC_BUILD_TOOLS=OFF -DSUC_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2 --target "${target}_fuzz"
corpus="$build/corpus-$target"
mkdir -p "$corpus"
if [ "$target" = catalogue ]; then
  cp tests/data/*.xml tests/data/hostile-xml/*.xml "$corpus/" 2>/dev/null || true
else
  # Seeds: a manifest of every operation as a delta (first byte 0) and as JSON (2), a real
  # patch (1).
  python3 - "$corpus" <<'PY'
import json, struct, subprocess, sys
m = json.dumps({"from": "1.0", "to": "1.1", "delete": ["old"], "files": [
    {"path": "app", "op": "patch", "mode": "0755", "size": 4, "sha256": "0" * 64, "source": "app",
     "source-sha256": "1" * 64, "codec": "bsdiff", "offset": 0, "length": 4},
    {"path": "lib", "op": "folder", "mode": "0755"},
    {"path": "lib/a", "op": "copy", "mode": "0644", "size": 1, "sha256": "2" * 64, "source": "a"},
    {"path": "lib/b", "op": "add", "mode": "0644", "size": 4, "sha256": "3" * 64, "codec": "raw",
     "offset": 0, "length": 4},
    {"path": "lib/c", "op": "link", "mode": "0777", "target": "a"}]}).encode()
open(sys.argv[1] + "/json", "wb").write(b"\2" + m)
m = subprocess.run(["zstd", "-c"], input=m, capture_output=True).stdout
open(sys.argv[1] + "/manifest", "wb").write(b"\0SUCDELTA" + struct.pack("<I", len(m)) + m + b"data")
PY
  head -c 4096 /dev/urandom >"$build/old" && { cat "$build/old"; echo changed; } >"$build/new"
  bsdiff "$build/old" "$build/new" "$build/patch" && { printf '\1'; cat "$build/patch"; } >"$corpus/patch"
fi
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=4096 \
  -timeout=10 -print_final_stats=1 "$corpus"
