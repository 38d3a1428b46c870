#!/usr/bin/env bash
# Set-up and run commands for a fresh Debian 12 machine (run as root, or with sudo available).
#   ./run.sh demo    install what is missing, build, and run the demo host through an update
#   ./run.sh test    install what is missing, build with sanitizers, run every test offscreen
#   ./run.sh coverage  the same suite in a --coverage build; prints line coverage per file
set -euo pipefail
cd "$(dirname "$0")"

PACKAGES=(
  cmake make g++ pkg-config
  qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  qt6-httpserver-dev qt6-websockets-dev libgl-dev
  libarchive-dev libarchive-tools curl python3 libsodium-dev libssl-dev minisign nginx-light
  libzstd-dev libbz2-dev bsdiff zstd
)

ensure_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
}

cmd_test() {
  ensure_packages "${PACKAGES[@]}"
  local build=build/test
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DSUC_SANITIZE=ON -DSUC_BUILD_TESTS=ON
  cmake --build "$build" -j2
  # Two at a time: every test keeps its own ports, folders and settings.
  QT_QPA_PLATFORM=offscreen ctest --test-dir "$build" -j2 --output-on-failure --timeout 900
}

cmd_coverage() {
  ensure_packages "${PACKAGES[@]}" gcovr
  local build=build/coverage
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DSUC_COVERAGE=ON -DSUC_BUILD_TESTS=ON
  cmake --build "$build" -j2
  find "$build" -name '*.gcda' -delete
  QT_QPA_PLATFORM=offscreen ctest --test-dir "$build" --output-on-failure --timeout 900 || true
  # The library, the platform layer and the tools; tests, examples and generated code aside.
  gcovr --root . --object-directory "$build" --filter 'src/' --filter 'platform/' \
    --filter 'tools/' --exclude '.*_autogen/.*' --exclude '.*/ui_.*' --gcov-ignore-parse-errors \
    --print-summary "$build"
}

cmd_demo() {
  ensure_packages "${PACKAGES[@]}"
  local build=build/demo
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSUC_BUILD_TESTS=OFF -DSUC_BUILD_EXAMPLES=ON
  cmake --build "$build" -j2 --target demo-host UpdateInstaller
  local args=(--output demo-output)
  # Without a display the demo takes every step itself, offscreen, and saves pictures.
  if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    export QT_QPA_PLATFORM=offscreen
    args+=(--auto)
  fi
  # Then the complete self-update across three versions; packages download from port 80, so
  # the walk runs in a network namespace of its own where it can.
  args+=(--complete)
  if [ -n "${QT_QPA_PLATFORM:-}" ]; then
    tests/in-private-network.sh "$build/examples/demo-host/demo-host" "${args[@]}"
  else
    "$build/examples/demo-host/demo-host" "${args[@]}"
  fi
}

case "${1:-}" in
  demo) cmd_demo ;;
  test) cmd_test ;;
  coverage) cmd_coverage ;;
  *) echo "usage: $0 demo|test|coverage" >&2; exit 2 ;;
esac
