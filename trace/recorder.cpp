#include "trace/recorder.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "trace/complaint.h"
#include "trace/settings.h"
#include "trace/text.h"
#include "trace/thread.h"

namespace trace {

__thread Thread this_thread;

namespace {

std::atomic<uint32_t> lost{0};
uint32_t longest_payload = 0;

// The cells that come so many bytes later are asked for while these are written: no cache has them, and the next
// atomic operation would wait for them.
constexpr uint32_t kAhead = 4096;
constexpr uint32_t kCacheLine = 64;

uint32_t thread_id() {
  if (this_thread.id == 0) this_thread.id = static_cast<uint32_t>(syscall(SYS_gettid));
  return this_thread.id;
}

// What is read of a message. Its length is read once, for another thread may be changing it.
struct Payload {
  const void *bytes;
  uint32_t captured;
  uint32_t original;
};

inline Payload look_at(const DrixSendDescriptor &message) {
  const auto *const bytes = reinterpret_cast<const void *>(__atomic_load_n(&message.address, __ATOMIC_RELAXED));
  const uint32_t length = __atomic_load_n(&message.length, __ATOMIC_RELAXED);
  if (bytes == nullptr || length > INT32_MAX) return {nullptr, 0, length};
  return {bytes, length < longest_payload ? length : longest_payload, length};
}

inline uint32_t cells_of(const DrixSendDescriptor &message) { return cells_for(look_at(message).captured); }

inline bool is_wanted(TraceKind kind, const DrixSendDescriptor &message) {
  return kind == TRACE_NOTE || is_selected(message.id);
}

uint32_t count_wanted(TraceKind kind, const DrixSendDescriptor *messages, uint32_t count) {
  uint32_t wanted = 0;
  for (uint32_t i = 0; i < count; ++i) wanted += is_wanted(kind, messages[i]) ? 1 : 0;
  return wanted;
}

// Writes one message into the cells from at on, at most so many; returns how many it took.
uint32_t write_message(uint8_t *at, uint32_t cells, uint64_t time, const Header &header, Payload payload) {
  const uint32_t needed = cells_for(payload.captured);
  if (needed > cells) {
    payload.captured = payload_of(cells);
  } else {
    cells = needed;
  }
  const uint32_t bytes = cells * kCellBytes;
  for (uint32_t line = 0; line < bytes; line += kCacheLine) __builtin_prefetch(at + kAhead + line, 1);
  if (cells > 1) join_cells(at, bytes);
  fill_packet(at, bytes, time, header, payload.bytes, payload.captured, payload.original);
  publish(at);
  return cells;
}

// after(reservation, messages) is called for what was written into each file. Returns how many messages could not be
// written.
template <class After>
uint32_t write_messages(Header header, const DrixSendDescriptor *messages, uint32_t count, uint64_t time, After after) {
  const TraceKind kind = header.kind;
  header.count = count;
  header.thread = thread_id();
  for (uint32_t i = 0; i < count;) {
    if (!is_wanted(kind, messages[i])) {
      ++i;
      continue;
    }
    const uint32_t first = cells_of(messages[i]);
    uint32_t end = i;
    const auto as_many_as_fit = [&](uint32_t room) {
      uint32_t cells = first;
      for (end = i + 1; end < count; ++end) {
        const uint32_t more = is_wanted(kind, messages[end]) ? cells_of(messages[end]) : 0;
        if (more > room - cells) break;
        cells += more;
      }
      return cells;
    };
    Reservation reservation;
    if (!reserve(first, time, as_many_as_fit, reservation)) return count_wanted(kind, messages + i, count - i);
    uint8_t *at = reservation.at;
    uint32_t left = reservation.cells;
    uint32_t done = 0;
    for (; i < end && left != 0; ++i) {
      if (!is_wanted(kind, messages[i])) continue;
      header.id = messages[i].id;
      header.index = i;
      const uint32_t taken = write_message(at, left, time, header, look_at(messages[i]));
      at += std::size_t{taken} * kCellBytes;
      left -= taken;
      ++done;
    }
    release(reservation);
    after(reservation, done);
  }
  return 0;
}

// The note with a number. Returns whether it could be written.
bool write_note(const char *name, uint32_t number, uint64_t time) {
  char text[32];
  const char *const end = append(append(text, name), number);
  const DrixSendDescriptor note = {reinterpret_cast<uintptr_t>(text), 0, static_cast<uint32_t>(end - text)};
  return write_messages({.kind = TRACE_NOTE}, &note, 1, time, [](const Reservation &, uint32_t) {}) == 0;
}

[[gnu::cold]] [[gnu::noinline]] void note_lost(uint64_t time) {
  const uint32_t count = lost.exchange(0, std::memory_order_relaxed);
  if (count != 0 && !write_note(TRACE_NOTE_LOST, count, time)) lost.fetch_add(count, std::memory_order_relaxed);
}

void restart(bool interrupted) {
  this_thread.id = 0;
  lost.store(0, std::memory_order_relaxed);
  restart_ring(interrupted);
}

// In a child that was made without telling anybody, as _Fork() and clone() do. One of its threads does it.
[[gnu::cold]] [[gnu::noinline]] void restart_unknown_child() {
  const Busy busy;
  uint32_t state = kUnknown;
  if (of_process->state.compare_exchange_strong(state, kStarting)) restart(false);
  while (of_process->state.load(std::memory_order_acquire) != kKnown) sched_yield();
}

template <class After>
void record(const Header &header, const DrixSendDescriptor *messages, uint32_t count, After after) {
  if (this_thread.busy) {
    lost.fetch_add(count_wanted(header.kind, messages, count), std::memory_order_relaxed);
    return;
  }
  if (is_unknown_child()) restart_unknown_child();
  const Busy busy;
  const uint64_t time = clock_now();
  if (lost.load(std::memory_order_relaxed) != 0) note_lost(time);
  const uint32_t unwritten = write_messages(header, messages, count, time, after);
  if (unwritten != 0) lost.fetch_add(unwritten, std::memory_order_relaxed);
}

}  // namespace

bool start_recorder() {
  find_standard_error();
  read_settings();
  if (settings().folder[0] == '\0') return false;
  prepare_ring();
  const uint32_t longest = payload_of(cells_in_file);
  longest_payload = longest < kLongestPayload ? longest : kLongestPayload;
  return true;
}

void restart_recorder() { restart(this_thread.busy); }

void open_trace() {
  if (this_thread.busy) return;
  if (is_unknown_child()) restart_unknown_child();
  const Busy busy;
  open_ring();
}

void stop_recorder() {
  if (this_thread.busy) return;
  const Busy busy;
  close_ring();
}

void SentMessages::record(uint32_t handle, uint32_t destination, const DrixSendDescriptor *messages, uint32_t count) {
  trace::record({.kind = TRACE_SENT, .handle = handle, .destination = destination, .status = TRACE_NO_ANSWER}, messages,
                count, [this](const Reservation &reservation, uint32_t written) {
                  parts_[count_++ % kMostParts] = {reservation, written};
                });
}

void SentMessages::conclude(int32_t status) const {
  for (uint32_t i = count_ > kMostParts ? count_ - kMostParts : 0; i < count_; ++i) {
    const Part &part = parts_[i % kMostParts];
    if (!hold(part.reservation)) continue;
    uint8_t *at = part.reservation.at;
    for (uint32_t message = 0; message < part.messages; ++message) {
      put_status(at, status);
      at += block_bytes(at);
    }
    release(part.reservation);
  }
}

void ReceivedMessage::record(uint32_t id, const uint8_t *buffer, uint32_t length) {
  const DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(buffer), id, length};
  trace::record({.kind = TRACE_RECEIVED, .status = TRACE_NO_ANSWER}, &message, 1,
                [this](const Reservation &reservation, uint32_t) { reservation_ = reservation; });
}

void ReceivedMessage::conclude(int32_t status) const {
  if (reservation_.file == nullptr || !hold(reservation_)) return;
  put_status(reservation_.at, status);
  release(reservation_);
}

void record_unwrapped(uint32_t count) {
  set_unwrapped(count);
  if (this_thread.busy) return;
  const Busy busy;
  write_note(TRACE_NOTE_UNWRAPPED, count, clock_now());
}

}  // namespace trace
