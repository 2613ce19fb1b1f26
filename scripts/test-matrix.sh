#!/usr/bin/env bash
# Installs what is missing, builds and passes all tests for five processors, and compares what the library encodes of
# random records of all message types: it has to be the same bytes everywhere. Other processors than x86 are emulated.
# Usage: scripts/test-matrix.sh [TARGET...]   (default: release ilp32 powerpc s390x armhf)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib/packages.sh

declare -A triples=([powerpc]=powerpc-linux-gnu [s390x]=s390x-linux-gnu [armhf]=arm-linux-gnueabihf)

targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(release ilp32 powerpc s390x armhf)
require_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
for target in "${targets[@]}"; do
  triple=${triples[$target]:-}
  [ -n "$triple" ] || continue
  require_packages qemu-user "g++-$triple"
done
scripts/test.sh "${targets[@]}"

echo "== images"
first=build/${targets[0]}/images.txt
for target in "${targets[@]}"; do
  log=build/$target-images.log
  cmake --build --preset "$target" --target images >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
  cmp "$first" "build/$target/images.txt" || { echo "test-matrix.sh: $target encodes other bytes" >&2; exit 1; }
done
types=$(cut -d ' ' -f 1 "$first" | sort -u | wc -l)
echo "$(wc -l <"$first") images of $types types, the same from ${targets[*]}"
