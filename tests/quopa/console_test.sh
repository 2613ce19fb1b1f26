#!/usr/bin/env bash
# Checks that documents show what the programs print: console_test.sh FOLDER_OF_PROGRAMS DOCUMENT...
#
# In a block that starts with ```console, each line behind "$ " is a command, which goes on in the next line when it ends
# in a pipe; the lines up to the next command are what it prints, standard error included. The blocks of a document are
# run one after the other in one folder, which has the examples.
set -uo pipefail
project=$(realpath "$(dirname "$0")/../..")
PATH=$(realpath "$1"):$PATH
shift
export TZ=UTC
status=0
for document in "$@"; do
  work=$(mktemp -d)
  ln -s "$project/examples" "$work/examples"
  sed -n '/^```console$/,/^```$/{/^```/d;p}' "$document" >"$work/shown"
  while IFS= read -r line; do
    [[ $line == '$ '* ]] || continue
    while [[ $line == *'|' ]] && IFS= read -r more; do line+=$'\n'$more; done
    printf '%s\n' "$line"
    (cd "$work" && eval "${line#\$ }" 2>&1 </dev/null)
  done <"$work/shown" >"$work/printed"
  diff -u --label "$document" "$work/shown" --label 'what is printed' "$work/printed" || status=1
  rm -rf "$work"
done
exit $status
