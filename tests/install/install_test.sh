#!/usr/bin/env bash
# Installs what is built and uses it as other projects do: install_test.sh BUILD_FOLDER
# Nothing of the library is compiled again.
set -uo pipefail
project=$(realpath "$(dirname "$0")/../..")
build=$(realpath "$1")
all_types=$project/tests/install/all_types.c
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
unset DESTDIR PKG_CONFIG_PATH LD_LIBRARY_PATH CMAKE_PREFIX_PATH CFLAGS CXXFLAGS LDFLAGS
failures=0

# try WHAT COMMAND...: shows what the command says only when it fails.
try() {
  local what=$1
  shift
  if "$@" >log 2>&1; then
    echo "ok: $what"
  else
    echo "FAILED: $what"
    tail -n 40 log
    failures=$((failures + 1))
  fi
}
# try_failing WHAT PATTERN COMMAND...: the command fails and says so.
try_failing() { try "$1" fails_with "${@:2}"; }
fails_with() {
  ! "${@:2}" >said 2>&1 || { cat said && return 1; }
  tr -s '\n ' '  ' <said | grep -E -- "$1" || { cat said && return 1; }
}
block() { sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/{/^\`\`\`/d;p}" "$project/${2:-README.md}"; }
# prints TEXT COMMAND...: nothing but the text.
prints() { [ "$("${@:2}" 2>&1 | tee /dev/stderr)" = "$1" ]; }
everything='709 operations, 0 failures'

# As the README says, but for building.
export HOME=$work/home
mkdir -p "$HOME"
block c >my_process.c
block sh | sed -n '/^cmake --install build\/plain --prefix "$HOME/,/-o my_process$/p' | sed "s|build/plain|'$build'|" >readme.sh
try 'the commands of the README' bash -euc '. ./readme.sh'
try 'the program of the README' prints 'received 6 254 vrf-red' ./my_process
{ printf 'cmake_minimum_required(VERSION 3.25)\nproject(readme C)\n' && block cmake; } >CMakeLists.txt
try 'the CMake lines of the README' sh -c 'cmake -G Ninja -B readme -DCMAKE_PREFIX_PATH="$HOME/drix" && cmake --build readme'
try 'the program made with CMake' prints 'received 6 254 vrf-red' readme/my_process

# Into a folder for packaging, with a prefix that has blanks, then moved.
tree="$work/where it ended up"
try 'DESTDIR' env DESTDIR="$work/stage" cmake --install "$build" --prefix '/opt/with blanks'
mv "$work/stage/opt/with blanks" "$tree"
try 'nothing outside DESTDIR' test ! -e '/opt/with blanks'
[ ! -e "$build/platform/libkelvodrix_nats.so" ] || try 'the bus between hosts' test -s "$tree/lib/libkelvodrix_nats.so"
export PKG_CONFIG_PATH=$tree/lib/pkgconfig
consumer=(cmake -G Ninja -S "$project/tests/install/consumer" -B consumer "-DALL_TYPES=$all_types" "-DCMAKE_PREFIX_PATH=$tree")
try 'find_package' "${consumer[@]}"
try 'C99, C++11 and C++20 without a warning' cmake --build consumer
for program in all_types_C99 all_types_CXX11 all_types_CXX20; do try $program prints "$everything" consumer/$program; done
# The C++ header, also where only one package is installed.
headers=$tree/include/drix_fib6
mkdir one
cp "$headers"/{drix_bus.h,drix_message.h,drix_message.hpp,fib6_cfg.h,kelvodrix.h} one
while read -r compiler standard folder; do
  command -v "$compiler" >/dev/null || { echo "left out: $compiler" && continue; }
  try "drix_message.hpp, $compiler, C++$standard, ${folder##*/}" "$compiler" "-std=c++$standard" -Wall -Wextra -Wpedantic \
    -Wconversion -Wshadow -Werror "-I$folder" "$tree/share/doc/drix_fib6/examples/quick_start.cpp" \
    "-L$tree/lib" -ldrix_fib6 -lkelvodrix "-Wl,-rpath,$tree/lib" -o cpp
  try '  runs' prints $'decoded 6 254 vrf-red\nreceived 6 254 vrf-red\nreceived 7 255 vrf' ./cpp
done <<END
g++ 17 $headers
g++ 20 $headers
clang++-14 17 $headers
clang++-14 20 $headers
g++ 17 one
END
try 'the symbol version is asked for' sh -c 'readelf -V consumer/all_types_C99 | grep DRIX_FIB6_1'
try 'quopa' prints '{"f0":7,"f1":0}' sh -c "echo '{\"f0\":7}' | '$tree/bin/quopa' encode fib6Sync.tlv | '$tree/bin/quopa' decode fib6Sync.tlv"
# Every option of every command stands in the command's part of the manual page.
pages() {
  local quopa=$tree/bin/quopa command option options=0 missing=0
  for command in $("$quopa" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p'); do
    for option in $("$quopa" "$command" --help | sed -n 's/^  \(-[^ ]*\).*/\1/p' | tr , '\n' | grep -vE '^(-h|--help)$'); do
      options=$((options + 1))
      sed -n "/^## $command\$/,/^##* /p" "$project/man/quopa.1.scd" | grep -q -- "\*$option\*" ||
        { echo "quopa(1) has no $option of $command" && missing=1; }
    done
  done
  [ $missing -eq 0 ] && [ $options -gt 10 ]
}
try 'every option is in quopa(1)' pages
try 'completion' prints annotate bash -c ". '$tree/share/bash-completion/completions/quopa'
  PATH='$tree/bin':\$PATH COMP_LINE='quopa an' COMP_POINT=8 COMP_WORDS=(quopa an) COMP_CWORD=1 && _quopa && echo \"\${COMPREPLY[@]}\""

# A program that was linked with a library without symbol versions runs with this one.
mkdir unversioned
nm -D --defined-only "$tree/lib/libdrix_fib6.so" | sed -n 's/.* T \(.*\)@@.*/int \1(void); int \1(void) { return 0; }/p' >unversioned.c
try 'a program linked without symbol versions' sh -ec "
  cc -shared -fPIC -Wl,-soname,libdrix_fib6.so.1 unversioned.c -o unversioned/libdrix_fib6.so
  cc '-I$tree/include/drix_fib6' '$all_types' -Lunversioned -ldrix_fib6 -o old_program
  ! readelf -V old_program | grep DRIX"
try '  runs' prints "$everything" env "LD_LIBRARY_PATH=$tree/lib" ./old_program

# What is missing is said, and what to do.
for version in 2.0 0.9; do
  echo "find_package(drix_fib6 $version REQUIRED)" >version.cmake
  try_failing "version $version" "version: 1.0.0 \(its binary interface is number 1: ask for 1.0, or install drix_fib6 $version\)" \
    cmake "-DCMAKE_PREFIX_PATH=$tree" -P version.cmake
done
mkdir elsewhere
mv "$tree/lib/libkelvodrix.so" elsewhere/
try 'no bus' sh -c '"$@" 2>&1 | tee /dev/stderr | tr -s "\n " "  " | grep "set drix_fib6_BUS_LIBRARY to the platform"' sh \
  "${consumer[@]}" -Udrix_fib6_BUS_LIBRARY
try 'a bus elsewhere' sh -c '"$@" && cmake --build consumer' sh "${consumer[@]}" "-Ddrix_fib6_BUS_LIBRARY=$work/elsewhere/libkelvodrix.so"
try '  is found by the programs when they run' prints "$everything" env LD_LIBRARY_PATH=elsewhere consumer/all_types_CXX20
mv "$tree/lib/libdrix_fib6.so.1.0.0" elsewhere/
try_failing 'headers without the library' 'headers are there, but not .*libdrix_fib6.so.1.0.0: install the library' "${consumer[@]}"
try_failing 'a platform bus that is not there' 'DRIX_BUS_LIBRARY is no file: /none/libkelvodrix.so. Give the path' \
  cmake -G Ninja -S "$project" -B none -DDRIX_BUS_LIBRARY=/none/libkelvodrix.so

# lib64, folders of their own, and the pages; with the shared objects that there are.
man=$(command -v scdoc >/dev/null && echo ON || echo OFF)
[ $man = ON ] || echo 'left out: manual pages (no scdoc)'
try 'lib64' cmake -G Ninja -S "$project" -B lib64 -DCMAKE_INSTALL_LIBDIR=lib64 -DCMAKE_INSTALL_INCLUDEDIR="$work/headers" \
  -DDRIX_INSTALL_STANDINS=ON -DDRIX_BUILD_MAN=$man
[ $man = OFF ] || try 'manual pages' cmake --build lib64 --target man
cp -a "$build"/libdrix_fib6.so* lib64/
cp -a "$build"/platform/*.so lib64/platform/
try '  installed' cmake --install lib64 --prefix "$work/tree64"
[ $man = OFF ] || try '  with pages' test -s tree64/share/man/man3/drix_fib6.3 -a -s tree64/share/man/man3/kelvodrix.3
try '  built against' sh -ec "export PKG_CONFIG_PATH=tree64/lib64/pkgconfig
  cc my_process.c \$(pkg-config --cflags --libs drix_fib6 kelvodrix) -o process64"
try '  runs' prints 'received 6 254 vrf-red' env LD_LIBRARY_PATH=tree64/lib64 ./process64

# Without installing: the project is configured, and the program compiled with what that gives.
for fetch in OFF ON; do
  try "subproject, FetchContent $fetch" cmake -G Ninja -S "$project/tests/install/subproject" -B sub$fetch "-DDRIX_SOURCES=$project" \
    "-DALL_TYPES=$all_types" -DFETCH=$fetch -DCMAKE_EXPORT_COMPILE_COMMANDS=ON
  try '  compiles' sh -c "cd sub$fetch && eval \"\$(jq -r '.[] | select(.file | endswith(\"all_types.c\")).command' compile_commands.json)\""
  try '  links the library' sh -c "ninja -C sub$fetch -t commands all_types | tail -n 1 | grep libdrix_fib6.so"
  try '  builds no tools and installs nothing of it' sh -c "! ninja -C sub$fetch -t targets all | grep -E '(^|/)(lib)?quopa[^/]*:' && ! grep -r fib6Sync.h sub$fetch --include=cmake_install.cmake"
done

if python3 -c 'import cffi' 2>/dev/null; then
  block python docs/python.md >recipe.py
  block console docs/python.md | sed -n '/^\$/d;p' >shown
  cp -a elsewhere/* "$tree/lib/"
  try 'the recipe for Python' test -s recipe.py -a -s shown
  try '  prints what it says' sh -c 'LD_LIBRARY_PATH="$1" python3 recipe.py | tee /dev/stderr | diff shown -' sh "$tree/lib"
else
  echo 'left out: Python (no python3-cffi)'
fi
exit $((failures > 0))
