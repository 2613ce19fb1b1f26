#include "trace/ring.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "trace/complaint.h"
#include "trace/folder.h"
#include "trace/schema_text.h"
#include "trace/settings.h"
#include "trace/text.h"
#include "trace/turn.h"

namespace trace {

uint32_t cells_in_file = 0;
OfProcess *of_process = nullptr;

namespace {

OfProcess without_page;

// Both together take one cell, so that cells begin where cache lines do.
constexpr uint32_t kInterfaceBytes = 32;
constexpr uint32_t kSectionBytes = kCellBytes - kInterfaceBytes;

// Of the notes with the program's name and with a number.
constexpr uint32_t kShortNoteCells = 1;
static_assert(sizeof TRACE_NOTE_PROGRAM + sizeof Settings::program <= payload_of(kShortNoteCells));

// What follows and the current file change in a turn.
File files[kMostFiles];
uint32_t file_limit = 0;  // lower than file_count when there is no room for more
uint32_t file_count = 8;  // of a whole ring
uint32_t file_bytes = 0;
uint32_t head_bytes = 0;  // what stands before the cells
uint32_t next_number = 0;
std::atomic<bool> off{false};  // there is no file and will be none
std::atomic<uint32_t> unwrapped{0};

uint8_t *put_section(uint8_t *at) {
  constexpr char kWriter[] = "quopa-trace " TRACE_PROJECT_VERSION;
  constexpr uint16_t kWriterOption = 4;
  constexpr uint32_t kLength = sizeof kWriter - 1;
  constexpr uint32_t kWritten = 28 + 4 + round_up(kLength, 4);
  put(at, TRACE_SECTION_BLOCK);
  put(at + 4, kSectionBytes);
  put(at + 8, TRACE_BYTE_ORDER);
  put(at + 12, uint16_t{1});
  put(at + 14, uint16_t{0});
  std::memset(at + 16, 0xFF, 8);  // a section of unknown length
  std::memset(at + 24, 0, kSectionBytes - 24);
  put(at + 24, kWriterOption);
  put(at + 26, static_cast<uint16_t>(kLength));
  std::memcpy(at + 28, kWriter, kLength);
  put_slack(at + kWritten - 4, kSectionBytes - kWritten - 4);
  put(at + kSectionBytes - 4, kSectionBytes);
  return at + kSectionBytes;
}

uint8_t *put_interface(uint8_t *at) {
  constexpr uint16_t kTimeOption = 9;
  std::memset(at, 0, kInterfaceBytes);
  put(at, TRACE_INTERFACE_BLOCK);
  put(at + 4, kInterfaceBytes);
  put(at + 8, static_cast<uint16_t>(TRACE_LINK_TYPE));
  put(at + 16, kTimeOption);
  put(at + 18, uint16_t{1});
  at[20] = TRACE_TIME_DIGITS;
  put(at + kInterfaceBytes - 4, kInterfaceBytes);
  return at + kInterfaceBytes;
}

uint8_t *put_note(uint8_t *at, const char *text, uint32_t length, uint64_t time, const Header &header) {
  const uint32_t bytes = cells_for(length) * kCellBytes;
  put_filler(at, bytes);
  fill_packet(at, bytes, time, header, text, length, length);
  publish(at);
  return at + bytes;
}

uint8_t *put_notes(uint8_t *at, uint64_t time) {
  const auto process = static_cast<uint32_t>(getpid());
  char text[128];
  const char *end = append(append(text, TRACE_NOTE_PROGRAM), settings().program);
  at = put_note(at, text, static_cast<uint32_t>(end - text), time,
                {.kind = TRACE_NOTE, .handle = sizeof(void *) * CHAR_BIT, .thread = process});
  at = put_note(at, kSchemaNote, kSchemaNoteLength, time, {.kind = TRACE_NOTE, .thread = process});
  const uint32_t count = unwrapped.load(std::memory_order_relaxed);
  if (count == 0) {
    put_filler(at, kCellBytes);
    return at + kCellBytes;
  }
  end = append(append(text, TRACE_NOTE_UNWRAPPED), count);
  return put_note(at, text, static_cast<uint32_t>(end - text), time, {.kind = TRACE_NOTE, .thread = process});
}

// Makes a file new: with its notes and as many fillers as there are cells. Of a cell that is a block by itself, like
// most of those used before, only the type is stored: that halves the memory that is touched.
void lay_out(File &file, uint64_t time) {
  put_notes(put_interface(put_section(file.map)), time);
  file.cells = file.map + head_bytes;
  uint32_t joined = 0;
  for (uint32_t i = 0; i < cells_in_file; ++i) {
    uint8_t *const at = file.cells + std::size_t{i} * kCellBytes;
    if (joined == 0 && block_bytes(at) == kCellBytes) {
      put(at, TRACE_FILLER_BLOCK);
      continue;
    }
    if (joined == 0) joined = block_bytes(at) / kCellBytes;
    put_filler(at, kCellBytes);
    if (joined != 0) --joined;
  }
}

// Keeps others from the file. Returns whether it could: nobody holds it.
bool shut(File &file, uint32_t *first_free = nullptr) {
  uint32_t use = file.use.load(std::memory_order_relaxed);
  do {
    if ((use & kMostHolders) != 0) return false;
  } while (
      !file.use.compare_exchange_weak(use, kShut << kHolderBits, std::memory_order_acquire, std::memory_order_relaxed));
  if (first_free != nullptr) *first_free = use >> kHolderBits;
  return true;
}

void open_for_use(File &file) {
  ++file.generation;
  file.use.store(0, std::memory_order_release);
}

// Gives the file its name, with the next number that no other trace has: one of a process that had the same process ID
// is not overwritten. Returns an errno value.
int give_name(File &file, int folder, const char *from) {
  for (;; ++next_number) {
    const Name to = file_name(next_number);
    int error = renameat2(folder, from, folder, to.text, RENAME_NOREPLACE) == 0 ? 0 : errno;
    if (error == EINVAL || error == ENOSYS) {  // of file systems that cannot look and rename at once
      if (faccessat(folder, to.text, F_OK, 0) == 0) {
        error = EEXIST;
      } else {
        error = renameat(folder, from, folder, to.text) == 0 ? 0 : errno;
      }
    }
    if (error == EEXIST) continue;
    if (error == 0) file.number = next_number++;
    return error;
  }
}

// Allocates the space of a file, without the signal that ends a process at its limit. Returns an errno value.
int allocate(int descriptor) {
  rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < file_bytes) return EFBIG;
  int error;
  do {
    error = posix_fallocate(descriptor, 0, static_cast<off_t>(file_bytes));
  } while (error == EINTR);
  return error;
}

// Makes a file on disk and in memory that is shut yet. Returns an errno value.
int make(File &file, uint64_t time) {
  const int folder = open_folder();
  if (folder < 0) return errno;
  const Name hidden = hidden_name();
  const int descriptor = openat(folder, hidden.text, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return errno;
  void *map = MAP_FAILED;
  int error = allocate(descriptor);
  if (error == 0) {
    // All of its pages at once: a page at its first use would cost a message more than the rest.
    map = mmap(nullptr, file_bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, descriptor, 0);
    if (map == MAP_FAILED) error = errno;
  }
  close(descriptor);
  if (error == 0) {
    file.map = static_cast<uint8_t *>(map);
    lay_out(file, time);
    error = give_name(file, folder, hidden.text);
    if (error != 0) {
      munmap(map, file_bytes);
      file.map = nullptr;
    }
  }
  if (error != 0) unlinkat(folder, hidden.text, 0);
  return error;
}

// Has a file that is shut begin anew under its next number. Returns an errno value; the file is gone then.
int reuse(File &file, uint64_t time) {
  const int folder = open_folder();
  const Name name = file_name(file.number);
  const Name hidden = hidden_name();
  int error = renameat(folder, name.text, folder, hidden.text) == 0 ? 0 : errno;
  if (error == 0) {
    lay_out(file, time);
    error = give_name(file, folder, hidden.text);
    if (error == 0) return 0;
    unlinkat(folder, hidden.text, 0);
  }
  munmap(file.map, file_bytes);
  file.map = nullptr;
  return error;
}

void cut(const File &file, off_t bytes) {
  const int descriptor = openat(open_folder(), file_name(file.number).text, O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) return;
  [[maybe_unused]] const int no_matter = ftruncate(descriptor, bytes);
  close(descriptor);
}

// The file with the smallest number from a number on, of those there are; null when there is none.
File *oldest_from(uint32_t number) {
  File *oldest = nullptr;
  for (File &file : files) {
    if (file.map != nullptr && file.number >= number && (oldest == nullptr || file.number < oldest->number)) {
      oldest = &file;
    }
  }
  return oldest;
}

uint32_t count_files() {
  uint32_t count = 0;
  for (const File &file : files) count += file.map != nullptr;
  return count;
}

File *unused_file() {
  for (File &file : files) {
    if (file.map == nullptr && (file.use.load(std::memory_order_relaxed) >> kHolderBits == kShut || shut(file))) {
      return &file;
    }
  }
  return nullptr;
}

// A file to go on with; null when all are being held.
File *next_file(uint64_t time) {
  int error = 0;
  const uint32_t count = count_files();
  if (count < file_limit) {
    File *const file = unused_file();
    if (file == nullptr) return nullptr;
    error = make(*file, time);
    if (error == 0) return file;
    file_limit = count;
    if (count != 0) {
      char consequence[64];
      append(append(append(consequence, "the trace stays at "), count), count == 1 ? " file" : " files");
      complain(settings().folder, error, consequence);
    }
  }
  for (uint32_t number = 0; File *const file = oldest_from(number);) {
    number = file->number + 1;
    if (!shut(*file)) continue;
    error = reuse(*file, time);
    if (error == 0 || (error = make(*file, time)) == 0) return file;  // it may have been deleted
    --file_limit;
  }
  if (file_limit == 0) {
    off.store(true, std::memory_order_relaxed);
    complain(settings().folder, error,
             next_number == 0 ? "this process is not traced" : "this process is traced no more");
  }
  return nullptr;
}

OfProcess *find_page_of_process() {
  const auto bytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void *const page = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return &without_page;
  madvise(page, bytes, MADV_WIPEONFORK);
  return static_cast<OfProcess *>(page);
}

bool has_room(const File *file, uint32_t cells) {
  if (file == nullptr) return false;
  const uint32_t first_free = file->use.load(std::memory_order_relaxed) >> kHolderBits;
  return first_free != kShut && cells_in_file - first_free >= cells;
}

}  // namespace

uint64_t clock_now() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

void prepare_ring() {
  const uint64_t share = settings().ring_bytes / file_count;
  if (share > kLongestFile) {
    file_bytes = kLongestFile;
    file_count = static_cast<uint32_t>(settings().ring_bytes / kLongestFile);
  } else {
    file_bytes = static_cast<uint32_t>(share) & ~4095u;
  }
  file_limit = file_count;
  head_bytes = (1 + kShortNoteCells + cells_for(kSchemaNoteLength) + kShortNoteCells) * kCellBytes;
  cells_in_file = (file_bytes - head_bytes) / kCellBytes;
  of_process = find_page_of_process();
  of_process->state.store(kKnown, std::memory_order_relaxed);
  open_folder();
}

bool advance(uint32_t cells, uint64_t time) {
  if (off.load(std::memory_order_relaxed)) return false;
  const Turn mine;
  if (has_room(current_file(std::memory_order_relaxed), cells)) return true;
  File *const next = next_file(time);
  if (next == nullptr) return false;
  open_for_use(*next);
  of_process->current_file.store(next, std::memory_order_release);
  return true;
}

bool open_ring() { return current_file(std::memory_order_relaxed) != nullptr || advance(1, clock_now()); }

void close_ring() {
  if (current_file(std::memory_order_relaxed) == nullptr) return;
  const Turn mine;
  File *const file = current_file(std::memory_order_relaxed);
  uint32_t first_free = 0;
  if (file->map == nullptr) return;
  bool is_shut = false;
  // A thread that is filling cells needs some hundred nanoseconds; one that never comes back keeps the file as it is.
  for (int tries = 0; !is_shut && tries < 100; ++tries) {
    if (tries != 0) sched_yield();
    is_shut = shut(*file, &first_free);
  }
  if (!is_shut) return;
  if (first_free < cells_in_file) {
    cut(*file, head_bytes + static_cast<off_t>(first_free) * kCellBytes);
  }
  file->map = nullptr;  // it stays mapped for those who still have a status to store, but is no more used
  file->use.store(cells_in_file << kHolderBits, std::memory_order_release);
}

void restart_ring(bool interrupted) {
  restart_turns();
  of_process->current_file.store(nullptr, std::memory_order_relaxed);
  next_number = 0;
  file_limit = file_count;
  off.store(interrupted, std::memory_order_relaxed);
  for (File &file : files) {
    if (file.map != nullptr && interrupted) {
      mmap(file.map, file_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1,
           0);
      continue;
    }
    if (file.map != nullptr) munmap(file.map, file_bytes);
    file.map = nullptr;
    ++file.generation;
    file.use.store(kShut << kHolderBits, std::memory_order_relaxed);
  }
  of_process->state.store(kKnown, std::memory_order_release);
}

void set_unwrapped(uint32_t count) { unwrapped.store(count, std::memory_order_relaxed); }

}  // namespace trace
