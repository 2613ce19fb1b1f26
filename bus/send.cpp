#include "bus/send.h"

#include <cstdlib>
#include <cstring>

#include "drix_bus.h"

namespace drix {
namespace {

static_assert(sizeof(DrixSendDescriptor) == sizeof(uintptr_t) + 8, "three words without a gap on the ILP32 platform");

constexpr int32_t kFailure = -1;

// Room on the stack for a single record of a variable-length type; threads and signal handlers have small ones.
constexpr uint32_t kShortImage = 0x800;

// Encoding space of one batch of a variable-length type.
constexpr uint32_t kBatchArea = 0x10000;

int32_t call_bus(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return destination != 0 ? DRIX_SendToMsg(handle, descriptors, count, destination)
                          : DRIX_SendMsg(handle, descriptors, count);
}

DrixSendDescriptor descriptor_of(const Encoder &encoder, const uint8_t *image, uint32_t length) {
  return {reinterpret_cast<uintptr_t>(image), encoder.message->id, length};
}

const void *record_at(const Encoder &encoder, const void *records, uint32_t i) {
  return static_cast<const uint8_t *>(records) + std::size_t{i} * encoder.record_size;
}

class HeapBlock {
 public:
  // Unallocated when the size needs more than 32 bits.
  explicit HeapBlock(uint64_t size)
      : start_(size > UINT32_MAX ? nullptr : static_cast<uint8_t *>(std::malloc(static_cast<std::size_t>(size)))) {}
  ~HeapBlock() {
    if (start_ != nullptr) std::free(start_);
  }
  HeapBlock(const HeapBlock &) = delete;
  HeapBlock &operator=(const HeapBlock &) = delete;

  uint8_t *start() const { return start_; }
  DrixSendDescriptor *descriptors(std::size_t offset) const {
    return reinterpret_cast<DrixSendDescriptor *>(start_ + offset);
  }

 private:
  uint8_t *start_;
};

int32_t send_fixed_batch(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count,
                         uint32_t destination) {
  const HeapBlock block(uint64_t{count} * (encoder.fixed_length + sizeof(DrixSendDescriptor)));
  if (block.start() == nullptr) return kFailure;
  DrixSendDescriptor *descriptors = block.descriptors(std::size_t{count} * encoder.fixed_length);
  uint8_t *image = block.start();
  for (uint32_t i = 0; i < count; ++i, image += encoder.fixed_length) {
    build_fixed(encoder, image, record_at(encoder, records, i));
    descriptors[i] = descriptor_of(encoder, image, encoder.fixed_length);
  }
  return call_bus(handle, descriptors, count, destination);
}

// Writes a record in the compact layout and returns its length; 0 when there is too little room. A record that fits at
// its longest need not be measured.
uint32_t build_compact(const Encoder &encoder, uint8_t *image, uint32_t room, const void *record) {
  if (encoder.longest_size(record) > room) {
    const uint32_t size = compact_size(encoder, record);
    if (size == 0 || size > room) return 0;
  }
  return build(encoder, image, room, record);
}

int32_t send_variable_batch(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count,
                            uint32_t destination) {
  const HeapBlock block(kBatchArea + uint64_t{count} * sizeof(DrixSendDescriptor));
  if (block.start() == nullptr) return kFailure;
  DrixSendDescriptor *descriptors = block.descriptors(kBatchArea);
  uint32_t used = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (used == kBatchArea) return kFailure;  // before a look at the record, which need not be there
    uint8_t *const image = block.start() + used;
    const uint32_t length = build_compact(encoder, image, kBatchArea - used, record_at(encoder, records, i));
    if (length == 0) return kFailure;
    descriptors[i] = descriptor_of(encoder, image, length);
    used += length;
  }
  return call_bus(handle, descriptors, count, destination);
}

}  // namespace

int32_t send_single(const Encoder &encoder, uint32_t handle, const void *record, uint32_t destination) {
  if (record == nullptr) return kFailure;
  if (encoder.fixed_length != 0) {
    uint8_t image[kMaxFixedLength];
    build_fixed(encoder, image, record);
    DrixSendDescriptor descriptor = descriptor_of(encoder, image, encoder.fixed_length);
    return call_bus(handle, &descriptor, 1, destination);
  }
  // One block of the very size of the encoding. What is short is copied into it, which is quicker than to measure first.
  uint8_t image[kShortImage];
  const bool is_short = encoder.longest_size(record) <= sizeof image;
  const uint32_t size = is_short ? build_unbound(encoder, image, record) : compact_size(encoder, record);
  if (size == 0) return kFailure;
  const HeapBlock block(size);
  if (block.start() == nullptr) return kFailure;
  if (is_short) {
    svc_bind_mem(encoder.message->services->encoding);
    std::memcpy(block.start(), image, size);
  } else {
    build(encoder, block.start(), size, record);
  }
  DrixSendDescriptor descriptor = descriptor_of(encoder, block.start(), size);
  return call_bus(handle, &descriptor, 1, destination);
}

int32_t send_batch(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count, uint32_t destination) {
  if (records == nullptr) return kFailure;
  return encoder.fixed_length != 0 ? send_fixed_batch(encoder, handle, records, count, destination)
                                   : send_variable_batch(encoder, handle, records, count, destination);
}

int32_t send(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count, uint32_t destination) {
  if (count == 0) return kFailure;
  return count == 1 ? send_single(encoder, handle, records, destination)
                    : send_batch(encoder, handle, records, count, destination);
}

}  // namespace drix
