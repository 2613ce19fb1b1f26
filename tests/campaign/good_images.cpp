#include "good_images.h"

using records::Type;
using reference::Bytes;
using reference::Kind;
using reference::SlotInfo;

namespace {

uint32_t read(const Bytes &image, uint32_t at, uint32_t width) {
  uint32_t value = 0;
  for (uint32_t i = 0; i < width; ++i) value |= uint32_t{image[at + i]} << (8 * i);
  return value;
}

void find_positions(const Type &type, const Bytes &image, uint32_t table, Positions &positions) {
  const uint32_t vtable = table - read(image, table, 4);
  positions.words.push_back(table);
  for (uint32_t at = vtable; at < vtable + read(image, vtable, 2); at += 2) positions.entries.push_back(at);
  for (uint32_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    const uint32_t entry = read(image, vtable + 4 + 2 * i, 2);
    if (entry == 0 || slot.kind == Kind::scalar) continue;
    const uint32_t word = table + entry;
    const uint32_t target = word + read(image, word, 4);
    positions.words.push_back(word);
    if (slot.kind == Kind::table) {
      find_positions(*slot.inner, image, target, positions);
      continue;
    }
    positions.words.push_back(target);
    for (uint32_t k = 0; slot.kind == Kind::vector && k < read(image, target, 4); ++k) {
      const uint32_t element = target + 4 + 4 * k;
      positions.words.push_back(element);
      find_positions(*slot.inner, image, element + read(image, element, 4), positions);
    }
  }
}

}  // namespace

std::vector<Bytes> good_images(const Type &type, records::Random &random) {
  Bytes longest;
  std::vector<Bytes> images;
  for (int draw = 0; draw < 16; ++draw) {
    records::Arena arena;
    Bytes record(type.record_size);
    records::fill_random(type, record.data(), random, {.zeros = draw == 0 ? 50u : 0u, .alike = 50}, arena);
    const Bytes image = reference::pack(type, record.data());
    if (image.size() > longest.size()) longest = image;
    if (draw == 0) images.push_back(image);
    if (draw == 1 && type.is_fixed()) images.push_back(reference::build_fixed(type, record.data()));
  }
  images.push_back(longest);
  return images;
}

Positions find_positions(const Type &type, const Bytes &image) {
  Positions positions = {.entries = {}, .words = {0}};
  find_positions(type, image, read(image, 0, 4), positions);
  return positions;
}
