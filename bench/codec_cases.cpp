// Every operation of the codec, with what bounds it from below and with what would be written without it.
#include <memory>
#include <vector>

#include "bench/cases.h"
#include "bench/plain.h"
#include "bench/subject.h"
#include "bench/timing.h"
#include "packages/package.h"

// The shared object exports no fixed builder, so it is made here, from the same templates.
static constinit drix::PackageServices fib6Sync_services;
static constinit drix::PackageServices fib6_cfg_services;
static constinit drix::PackageServices korBrokerFib6_services;
DRIX_MESSAGE_CONSTANTS(fib6Sync, ipv6FwdUpdateMsg)
DRIX_MESSAGE_CONSTANTS(fib6Sync, srv6SrList)
DRIX_MESSAGE_CONSTANTS(fib6_cfg, query_fib6_item)
DRIX_MESSAGE_CONSTANTS(korBrokerFib6, ipv6Fwd)

namespace bench {
namespace {

constexpr uint32_t kTurns = 16;

[[gnu::noinline]] void copy(void *to, const void *from, std::size_t size) { std::memcpy(to, from, size); }

template <class R>
[[gnu::noinline]] void build_fixed(uint8_t *buffer, const R *record) {
  drix::build_fixed(drix::kEncoder<R>, buffer, record);
}

// Records of one type and their encodings.
template <class R>
struct Material {
  Material(uint32_t elements, double zeros) : generator(elements, zeros), records(kTurns), decoded(kTurns) {
    for (R &record : records) {
      generator.fill(record);
      const std::size_t size = memory_of(record);
      flat.emplace_back(size, uint8_t{1});
      compact.push_back(packed(record));
      require_decodes(compact.back(), record);
      plain.emplace_back(size);
      plain.back().resize(plain::write(plain.back().data(), &record));
      R &read = decoded[0];
      require(plain::read(plain.back().data(), plain.back().size(), &read) && equal(record, read), "plain: differs");
      plain::release(&read);
      if constexpr (drix::kFixedLength<R>) {
        fixed.emplace_back(drix::fixed_length<R>());
        build_fixed(fixed.back().data(), &record);
        require_decodes(fixed.back(), record);
      }
    }
  }

  Generator generator;
  std::vector<R> records;
  std::vector<R> decoded;
  std::vector<Image> flat;  // as many bytes as a record takes with all it points to
  std::vector<Image> compact;
  std::vector<Image> fixed;
  std::vector<Image> plain;
};

// A row of the table: the operations on records with this many elements in vectors and this part of the scalars zero.
template <class R>
void register_row(const std::string &variant, uint32_t elements, double zeros) {
  const auto all = std::make_shared<Material<R>>(elements, zeros);
  const std::string row = Subject<R>::name + variant + "/";
  const auto out = std::make_shared<Image>(2 * all->flat[0].size() + 2 * all->compact[0].size() + 1000);

  const auto time_copies = [&](const char *column, const std::vector<Image> &of) {
    time_in_turn(row + column, kTurns, [&of, all, out](uint32_t i) { copy(out->data(), of[i].data(), of[i].size()); });
  };
  const auto time_decoding = [&](const char *column, const std::vector<Image> &of) {
    const auto decode = [&of, all](uint32_t i) {
      Subject<R>::unpack(of[i].data(), static_cast<uint32_t>(of[i].size()), &all->decoded[i]);
    };
    if constexpr (drix::kFixedLength<R>) {
      time_in_turn(row + column, kTurns, decode);
    } else {
      const auto release = [all](uint32_t i) { Subject<R>::release(&all->decoded[i]); };
      time_step(row + column, Step::first, kTurns, 1, decode, release);
      time_step(row + "release", Step::second, kTurns, 1, decode, release);
    }
  };

  time_copies("copy record", all->flat);
  time_copies("copy compact", all->compact);
  time_in_turn(row + "plain write", kTurns, [=](uint32_t i) { plain::write(out->data(), &all->records[i]); });
  time_in_turn(row + "compact build", kTurns, [=](uint32_t i) {
    auto length = static_cast<uint32_t>(out->size());
    Subject<R>::pack(&all->records[i], out->data(), &length);
  });
  time_decoding("compact decode", all->compact);
  const auto read = [all](uint32_t i) { plain::read(all->plain[i].data(), all->plain[i].size(), &all->decoded[i]); };
  if constexpr (drix::kFixedLength<R>) {
    time_in_turn(row + "plain read", kTurns, read);
    time_copies("copy fixed", all->fixed);
    time_in_turn(row + "fixed build", kTurns, [=](uint32_t i) { build_fixed(out->data(), &all->records[i]); });
    time_decoding("fixed decode", all->fixed);
    time_in_turn(row + "release", kTurns, [all](uint32_t i) { Subject<R>::release(&all->decoded[i]); });
  } else {
    time_step(row + "plain read", Step::first, kTurns, 1, read,
              [all](uint32_t i) { plain::release(&all->decoded[i]); });
  }
}

}  // namespace

void register_codec_cases() {
  register_row<fib6Sync_ipv6FwdUpdateMsg>("", 0, 0);
  register_row<fib6Sync_ipv6FwdUpdateMsg>(", half zero", 0, 0.5);
  register_row<fib6Sync_srv6SrList>("", 0, 0);
  register_row<fib6_cfg_query_fib6_item>(", half zero", 0, 0.5);
  register_row<korBrokerFib6_ipv6Fwd>("", 0, 0);
  register_row<korBrokerFib6_ipv6Fwd>(", half zero", 0, 0.5);
  register_row<korBrokerFib6_ipv6FwdUpdateMsg>(", 64 elements", 64, 0);
  register_row<korBrokerFib6_ipv6FwdUpdateMsg>(", 64 elements, half zero", 64, 0.5);
  register_row<korBrokerFib6_nhp6UpdateMsg>(", 4 elements a vector", 4, 0);
  register_row<korBrokerFib6_nhp6UpdateMsg>(", 4 elements a vector, half zero", 4, 0.5);
}

}  // namespace bench
