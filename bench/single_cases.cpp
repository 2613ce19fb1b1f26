// Every operation of the codec on single records, with what bounds it from below, with what would be written without
// the library, and with its peers.
#include <memory>
#include <type_traits>
#include <vector>

#include "bench/cases.h"
#include "bench/peers/peers.h"
#include "bench/plain.h"
#include "bench/records.h"
#include "bench/timing.h"
#include "runtime/image.h"

namespace bench {
namespace {

// Records of one type and their encodings.
template <class R>
struct Set {
  Set(uint32_t count, double zeros) : records(count) {
    Generator generator(0, zeros);
    for (R &record : records) {
      generator.fill(record);
      compact.add([&] { return pack(record); });
      fixed.add([&] {
        build_fixed(output(), &record);
        return drix::fixed_length<R>();
      });
      plain.add([&] { return plain::write(output(), &record); });
    }
    for (uint32_t i = 0; i < count; ++i) {
      require_decodes(compact[i], records[i]);
      require_decodes(fixed[i], records[i]);
      require(plain::read(plain[i].start, plain[i].size, &decoded) && equal(records[i], decoded), "plain: differs");
    }
  }

  std::vector<R> records;
  Images compact;
  Images fixed;
  Images plain;
  R decoded;
};

template <class Codec, class R>
void register_peer(const std::string &row, const char *name, const std::shared_ptr<Set<R>> &set) {
  const auto turns = static_cast<uint32_t>(set->records.size());
  const auto codec = std::make_shared<Codec>(1);
  const auto images = std::make_shared<Images>();
  for (const R &record : set->records) {
    images->add([&] { return codec->write(record, output(), kRoom); });
  }
  for (uint32_t i = 0; i < turns; ++i) {
    const Images::Image image = (*images)[i];
    require(codec->read(image.start, image.size, set->decoded) && equal(set->records[i], set->decoded),
            std::string(name) + ": differs");
  }
  time_in_turn(row + name + " write", turns, 1, [=](uint32_t i) { codec->write(set->records[i], output(), kRoom); });
  time_in_turn(row + name + " read", turns, 1, [=](uint32_t i) {
    const Images::Image image = (*images)[i];
    codec->read(image.start, image.size, set->decoded);
  });
}

template <class R>
void register_row(uint32_t turns, double zeros) {
  const std::string row = std::string("single records/") + drix::message<R>::name +
                          (zeros > 0 ? ", half zero, " : ", ") + std::to_string(turns) + " in turn/";
  if (!is_wanted(row)) return;
  const auto set = std::make_shared<Set<R>>(turns, zeros);
  const auto time_copies = [&](const char *column, const Images &images) {
    time_in_turn(row + column, turns, 1,
                 [set, &images](uint32_t i) { copy(output(), images[i].start, images[i].size); });
  };
  const auto time_decoding = [&](const char *column, const Images &images) {
    time_in_turn(row + column, turns, 1, [set, &images](uint32_t i) {
      drix::message<R>::unpack(images[i].start, images[i].size, &set->decoded);
    });
  };
  time_in_turn(row + "copy record", turns, 1, [=](uint32_t i) { copy(output(), &set->records[i], sizeof(R)); });
  time_in_turn(row + "plain write", turns, 1, [=](uint32_t i) { plain::write(output(), &set->records[i]); });
  time_in_turn(row + "plain read", turns, 1,
               [=](uint32_t i) { plain::read(set->plain[i].start, set->plain[i].size, &set->decoded); });
  time_copies("copy fixed", set->fixed);
  time_in_turn(row + "fixed build", turns, 1, [=](uint32_t i) { build_fixed(output(), &set->records[i]); });
  time_decoding("fixed decode", set->fixed);
  time_copies("copy compact", set->compact);
  time_in_turn(row + "pack", turns, 1, [=](uint32_t i) { pack(set->records[i]); });
  time_decoding("decode", set->compact);
  if constexpr (std::is_same_v<R, Route>) {
    register_peer<protobuf::Codec>(row, "Protocol Buffers", set);
    register_peer<capnproto::Codec>(row, "Cap'n Proto", set);
  }
}

template <class R>
void register_rows() {
  for (const double zeros : {0.0, 0.5}) {
    for (const uint32_t turns : {kLearned, kUnseen}) register_row<R>(turns, zeros);
  }
}

}  // namespace

void register_single_cases() {
  register_rows<fib6Sync_tlv>();
  register_rows<fib6Sync_ipv6FwdUpdateMsg>();
  register_rows<fib6Sync_srv6SrList>();
  register_rows<fib6_cfg_query_fib6_item>();
  register_rows<Route>();
}

}  // namespace bench
