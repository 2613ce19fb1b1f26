#include "capture/file.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "capture/ring_file.h"

namespace capture {
namespace {

constexpr int kUserLinkTypes = 16;
constexpr std::size_t kBufferBytes = std::size_t{64} << 10;
constexpr int kAttempts = 2;
constexpr std::chrono::milliseconds kPause{1};

}  // namespace

File::File(const std::string &path) : File(path == "-" ? stdin : std::fopen(path.c_str(), "rbe"), path) {}

File::File(std::FILE *file, const std::string &path) : path_(path) { open(file); }

void File::open(std::FILE *file) {
  if (file == nullptr) fail(std::strerror(errno));
  std::setvbuf(file, nullptr, _IOFBF, kBufferBytes);
  char error[PCAP_ERRBUF_SIZE] = "";
  capture_.reset(pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, error));
  if (capture_ == nullptr) {
    if (file != stdin) std::fclose(file);
    fail(std::string("no capture file: ") + error);
  }
  const int link_type = pcap_datalink(capture_.get()) - DLT_USER0;
  if (link_type < 0 || link_type >= kUserLinkTypes) {
    const char *const name = pcap_datalink_val_to_name(pcap_datalink(capture_.get()));
    fail(std::string("a capture of link type ") + (name == nullptr ? "unknown here" : name) + ", no trace of the bus");
  }
}

void File::Close::operator()(pcap *capture) const { pcap_close(capture); }

void File::fail(const std::string &what) const {
  throw BadCapture((path_ == "-" ? "standard input" : path_) + ": " + what);
}

// A file of a ring is whole at every moment, but not from one moment to the next: where it seems damaged, it is read
// anew up to that place.
int File::read_packet(pcap_pkthdr *&header, const uint8_t *&data) {
  int status = pcap_next_ex(capture_.get(), &header, &data);
  if (status != PCAP_ERROR || !ring_file(std::filesystem::path(path_).filename())) return status;
  for (int attempt = 0; attempt < kAttempts && status == PCAP_ERROR; ++attempt) {
    std::this_thread::sleep_for(kPause);
    open(std::fopen(path_.c_str(), "rbe"));
    status = 1;
    for (uint64_t i = 0; i <= packets_ && status == 1; ++i) status = pcap_next_ex(capture_.get(), &header, &data);
  }
  return status;
}

const Message *File::next() {
  pcap_pkthdr *header = nullptr;
  const uint8_t *data = nullptr;
  const int status = read_packet(header, data);
  if (status == PCAP_ERROR_BREAK) return nullptr;
  if (status != 1)
    fail(std::string("damaged behind packet ") + std::to_string(packets_) + ": " + pcap_geterr(capture_.get()));
  ++packets_;
  try {
    // The library's microseconds are nanoseconds here, as was asked for.
    const uint64_t time =
        static_cast<uint64_t>(header->ts.tv_sec) * 1000000000u + static_cast<uint64_t>(header->ts.tv_usec);
    message_ = parse_packet({data, header->caplen}, header->len, time);
    message_.origin = &origin_;
    if (message_.kind == TRACE_NOTE) take_note(message_, origin_);
  } catch (const BadCapture &error) {
    fail("packet " + std::to_string(packets_) + ": " + error.what());
  }
  return &message_;
}

}  // namespace capture
