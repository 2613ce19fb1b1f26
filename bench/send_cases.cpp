// Batches of different length to a bus that returns at once: what the library adds to the bus's own work. Beside it
// what building alone costs, which is the fixed layout for types that have one and the compact layout for others.
#include <memory>
#include <vector>

#include "bench/cases.h"
#include "bench/records.h"
#include "bench/timing.h"

namespace bench {
namespace {

// length is of vectors and byte strings, longest of batches.
template <class R>
void register_row(const std::string &variant, uint32_t length, double zeros, uint32_t turns, uint32_t longest) {
  const std::string row = std::string("sends/") + drix::message<R>::name + variant + "/";
  if (!is_wanted(row)) return;
  const auto records = std::make_shared<std::vector<R>>(turns);
  const auto generator = std::make_shared<Generator>(length, zeros);
  for (R &record : *records) generator->fill(record);
  time_in_turn(row + "build", turns, 1, [=, keep = generator](uint32_t i) {
    if constexpr (drix::kFixedLength<R>) {
      build_fixed(output(), &(*records)[i]);
    } else {
      pack((*records)[i]);
    }
  });
  require(drix::message<R>::sendsingle(1, &(*records)[0], 1, 0) == 0, "a record is not sent");
  time_in_turn(row + "sendsingle", turns, 1,
               [=](uint32_t i) { drix::message<R>::sendsingle(1, &(*records)[i], 1, 0); });
  for (const uint32_t batch : {1u, 8u, 256u, 4096u}) {
    if (batch > longest) break;
    require(drix::message<R>::sendbatch(1, &(*records)[0], batch, 0) == 0, "a batch is not sent");
    time_in_turn(row + "batch of " + std::to_string(batch), turns / batch, batch,
                 [=](uint32_t i) { drix::message<R>::sendbatch(1, &(*records)[i * batch], batch, 0); });
  }
}

}  // namespace

void register_send_cases() {
  register_row<fib6Sync_tlv>("", 0, 0.5, kUnseen, 4096);
  register_row<fib6Sync_ipv6FwdUpdateMsg>("", 0, 0.5, kUnseen, 4096);
  register_row<fib6_cfg_query_comm_param>(", 16 bytes", 16, 0, kUnseen, 256);  // more do not fit into one batch
  register_row<fib6_cfg_query_comm_param>(", 16 bytes, half zero", 16, 0.5, kUnseen, 256);
  register_row<korBrokerFib6_nhp6UpdateMsg>(", 4 elements a vector", 4, 0, kUnseen / 24, 8);
  register_row<korBrokerFib6_nhp6UpdateMsg>(", 4 elements a vector, half zero", 4, 0.5, kUnseen / 24, 8);
}

}  // namespace bench
