// Captures that are put together in the order of time.
#include "capture/timeline.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <fstream>

#include "capture/writer.h"
#include "ring_maker.h"

namespace {

void write(const std::string &path, const std::vector<uint64_t> &times, uint32_t index = 0) {
  capture::Writer writer(path);
  capture::Origin origin;
  for (const uint64_t time : times) {
    capture::Message message = {};
    message.time = time;
    message.index = index++;
    message.origin = &origin;
    writer.write(message);
  }
}

struct Read {
  std::vector<uint64_t> times;  // without those of notes
  std::string complaints;
  bool is_whole;
};

Read read(const std::vector<std::string> &paths) {
  Read read = {};
  capture::Timeline timeline(paths, [&](const std::string &line) { read.complaints += line + '\n'; });
  while (const capture::Message *message = timeline.next()) {
    if (message->kind != TRACE_NOTE) read.times.push_back(message->time);
  }
  read.is_whole = timeline.is_whole();
  return read;
}

TEST(CaptureTimeline, HasAllFilesOfAFolderInTheOrderOfTime) {
  const Folder folder;
  write(folder / "a.pcapng", {2, 5, 5, 9});
  write(folder / "b.pcap", {1, 7});
  write(folder / "c.pcapng", {});
  std::ofstream(folder / "d.pcapng") << "nothing that is a capture";
  std::ofstream(folder / "e.txt") << "not looked at";
  const Read found = read({folder.path()});
  EXPECT_EQ(found.times, (std::vector<uint64_t>{1, 2, 5, 5, 7, 9}));
  EXPECT_EQ(found.complaints, folder / "d.pcapng" + ": no capture file: neither pcap nor pcapng\n");
  EXPECT_FALSE(found.is_whole);
  EXPECT_TRUE(read({folder / "a.pcapng", folder / "b.pcap"}).is_whole);
  EXPECT_EQ(read({folder / "none"}).complaints, folder / "none" + ": No such file or directory\n");
  const Folder empty;
  EXPECT_THROW(read({empty.path()}), capture::BadCapture);
}

TEST(CaptureWriter, SaysWhoRecordedAMessageWhereThatChanges) {
  const Folder folder;
  const std::string schema = "# quopa schema 1\np.m 0x1 fixed=32 compact=18..23 record=8 u32@0 u8@4\n";
  capture::Origin one;
  one.program = "a";
  capture::Origin other = one;
  other.process = 2;
  capture::Origin older = other;
  older.schema = schema;
  {
    capture::Writer writer(folder / "a.pcapng");
    for (const capture::Origin *origin : {&one, &one, &other, &one, &other, &older, &older}) {
      capture::Message message = {};
      message.origin = origin;
      writer.write(message);
    }
  }
  std::string said;
  capture::File file(folder / "a.pcapng");
  while (const capture::Message *const message = file.next()) {
    said += message->kind == TRACE_NOTE ? message->text()[0] : static_cast<char>('0' + message->origin->process);
  }
  EXPECT_EQ(said, "ps00p2p0p2s22");
}

TEST(CaptureTimeline, HasACallThatGoesThroughFilesOfARingInItsOrder) {
  const Folder folder;
  uint32_t index = 0;
  for (const int number : {8, 9, 10, 11, 100}) {
    write(folder / ("quopa-a-7." + std::to_string(number) + ".pcapng"), {5, 5, 5}, index);
    index += 3;
  }
  capture::Timeline timeline({folder.path()}, [](const std::string &line) { ADD_FAILURE() << line; });
  index = 0;
  while (const capture::Message *message = timeline.next()) {
    EXPECT_EQ(message->index, message->kind == TRACE_NOTE ? 0 : index++);
  }
  EXPECT_EQ(index, 15u);
}

TEST(CaptureTimeline, NeedsNoDescriptorForEachFile) {
  constexpr uint64_t kFiles = 300;
  const Folder folder;
  for (uint64_t i = 0; i < kFiles; ++i) write(folder / (std::to_string(i) + ".pcapng"), {i, kFiles + i});
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few = {64, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  const Read found = read({folder.path()});
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  ASSERT_EQ(found.times.size(), 2 * kFiles) << found.complaints;
  for (std::size_t i = 0; i < found.times.size(); ++i) EXPECT_EQ(found.times[i], i);
}

TEST(CaptureTimeline, ReadsWhatIsNoRegularFileOnce) {
  const Folder folder;
  write(folder / "a.pcapng", {1, 2, 3});
  ASSERT_EQ(mkfifo((folder / "pipe.pcapng").c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(folder / "pipe.pcapng") << std::ifstream(folder / "a.pcapng").rdbuf(); });
  const Read found = read({folder / "pipe.pcapng", folder / "a.pcapng"});
  writer.join();
  EXPECT_EQ(found.times, (std::vector<uint64_t>{1, 1, 2, 2, 3, 3}));
  EXPECT_EQ(found.complaints, "");
}

}  // namespace
