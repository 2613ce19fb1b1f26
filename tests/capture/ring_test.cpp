// Rings that are followed while they are written to.
#include <gtest/gtest.h>

#include <thread>

#include "capture/blocks.h"
#include "capture/file.h"
#include "capture/follower.h"
#include "ring_maker.h"

namespace {

using capture::Follower;
using capture::Message;

constexpr capture::Patience kNone = {std::chrono::seconds(0), std::chrono::seconds(0), std::chrono::seconds(0)};
constexpr capture::Patience kForMessages = {std::chrono::hours(1), std::chrono::seconds(0), std::chrono::seconds(0)};
constexpr capture::Patience kForEver = {std::chrono::hours(1), std::chrono::hours(1), std::chrono::seconds(0)};

uint64_t now() {
  const std::chrono::nanoseconds time = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(time.count());
}

// A follower of a folder, and what it says.
class Following {
 public:
  Following(const Folder &folder, capture::Patience patience)
      : folder_(folder.path() + '/'),
        follower_(
            {folder.path()}, [this](const std::string &line) { complain(line); }, patience) {}

  // The numbers of what can be had now, in as many looks as there can be reasons to wait, or fewer.
  std::string drain(int most_looks = 8) {
    std::string numbers;
    for (int looks = 0; looks < most_looks; ++looks) {
      while (const Message *const message = follower_.next()) {
        looks = 0;
        if (message->kind == TRACE_NOTE) continue;
        numbers += (numbers.empty() ? "" : " ") + std::to_string(message->handle);
        const auto expected = payload_of(message->handle, message->length);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), message->payload.begin())) << message->handle;
      }
    }
    return numbers;
  }

  // Without the folder.
  std::string complaints() { return std::exchange(complaints_, {}); }

 private:
  void complain(const std::string &line) {
    complaints_ += line.starts_with(folder_) ? line.substr(folder_.size()) : line;
    complaints_ += '\n';
  }

  std::string folder_;
  std::string complaints_;
  Follower follower_;
};

constexpr char kNobody[] = "";

TEST(CaptureRing, IsFollowedFromFileToFile) {
  const Folder folder;
  RingFile first(folder, 3), second(folder, 3);
  first.begin("quopa-test-7.3.pcapng");
  Following waiting(folder, kForEver);
  Following going_on(folder, kNone);
  first.write(1);
  EXPECT_EQ(waiting.drain(), "1");
  EXPECT_EQ(going_on.drain(), "1");
  first.write(2);
  second.begin("quopa-test-7.4.pcapng");
  second.write(3);
  EXPECT_EQ(waiting.drain(), "2") << "a thread may yet write into the third place";
  EXPECT_EQ(going_on.drain(), "2 3");
  first.write(4);
  EXPECT_EQ(waiting.drain(), "4 3");
  second.write(5);
  second.write(6);
  first.begin("quopa-test-7.5.pcapng");
  first.write(7);
  EXPECT_EQ(waiting.drain(), "5 6 7") << "where no place is left nobody is waited for";
  EXPECT_EQ(waiting.complaints() + going_on.complaints(), kNobody);
}

TEST(CaptureRing, IsOneOfThoseInItsFolder) {
  const Folder folder;
  RingFile one(folder, 1, 5), another(folder, 1, 4), older(folder, 2, 3);
  const auto numbers = [&](const std::string &path) {
    std::string said;
    Follower follower({path}, [](const std::string &line) { ADD_FAILURE() << line; });
    while (const Message *const message = follower.next()) {
      if (message->kind == TRACE_NOTE) continue;
      said += std::to_string(message->handle) + '#' + std::to_string(message->packet) + ' ';
    }
    return said;
  };
  one.begin("quopa-a.b-7.10.pcapng");
  one.write(3);
  older.begin("quopa-a.b-7.9.pcapng");
  older.write(1);
  older.write(1);
  another.begin("quopa-a.b-8.0.pcapng");
  another.write(2);
  std::filesystem::copy(folder / "quopa-a.b-7.9.pcapng", folder / "quopa-a.b-7.11.backup");
  EXPECT_EQ(numbers(folder / "quopa-a.b-7.10.pcapng"), "1#3 1#4 3#3 ");
  EXPECT_EQ(numbers(folder.path()), "1#3 1#4 2#3 3#3 ");
  EXPECT_THROW(numbers(folder / "quopa-a.b-7.pcapng"), capture::BadCapture);
  EXPECT_THROW(numbers(folder / "a-7.0.pcapng"), capture::BadCapture);
  EXPECT_THROW(numbers(folder / "quopa-none-1.0.pcapng"), capture::BadCapture);
}

TEST(CaptureRing, IsReadInTheOrderOfNumbersWhateverThatOfTheFolder) {
  const Folder folder;
  Following following(folder, kForEver);
  std::vector<std::unique_ptr<RingFile>> files;
  for (const uint32_t number : {7u, 0u, 19u, 12u, 3u, 30u, 9u}) {
    files.push_back(std::make_unique<RingFile>(folder, 1));
    files.back()->begin("quopa-test-7." + std::to_string(number) + ".pcapng");
    files.back()->write(number);
  }
  EXPECT_EQ(following.drain(), "0 3 7 9 12 19 30");
}

TEST(CaptureRing, TellsWhatIsGone) {
  const Folder folder;
  RingFile first(folder, 2), second(folder, 2), third(folder, 2);
  first.begin("quopa-test-7.0.pcapng");
  first.write(1);
  Following following(folder, kForEver);
  EXPECT_EQ(following.drain(), "1");
  first.write(2);
  second.begin("quopa-test-7.1.pcapng");
  second.write(3);
  // Written anew before the second message was read; another program's message stands there now.
  first.begin("quopa-test-7.2.pcapng");
  first.write(4);
  EXPECT_EQ(following.drain(), "3");
  EXPECT_EQ(following.complaints(),
            "quopa-test-7: 1 files were written anew or deleted before they were read to their end\n");
  second.write(5);
  // Deleted, between one that is read and one that comes.
  std::filesystem::remove(folder / "quopa-test-7.2.pcapng");
  third.begin("quopa-test-7.4.pcapng");
  third.write(6);
  EXPECT_EQ(following.drain(), "5 6");
  EXPECT_EQ(following.complaints(),
            "quopa-test-7: 2 files were written anew or deleted before they were read to their end\n");
  // Deleted while it is read; its process goes on with the next.
  std::filesystem::remove(folder / "quopa-test-7.4.pcapng");
  EXPECT_EQ(following.drain(), "");
  second.begin("quopa-test-7.5.pcapng");
  second.write(7);
  EXPECT_EQ(following.drain(), "7");
}

TEST(CaptureRing, WaitsForWhatIsBeingWritten) {
  for (const uint32_t length : {8u, 700u}) {
    for (const bool is_full : {false, true}) {
      const Folder folder;
      RingFile file(folder, 12), next(folder, 2);
      file.begin("quopa-test-7.0.pcapng");
      file.write(1);
      uint8_t *const place = file.reserve(length);
      file.write(3);
      if (is_full) {
        next.begin("quopa-test-7.1.pcapng");
        next.write(4);
      }
      Following waiting(folder, kForEver);
      Following going_on(folder, kNone);
      EXPECT_EQ(waiting.drain(), "1");
      EXPECT_EQ(going_on.drain(), is_full ? "1 3 4" : "1 3");
      EXPECT_EQ(going_on.complaints(), "quopa-test-7.0.pcapng: nothing was written into the place at byte 1280\n");
      if (length > trace::payload_of(1)) {
        // Between the two stores that join its cells, the last one has the length of all of them.
        trace::put(place + trace::cells_for(length) * kCellBytes - 4, trace::cells_for(length) * kCellBytes);
        EXPECT_EQ(waiting.drain(), "");
        EXPECT_EQ(Following(folder, kNone).drain(), is_full ? "1 3 4" : "1 3");
      }
      file.fill(place, 2, length);
      EXPECT_EQ(waiting.drain(), "");
      trace::publish(place);
      EXPECT_EQ(waiting.drain(), "2 3");
      EXPECT_EQ(waiting.complaints(), kNobody);
    }
  }
}

TEST(CaptureRing, LooksFarBehindAnEmptyPlaceFromTimeToTime) {
  const Folder folder;
  RingFile file(folder, 600);
  file.begin("quopa-test-7.0.pcapng");
  for (int i = 0; i < 400; ++i) file.reserve();
  file.write(1);
  EXPECT_EQ(Following(folder, kForEver).drain(), "");
  EXPECT_EQ(Following(folder, kNone).drain(), "1");
  RingFile next(folder, 2);
  next.begin("quopa-test-7.1.pcapng");
  next.write(2);
  EXPECT_EQ(Following(folder, kForMessages).drain(), "") << "in a full file something far behind is waited for, too";
  EXPECT_EQ(Following(folder, kNone).drain(), "1 2");
}

TEST(CaptureRing, WaitsLongerForWhatOthersWriteBehindIt) {
  const Folder folder;
  RingFile file(folder, 4), next(folder, 2);
  file.begin("quopa-test-7.0.pcapng");
  next.begin("quopa-test-7.1.pcapng");
  next.write(4);
  file.write(1);
  uint8_t *const place = file.reserve();
  Following following(folder, kForMessages);
  EXPECT_EQ(following.drain(1), "1");
  file.write(3);
  EXPECT_EQ(following.drain(), "");
  file.fill(place, 2);
  trace::publish(place);
  EXPECT_EQ(following.drain(), "2 3 4");
  EXPECT_EQ(following.complaints(), kNobody);
}

TEST(CaptureRing, WaitsForAnswers) {
  const struct {
    TraceKind kind;
    uint64_t time;
    bool is_waited_for;
  } cases[] = {
      {TRACE_SENT, now(), true},
      {TRACE_RECEIVED, now(), true},
      {TRACE_SENT, now() - uint64_t{7200} * 1000000000, false},
      {TRACE_SENT, now() + uint64_t{7200} * 1000000000, false},
  };
  for (const auto &[kind, time, is_waited_for] : cases) {
    const Folder folder;
    RingFile file(folder, 4, time);
    file.begin("quopa-test-7.0.pcapng");
    uint8_t *const place = file.reserve();
    file.fill(place, 1, 8, kind, TRACE_NO_ANSWER);
    trace::publish(place);
    file.write(2);
    Following waiting(folder, kForEver);
    EXPECT_EQ(waiting.drain(), is_waited_for ? "" : "1 2");
    EXPECT_EQ(Following(folder, kNone).drain(), "1 2");
    trace::put_status(place, -3);
    EXPECT_EQ(waiting.drain(), is_waited_for ? "1 2" : "");
  }
}

TEST(CaptureRing, DamageEndsNoOtherFile) {
  const struct {
    uint32_t at;  // in the second message
    uint32_t word;
    const char *said;
  } cases[] = {
      {4, 40000000, "quopa-bad-8.0.pcapng: damaged at byte 1280: a block of 40000000 bytes\n"},
      {252, 12, "quopa-bad-8.0.pcapng: damaged at byte 1280: a block whose two lengths differ\n"},
      {28, 0, "quopa-bad-8.0.pcapng: packet at byte 1280: no message of the bus, so this is no trace of it\n"},
      {4, 4096, "quopa-bad-8.0.pcapng: it ends in the middle of a block\n"},
  };
  for (const auto &[at, word, said] : cases) {
    const Folder folder;
    RingFile good(folder, 4, 5), bad(folder, 4, 4), after(folder, 2, 6);
    good.begin("quopa-good-7.0.pcapng");
    bad.begin("quopa-bad-8.0.pcapng");
    good.write(2);
    bad.write(1);
    bad.write(9);
    trace::put(bad.cell(1) + at, word);
    Following following(folder, kForEver);
    EXPECT_EQ(following.drain(), "1 2") << said;
    EXPECT_EQ(following.complaints(), said);
    after.begin("quopa-bad-8.1.pcapng");
    after.write(3);
    good.write(4);
    EXPECT_EQ(following.drain(), "4 3") << said;
    EXPECT_EQ(following.complaints(), kNobody);
    // Behind an empty place as well.
    trace::put_filler(bad.cell(0), kCellBytes);
    Following again(folder, kNone);
    EXPECT_EQ(again.drain(), "2 4 3") << said;
    EXPECT_EQ(again.complaints(),
              "quopa-bad-8.0.pcapng: nothing was written into the place at byte 1024\n" + std::string(said))
        << said;
  }
}

TEST(CaptureRing, GoesOnBehindWhatCannotBeOpened) {
  const Folder folder;
  RingFile first(folder, 1), last(folder, 1);
  first.begin("quopa-test-7.0.pcapng");
  first.write(1);
  for (const char *name : {"quopa-test-7.1.pcapng", "quopa-test-7.2.pcapng"}) {
    std::filesystem::create_symlink("nothing", folder / name);
  }
  last.begin("quopa-test-7.3.pcapng");
  last.write(2);
  Following following(folder, kNone);
  EXPECT_EQ(following.drain(), "1 2");
  EXPECT_EQ(following.complaints(),
            "quopa-test-7.1.pcapng: No such file or directory\nquopa-test-7.2.pcapng: No such file or directory\n");
}

TEST(CaptureRing, IsNotMixedWithWhatComesInItsPlace) {
  const Folder folder;
  RingFile file(folder, 400);
  file.begin("quopa-test-7.0.pcapng");
  for (uint32_t i = 0; i < 300; ++i) file.write(i);
  const std::string in_ring = folder / "quopa-test-7.0.pcapng", plain = folder / "a.pcapng",
                    other = folder / "b.pcapng";
  for (const std::string &copy : {plain, other}) std::filesystem::copy_file(in_ring, copy);
  const std::pair<std::string, std::function<void()>> cases[] = {
      {in_ring, [&] { file.begin("quopa-test-7.1.pcapng"); }},
      {plain, [&] { std::filesystem::rename(other, plain); }},
  };
  for (const auto &[path, happen] : cases) {
    capture::File reader(path);
    ASSERT_NE(reader.next(), nullptr);
    happen();
    std::string said;
    try {
      while (reader.next() != nullptr) {
      }
    } catch (const capture::BadCapture &error) {
      said = error.what();
    }
    EXPECT_EQ(said, path + ": was deleted, or written anew by its process, before it was read to its end");
  }
}

TEST(CaptureRing, GoesBackWherePassedPlacesHaveBecomeOne) {
  constexpr uint32_t kFetched = 64 << 10;
  const Folder folder;
  RingFile file(folder, 400);
  file.begin("quopa-test-7.0.pcapng");
  for (uint32_t i = 0; RingFile::kHead + (i + 1) * kCellBytes < kFetched; ++i) file.reserve();
  uint8_t *const place = file.reserve(700);  // of which only the first cell is fetched at first
  capture::Blocks blocks(folder / "quopa-test-7.0.pcapng");
  for (; blocks.position() < kFetched; blocks.pass()) blocks.look();
  file.fill(place, 2, 700);
  trace::publish(place);
  for (uint32_t looks = 0; looks < 1000 && blocks.look() == capture::Blocks::Found::filler; ++looks) blocks.pass();
  ASSERT_EQ(blocks.look(), capture::Blocks::Found::packet) << blocks.damage();
  EXPECT_EQ(blocks.packet().bytes.size(), TRACE_HEADER_BYTES + 700u);
}

// What happens in a file between the two copies that are made of it.
void (*between_copies)() = nullptr;
RingFile *read_file = nullptr;
int copies = 0;

ssize_t read_at(int descriptor, void *to, std::size_t size, off_t position) {
  if (copies++ == 1 && between_copies != nullptr) between_copies();
  return ::pread(descriptor, to, size, position);
}

TEST(CaptureRing, NoOrderIsExpectedOfWhatOneReadCopies) {
  using Found = capture::Blocks::Found;
  const struct {
    const char *what;
    void (*between)();
    const char *now;  // the messages that a look finds: one that was there before, and those that are written now
    const char *then;
  } cases[] = {
      {"nothing happens", nullptr, "1 filler", "filler"},
      {"a message is written", [] { read_file->write(2); }, "1 filler", "2 filler"},
      {"one of several cells is written", [] { read_file->write(2, 700); }, "1 filler", "2 filler"},
      {"behind a place that is kept", [] { read_file->reserve(), read_file->write(2); }, "1 filler", "filler"},
      {"the file is written anew", [] { read_file->begin("quopa-test-7.1.pcapng"); }, "gone", "gone"},
  };
  for (const auto &[what, between, at_once, afterwards] : cases) {
    const Folder folder;
    RingFile file(folder, 12);
    file.begin("quopa-test-7.0.pcapng");
    // What another turn has left behind.
    for (uint32_t i = 0; i < 12; ++i) std::memset(file.cell(i) + trace::kPacketStart, 0xEE, 200);
    file.write(1);
    read_file = &file;
    between_copies = between;
    copies = 0;
    capture::Blocks blocks(folder / "quopa-test-7.0.pcapng", read_at);
    const auto look = [&] {
      const Found found = blocks.look();
      if (found != Found::packet) return std::string(found == Found::filler ? "filler" : "gone");
      const uint32_t number = blocks.packet().bytes[TRACE_HANDLE_AT];
      const auto payload = blocks.packet().bytes.subspan(TRACE_HEADER_BYTES);
      const auto expected = payload_of(number, static_cast<uint32_t>(payload.size()));
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), payload.begin())) << number;
      blocks.pass();
      return std::to_string(number) + ' ' + (blocks.look() == Found::filler ? "filler" : "something else");
    };
    blocks.look(), blocks.pass();                       // the program
    blocks.look(), blocks.pass();                       // the schema
    if (blocks.look() == Found::filler) blocks.pass();  // no third note
    EXPECT_EQ(look(), at_once) << what;
    blocks.go_to(blocks.position());
    EXPECT_EQ(look(), afterwards) << what;
  }
}

// However quick the writer is, what is shown is whole and in order, and what is not shown is told.
TEST(CaptureRing, ShowsNoMessageOfAnotherTurn) {
  constexpr uint32_t kMessages = 100000;
  const Folder folder;
  Following following(folder, kNone);
  std::atomic<bool> is_done{false};
  std::thread writer([&] {
    RingFile files[] = {{folder, 512}, {folder, 512}, {folder, 512}};
    uint32_t turn = 0;
    const auto next_file = [&] {
      RingFile &file = files[turn % 3];
      file.begin("quopa-test-7." + std::to_string(turn++) + ".pcapng");
      return &file;
    };
    RingFile *file = next_file();
    for (uint32_t i = 1; i <= kMessages; ++i) {
      const uint32_t length = i % 7 == 0 ? 300 : 100;
      uint8_t *at = file->reserve(length);
      if (at == nullptr) at = (file = next_file())->reserve(length);
      file->fill(at, i, length);
      trace::publish(at);
    }
    while (!is_done) std::this_thread::yield();
  });
  uint64_t last = 0;
  uint64_t shown = 0;
  std::string complaints;
  while (last < kMessages) {
    std::istringstream numbers(following.drain());
    bool has_gap = false;
    for (uint64_t number; numbers >> number; last = number, ++shown) {
      ASSERT_GT(number, last);
      has_gap = has_gap || number != last + 1;
    }
    const std::string said = following.complaints();
    EXPECT_FALSE(has_gap && said.empty()) << "at " << last;
    complaints += said;
  }
  is_done = true;
  writer.join();
  EXPECT_EQ(complaints.empty(), shown == kMessages);
}

}  // namespace
