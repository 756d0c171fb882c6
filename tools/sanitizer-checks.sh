#!/usr/bin/env bash
# The sanitizer part of `make test`: the unit tests built with AddressSanitizer and
# UndefinedBehaviorSanitizer, then `quillo run --jobs 2` on two inputs and `--threads 3` on
# one (its fragments across threads) under ThreadSanitizer.
# Any report fails (the builds abort on the first report instead of carrying on).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
werror=()
[ "${CI:-}" = "true" ] && werror=(-DQUILLO_WERROR=ON)

configure() {  # folder, sanitizers; -O1 with line tables builds fast and still reports well
  cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS="-O1 -g1" -DCMAKE_C_FLAGS="-O1 -g1" \
    -DQUILLO_SANITIZE="$2" -DQUILLO_BENCH=OFF "${werror[@]}" >/dev/null
}

echo "== AddressSanitizer + UndefinedBehaviorSanitizer: unit tests" >&2
configure build-asan address,undefined
cmake --build build-asan -j"$jobs" --target unit_tests
# libhdf5 itself leaks when it refuses a damaged object header (the bad-input tests make such
# files); fuzz/lsan.supp names only that library.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  LSAN_OPTIONS=suppressions="$PWD/fuzz/lsan.supp" \
  ctest --test-dir build-asan -L unit --output-on-failure -j"$jobs"

echo "== ThreadSanitizer: quillo run --jobs 2 on two inputs" >&2
configure build-tsan thread
cmake --build build-tsan -j"$jobs" --target quillo_cli
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for seed in 1 2; do
  build-tsan/app/quillo simulate --preset tiny --shots 20000 --fragment-shots 5000 \
    --seed "$seed" "$work/s${seed}_210315_093000.kq" >/dev/null
done
TSAN_OPTIONS=halt_on_error=1:exitcode=66 build-tsan/app/quillo run --jobs 2 --threads 2 \
  --quiet --out-dir "$work" "$work/s1_210315_093000.kq" "$work/s2_210315_093000.kq"
mkdir "$work/threads"
TSAN_OPTIONS=halt_on_error=1:exitcode=66 build-tsan/app/quillo run --threads 3 --quiet \
  --out-dir "$work/threads" "$work/s1_210315_093000.kq"
echo "== sanitizers: no reports" >&2
