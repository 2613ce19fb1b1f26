#include "capture/blocks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

#include "capture/format.h"
#include "capture/message.h"
#include "capture/ring_file.h"

namespace capture {
namespace {

constexpr std::size_t kChunk = std::size_t{64} << 10;
constexpr int kMostAttempts = 3;
constexpr std::chrono::milliseconds kPause{1};

class Descriptor {
 public:
  explicit Descriptor(const std::string &path) : number_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }

  int number() const { return number_; }
  int release() { return std::exchange(number_, -1); }

 private:
  int number_;
};

}  // namespace

std::string name_of(const std::string &path) { return path == "-" ? "standard input" : path; }

Blocks::Blocks(const std::string &path, ReadAt read_at) : path_(path), read_at_(read_at) {
  if (path == "-") {
    source_ = Source::stream;
    stream_ = STDIN_FILENO;
    return;
  }
  Descriptor file(path);
  struct stat status = {};
  if (file.number() < 0 || ::fstat(file.number(), &status) != 0) fail();
  if (S_ISREG(status.st_mode)) {
    source_ = ring_file(std::filesystem::path(path).filename()) ? Source::ring : Source::file;
    device_ = status.st_dev;
    inode_ = status.st_ino;
  } else {
    source_ = Source::stream;
    stream_ = file.release();
  }
}

Blocks::~Blocks() {
  if (stream_ > STDIN_FILENO) ::close(stream_);
}

void Blocks::fail() const { throw BadCapture(name_of(path_) + ": " + std::strerror(errno)); }

Blocks::Found Blocks::look() {
  while (true) {
    if (rest().empty() && !fetch(1)) return gone_ ? Found::gone : Found::end;
    const std::span<const uint8_t> filler = filler_in_first_copy();
    found_ = parser_.look(filler.empty() ? rest() : filler);
    switch (found_) {
      case BlockParser::Found::packet:
        return Found::packet;
      case BlockParser::Found::filler:
        return Found::filler;
      case BlockParser::Found::other:
        pass();
        break;
      case BlockParser::Found::unfinished:
        if (fetch(parser_.size())) break;
        if (gone_) return Found::gone;
        if (!retry()) return Found::unfinished;
        break;
      case BlockParser::Found::damaged:
        if (!retry()) return Found::damaged;
        break;
    }
  }
}

// Fillers that were passed may have become one packet meanwhile, and what is found is what stands in its middle.
bool Blocks::retry() {
  if (source_ != Source::ring || position() == fillers_ || attempts_ == kMostAttempts) return false;
  ++attempts_;
  std::this_thread::sleep_for(kPause);
  start_at(fillers_);
  return true;
}

void Blocks::pass() {
  passed_ += parser_.size();
  if (found_ == BlockParser::Found::filler) return;
  fillers_ = position();
  attempts_ = 0;
}

void Blocks::go_to(uint64_t position) {
  start_at(position);
  fillers_ = position;
  attempts_ = 0;
}

void Blocks::start_at(uint64_t position) {
  start_ = position;
  passed_ = 0;
  bytes_ = {};
}

std::span<const uint8_t> Blocks::rest() const {
  return bytes_.subspan(static_cast<std::size_t>(std::min<uint64_t>(passed_, bytes_.size())));
}

// Empty when there is none.
std::span<const uint8_t> Blocks::filler_in_first_copy() const {
  uint32_t type;
  if (source_ != Source::ring || first_copy_.size() < passed_ + sizeof type) return {};
  const auto bytes = std::span(first_copy_).subspan(static_cast<std::size_t>(passed_));
  std::memcpy(&type, bytes.data(), sizeof type);
  return type == TRACE_FILLER_BLOCK ? bytes : std::span<const uint8_t>();
}

// Has so many bytes at hand from the present place on. False when there are not so many, or the file is gone.
bool Blocks::fetch(std::size_t wanted) {
  if (source_ == Source::stream) fetch_from_stream(wanted);
  if (source_ == Source::file || source_ == Source::ring) fetch_from_file(wanted);
  return !gone_ && rest().size() >= wanted;
}

void Blocks::fetch_from_stream(std::size_t wanted) {
  do {
    const auto done = static_cast<std::size_t>(std::min<uint64_t>(passed_, copy_.size()));
    copy_.erase(copy_.begin(), copy_.begin() + static_cast<std::ptrdiff_t>(done));
    start_ += done;
    passed_ -= done;
    const std::size_t before = copy_.size();
    copy_.resize(before + kChunk);
    const ssize_t got = ::read(stream_, copy_.data() + before, kChunk);
    if (got < 0 && errno != EINTR) fail();
    copy_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    bytes_ = copy_;
    if (got == 0) return;
  } while (rest().size() < wanted);
}

void Blocks::fetch_from_file(std::size_t wanted) {
  start_at(position());
  const Descriptor file(path_);
  struct stat now = {};
  if (file.number() < 0 && errno != ENOENT) fail();
  gone_ = file.number() < 0 || !is_same(::fstat(file.number(), &now), now);
  if (gone_) return;
  const std::size_t size = std::max(wanted, kChunk);
  if (source_ == Source::ring) {
    copy(file.number(), size, first_copy_);
    std::atomic_thread_fence(std::memory_order_seq_cst);
  }
  copy(file.number(), size, copy_);
  gone_ = source_ == Source::ring && !is_same(::stat(path_.c_str(), &now), now);
  if (!gone_) bytes_ = copy_;
}

// At most so many bytes from the present place on, as far as the file has them.
void Blocks::copy(int descriptor, std::size_t size, std::vector<uint8_t> &to) const {
  to.resize(size);
  std::size_t done = 0;
  ssize_t got = 1;
  while (done < size && got != 0) {
    got = read_at_(descriptor, to.data() + done, size - done, static_cast<off_t>(start_ + done));
    if (got < 0 && errno != EINTR) fail();
    if (got > 0) done += static_cast<std::size_t>(got);
  }
  to.resize(done);
}

bool Blocks::is_same(int status, const struct stat &now) const {
  return status == 0 && now.st_dev == device_ && now.st_ino == inode_;
}

}  // namespace capture
