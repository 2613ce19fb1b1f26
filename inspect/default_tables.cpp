// The tables that the packages' types are for, as far as they have types of keys. Envelopes of fib6Sync carry one record;
// those of korBrokerFib6 many, or one with what belongs to it.
#include "inspect/labels.h"

namespace drix::inspect {

const char *const Labels::kTables = R"(
[fib6Sync.ipv6FwdUpdateMsg]
adds f1
[fib6Sync.ipv6FwdDelMsg]
deletes f1
[fib6Sync.ipv6FwdKey]
key of fib6Sync.ipv6Fwd f2=f3 f3=f4 f0=f0 f1=f1

[fib6Sync.nhp6GroupUpdateMsg]
adds f1
[fib6Sync.nhp6GroupDelMsg]
deletes f1
[fib6Sync.nhp6GroupKey]
key of fib6Sync.nhp6Group f0=f0 f1=f1

[fib6Sync.nhp6GroupNodeUpdateMsg]
adds f1
[fib6Sync.nhp6GroupNodeDelMsg]
deletes f1
[fib6Sync.nhp6GroupNodeKey]
key of fib6Sync.nhp6GroupNode f0=f0 f1=f1 f2=f2 f3=f3 f4=f4 f5=f5 f6=f6

[fib6Sync.nhp6UpdateMsg]
adds f1
[fib6Sync.nhp6DelMsg]
deletes f1
[fib6Sync.nhp6Key]
key of fib6Sync.nhp6 f0=f0

[fib6Sync.nhp6StdUpdateMsg]
adds f1
[fib6Sync.nhp6StdDelMsg]
deletes f1
[fib6Sync.nhp6StdKey]
key of fib6Sync.nhp6Std f0=f0 f1=f1 f2=f2

[fib6Sync.srv6SrListUpdateMsg]
adds f1
[fib6Sync.srv6SrListDelMsg]
deletes f1
[fib6Sync.srv6SrListKey]
key of fib6Sync.srv6SrList f0=f0 f1=f1 f2=f2 f3=f3

[fib6Sync.ipv6PathMtuUpdateMsg]
adds f1
[fib6Sync.ipv6PathMtuDelMsg]
deletes f1
[fib6Sync.ipv6PathMtuKey]
key of fib6Sync.ipv6PathMtu f2=f2 f0=f0 f1=f1

[korBrokerFib6.ipv6FwdUpdateMsg]
adds f1
[korBrokerFib6.ipv6FwdDelMsg]
deletes f1
[korBrokerFib6.ipv6FwdKey]
key of korBrokerFib6.ipv6Fwd f2=f3 f3=f4 f0=f0 f1=f1

[korBrokerFib6.nhp6GroupUpdateMsg]
adds f1 f2
[korBrokerFib6.nhp6GroupDelMsg]
deletes f1
[korBrokerFib6.nhp6GroupKey]
key of korBrokerFib6.nhp6Group f0=f0 f1=f1

[korBrokerFib6.nhp6UpdateMsg]
adds f1 f2 f3 f4 f5 f6 f7
[korBrokerFib6.nhp6DelMsg]
deletes f1
[korBrokerFib6.nhp6Key]
key of korBrokerFib6.nhp6 f0=f0

# The key has a u32 f2 more, to which nothing in the record corresponds.
[korBrokerFib6.srv6SrListUpdateMsg]
adds f1
[korBrokerFib6.srv6SrListDelMsg]
deletes f1
[korBrokerFib6.srv6SrListKey]
key of korBrokerFib6.srv6SrList f0=f0 f1=f1 f3=f2

[korBrokerFib6.ipv6PathMtuUpdateMsg]
adds f1
[korBrokerFib6.ipv6PathMtuDelMsg]
deletes f1
[korBrokerFib6.ipv6PathMtuKey]
key of korBrokerFib6.ipv6PathMtu f2=f2 f0=f0 f1=f1
)";

}  // namespace drix::inspect
