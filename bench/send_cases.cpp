// Batches of different length to a bus that returns at once: what the library adds to the bus's own work.
#include <memory>

#include "bench/cases.h"
#include "bench/subject.h"
#include "bench/timing.h"

namespace bench {
namespace {

template <class R>
void register_row(uint32_t most, uint32_t bytes) {
  const auto generator = std::make_shared<Generator>(bytes, 0);
  const auto records = std::make_shared<std::vector<R>>(most);
  for (R &record : *records) generator->fill(record);
  for (uint32_t count = 1; count <= most; count *= 16) {
    const auto send = [=] { return Subject<R>::send_batch(1, records->data(), count, 0); };
    require(send() == 0, "a batch is not sent");
    const std::string name = std::string(Subject<R>::name) + ", a record/batch of " + std::to_string(count);
    benchmark::RegisterBenchmark(name.c_str(), [=, keep = generator](benchmark::State &state) {
      for (auto _ : state) send();
      state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
    });
  }
}

}  // namespace

void register_send_cases() {
  register_row<fib6Sync_ipv6FwdUpdateMsg>(4096, 0);
  register_row<fib6_cfg_query_comm_param>(256, 16);  // more do not fit into one batch
}

}  // namespace bench
