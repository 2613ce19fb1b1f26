# shellcheck shell=bash
# Debian packages for the project's scripts. To be sourced.

# require_packages NAME...: installs those of the named packages that are missing, and says so. Starts no service that they
# bring.
require_packages() {
  local missing=() name
  for name in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "packages: all present ($*)"
    return 0
  fi
  echo "packages: installing ${missing[*]}"
  local root=(env)
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "packages: need root or sudo to install ${missing[*]}" >&2; return 1; }
    root=(sudo)
  fi
  # Waits for another apt that is at work.
  local apt=("${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
  "${apt[@]}" update || echo "packages: apt-get update failed, going on with the present lists" >&2
  stopped "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null ||
    { echo "packages: could not install ${missing[*]}" >&2; return 1; }
}

# Debian asks this file whether a service may start.
stopped() (
  policy=/usr/sbin/policy-rc.d
  if [ ! -e $policy ]; then
    trap '"${root[@]}" rm -f $policy' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${root[@]}" tee $policy >/dev/null
    "${root[@]}" chmod 755 $policy
  fi
  "$@"
)

# shellcheck disable=SC2034 # for those who source this
BUILD_PACKAGES=(g++ cmake ninja-build libmnl-dev)
TOOLS_PACKAGES=(libcli11-dev nlohmann-json3-dev)
# shellcheck disable=SC2034
TEST_PACKAGES=("${TOOLS_PACKAGES[@]}" clang-14 clang-format-14 libclang-rt-14-dev g++-12-multilib googletest libgtest-dev binutils jq
  tshark pkg-config scdoc python3-cffi nats-server libnats-dev openssl)
