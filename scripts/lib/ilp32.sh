# shellcheck shell=bash
# How the programs of the 32-bit presets are run. To be sourced.

# runs_32_bit_programs: whether this kernel does; those of many virtual machines do not, and containers may forbid it.
runs_32_bit_programs() {
  local folder status=0
  folder=$(mktemp -d)
  echo 'int main(void) { return 0; }' >"$folder/probe.c"
  g++ -m32 -o "$folder/probe" "$folder/probe.c" || fail "g++ -m32 builds no programs"
  "$folder/probe" 2>/dev/null || status=$?
  rm -rf "$folder"
  [ $status -eq 0 ]
}
