#include "trace/decoders.h"

#include <pthread.h>

#include <array>
#include <utility>

#include "trace/recorder.h"
#include "trace/settings.h"
#include "trace/thread.h"

namespace trace {
namespace {

constexpr std::size_t kWrappers = 512;

struct Wrapped {
  uint32_t id;
  DrixDecodeFunc decode;
};

pthread_mutex_t changing = PTHREAD_MUTEX_INITIALIZER;
Wrapped wrapped[kWrappers];  // an entry is filled before its wrapper is given away, and stays
std::size_t used = 0;
uint32_t unwrapped = 0;

uint32_t decode_recorded(const Wrapped &entry, const uint8_t *buffer, uint32_t length, void *record) {
  if (this_thread.registering) return entry.decode(buffer, length, record);
  ReceivedMessage message;
  message.record(entry.id, buffer, length);
  const uint32_t size = entry.decode(buffer, length, record);
  message.conclude(size != 0 ? 0 : TRACE_GIVEN_UP);
  return size;
}

template <std::size_t N>
uint32_t wrapper(const uint8_t *buffer, uint32_t length, void *record) {
  return decode_recorded(wrapped[N], buffer, length, record);
}

template <std::size_t... N>
constexpr std::array<DrixDecodeFunc, sizeof...(N)> make_wrappers(std::index_sequence<N...>) {
  return {wrapper<N>...};
}

constexpr std::array<DrixDecodeFunc, kWrappers> kWrapperOf = make_wrappers(std::make_index_sequence<kWrappers>());

}  // namespace

DrixDecodeFunc wrap_decoder(uint32_t id, DrixDecodeFunc decode) {
  if (decode == nullptr || !is_selected(id)) return decode;
  pthread_mutex_lock(&changing);
  std::size_t i = 0;
  while (i < used && (wrapped[i].id != id || wrapped[i].decode != decode)) ++i;
  if (i == used && i < kWrappers) wrapped[used++] = {id, decode};
  const uint32_t without = i < kWrappers ? 0 : ++unwrapped;
  pthread_mutex_unlock(&changing);
  if (without == 0) return kWrapperOf[i];
  record_unwrapped(without);
  return decode;
}

void restart_decoders() { pthread_mutex_init(&changing, nullptr); }

}  // namespace trace
