// Spoils good images of every message type, one change at a time, and judges what the library makes of each.
//
// Every truncation; every byte set to every value; every vtable entry set to each value that ends in the buffer or just
// behind it, and to extremes; every offset word, distance to a vtable and count set to what leads to each position of
// the buffer, forwards and backwards, and to extremes. Where memory is allocated, each allocation also fails in turn.
#include <fnmatch.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string_view>

#include "command_line.h"
#include "fake_bus.h"
#include "good_images.h"
#include "judge.h"

namespace {

using reference::Bytes;
using reference::Type;

// Cuts an image off at a position (width 0) or writes a value there.
struct Change {
  uint32_t at;
  uint32_t width;
  uint32_t value;

  void apply(Bytes &image) const {
    if (width == 0) image = Bytes(image.begin(), image.begin() + at);
    for (uint32_t i = 0; i < width; ++i) image[at + i] = static_cast<uint8_t>(value >> (8 * i));
  }
};

// What a decoding came to and the start of the log line that tells it; table and vtable below the root included.
constexpr struct {
  const char *name;
  std::string_view log;
} kEndings[] = {{"complete", ""},
                {"rejected, not logged", ""},
                {"parameters", "[QUOPA]:Param"},
                {"table offset", "[QUOPA]:Table"},
                {"vtable offset", "[QUOPA]:Vtable offset"},
                {"vtable length", "[QUOPA]:Vtable Len"},
                {"allocation", "[QUOPA]:Malloc"}};

std::size_t last_ending() {
  const reference::Trace &trace = judge::last_trace();
  if (trace.logs.empty()) return judge::last_outcome() == judge::Outcome::complete ? 0 : 1;
  std::size_t ending = 2;
  while (!trace.logs[0].text.starts_with(kEndings[ending].log)) ++ending;
  return ending;
}

// The decoding at work, for whoever has to reproduce it.
struct {
  const Type *type;
  const Bytes *image;  // as changed
  Change change;
  std::size_t failing_allocation;
} current;

std::string hexadecimal(const Bytes &bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const uint8_t byte : bytes) (text += kDigits[byte >> 4]) += kDigits[byte & 15];
  return text;
}

void print_current() {
  const auto &[type, image, change, failing] = current;
  std::printf("%s", type->prefix().c_str());
  if (change.width == 0) std::printf(" cut to %u bytes", change.at);
  if (change.width != 0) std::printf(" with value %u in %u bytes at %u", change.value, change.width, change.at);
  if (failing != SIZE_MAX) std::printf(", allocation %zu failing", failing);
  std::printf(":\n  %s\n", hexadecimal(*image).c_str());
}

void print_current_and_die(int signal) {
  std::printf("signal %d in ", signal);
  print_current();
  std::fflush(stdout);
  _exit(2);
}

constexpr uint32_t kMostDifferences = 5;  // then it is enough

class Campaign {
 public:
  // Judges the extremes and one in sample of the other changes, drawn by seed; from heap blocks or in front of memory
  // that faults.
  Campaign(uint32_t sample, bool heap, uint32_t seed) : sample_(sample), heap_(heap), random_(seed) {}

  void spoil(const judge::Subject &subject, const Bytes &good) {
    const auto n = static_cast<uint32_t>(good.size());
    const auto judge_one = [&](const Change &change) {
      if (differences_ < kMostDifferences) judge_changed(subject, good, change);
    };
    const auto sample_one = [&](const Change &change) {
      if (sample_ == 1 || random_.below(sample_) == 0) judge_one(change);
    };
    const Positions positions = find_positions(*subject.type, good);
    for (uint32_t length = 0; length <= n; ++length) sample_one({length, 0, 0});
    for (uint32_t at = 0; at < n; ++at) {
      for (uint32_t value = 0; value < 256; ++value) sample_one({at, 1, value});
    }
    for (const uint32_t at : positions.entries) {
      for (const uint32_t value : {0u, 0x7FFFu, 0x8000u, 0xFFFFu}) judge_one({at, 2, value});
      for (uint32_t value = 0; value <= n + 4; ++value) sample_one({at, 2, value});
    }
    for (const uint32_t at : positions.words) {
      for (const uint32_t value : {0u, 1u, 0x3FFFFFFFu, 0x40000000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        judge_one({at, 4, value});
      }
      for (uint32_t target = 0; target <= n + 4; ++target) {
        for (const uint32_t value : {target, target - at, at - target}) sample_one({at, 4, value});
      }
    }
  }

  uint64_t decodes() const { return decodes_; }
  uint64_t count(std::size_t ending) const { return endings_[ending]; }
  uint32_t differences() const { return differences_; }

 private:
  void judge_changed(const judge::Subject &subject, const Bytes &good, const Change &change) {
    Bytes image = good;
    change.apply(image);
    const auto n = static_cast<uint32_t>(image.size());
    const uint8_t *bytes = heap_ ? image.data() : memory_.place(image.data(), n);
    const auto decode = [&](std::size_t failing_allocation) {
      current = {subject.type, &image, change, failing_allocation};
      const std::string fault = judge::decode(subject, bytes, n, failing_allocation);
      ++decodes_;
      ++endings_[last_ending()];
      if (fault.empty()) return;
      ++differences_;
      print_current();
      std::printf("%s\n", fault.c_str());
    };
    decode(SIZE_MAX);
    const std::size_t allocations = judge::last_trace().allocations.size();
    for (std::size_t failing = 0; failing < allocations; ++failing) decode(failing);
  }

  uint32_t sample_;
  bool heap_;
  records::Random random_;
  judge::Guarded memory_{1 << 16};
  uint64_t decodes_ = 0;
  uint64_t endings_[std::size(kEndings)] = {};
  uint32_t differences_ = 0;
};

// One file for each image, as the fuzz targets read them: the type's number, then the image.
void write_seeds(const std::string &folder, const Type &type, std::size_t number, const std::vector<Bytes> &images) {
  std::filesystem::create_directories(folder);
  for (std::size_t i = 0; i < images.size(); ++i) {
    std::ofstream file(folder + "/" + type.prefix() + "-" + std::to_string(i), std::ios::binary);
    file.put(static_cast<char>(number));
    file.write(reinterpret_cast<const char *>(images[i].data()), static_cast<std::streamsize>(images[i].size()));
    if (!file.flush()) throw std::runtime_error("cannot write to " + folder);
  }
}

// What the library itself makes of random records, packed and sent: the same lines on every processor.
void write_images(std::ofstream &file, const judge::Subject &subject, records::Random &random) {
  const Type &type = *subject.type;
  for (int draw = 0; draw < 8; ++draw) {
    records::Arena arena;
    Bytes record(type.record_size);
    records::fill_random(type, record.data(), random, {.zeros = draw % 2 == 0 ? 50u : 0u}, arena);
    Bytes packed(1 << 16);
    auto length = static_cast<uint32_t>(packed.size());
    fake_bus::bus() = {};
    if (subject.library.pack(record.data(), packed.data(), &length) != 0 ||
        subject.library.sendsingle(1, record.data(), 1, 0) != 0) {
      throw std::runtime_error("cannot encode " + type.prefix());
    }
    packed.resize(length);
    for (const Bytes &image : {packed, fake_bus::bus().calls.at(0).messages.at(0).bytes}) {
      file << type.prefix() << ' ' << hexadecimal(image) << '\n';
    }
  }
  if (!file.flush()) throw std::runtime_error("cannot write the images");
}

}  // namespace

int main(int argc, char **argv) {
  uint32_t sample = 1;
  uint32_t seed = 1;
  bool heap = false;
  std::string pattern = "*";
  std::string seeds;
  std::string images_path;
  CommandLine line("campaign", "Decodes spoiled images of every message type and checks what the library does.");
  line.option("--sample", sample, "Test one change in so many, drawn at random; extremes always", 1);
  line.option("--types", pattern, "Only types whose prefix matches this shell pattern, like fib6_cfg_query*");
  line.option("--seed", seed, "For records and sample");
  line.flag("--heap", heap, "Decode from heap blocks, which sanitizers watch, instead of in front of a guard page");
  line.option("--seeds", seeds, "Only write the good images into this folder, as seeds for the fuzz targets");
  line.option("--images", images_path, "Only write what the library encodes of random records into this file");
  if (const auto status = line.parse(argc, argv)) return *status;

  for (const int signal : {SIGSEGV, SIGBUS, SIGABRT}) std::signal(signal, print_current_and_die);
  const auto start = std::chrono::steady_clock::now();
  records::Random random(seed);
  Campaign campaign(sample, heap, seed);
  std::ofstream images_file(images_path);
  std::map<std::string, std::size_t> numbers;  // of the types in their packages
  for (const Type *each : reference::all_types()) {
    const Type &type = *each;
    if (!images_path.empty()) {
      write_images(images_file, judge::Subject(type), random);
      continue;
    }
    const std::vector<Bytes> images = good_images(type, random);
    if (!seeds.empty()) {
      write_seeds(seeds + "/" + type.own_package, type, numbers[type.own_package]++, images);
      continue;
    }
    if (fnmatch(pattern.c_str(), type.prefix().c_str(), 0) != 0) continue;
    const judge::Subject subject(type);
    for (const Bytes &image : images) campaign.spoil(subject, image);
  }
  if (!seeds.empty() || !images_path.empty()) return 0;

  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%12llu decodes in %.1f s\n", static_cast<unsigned long long>(campaign.decodes()), elapsed.count());
  bool all_seen = true;
  for (std::size_t i = 0; i < std::size(kEndings); ++i) {
    std::printf("%12llu %s\n", static_cast<unsigned long long>(campaign.count(i)), kEndings[i].name);
    all_seen = all_seen && campaign.count(i) > 0;
  }
  std::printf("%12u differences\n", campaign.differences());
  if (pattern == "*" && !all_seen) std::printf("a kind of ending never occurred\n");
  return campaign.differences() == 0 && campaign.decodes() > 0 && (all_seen || pattern != "*") ? 0 : 1;
}
