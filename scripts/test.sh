#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests: the whole suite with ASan and UBSan, the thread tests with
# ThreadSanitizer, and program, symbol and valgrind tests on the optimised build. Works from any folder. With
# --browser it also installs Chromium, without which the browser test is skipped.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

case ${1:-} in
  '') scripts/setup.sh test ;;
  --browser) scripts/setup.sh browser ;;
  *)
    echo "usage: test.sh [--browser]" >&2
    exit 2
    ;;
esac

launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

build() { # PRESET TARGET... -- configures and builds; the compiler's words only when it fails
  local preset=$1 log
  shift
  log=$(mktemp)
  echo "== building $preset"
  if ! { cmake --preset "$preset" "${launcher[@]}" -DMEDIAUTIL_WERROR=ON && cmake --build --preset "$preset" --target "$@"; } \
    >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    exit 1
  fi
  rm -f "$log"
}

build dev all
build release all
build tsan threads_test

# The last run's closing lines are the summary that a reader sees: it is the largest one.
echo '== threads, with ThreadSanitizer'
ctest --preset tsan -L threads
echo '== the optimised build'
ctest --preset release
echo '== everything, with ASan and UBSan'
ctest --preset dev
