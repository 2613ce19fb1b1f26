#!/bin/sh
# The shared object exports exactly the operations of the message types and packages in the headers, with the version of
# its soname, depends on libc and the bus only, runs no code of its own when it is loaded, carries its soname and is hardened.
# Usage: [NM=... READELF=... OBJDUMP=...] check_shared_object.sh LIBRARY SONAME HARDENING HEADER...
#   HARDENING: "none", "plain", or "x86" where calls through pointers are checked too
set -eu
nm=${NM:-nm}
readelf=${READELF:-readelf}
objdump=${OBJDUMP:-objdump}
library=$1
soname=$2
hardening=$3
shift 3
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
[ -s "$expected" ] || { echo "the headers declare nothing: $*"; exit 1; }
version=DRIX_FIB6_${soname##*.}
# Of the version itself, which is a symbol too, some nm tell the version.
"$nm" -D --defined-only "$library" | awk '{ print $3 }' | sed "s/^$version@@.*/$version/" | LC_ALL=C sort >"$actual"
{ sed "s/\$/@@$version/" "$expected" && echo "$version"; } | LC_ALL=C sort | diff -u - "$actual" ||
  { echo "exports differ from the headers"; exit 1; }

fail=0
complain() {
  echo "$*"
  fail=1
}
dynamic=$("$readelf" -d "$library")
undefined=$("$nm" -D -u "$library" | awk '{ print $NF }')

echo "$dynamic" | grep -q "SONAME.*\[$soname\]" || complain "soname is not $soname"
extra=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
  grep -vE '^(libc\.so|libkelvodrix\.so|ld-linux|ld\.so|ld64\.so)' || true)
[ -z "$extra" ] || complain "needs more than libc and the bus: $extra"
runtime=$(echo "$undefined" | grep -E '^_Z|^__cxa_(throw|guard|pure)|personality' || true)
[ -z "$runtime" ] || complain "needs a C++ runtime: $runtime"
# One pointer is the compiler's own, to frame_dummy.
case $("$readelf" -h "$library") in *ELF64*) pointer=8 ;; *) pointer=4 ;; esac
at_start=$(echo "$dynamic" | awk '/INIT_ARRAYSZ/ { sum += $3 } END { print sum + 0 }')
[ "$at_start" -le "$pointer" ] || complain "runs code when it is loaded: $at_start bytes of pointers to it"

if [ "$hardening" != none ]; then
  segments=$("$readelf" -lW "$library")
  echo "$segments" | grep -q GNU_RELRO || complain "no table is protected after relocation"
  echo "$dynamic" | grep -qE 'BIND_NOW|Flags:.* NOW' || complain "symbols are bound while it runs"
  echo "$dynamic" | grep -q TEXTREL && complain "code is relocated"
  echo "$segments" | grep GNU_STACK | grep -q 'RW ' || complain "the stack is executable"
  echo "$undefined" | grep -q '^__stack_chk_fail' || complain "the stack is not protected"
fi
if [ "$hardening" = x86 ]; then
  unmarked=$("$objdump" -d --no-show-raw-insn "$library" |
    awk 'FNR == NR { exported["<" $1 ">:"] = 1; next } $2 in exported { name = $2; getline; if (!/endbr/) print name }' "$expected" -)
  [ -z "$unmarked" ] || complain "not marked as a target of calls through pointers: $unmarked"
fi
echo "$(wc -l <"$expected") exported functions"
exit $fail
