#!/usr/bin/env bash
# Installs what is missing, builds and passes all tests for five processors, and compares what the library encodes of
# random records of all message types: it has to be the same bytes everywhere. Other processors than x86 are emulated.
#
# Usage: scripts/test-matrix.sh [TARGET...]   (default: release ilp32 powerpc s390x armhf)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/lib/script.sh
. scripts/lib/packages.sh

declare -A triples=([powerpc]=powerpc-linux-gnu [s390x]=s390x-linux-gnu [armhf]=arm-linux-gnueabihf)

targets=("$@")
for target in "$@"; do
  [ "$target" = release ] || [ "$target" = ilp32 ] || [ -n "${triples[$target]:-}" ] || no_arguments "$target"
done
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
  logged "build/$target.log" cmake --build --preset "$target" --target images
  cmp "$first" "build/$target/images.txt" || fail "$target encodes other bytes"
done
types=$(cut -d ' ' -f 1 "$first" | sort -u | wc -l)
echo "$(wc -l <"$first") images of $types types, the same from ${targets[*]}"
