# ZeroMQ for targets that Debian has no library of beside the native one. To be sourced.

# build_zmq PREFIX CMAKE_OPTION...: builds libzmq from Debian's source package and installs it as a static library,
# unless it is there already.
build_zmq() {
  local prefix=$1 work source private_apt
  shift
  if [ -e "$prefix/lib/libzmq.a" ]; then
    echo "libzmq: present in $prefix"
    return 0
  fi
  echo "libzmq: building from Debian's source package into $prefix"
  work=$(mktemp -d) || return 1
  (
    set -e
    trap 'rm -rf "$work"' EXIT
    cd "$work"
    mkdir -p lists/partial cache/archives/partial
    . /etc/os-release
    echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian $VERSION_CODENAME main" >sources.list
    private_apt=(apt-get -qq -o "Dir::Etc::sourcelist=$work/sources.list" -o Dir::Etc::sourceparts=-
      -o "Dir::State::lists=$work/lists" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=root)
    "${private_apt[@]}" update
    "${private_apt[@]}" source zeromq3 >/dev/null
    source=$(find "$work" -maxdepth 1 -type d -name 'zeromq3-*')
    cmake -S "$source" -B build -G Ninja -DCMAKE_BUILD_TYPE=Release "-DCMAKE_INSTALL_PREFIX=$prefix" \
      -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DBUILD_SHARED=OFF -DBUILD_STATIC=ON \
      -DBUILD_TESTS=OFF -DZMQ_BUILD_TESTS=OFF -DWITH_PERF_TOOL=OFF -DWITH_DOCS=OFF -DWITH_LIBSODIUM=OFF \
      -DENABLE_CURVE=OFF -DENABLE_WS=OFF -DWITH_TLS=OFF -DWITH_LIBBSD=OFF -DWITH_OPENPGM=OFF -DWITH_NORM=OFF \
      -DWITH_VMCI=OFF "$@" >cmake.log 2>&1 || { tail -20 cmake.log >&2; exit 1; }
    cmake --build build --target install >build.log 2>&1 || { tail -20 build.log >&2; exit 1; }
  )
}
