#include <capnp/message.h>
#include <capnp/serialize.h>
#include <kj/io.h>

#include <cstdlib>
#include <cstring>

#include "bench/peers/peers.h"
#include "route.capnp.h"

namespace bench::capnproto {
namespace {

void fill(schema::Route::Builder to, const Route &from) {
  uint64_t high;
  uint64_t low;
  std::memcpy(&high, from.f3, 8);
  std::memcpy(&low, from.f3 + 2, 8);
  to.setF0(from.f0);
  to.setF1(from.f1);
  to.setF2(from.f2);
  to.setF3High(high);
  to.setF3Low(low);
  to.setF4(from.f4);
  to.setF5(from.f5);
  to.setF6(from.f6);
  to.setF7(from.f7);
  to.setF8(from.f8);
  to.setF9(from.f9);
  to.setF10(from.f10);
  to.setF11(from.f11);
  to.setF12(from.f12);
  to.setF13(from.f13);
}

void take(Route &to, schema::Route::Reader from) {
  const uint64_t high = from.getF3High();
  const uint64_t low = from.getF3Low();
  std::memcpy(to.f3, &high, 8);
  std::memcpy(to.f3 + 2, &low, 8);
  to.f0 = from.getF0();
  to.f1 = from.getF1();
  to.f2 = from.getF2();
  to.f4 = from.getF4();
  to.f5 = from.getF5();
  to.f6 = from.getF6();
  to.f7 = from.getF7();
  to.f8 = from.getF8();
  to.f9 = from.getF9();
  to.f10 = from.getF10();
  to.f11 = from.getF11();
  to.f12 = from.getF12();
  to.f13 = from.getF13();
}

std::size_t serialize(capnp::MessageBuilder &message, uint8_t *out, std::size_t room) {
  kj::ArrayOutputStream stream(kj::arrayPtr(out, room));
  capnp::writeMessage(stream, message);
  return stream.getArray().size();
}

constexpr std::size_t kRouteWords = 9;

}  // namespace

struct Codec::State {
  explicit State(std::size_t elements) : segment(kj::heapArray<capnp::word>(64 + elements * kRouteWords)) {
    std::memset(segment.begin(), 0, segment.size() * sizeof(capnp::word));  // the builder leaves it so
    options.traversalLimitInWords = 2 * segment.size();
  }

  capnp::FlatArrayMessageReader reader(const uint8_t *in, std::size_t size) const {
    const auto *words = reinterpret_cast<const capnp::word *>(in);
    return capnp::FlatArrayMessageReader(kj::arrayPtr(words, size / sizeof(capnp::word)), options);
  }

  kj::Array<capnp::word> segment;
  capnp::ReaderOptions options;
};

Codec::Codec(std::size_t elements) : state_(std::make_unique<State>(elements)) {}
Codec::~Codec() = default;

std::size_t Codec::write(const Route &record, uint8_t *out, std::size_t room) {
  capnp::MallocMessageBuilder message(state_->segment);
  fill(message.initRoot<schema::Route>(), record);
  return serialize(message, out, room);
}

std::size_t Codec::write(const Routes &record, uint8_t *out, std::size_t room) {
  capnp::MallocMessageBuilder message(state_->segment);
  auto root = message.initRoot<schema::Routes>();
  root.setF0(record.f0);
  auto list = root.initF1(record.f1Count);
  for (uint32_t i = 0; i < record.f1Count; ++i) fill(list[i], record.f1[i]);
  return serialize(message, out, room);
}

bool Codec::read(const uint8_t *in, std::size_t size, Route &record) {
  capnp::FlatArrayMessageReader message = state_->reader(in, size);
  take(record, message.getRoot<schema::Route>());
  return true;
}

bool Codec::read(const uint8_t *in, std::size_t size, Routes &record) {
  capnp::FlatArrayMessageReader message = state_->reader(in, size);
  const auto root = message.getRoot<schema::Routes>();
  const auto list = root.getF1();
  record.f0 = root.getF0();
  record.f1Count = list.size();
  record.f1 = static_cast<Route *>(std::malloc(record.f1Count * sizeof(Route)));
  if (record.f1 == nullptr) return false;
  Route *to = record.f1;
  for (const auto from : list) take(*to++, from);
  return true;
}

}  // namespace bench::capnproto
