#!/usr/bin/env bash
# Installs what is needed, builds kavrel and runs the whole test suite: once in a
# plain build and once under AddressSanitizer + UndefinedBehaviorSanitizer.
#   scripts/test.sh                 everything
#   scripts/test.sh --no-sanitize   the plain build only (quicker, for development)
#   scripts/test.sh --tsan          the plain build, then a ThreadSanitizer build (clang)
#   scripts/test.sh -R REGEX        only the tests whose names match (passed to ctest)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sanitize=1
tsan=0
ctest_args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --no-sanitize) sanitize=0 ;;
    --tsan) sanitize=0; tsan=1 ;;
    *) ctest_args+=("$1") ;;
  esac
  shift
done

if [ "$tsan" = 1 ]; then
  bash "$root/scripts/setup.sh" --tsan
else
  bash "$root/scripts/setup.sh"
fi

run_suite() {
  local dir=$1; shift
  bash "$root/scripts/build.sh" "$dir" "$@"
  (cd "$dir" && ctest --output-on-failure -j"$(nproc)" ${ctest_args[@]+"${ctest_args[@]}"})
}

echo "== plain build"
run_suite "$root/build"
if [ "$sanitize" = 1 ]; then
  echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
  run_suite "$root/build-sanitize" -DKAVREL_SANITIZE=ON -DKAVREL_BUILD_BENCH=OFF
fi
if [ "$tsan" = 1 ]; then
  echo "== ThreadSanitizer build"
  # Qt and the device libraries are not instrumented: their own accesses are not
  # tracked, so only the library's, the tools' and the tests' code is checked. The
  # tests' TSAN_OPTIONS (tests/CMakeLists.txt) write every report, from the test
  # programs and from the simulator and command-line tool they start, to tsan-reports/.
  reports="$root/build-tsan/tsan-reports"
  rm -rf "$reports" && mkdir -p "$reports"
  status=0
  CC=clang CXX=clang++ run_suite "$root/build-tsan" -DKAVREL_TSAN=ON -DKAVREL_BUILD_BENCH=OFF ||
    status=$?
  if [ -n "$(ls -A "$reports")" ]; then
    cat "$reports"/*
    echo "ThreadSanitizer reports: $(grep -c '^WARNING: ThreadSanitizer' "$reports"/* | paste -sd' ')"
    exit 1
  fi
  echo "ThreadSanitizer reports: none"
  exit "$status"
fi
