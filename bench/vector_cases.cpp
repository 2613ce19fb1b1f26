// Vectors of different length: the cost of an element must not depend on how many there are.
#include <malloc.h>

#include <memory>

#include "bench/cases.h"
#include "bench/subject.h"
#include "bench/timing.h"

namespace bench {

void register_vector_cases() {
  using R = korBrokerFib6_ipv6FwdUpdateMsg;
  // Large blocks stay with the process, as they do in the platform's allocator: the decoder is measured here, not how
  // the kernel hands out pages.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  for (uint32_t count = 1000; count <= 1'000'000; count *= 10) {
    R record;
    Generator generator(count, 0);
    generator.fill(record);
    const auto image = std::make_shared<Image>(packed(record));
    require_decodes(*image, record);
    const auto decoded = std::make_shared<R>();
    const auto decode = [=](uint32_t) {
      Subject<R>::unpack(image->data(), static_cast<uint32_t>(image->size()), decoded.get());
    };
    const auto release = [=](uint32_t) { Subject<R>::release(decoded.get()); };
    time_step(std::string(Subject<R>::name) + ", an element/decode of " + std::to_string(count), Step::first, 1, count,
              decode, release);
  }
}

}  // namespace bench
