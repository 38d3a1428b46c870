#!/usr/bin/env bash
# Runs the catalogue fuzzer for the given number of seconds (default 600), seeded from tests/data.
#   fuzz/run.sh [seconds]
# Installs clang and its runtime from Debian's packages when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-600}
need=()
for p in clang libclang-rt-14-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y "${need[@]}"
fi
build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DSUC_FUZZ=ON -DSUC_BUILD_TESTS=OFF -DSUC_BUILD_TOOLS=OFF -DSUC_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2 --target catalogue_fuzz
corpus="$build/corpus"
mkdir -p "$corpus"
cp tests/data/*.xml tests/data/hostile-xml/*.xml "$corpus/" 2>/dev/null || true
export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
"$build/fuzz/catalogue_fuzz" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=4096 \
  -timeout=10 -print_final_stats=1 "$corpus"
