// Any record through encoder and decoder in both layouts. The first byte chooses the type, the rest fills the record.
#include <algorithm>
#include <cstring>

#include "fake_bus.h"
#include "target.h"

namespace {

using judge::Subject;
using reference::Bytes;
using reference::Kind;
using reference::Slot;
using reference::Type;

// Hands out the input's bytes, and zeros when they are used up.
class Input {
 public:
  Input(const uint8_t *data, std::size_t size) : data_(data), left_(size) {}

  void read(uint8_t *to, std::size_t size) {
    const std::size_t taken = std::min(size, left_);
    std::copy(data_, data_ + taken, to);
    std::fill(to + taken, to + size, uint8_t{0});
    data_ += taken;
    left_ -= taken;
  }

  uint8_t byte() {
    uint8_t value;
    return read(&value, 1), value;
  }

 private:
  const uint8_t *data_;
  std::size_t left_;
};

// A byte string or vector may also have a length without a pointer or a pointer without a length.
void fill(const Type &type, uint8_t *record, Input &input, reference::Arena &arena) {
  for (const Slot &slot : type.slots) {
    uint8_t *member = record + slot.member;
    if (slot.kind == Kind::kScalar || slot.kind == Kind::kArray) {
      input.read(member, std::size_t{slot.width} * std::max(slot.count, 1u));
    } else if (slot.kind == Kind::kTable) {
      fill(*slot.type, member, input, arena);
    } else {
      const uint8_t shape = input.byte();
      const uint32_t length = shape & 7;
      const std::size_t size = slot.kind == Kind::kBytes ? 1 : slot.type->record_size;
      uint8_t *block = (shape & 8) != 0 ? nullptr : arena.allocate(length * size);
      for (uint32_t i = 0; block != nullptr && i < length; ++i) {
        if (slot.kind == Kind::kBytes) block[i] = input.byte();
        if (slot.kind == Kind::kVector) fill(*slot.type, block + i * size, input, arena);
      }
      std::memcpy(record + slot.length_member, &length, sizeof length);
      std::memcpy(member, &block, sizeof block);
    }
  }
}

// One byte less than is needed is refused; the exact length is a heap block of its own.
std::string pack(const Subject &subject, const void *record, const Bytes &expected) {
  const auto size = static_cast<uint32_t>(expected.size());
  for (const uint32_t capacity : {size - 1, size, size + 1000}) {
    Bytes image(capacity);
    uint32_t length = capacity;
    const bool packed = subject.library.pack(record, image.data(), &length) == 0;
    if (packed != (capacity >= size)) return packed ? "packs into too little" : "does not pack";
    if (length != (packed ? size : capacity)) return "packs to length " + std::to_string(length);
    image.resize(size);
    if (packed && image != expected) return "packs other bytes";
  }
  return {};
}

std::string send(const Subject &subject, const void *record, const Bytes &expected, const std::vector<bool> &written) {
  fake_bus::bus() = {};
  if (subject.library.sendsingle(1, record, 1, 0) != 0) return "does not send";
  const Bytes &sent = fake_bus::bus().calls.at(0).messages.at(0).bytes;
  if (sent.size() != expected.size()) return "sends another length";
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (written[i] && sent[i] != expected[i]) return "sends other bytes at " + std::to_string(i);
  }
  return {};
}

// What an image decodes to packs to the same compact image again.
std::string unpack(const Subject &subject, const Bytes &image, const Bytes &compact) {
  Bytes record(subject.type->record_size);
  subject.library.unpack(image.data(), static_cast<uint32_t>(image.size()), record.data());
  const std::string fault = pack(subject, record.data(), compact);
  subject.library.free_unpacked(record.data());
  return fault.empty() ? "" : "after decoding " + fault;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  static const auto subjects = fuzz::subjects_of(reference::all_types());
  if (size == 0) return 0;
  const Subject &subject = subjects[data[0] % subjects.size()];
  const Type &type = *subject.type;
  Input input(data + 1, size - 1);
  reference::Arena arena;
  Bytes record(type.record_size);
  fill(type, record.data(), input, arena);

  const Bytes compact = reference::pack(type, record.data());
  std::vector<bool> written(compact.size(), true);
  const Bytes sent = type.is_fixed() ? reference::build_fixed(type, record.data(), &written) : compact;
  fuzz::expect_none(subject, pack(subject, record.data(), compact));
  fuzz::expect_none(subject, send(subject, record.data(), sent, written));
  for (const Bytes &image : {compact, sent}) {
    fuzz::judge_decoding(subject, image);
    fuzz::expect_none(subject, unpack(subject, image, compact));
  }
  return 0;
}
