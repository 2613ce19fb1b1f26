#!/bin/sh
# The shared object exports exactly the operations of its 100 message types and 3 packages, depends on libc and the bus
# only, runs no code of its own when it is loaded and carries its soname.
# Usage: [NM=... READELF=...] check_shared_object.sh LIBRARY SONAME HEADER...
set -eu
nm=${NM:-nm}
readelf=${READELF:-readelf}
library=$1
soname=$2
shift 2
expected=$(mktemp)
actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT

for header in "$@"; do
  sed -n 's/^ *MESSAGE(\([a-zA-Z0-9_]*\), \([a-zA-Z0-9_]*\)).*/\1_\2/p' "$header" |
    while read -r type; do
      for operation in __pack __unpack _free__unpacked __sendmsg __sendtomsg __sendsingle __sendbatch; do
        echo "$type$operation"
      done
    done
  sed -n 's/^DRIX_DECLARE_PACKAGE(\([a-zA-Z0-9_]*\)).*/\1_recv_init\n\1_send_init\n\1__send_resource_clean/p' "$header"
done | LC_ALL=C sort >"$expected"
"$nm" -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort >"$actual"
diff -u "$expected" "$actual" || { echo "exports differ from the headers"; exit 1; }
count=$(wc -l <"$actual")
[ "$count" -eq $((100 * 7 + 3 * 3)) ] || { echo "exports $count functions"; exit 1; }

fail=0
"$readelf" -d "$library" | grep -q "SONAME.*\[$soname\]" || { echo "soname is not $soname"; fail=1; }
extra=$("$readelf" -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -vE '^(libc\.so|libkelvodrix\.so|ld-linux|ld\.so|ld64\.so)' || true)
[ -z "$extra" ] || { echo "needs more than libc and the bus: $extra"; fail=1; }
undefined=$("$nm" -D -u "$library" | awk '{ print $NF }' | grep -E '^_Z|^__cxa_(throw|guard|pure)|personality' || true)
[ -z "$undefined" ] || { echo "needs a C++ runtime: $undefined"; fail=1; }
# One pointer is the compiler's own, to frame_dummy.
case $("$readelf" -h "$library") in *ELF64*) pointer=8 ;; *) pointer=4 ;; esac
at_start=$("$readelf" -d "$library" | awk '/INIT_ARRAYSZ/ { sum += $3 } END { print sum + 0 }')
[ "$at_start" -le "$pointer" ] || { echo "runs code when it is loaded: $at_start bytes of pointers to it"; fail=1; }
echo "$count exported functions"
exit $fail
