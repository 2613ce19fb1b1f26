#!/usr/bin/env bash
# Writes ipv6_route.sample: the routing table of a made-up router with documentation and private prefixes only, in the
# format of /proc/net/ipv6_route. Always the same.
#
# A customer-facing router: two uplinks, eight customer ports, a tunnel. Flags are those of net/route.h.
set -euo pipefail

none=00000000000000000000000000000000

# route DESTINATION LENGTH NEXT-HOP METRIC REFERENCES USES FLAGS INTERFACE, addresses as 32 digits, numbers in base 16
route() { printf '%s %02x %s 00 %s %08x %08x %08x %08x %8s\n' "$1" "0x$2" $none "$3" "0x$4" "0x$5" "0x$6" "0x$7" "$8"; }

# documentation N M I, private N M I: 2001:db8:N:M::I and fd00:N:M::I
documentation() { printf '20010db8%04x%04x%016x' "$1" "$2" "$3"; }
private() { printf 'fd00%04x%04x%020x' "$1" "$2" "$3"; }
link_local() { printf 'fe80000000000000%016x' "$1"; }

ports=(eth0 eth1 eth2.101 eth2.102 eth2.103 eth2.104 eth3.201 eth3.202 eth3.203 eth3.204 wg0)

route "$(documentation 0 0 0)" 20 $none ffffffff 1 0 200200 lo # the aggregate, rejected unless more is known
for i in "${!ports[@]}"; do
  route "$(documentation 0 "$i" 0)" 40 $none 100 1 "$((i * 7))" 1 "${ports[i]}"
  route "$(private 0 "$i" 0)" 40 $none 400 2 "$((i * 3))" 40001 "${ports[i]}"
  route "$(link_local 0)" 40 $none 100 1 0 1 "${ports[i]}"
done
# Customers: a prefix each, every third one of them reachable over a second port too.
for ((i = 1; i <= 120; ++i)); do
  port=$((2 + i % 8))
  route "$(documentation "$((0x1000 + i))" 0 0)" 30 "$(documentation 0 "$port" "$((0x100 + i))")" 400 1 "$i" 3 "${ports[port]}"
  if ((i % 3 == 0)); then
    port=$((2 + (i + 1) % 8))
    route "$(documentation "$((0x1000 + i))" 0 0)" 30 "$(link_local "$((0x200 + i))")" 800 1 0 3 "${ports[port]}"
  fi
done
for ((i = 1; i <= 24; ++i)); do # branch offices behind the tunnel
  route "$(private "$i" 0 0)" 30 "$(private 0 10 "$i")" 32 1 "$((i * 11))" 3 wg0
done
for ((i = 1; i <= 12; ++i)); do # single hosts, some of them by redirect
  route "$(documentation 0 1 "$((0xa000 + i))")" 80 "$(link_local "$i")" 400 1 0 "$((i % 4 == 0 ? 17 : 7))" eth1
done
route $none 0 "$(link_local 1)" 400 5 3e8 3 eth0
route $none 0 "$(link_local 2)" 800 3 2a 450003 eth1
route "$(printf '%032x' 1)" 80 $none 0 4 1f4 80200001 lo
for i in "${!ports[@]}"; do
  route "$(documentation 0 "$i" 1)" 80 $none 0 3 "$((i * 5))" 80200001 "${ports[i]}"
  route "$(link_local "$((0xff + i))")" 80 $none 0 2 0 80200001 "${ports[i]}"
  route ff000000000000000000000000000000 8 $none 100 2 0 1 "${ports[i]}"
done
route $none 0 $none ffffffff 1 0 200200 lo
