#include "trace/decoders.h"

#include <array>
#include <atomic>
#include <utility>

#include "trace/recorder.h"
#include "trace/settings.h"
#include "trace/thread.h"
#include "trace/turn.h"

namespace trace {
namespace {

constexpr std::size_t kWrappers = 512;
constexpr std::size_t kMostKnown = 4096;

struct Decoder {
  uint32_t id;
  DrixDecodeFunc decode;
};

// The first ones are wrapped: an entry is filled before its wrapper is given away, and stays. The others are known so
// that each counts once. Changed in a turn.
Decoder known[kMostKnown];
std::size_t known_count = 0;
std::atomic<uint32_t> unwrapped{0};

uint32_t decode_recorded(const Decoder &entry, const uint8_t *buffer, uint32_t length, void *record) {
  ReceivedMessage message;
  message.record(entry.id, buffer, length);
  const uint32_t size = entry.decode(buffer, length, record);
  message.conclude(size != 0 ? 0 : TRACE_GIVEN_UP);
  return size;
}

template <std::size_t N>
uint32_t wrapper(const uint8_t *buffer, uint32_t length, void *record) {
  return decode_recorded(known[N], buffer, length, record);
}

template <std::size_t... N>
constexpr std::array<DrixDecodeFunc, sizeof...(N)> make_wrappers(std::index_sequence<N...>) {
  return {wrapper<N>...};
}

constexpr std::array<DrixDecodeFunc, kWrappers> kWrapperOf = make_wrappers(std::make_index_sequence<kWrappers>());

// Where a decoder stands among those known, it too from now on; kMostKnown when there are too many. is_new: it was not
// known before.
std::size_t find(uint32_t id, DrixDecodeFunc decode, bool &is_new) {
  const Busy busy;
  const Turn mine;
  std::size_t i = 0;
  while (i < known_count && (known[i].id != id || known[i].decode != decode)) ++i;
  is_new = i == known_count;
  if (is_new && i < kMostKnown) known[known_count++] = {id, decode};
  return i;
}

}  // namespace

DrixDecodeFunc wrap_decoder(uint32_t id, DrixDecodeFunc decode) {
  if (decode == nullptr || !is_selected(id)) return decode;
  bool is_new = true;
  const std::size_t at = this_thread.busy ? kMostKnown : find(id, decode, is_new);
  if (at < kWrappers) return kWrapperOf[at];
  if (is_new) record_unwrapped(unwrapped.fetch_add(1, std::memory_order_relaxed) + 1);
  return decode;
}

}  // namespace trace
