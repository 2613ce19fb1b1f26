#include "judge.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "fake_platform.h"

namespace judge {

namespace {

constexpr uint8_t kPoison = 0xEE;

Outcome outcome;
reference::Trace trace;
Observer other_reader = nullptr;

std::string line_of(const reference::LogCall &call) {
  return std::to_string(call.code) + " " + call.function + ": " + call.text;
}

std::string line_of(const reference::MemoryCall &call) {
  return std::to_string(call.size) + " bytes by " + call.function;
}

template <class Call>
std::string text(const std::vector<Call> &calls) {
  std::string lines;
  for (const Call &call : calls) lines += "\n    " + line_of(call);
  return lines.empty() ? "\n    none" : lines;
}

template <class Call>
std::string compare(const char *what, const std::vector<Call> &library, const std::vector<Call> &expected) {
  if (library == expected) return {};
  return std::string("\n  ") + what + ":" + text(library) + "\n  expected:" + text(expected);
}

}  // namespace

Guarded::Guarded(std::size_t capacity)
    : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))), pages_((capacity + page_ - 1) / page_ * page_) {
  void *memory = mmap(nullptr, pages_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("mmap failed");
  start_ = static_cast<uint8_t *>(memory) + page_;
  if (mprotect(start_, pages_, PROT_READ | PROT_WRITE) != 0) throw std::runtime_error("mprotect failed");
}

Guarded::~Guarded() { munmap(start_ - page_, pages_ + 2 * page_); }

const uint8_t *Guarded::place(const uint8_t *bytes, std::size_t size) {
  return std::copy_backward(bytes, bytes + size, start_ + pages_);
}

const uint8_t *Guarded::place_at_start(const uint8_t *bytes, std::size_t size) {
  std::copy(bytes, bytes + size, start_);
  return start_;
}

Outcome last_outcome() { return outcome; }
void also_judge(Observer observer) { other_reader = observer; }
const reference::Trace &last_trace() { return trace; }

std::string decode(const Subject &subject, const uint8_t *buffer, uint32_t length, std::size_t failing_allocation) {
  const reference::Type &type = *subject.type;
  const reference::Bytes untouched(type.record_size, kPoison);
  reference::Bytes expected = untouched;
  reference::Bytes record = untouched;
  trace = {};
  const bool complete = reference::decode(type, buffer, length, expected.data(), trace, failing_allocation);
  outcome = complete ? Outcome::complete : expected == untouched ? Outcome::rejected : Outcome::given_up;

  fake_platform::reset(failing_allocation);
  const std::size_t blocks_before = fake_platform::live_blocks();
  const uint32_t result = subject.library.unpack(buffer, length, record.data());

  std::string faults;
  if (result != type.record_size) faults += "\n  result " + std::to_string(result);
  faults += compare("log calls", fake_platform::logs(), trace.logs);
  faults += compare("allocations", fake_platform::allocations(), trace.allocations);
  if (other_reader != nullptr && failing_allocation == SIZE_MAX) {
    faults += other_reader(subject, buffer, length, record.data());
  }
  if (outcome == Outcome::rejected) {
    if (record != untouched) faults += "\n  the record was touched";
  } else {
    const auto compare_records = [&](const char *what) {
      const std::string difference = records::first_difference(type, record.data(), expected.data());
      if (!difference.empty()) faults += std::string("\n  ") + what + " differs in " + difference;
    };
    compare_records("the record");
    for (int time = 0; time < 2; ++time) {  // the second release finds nothing to free
      subject.library.free_unpacked(record.data());
      reference::release(type, expected.data(), trace);
    }
    compare_records("the released record");
  }
  faults += compare("frees", fake_platform::frees(), trace.frees);
  if (fake_platform::live_blocks() != blocks_before) faults += "\n  blocks leaked";
  return faults;
}

}  // namespace judge
