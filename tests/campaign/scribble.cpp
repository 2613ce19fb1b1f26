// Decodes buffers that another thread changes meanwhile, as another process may in shared memory: what is read twice
// has another value the second time. Whatever comes of it, nothing is read or written out of bounds and every block
// comes back. Its argument is a shell pattern, for the prefixes of only some types.
#include <fnmatch.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "fake_platform.h"
#include "good_images.h"
#include "judge.h"

namespace {

using reference::Bytes;

// A buffer behind which nothing is accessible for as far as a decoder can be sent, and little before it.
class Island {
 public:
  Island() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))), shore_(kLand / page_ * page_) {
    void *const memory = mmap(nullptr, kReach, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
    start_ = static_cast<uint8_t *>(memory) + shore_;
    if (mprotect(start_, shore_, PROT_READ | PROT_WRITE) != 0) throw std::runtime_error("mprotect failed");
  }
  Island(const Island &) = delete;
  Island &operator=(const Island &) = delete;
  ~Island() { munmap(start_ - shore_, kReach); }

  uint8_t *place(const Bytes &bytes) { return std::copy_backward(bytes.begin(), bytes.end(), start_ + shore_); }

 private:
  static constexpr std::size_t kLand = 1 << 16;
  static constexpr std::size_t kReach = std::min<std::size_t>(UINT32_MAX, SIZE_MAX >> 5) + 2 * kLand;

  std::size_t page_;
  std::size_t shore_;
  uint8_t *start_;
};

// Puts numbers where a decoder is told where to read, and soon after what stood there before. Every other number stands
// for as long as it takes to draw the next, so that a thread that is stopped anywhere leaves good and bad images behind.
class Scribbler {
 public:
  Scribbler(const reference::Type &type, const Bytes &good, uint8_t *buffer)
      : positions_(find_positions(type, good)),
        random_(good.size()),
        content_(random_, {.zeros = 10}),
        thread_([this, &good, buffer] {
          while (!stopped_.load(std::memory_order_relaxed)) {
            const Number first = draw();
            first.write(buffer);
            const Number second = draw();
            first.restore(buffer, good);
            second.write(buffer);
            second.restore(buffer, good);
            begun_.store(true, std::memory_order_relaxed);
          }
        }) {}
  ~Scribbler() {
    stopped_ = true;
    thread_.join();
  }

  bool has_begun() const { return begun_.load(std::memory_order_relaxed); }

 private:
  struct Number {
    uint32_t at;
    uint32_t width;
    uint8_t bytes[4];

    void write(uint8_t *buffer) const { store(buffer + at, bytes); }
    void restore(uint8_t *buffer, const Bytes &good) const { store(buffer + at, good.data() + at); }
    void store(uint8_t *to, const uint8_t *from) const {
      for (uint32_t i = 0; i < width; ++i) std::atomic_ref(to[i]).store(from[i], std::memory_order_relaxed);
    }
  };

  Number draw() {
    Number number{.at = 0, .width = random_.below(3) == 0 ? 4U : 2U, .bytes = {}};
    const auto &of_width = number.width == 4 ? positions_.words : positions_.entries;
    number.at = of_width[random_.below(static_cast<uint32_t>(of_width.size()))];
    records::store_number(number.bytes, number.width, content_.number(number.width));
    return number;
  }

  const Positions positions_;
  records::Random random_;
  records::RandomContent content_;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> begun_ = false;
  std::thread thread_;
};

}  // namespace

int main(int argc, char **argv) {
  const char *const pattern = argc > 1 ? argv[1] : "*";
  constexpr std::chrono::milliseconds kTimeForAnImage(3);
  Island island;
  records::Random random(1);
  uint64_t decodes = 0;
  uint64_t rejected = 0;
  for (const reference::Type *type : reference::all_types()) {
    if (fnmatch(pattern, type->prefix().c_str(), 0) != 0) continue;
    std::puts(type->prefix().c_str());
    std::fflush(stdout);  // the last line names the culprit
    const judge::Subject subject(*type);
    for (const Bytes &image : good_images(*type, random)) {
      const auto length = static_cast<uint32_t>(image.size());
      uint8_t *const buffer = island.place(image);
      Bytes record(type->record_size);
      const Scribbler scribbler(*type, image, buffer);
      // A busy machine may let the other thread run much later.
      bool seen_changed = false;
      for (const auto start = std::chrono::steady_clock::now();
           !seen_changed || std::chrono::steady_clock::now() < start + kTimeForAnImage;) {
        seen_changed = scribbler.has_begun();
        for (int turn = 0; turn < 32; ++turn, ++decodes) {
          fake_platform::reset();
          subject.library.unpack(buffer, length, record.data());
          rejected += !fake_platform::logs().empty();
          subject.library.free_unpacked(record.data());
          if (fake_platform::live_blocks() == 0) continue;
          std::puts("keeps a block");
          return 1;
        }
      }
    }
  }
  std::printf("%llu decodes, %llu with a log line\n", static_cast<unsigned long long>(decodes),
              static_cast<unsigned long long>(rejected));
  return rejected > 0 && rejected < decodes ? 0 : 1;
}
