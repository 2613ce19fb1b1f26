// Records of types that are known at run time only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "inspect/walk.h"

namespace drix::inspect {

// A record of zeros, with the blocks that its members are made to point to.
class Record {
 public:
  explicit Record(const describe::Type &type) : type_(&type), data_(allocate(type.record_size)) {}

  const describe::Type &type() const { return *type_; }
  uint8_t *data() { return data_; }
  const uint8_t *data() const { return data_; }

  // A block of zeros that lives as long as the record.
  uint8_t *allocate(std::size_t size);

 private:
  struct Free {
    void operator()(uint8_t *block) const;
  };

  const describe::Type *type_;
  std::vector<std::unique_ptr<uint8_t[], Free>> blocks_;
  uint8_t *data_;
};

// Members of a record at an address, of whatever type.
template <class T>
T member(const uint8_t *record, uint32_t at) {
  T value;
  std::memcpy(&value, record + at, sizeof value);
  return value;
}

template <class T>
void set_member(uint8_t *record, uint32_t at, const T &value) {
  std::memcpy(record + at, &value, sizeof value);
}

// Scalars and array elements of 1, 2 or 4 bytes.
uint32_t number_at(const uint8_t *address, uint32_t width);
void set_number(uint8_t *address, uint32_t width, uint32_t value);

// Makes of a walk the record that the decoder would: of an accepted buffer the whole, of another one what was decoded
// before, lengths, counts and blocks included.
class RecordBuilder final : public Sink {
 public:
  RecordBuilder(const describe::Type &type, const uint8_t *buffer) : record_(type), buffer_(buffer) {}

  void take(const TablePath &path, std::span<const Event> events) override;
  Record &record() { return record_; }

 private:
  uint8_t *table_record(const TablePath &path);
  void set(const Event &event, const describe::Type &type, uint8_t *record);

  Record record_;
  const uint8_t *buffer_;
};

}  // namespace drix::inspect
