// Vectors of routes. A shape is which members are zero: one for all elements of a vector, which other vectors do not
// share; or one of a few that all vectors share, drawn for each element, as in real tables; or random for each element.
// Decoding includes giving the elements back, for the library as for its peers.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/cases.h"
#include "bench/peers/peers.h"
#include "bench/plain.h"
#include "bench/records.h"
#include "bench/timing.h"

namespace bench {
namespace {

constexpr uint32_t kMostElements = 1'000'000;

// How many shapes the elements of all vectors share, or one of these.
constexpr uint32_t kOneForEachVector = 0;
constexpr uint32_t kRandom = UINT32_MAX;

std::string name_of(uint32_t shapes) {
  if (shapes == kOneForEachVector) return "one shape";
  if (shapes == kRandom) return "random shapes";
  return std::to_string(shapes) + (shapes == 1 ? " shared shape" : " shared shapes");
}

// Encoding space of one batch; longer vectors are sent one by one.
constexpr uint32_t kBatch = 8;
constexpr uint32_t kLongestInBatch = 64;

struct Set {
  Set(uint32_t messages, uint32_t elements, double zeros, uint32_t shapes) : routes(std::size_t{messages} * elements) {
    Generator generator(0, zeros);
    std::vector<Generator::Shape<Route>> shared;
    for (uint32_t i = 0; shapes != kRandom && i < shapes; ++i) shared.push_back(generator.draw_shape<Route>());
    for (uint32_t i = 0; i < messages; ++i) {
      Route *const first = &routes[std::size_t{i} * elements];
      if (shapes == kOneForEachVector) shared = {generator.draw_shape<Route>()};
      for (uint32_t k = 0; k < elements; ++k) {
        if (shapes == kRandom) {
          generator.fill(first[k]);
        } else {
          generator.fill(first[k], shared);
        }
      }
      records.push_back({i, elements, first});
      compact.add([&] { return pack(records[i]); });
      plain.add([&] { return plain::write(output(), &records[i]); });
    }
    for (uint32_t i = 0; i < messages; ++i) {
      require_decodes(compact[i], records[i]);
      require(plain::read(plain[i].start, plain[i].size, &decoded) && equal(records[i], decoded), "plain: differs");
      plain::release(&decoded);
    }
  }

  std::vector<Route> routes;
  std::vector<Routes> records;
  Images compact;
  Images plain;
  Routes decoded;
};

template <class Codec>
void register_peer(const std::string &row, const char *name, const std::shared_ptr<Set> &set) {
  const auto turns = static_cast<uint32_t>(set->records.size());
  const uint32_t elements = set->records[0].f1Count;
  static const auto codec = std::make_shared<Codec>(kMostElements);
  const auto images = std::make_shared<Images>();
  for (const Routes &record : set->records) {
    images->add([&] { return codec->write(record, output(), kRoom); });
  }
  for (uint32_t i = 0; i < turns; ++i) {
    const Images::Image image = (*images)[i];
    require(codec->read(image.start, image.size, set->decoded) && equal(set->records[i], set->decoded),
            std::string(name) + ": differs");
    plain::release(&set->decoded);
  }
  time_in_turn(row + name + " write", turns, elements,
               [=](uint32_t i) { codec->write(set->records[i], output(), kRoom); });
  time_in_turn(row + name + " read", turns, elements, [=](uint32_t i) {
    const Images::Image image = (*images)[i];
    codec->read(image.start, image.size, set->decoded);
    plain::release(&set->decoded);
  });
}

void register_row(uint32_t turns, uint32_t elements, double zeros, uint32_t shapes) {
  using Operations = drix::message<Routes>;
  const std::string row = "vectors/" + std::to_string(elements) + " elements, " +
                          std::to_string(static_cast<int>(zeros * 100)) + " % zero, " + name_of(shapes) + ", " +
                          std::to_string(turns) + (turns == 1 ? " vector/" : " vectors in turn/");
  if (!is_wanted(row)) return;
  const auto set = std::make_shared<Set>(turns, elements, zeros, shapes);
  time_in_turn(row + "copy records", turns, elements,
               [=](uint32_t i) { copy(output(), set->records[i].f1, elements * sizeof(Route)); });
  time_in_turn(row + "copy compact", turns, elements,
               [=](uint32_t i) { copy(output(), set->compact[i].start, set->compact[i].size); });
  time_in_turn(row + "plain write", turns, elements, [=](uint32_t i) { plain::write(output(), &set->records[i]); });
  time_in_turn(row + "pack", turns, elements, [=](uint32_t i) { pack(set->records[i]); });
  require(Operations::sendsingle(1, &set->records[0], 1, 0) == 0, "a vector is not sent");
  time_in_turn(row + "sendsingle", turns, elements,
               [=](uint32_t i) { Operations::sendsingle(1, &set->records[i], 1, 0); });
  if (elements <= kLongestInBatch) {
    require(Operations::sendbatch(1, &set->records[0], kBatch, 0) == 0, "a batch is not sent");
    time_in_turn(row + "sendbatch", turns / kBatch, kBatch * elements,
                 [=](uint32_t i) { Operations::sendbatch(1, &set->records[i * kBatch], kBatch, 0); });
  }
  time_in_turn(row + "plain read", turns, elements, [=](uint32_t i) {
    plain::read(set->plain[i].start, set->plain[i].size, &set->decoded);
    plain::release(&set->decoded);
  });
  time_in_turn(row + "decode", turns, elements, [=](uint32_t i) {
    Operations::unpack(set->compact[i].start, set->compact[i].size, &set->decoded);
    Operations::free_unpacked(&set->decoded);
  });
  register_peer<protobuf::Codec>(row, "Protocol Buffers", set);
  register_peer<capnproto::Codec>(row, "Cap'n Proto", set);
}

}  // namespace

void register_vector_cases() {
  register_row(kLearned, 64, 0.5, kRandom);
  for (const uint32_t elements : {4u, 16u, 64u, 1000u}) {
    const uint32_t turns = kUnseen / elements;
    register_row(turns, elements, 0, kOneForEachVector);
    for (const uint32_t shapes : {kOneForEachVector, 1u, 4u, 16u, 64u, kRandom}) {
      register_row(turns, elements, 0.5, shapes);
    }
    if (elements < 64) continue;
    for (const uint32_t shapes : {kOneForEachVector, kRandom}) register_row(turns, elements, 0.8, shapes);
  }
  register_row(1, kMostElements, 0, kOneForEachVector);
  register_row(1, kMostElements, 0.5, kOneForEachVector);
  register_row(1, kMostElements, 0.5, kRandom);
}

}  // namespace bench
