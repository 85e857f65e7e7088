#!/usr/bin/env bash
# Installs what is needed, builds kavrel and runs the whole test suite: once in a
# plain build and once under AddressSanitizer + UndefinedBehaviorSanitizer.
#   scripts/test.sh                 everything
#   scripts/test.sh --no-sanitize   the plain build only (quicker, for development)
#   scripts/test.sh -R REGEX        only the tests whose names match (passed to ctest)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sanitize=1
ctest_args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --no-sanitize) sanitize=0 ;;
    *) ctest_args+=("$1") ;;
  esac
  shift
done

bash "$root/scripts/setup.sh"

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
