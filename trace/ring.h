// The files of the trace: made one after the other, mapped, and used anew from the oldest when their number is reached.
//
// A thread reserves cells of the current file with one atomic operation, fills them without disturbing the others, and
// lets go of the file. A file is cleared for a new turn when no thread holds it, under a name that is no trace's; what
// is called a trace is whole. No thread ever waits for another but while a file is being made or cleared, which is also
// the only time that system calls are made.
#pragma once

#include <atomic>
#include <cstdint>

#include "trace/block.h"

namespace trace {

// Whatever the size of the ring, its files are no larger than that, so that there are more of them.
constexpr uint32_t kMostFiles = 64;
constexpr uint32_t kLongestFile = 128u << 20;

// How a file is used: its first free cell, and the threads that hold it in the last bits.
constexpr uint32_t kHolderBits = 12;
constexpr uint32_t kMostHolders = (1u << kHolderBits) - 1;
constexpr uint32_t kShut = UINT32_MAX >> kHolderBits;  // in the place of the first free cell: nobody may hold it
static_assert(kLongestFile / kCellBytes < kShut);

struct File {
  alignas(64) std::atomic<uint32_t> use{kShut << kHolderBits};
  // What follows changes only while the file is shut.
  uint32_t generation = 0;
  uint32_t number = 0;
  uint8_t *map = nullptr;
  uint8_t *cells = nullptr;
};

// Cells that a thread has reserved. It holds the file until it releases it.
struct Reservation {
  File *file;
  uint32_t generation;
  uint32_t cells;
  uint8_t *at;
};

// Sets the ring up; files come later.
void prepare_ring();

// In a child: leaves the parent's ring to the parent. A child of a signal handler that has interrupted the recorder
// goes on with what was interrupted, on memory of its own; it is not traced.
void restart_ring(bool interrupted);

// Makes the first file unless there is one. Returns whether there is.
bool open_ring();

// Cuts the current file to what is used of it; whatever comes later goes to a new one.
void close_ring();

// What the note of this name says at the start of every file from now on; 0: no note.
void set_unwrapped(uint32_t count);

// In a page that is empty in a child, by whatever call it was made, until restart_ring() has been there.
enum ProcessState : uint32_t { kUnknown, kStarting, kKnown };
struct OfProcess {
  std::atomic<File *> current_file;
  std::atomic<uint32_t> state;
};
extern OfProcess *of_process;
extern uint32_t cells_in_file;

inline File *current_file(std::memory_order order) { return of_process->current_file.load(order); }

inline bool is_unknown_child() {
  return current_file(std::memory_order_relaxed) == nullptr &&
         of_process->state.load(std::memory_order_acquire) != kKnown;
}

// Goes on to another file, which begins at this time, unless the current one has so many cells left. Returns whether
// there is one.
bool advance(uint32_t cells, uint64_t time);

// Reserves at least so many cells, at most those in a file: as many as plan(room) says, when there is room for so many.
// Returns whether there is a reservation.
template <class Plan>
bool reserve(uint32_t least, uint64_t time, Plan plan, Reservation &reservation) {
  for (;;) {
    File *const file = current_file(std::memory_order_acquire);
    if (file != nullptr) {
      uint32_t use = file->use.load(std::memory_order_relaxed);
      while (use >> kHolderBits != kShut) {
        const uint32_t room = cells_in_file - (use >> kHolderBits);
        if (room < least) break;
        const uint32_t cells = plan(room);
        if ((use & kMostHolders) == kMostHolders) return false;
        if (file->use.compare_exchange_weak(use, use + (cells << kHolderBits) + 1, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
          reservation = {file, file->generation, cells, file->cells + std::size_t{use >> kHolderBits} * kCellBytes};
          return true;
        }
      }
    }
    if (!advance(least, time)) return false;
  }
}

inline void release(const Reservation &reservation) { reservation.file->use.fetch_sub(1, std::memory_order_release); }

// Holds the file of a reservation once more. Returns false when it is used for something else by now, or the parent's.
inline bool hold(const Reservation &reservation) {
  if (current_file(std::memory_order_relaxed) == nullptr) return false;
  uint32_t use = reservation.file->use.load(std::memory_order_relaxed);
  do {
    if (use >> kHolderBits == kShut || (use & kMostHolders) == kMostHolders) return false;
  } while (
      !reservation.file->use.compare_exchange_weak(use, use + 1, std::memory_order_acquire, std::memory_order_relaxed));
  if (reservation.file->generation == reservation.generation) return true;
  release(reservation);
  return false;
}

uint64_t clock_now();

}  // namespace trace
