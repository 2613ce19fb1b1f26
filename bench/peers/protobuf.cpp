#include <google/protobuf/arena.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "bench/peers/peers.h"
#include "route.pb.h"

namespace bench::protobuf {
namespace {

void fill(schema::Route &to, const Route &from) {
  uint64_t high;
  uint64_t low;
  std::memcpy(&high, from.f3, 8);
  std::memcpy(&low, from.f3 + 2, 8);
  to.set_f0(from.f0);
  to.set_f1(from.f1);
  to.set_f2(from.f2);
  to.set_f3_high(high);
  to.set_f3_low(low);
  to.set_f4(from.f4);
  to.set_f5(from.f5);
  to.set_f6(from.f6);
  to.set_f7(from.f7);
  to.set_f8(from.f8);
  to.set_f9(from.f9);
  to.set_f10(from.f10);
  to.set_f11(from.f11);
  to.set_f12(from.f12);
  to.set_f13(from.f13);
}

void take(Route &to, const schema::Route &from) {
  const uint64_t high = from.f3_high();
  const uint64_t low = from.f3_low();
  std::memcpy(to.f3, &high, 8);
  std::memcpy(to.f3 + 2, &low, 8);
  to.f0 = from.f0();
  to.f1 = from.f1();
  to.f2 = from.f2();
  to.f4 = static_cast<uint8_t>(from.f4());
  to.f5 = static_cast<uint8_t>(from.f5());
  to.f6 = static_cast<uint16_t>(from.f6());
  to.f7 = from.f7();
  to.f8 = from.f8();
  to.f9 = from.f9();
  to.f10 = from.f10();
  to.f11 = static_cast<uint16_t>(from.f11());
  to.f12 = static_cast<uint16_t>(from.f12());
  to.f13 = from.f13();
}

std::size_t serialize(const google::protobuf::MessageLite &message, uint8_t *out, std::size_t room) {
  const std::size_t size = message.ByteSizeLong();
  if (size > room) return 0;
  message.SerializeWithCachedSizesToArray(out);
  return size;
}

google::protobuf::ArenaOptions starting_with(char *block, std::size_t size) {
  google::protobuf::ArenaOptions options;
  options.initial_block = block;
  options.initial_block_size = size;
  return options;
}

}  // namespace

struct Codec::State {
  explicit State(std::size_t elements)
      : size(4096 + elements * 192),
        block(std::make_unique_for_overwrite<char[]>(size)),
        arena(starting_with(block.get(), size)) {}

  template <class Message>
  Message &fresh() {
    arena.Reset();
    return *google::protobuf::Arena::CreateMessage<Message>(&arena);
  }

  std::size_t size;
  std::unique_ptr<char[]> block;
  google::protobuf::Arena arena;
};

Codec::Codec(std::size_t elements) : state_(std::make_unique<State>(elements)) {}
Codec::~Codec() = default;

std::size_t Codec::write(const Route &record, uint8_t *out, std::size_t room) {
  auto &message = state_->fresh<schema::Route>();
  fill(message, record);
  return serialize(message, out, room);
}

std::size_t Codec::write(const Routes &record, uint8_t *out, std::size_t room) {
  auto &message = state_->fresh<schema::Routes>();
  message.set_f0(record.f0);
  message.mutable_f1()->Reserve(static_cast<int>(record.f1Count));
  for (uint32_t i = 0; i < record.f1Count; ++i) fill(*message.add_f1(), record.f1[i]);
  return serialize(message, out, room);
}

bool Codec::read(const uint8_t *in, std::size_t size, Route &record) {
  auto &message = state_->fresh<schema::Route>();
  if (!message.ParseFromArray(in, static_cast<int>(size))) return false;
  take(record, message);
  return true;
}

bool Codec::read(const uint8_t *in, std::size_t size, Routes &record) {
  auto &message = state_->fresh<schema::Routes>();
  if (!message.ParseFromArray(in, static_cast<int>(size))) return false;
  record.f0 = message.f0();
  record.f1Count = static_cast<uint32_t>(message.f1_size());
  record.f1 = static_cast<Route *>(std::malloc(record.f1Count * sizeof(Route)));
  if (record.f1 == nullptr) return false;
  Route *to = record.f1;
  for (const schema::Route &from : message.f1()) take(*to++, from);
  return true;
}

}  // namespace bench::protobuf
