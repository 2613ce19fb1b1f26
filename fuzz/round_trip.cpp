// Any record through encoder and decoder in both layouts. The first byte chooses the type, the rest fills the record.
#include "fake_bus.h"
#include "target.h"

namespace {

using judge::Subject;
using reference::Bytes;
using reference::Type;

// Fills records with the input's bytes, and with zeros when they are used up. A byte string or vector may also have a
// length without a block or a block without a length.
class Input {
 public:
  Input(const uint8_t *data, std::size_t size) : data_(data), left_(size) {}

  uint32_t number(uint32_t width) {
    uint32_t number = 0;
    for (; width > 0; --width) number = number << 8 | byte();
    return number;
  }

  records::Extent extent(records::Kind) {
    const uint8_t shape = byte();
    return {shape & 7u, (shape & 8) == 0};
  }

 private:
  uint8_t byte() { return left_ == 0 ? uint8_t{0} : (--left_, *data_++); }

  const uint8_t *data_;
  std::size_t left_;
};

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

std::string send(const Subject &subject, const void *record, const Bytes &expected) {
  fake_bus::bus() = {};
  if (subject.library.sendsingle(1, record, 1, 0) != 0) return "does not send";
  return fake_bus::bus().calls.at(0).messages.at(0).bytes == expected ? "" : "sends other bytes";
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
  records::Arena arena;
  Bytes record(type.record_size);
  records::fill(type, record.data(), input, arena);

  const Bytes compact = reference::pack(type, record.data());
  const Bytes sent = type.is_fixed() ? reference::build_fixed(type, record.data()) : compact;
  fuzz::expect_none(subject, pack(subject, record.data(), compact));
  fuzz::expect_none(subject, send(subject, record.data(), sent));
  for (const Bytes &image : {compact, sent}) {
    fuzz::judge_decoding(subject, image);
    fuzz::expect_none(subject, unpack(subject, image, compact));
  }
  return 0;
}
