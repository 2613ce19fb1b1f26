#include "capture/follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include "capture/ring_file.h"
#include "describe/printable.h"
#include "runtime/wire.h"

namespace capture {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kChunk = std::size_t{512} << 10;
constexpr std::size_t kLongestRest = std::size_t{128} << 20;  // no file of a ring is longer
constexpr uint32_t kLongestBlock = 16u << 20;
constexpr uint32_t kBlockEdge = 8;     // type and length in front
constexpr uint32_t kPacketFront = 28;  // what stands before a packet's bytes

// How long a message may be under way, in the recorder or in the bus, before the next ones are shown without it.
constexpr std::chrono::seconds kPatience{2};
constexpr std::chrono::milliseconds kLastWords{50};  // in a file that is full
constexpr std::chrono::milliseconds kDiscovery{200};

uint32_t word_at(const uint8_t *from) {
  uint32_t word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

}  // namespace

class Follower::Ring {
 public:
  Ring(const std::string &folder, const std::string &name, uint64_t number)
      : folder_(folder), name_(name), number_(number) {}
  Ring(const Ring &) = delete;
  Ring &operator=(const Ring &) = delete;
  ~Ring() { close(); }

  bool is(const std::string &folder, const std::string &name) const { return folder == folder_ && name == name_; }

  // The message that comes next, if it is there by now.
  const Message *message() {
    while (!has_message_) {
      if (!advance()) return nullptr;
    }
    return &message_;
  }
  void take() { has_message_ = false; }

 private:
  std::string path_of(uint64_t number) const {
    return folder_ + '/' + name_ + '.' + std::to_string(number) + TRACE_FILE_SUFFIX;
  }

  bool is_same_file() const {
    struct stat now = {};
    return ::stat(path_of(number_).c_str(), &now) == 0 && now.st_ino == opened_.st_ino && now.st_dev == opened_.st_dev;
  }

  void close() {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

  // Begins with a file of the ring: that with the number, or the next one that is still there.
  bool open_from(uint64_t number, bool was_taken_away = false) {
    close();
    std::optional<uint64_t> least;
    for_each_ring_file(folder_, [&](const RingFile &file) {
      if (file.ring == name_ && file.number >= number && (!least || file.number < *least)) least = file.number;
    });
    if (!least) return false;
    const uint64_t lost = *least - number + was_taken_away;
    if (lost > 0)
      std::cerr << "quopa: " << drix::describe::printable(name_) << ": " << lost
                << " files were written anew before they were read to the end\n";
    number_ = *least;
    descriptor_ = ::open(path_of(number_).c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ < 0 || ::fstat(descriptor_, &opened_) != 0) return false;
    at_ = 0;
    chunk_.clear();
    used_ = 0;
    return true;
  }

  // False when nothing is there now.
  bool advance() {
    if (descriptor_ < 0) return open_from(number_);
    if (used_ + kBlockEdge <= chunk_.size()) {
      const uint32_t length = word_at(chunk_.data() + used_ + 4);
      if (is_block(length) && used_ + length <= chunk_.size()) return take_block(length);
    }
    return refill();
  }

  static bool is_block(uint32_t length) { return length >= kBlockEdge + 4 && length % 4 == 0; }

  // Reads from the first block on that is not taken yet. While that is a filler, only its front is looked at.
  bool refill() {
    const bool is_full = ::access(path_of(number_ + 1).c_str(), F_OK) == 0;
    at_ += used_;
    used_ = 0;
    read(kBlockEdge);
    if (chunk_.size() < kBlockEdge) return is_full && open_from(number_ + 1);
    const bool is_filler = word_at(chunk_.data()) == TRACE_FILLER_BLOCK;
    const uint32_t length = word_at(chunk_.data() + 4);
    if (is_filler && !is_full && !has_waited(kPatience)) return forget_chunk();
    if (length > kLongestBlock) throw BadCapture(path_of(number_) + ": no block of a trace at " + std::to_string(at_));
    read(is_filler && is_full ? kLongestRest : std::max<std::size_t>(kChunk, length));
    // What was read counts only when the file was not given another name by then, with which it is written anew.
    if (!is_same_file()) return open_from(number_ + 1, true);
    if (chunk_.size() < kBlockEdge || !is_block(word_at(chunk_.data() + 4)) ||
        word_at(chunk_.data() + 4) > chunk_.size()) {
      return forget_chunk();
    }
    return word_at(chunk_.data()) != TRACE_FILLER_BLOCK || pass_filler(is_full);
  }

  // At most so many bytes, as far as the file has them.
  void read(std::size_t size) {
    const auto end = static_cast<uint64_t>(opened_.st_size);
    const uint64_t rest = end - std::min(end, at_);
    chunk_.resize(static_cast<std::size_t>(std::min<uint64_t>(size, rest)));
    const ssize_t got = ::pread(descriptor_, chunk_.data(), chunk_.size(), static_cast<off_t>(at_));
    chunk_.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  }

  bool forget_chunk() {
    chunk_.clear();
    return false;
  }

  // Behind fillers stand messages, when somebody is still at work in front of them or will never be done, or nothing
  // yet.
  bool pass_filler(bool is_full) {
    std::size_t at = 0;
    while (at + kBlockEdge <= chunk_.size() && word_at(chunk_.data() + at) == TRACE_FILLER_BLOCK) {
      const uint32_t length = word_at(chunk_.data() + at + 4);
      at += is_block(length) ? length : chunk_.size();
    }
    if (at + kBlockEdge > chunk_.size()) {
      chunk_.clear();
      if (is_full) return has_waited(kLastWords) && open_from(number_ + 1);
      waiting_since_ = Clock::now();
      return false;
    }
    if (!has_waited(kPatience)) return forget_chunk();
    used_ = at;
    return true;
  }

  // Whether what stands at this place has been waited for long enough.
  bool has_waited(Clock::duration patience) {
    if (waiting_at_ != at_ || waiting_number_ != number_) {
      waiting_at_ = at_;
      waiting_number_ = number_;
      waiting_since_ = Clock::now();
    }
    return Clock::now() - waiting_since_ > patience;
  }

  // False, with nothing taken, when the block is not ready.
  bool take_block(uint32_t length) {
    const uint8_t *const block = chunk_.data() + used_;
    const bool is_filler = word_at(block) == TRACE_FILLER_BLOCK;
    if (is_filler || is_unanswered(block, length)) {
      chunk_.resize(used_);  // to be read again
      return is_filler;
    }
    if (word_at(block) == TRACE_PACKET_BLOCK) take_packet(block, length);
    used_ += length;
    return true;
  }

  // A message whose send may yet return. All of a call wait from the same time on.
  static bool is_unanswered(const uint8_t *block, uint32_t length) {
    if (word_at(block) != TRACE_PACKET_BLOCK || length < kPacketFront + TRACE_HEADER_BYTES + 4) return false;
    const uint8_t *const header = block + kPacketFront;
    const auto now = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch());
    return header[TRACE_KIND_AT] == TRACE_SENT &&
           static_cast<int32_t>(drix::load<uint32_t>(header + TRACE_STATUS_AT)) == TRACE_NO_ANSWER &&
           now - std::chrono::nanoseconds(time_of(block)) < kPatience;
  }

  static uint64_t time_of(const uint8_t *block) { return uint64_t{word_at(block + 12)} << 32 | word_at(block + 16); }

  void take_packet(const uint8_t *block, uint32_t length) {
    const uint32_t captured = length < kPacketFront + 4 ? 0 : word_at(block + 20);
    if (length < kPacketFront + 4 || captured > length - kPacketFront - 4) {
      throw BadCapture(path_of(number_) + ": a damaged packet at " + std::to_string(at_ + used_));
    }
    message_ = parse_packet({block + kPacketFront, captured}, word_at(block + 24), time_of(block));
    message_.origin = &origin_;
    if (message_.kind == TRACE_NOTE) take_note(message_, origin_);
    has_message_ = true;
  }

  std::string folder_;
  std::string name_;
  uint64_t number_;  // of the file that is being read
  int descriptor_ = -1;
  struct stat opened_ = {};
  uint64_t at_ = 0;  // where the chunk stands in the file
  std::vector<uint8_t> chunk_;
  std::size_t used_ = 0;  // bytes of the chunk that are done
  Origin origin_;
  Message message_ = {};
  bool has_message_ = false;
  uint64_t waiting_at_ = UINT64_MAX;
  uint64_t waiting_number_ = 0;
  Clock::time_point waiting_since_;
};

Follower::Follower(const std::vector<std::string> &paths) {
  for (const std::string &path : paths) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      places_.push_back({path, ""});
      continue;
    }
    const std::filesystem::path file = path;
    const auto in_ring = ring_file(file.filename());
    if (error) throw BadCapture(path + ": " + error.message());
    if (!in_ring) throw BadCapture(path + ": not a file that the recorder writes, so it cannot be followed");
    places_.push_back({file.has_parent_path() ? file.parent_path().string() : ".", in_ring->ring});
  }
}

Follower::~Follower() = default;

void Follower::discover() {
  if (Clock::now() < next_discovery_) return;
  next_discovery_ = Clock::now() + kDiscovery;
  for (const Place &place : places_) {
    for_each_ring_file(place.folder, [&](const RingFile &file) {
      if (!place.ring.empty() && file.ring != place.ring) return;
      const auto is_known = [&](const auto &ring) { return ring->is(place.folder, file.ring); };
      if (std::any_of(rings_.begin(), rings_.end(), is_known)) return;
      uint64_t oldest = file.number;
      for_each_ring_file(place.folder, [&](const RingFile &other) {
        if (other.ring == file.ring) oldest = std::min(oldest, other.number);
      });
      rings_.push_back(std::make_unique<Ring>(place.folder, file.ring, oldest));
    });
  }
}

const Message *Follower::next() {
  if (taken_ != nullptr) taken_->take();
  taken_ = nullptr;
  discover();
  const Message *earliest = nullptr;
  for (const auto &ring : rings_) {
    const Message *const message = ring->message();
    if (message == nullptr || (earliest != nullptr && earliest->time <= message->time)) continue;
    earliest = message;
    taken_ = ring.get();
  }
  return earliest;
}

}  // namespace capture
