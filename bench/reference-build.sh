#!/usr/bin/env bash
# Builds the command line of a given commit into a folder of its own, so that a speed figure
# can be measured side by side against it on the same machine in the same session.
# Usage: bench/reference-build.sh COMMIT DIR   (prints the path of the built `quillo`)
set -euo pipefail
commit=$1
dir=$(realpath -m "$2")
repo=$(git -C "$(dirname "$0")/.." rev-parse --show-toplevel)
mkdir -p "$dir"
if [ ! -f "$dir/src/.commit" ] || [ "$(cat "$dir/src/.commit")" != "$commit" ]; then
  rm -rf "$dir/src"
  mkdir -p "$dir/src"
  git -C "$repo" archive "$commit" | tar -x -C "$dir/src"
  echo "$commit" >"$dir/src/.commit"
fi
# The reference reads ../shared beside its sources only in tests, which are not built here.
cmake -S "$dir/src" -B "$dir/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir/build" -j"${JOBS:-2}" --target quillo_cli >/dev/null
echo "$dir/build/app/quillo"
