#!/usr/bin/env bash
# Builds the benchmarks in Release and runs them. Each prints ratios against a reference measured
# in the same run.  bench/run.sh [catalogue|download|unzip|swap|resume|delta]
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSUC_BUILD_TESTS=OFF -DSUC_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2
what=${1:-all}
if [ "$what" = all ] || [ "$what" = catalogue ]; then
  "$build/bench/catalogue_bench"
fi
if [ "$what" = all ] || [ "$what" = download ]; then
  # Package downloads use port 80: as root, a network namespace of its own keeps it free.
  if [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
    unshare --net sh -c 'ip link set lo up && exec "$0"' "$build/bench/download_bench"
  else
    "$build/bench/download_bench"
  fi
fi
if [ "$what" = all ] || [ "$what" = resume ]; then
  # nginx on port 80 in a network namespace of its own where it can.
  if [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
    unshare --net sh -c 'ip link set lo up && exec "$0"' "$build/bench/resume_bench"
  else
    "$build/bench/resume_bench"
  fi
fi
if [ "$what" = all ] || [ "$what" = unzip ]; then
  "$build/bench/unzip_bench"
fi
if [ "$what" = all ] || [ "$what" = swap ]; then
  bench/swap_bench.sh "$build/tools/UpdateInstaller/UpdateInstaller"
fi
if [ "$what" = all ] || [ "$what" = delta ]; then
  # Real release pairs from the npm registry; the comparison tools from Debian's packages.
  for p in zstd xdelta3 bsdiff heaptrack npm; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
      { [ "$p" = npm ] && command -v npm >/dev/null; } ||
      DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$p"
  done
  bench/delta_bench.sh "$build/tools/softupdate/softupdate"
fi
