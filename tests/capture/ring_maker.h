// A folder that goes with the test, and files of a ring in it, made of the blocks that the recorder makes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "trace/block.h"

using trace::kCellBytes;

class Folder {
 public:
  Folder() : path_(::mkdtemp(("/tmp/capture_test.XXXXXX" + std::string()).data())) {}
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  ~Folder() { std::filesystem::remove_all(path_); }

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

// The payload of a message follows from its number, so that bytes of another one show.
inline std::vector<uint8_t> payload_of(uint32_t number, uint32_t length) {
  std::vector<uint8_t> payload(length);
  for (uint32_t i = 0; i < length; ++i) payload[i] = static_cast<uint8_t>(number * 31 + i);
  return payload;
}

// A file of a ring.
class RingFile {
 public:
  RingFile(const Folder &folder, uint32_t cells, uint64_t time = 1) : folder_(folder), cells_(cells), time_(time) {
    const int descriptor = ::open((folder / hidden()).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    const std::size_t size = kHead + std::size_t{cells_} * kCellBytes;
    EXPECT_EQ(::ftruncate(descriptor, static_cast<off_t>(size)), 0);
    map_ = static_cast<uint8_t *>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
    EXPECT_NE(map_, MAP_FAILED);
    ::close(descriptor);
  }
  RingFile(const RingFile &) = delete;
  RingFile &operator=(const RingFile &) = delete;
  ~RingFile() { ::munmap(map_, kHead + std::size_t{cells_} * kCellBytes); }

  // Begins a turn under a name: with two notes, no third one, and nothing else.
  void begin(const std::string &name) {
    if (!name_.empty()) {
      EXPECT_EQ(std::rename((folder_ / name_).c_str(), (folder_ / hidden()).c_str()), 0);
    }
    constexpr uint32_t kSection[] = {
        TRACE_SECTION_BLOCK, 28, TRACE_BYTE_ORDER, 1, UINT32_MAX, UINT32_MAX, 28, TRACE_INTERFACE_BLOCK, 32,
        TRACE_LINK_TYPE,     0,  0x00010009,       9, 0,          32};
    std::memcpy(map_, kSection, sizeof kSection);
    trace::put_filler(map_ + sizeof kSection, kCellBytes - sizeof kSection);
    trace::put(map_ + sizeof kSection, uint32_t{0x80000052});  // something else that is passed over
    note(1, TRACE_NOTE_PROGRAM "test");
    note(2, TRACE_NOTE_SCHEMA "# quopa schema 1\np.m 0x1 fixed=32 compact=18..23 record=8 u32@0 u8@4\n");
    trace::put_filler(map_ + 3 * kCellBytes, kCellBytes);
    for (uint32_t i = 0; i < cells_; ++i) trace::put_filler(cell(i), kCellBytes);
    next_ = 0;
    name_ = name;
    EXPECT_EQ(std::rename((folder_ / hidden()).c_str(), (folder_ / name_).c_str()), 0);
  }

  // Keeps cells for a message of this length; null when there are not so many.
  uint8_t *reserve(uint32_t length = 8) {
    const uint32_t cells = trace::cells_for(length);
    if (cells_ - next_ < cells) return nullptr;
    next_ += cells;
    return cell(next_ - cells);
  }

  void fill(uint8_t *at, uint32_t number, uint32_t length = 8, TraceKind kind = TRACE_SENT, int32_t status = 0) {
    const uint32_t bytes = trace::cells_for(length) * kCellBytes;
    if (bytes > kCellBytes) trace::join_cells(at, bytes);
    const std::vector<uint8_t> payload = payload_of(number, length);
    trace::fill_packet(at, bytes, time_, {kind, 1, number, 0, status, 0, 1, 7}, payload.data(), length, length);
  }

  void write(uint32_t number, uint32_t length = 8) {
    uint8_t *const at = reserve(length);
    fill(at, number, length);
    trace::publish(at);
  }

  uint8_t *cell(uint32_t index) { return map_ + kHead + std::size_t{index} * kCellBytes; }
  static constexpr uint32_t kHead = 4 * kCellBytes;

 private:
  void note(uint32_t place, const char *text) {
    uint8_t *const at = map_ + place * kCellBytes;
    const auto length = static_cast<uint32_t>(std::strlen(text));
    trace::put_filler(at, kCellBytes);
    trace::fill_packet(at, kCellBytes, time_, {TRACE_NOTE, 0, 64, 0, 0, 0, 1, 7}, text, length, length);
    trace::publish(at);
  }
  std::string hidden() const { return "hidden." + std::to_string(reinterpret_cast<uintptr_t>(this)); }

  const Folder &folder_;
  uint32_t cells_;
  uint64_t time_;
  uint8_t *map_ = nullptr;
  std::string name_;
  uint32_t next_ = 0;
};
