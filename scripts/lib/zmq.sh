# shellcheck shell=bash
# ZeroMQ for targets that Debian has no library of beside the native one. To be sourced.

# debian_mirrors CODENAME: where this host gets that Debian release from, and Debian's own address. apt itself reads the
# sources, whichever of its formats they are in.
debian_mirrors() {
  # shellcheck disable=SC2016 # apt's own variables
  { apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 2>/dev/null || true; } |
    awk -v release="$1" '$1 ~ /^https?:/ && $2 == release && $3 == "main" && !seen++ { print $1 }'
  echo http://deb.debian.org/debian/
}

# fetch_zmq FOLDER: unpacks Debian's source package of ZeroMQ in the folder, past the host's own apt lists.
fetch_zmq() {
  local VERSION_CODENAME mirror private_apt
  . /etc/os-release
  mkdir -p "$1/lists/partial" "$1/cache/archives/partial"
  private_apt=(apt-get -qq -o "Dir::Etc::sourcelist=$1/sources.list" -o Dir::Etc::sourceparts=-
    -o "Dir::State::lists=$1/lists" -o "Dir::Cache=$1/cache" -o APT::Sandbox::User=root)
  while read -r mirror; do
    echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $VERSION_CODENAME main" \
      >"$1/sources.list"
    "${private_apt[@]}" update && (cd "$1" && "${private_apt[@]}" source zeromq3 >/dev/null) && return
    echo "libzmq: no source package from $mirror" >&2
  done < <(debian_mirrors "$VERSION_CODENAME")
  return 1
}

# build_zmq PREFIX CMAKE_OPTION...: builds libzmq from Debian's source package and installs it as a static library,
# unless it is there already.
build_zmq() {
  local prefix=$1 work source staged
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
    fetch_zmq "$work" || exit 1
    source=$(find "$work" -maxdepth 1 -type d -name 'zeromq3-*')
    cmake -S "$source" -B build -G Ninja -DCMAKE_BUILD_TYPE=Release "-DCMAKE_INSTALL_PREFIX=$prefix" \
      -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DBUILD_SHARED=OFF -DBUILD_STATIC=ON \
      -DBUILD_TESTS=OFF -DZMQ_BUILD_TESTS=OFF -DWITH_PERF_TOOL=OFF -DWITH_DOCS=OFF -DWITH_LIBSODIUM=OFF \
      -DENABLE_CURVE=OFF -DENABLE_WS=OFF -DWITH_TLS=OFF -DWITH_LIBBSD=OFF -DWITH_OPENPGM=OFF -DWITH_NORM=OFF \
      -DWITH_VMCI=OFF "$@" >cmake.log 2>&1 || { tail -20 cmake.log >&2; exit 1; }
    # Complete or not there at all: an interrupted installation must not pass for a good one.
    staged=$prefix.partial
    rm -rf "$staged" "$prefix"
    DESTDIR=$staged cmake --build build --target install >build.log 2>&1 || { tail -20 build.log >&2; exit 1; }
    mv "$staged$prefix" "$prefix"
    rm -rf "$staged"
  )
}
