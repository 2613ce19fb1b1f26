#include "tools/quopa/tap.h"

#include <fnmatch.h>

#include <algorithm>
#include <chrono>

#include "capture/writer.h"
#include "describe/type.h"
#include "platform/kelvodrix/kelvodrix.h"
#include "tools/quopa/bus_library.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/interrupt.h"
#include "tools/quopa/moment.h"

namespace quopa {
namespace {

using capture::Message;

constexpr uint32_t kWait = 100;              // milliseconds, between looks whether the process is interrupted
constexpr uint32_t kLongestSilence = 10000;  // of a stream that has more

bool is_stream(const std::string &endpoint) { return endpoint.find("-stream://") != std::string::npos; }

// The IDs of what can match; empty when that may be types that are not known.
std::vector<uint32_t> ids_of(const std::vector<std::string> &globs) {
  std::vector<uint32_t> ids;
  for (const std::string &glob : globs) {
    const drix::describe::Type *const one = drix::describe::find(glob);
    // Types that are not known have names without a full stop.
    if (one == nullptr && (glob.find('.') == std::string::npos || glob.find('[') != std::string::npos)) return {};
    for (const drix::describe::Type *type : drix::describe::types()) {
      if (one == nullptr ? fnmatch(glob.c_str(), type->name().c_str(), 0) == 0 : type == one) ids.push_back(type->id);
    }
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

// Where the server may begin: a time that does not depend on what comes first.
uint64_t start_of(const std::string &from) {
  if (from.empty()) return 0;
  const Moment moment(from);
  return moment.is_absolute() ? moment.in(0).first : 0;
}

class Tap final : public capture::Feed {
 public:
  Tap(const std::string &endpoint, const SelectionOptions &options, std::function<void()> idle)
      : library_(options.tap.bus),
        endpoint_(endpoint),
        has_end_(is_stream(endpoint) && !options.tap.follow),
        idle_(std::move(idle)) {
    library_.find(next_, "kelvodrix_tap_next");
    library_.find(stop_, "kelvodrix_tap_stop");
    library_.find(close_, "kelvodrix_tap_close");
    library_.find(get_counters_, "kelvodrix_tap_get_counters");
    library_.find(text_of_, "kelvodrix_strerror");
    decltype(&kelvodrix_tap_open) open;
    library_.find(open, "kelvodrix_tap_open");
    origin_.capture = endpoint;
    origin_.pointer_bits = 8 * sizeof(void *);
    const std::vector<uint32_t> ids = ids_of(options.types);
    const kelvodrix_tap_options tap_options = {ids.data(), static_cast<uint32_t>(ids.size()), !has_end_,
                                               start_of(options.from)};
    const int32_t status = open(endpoint.c_str(), &tap_options, &tap_);
    if (status != KELVODRIX_OK) throw BadInput(endpoint + ": " + text_of_(status));
    catch_interrupts();
  }
  ~Tap() override {
    if (const std::string lacks = what_lacks(); !lacks.empty() && !has_ended_) complain(lacks);
    close_(tap_);
  }

  const Message *next() override {
    while (index_ == frame_.count) {
      if (!fetch()) return end();
    }
    const DrixSendDescriptor &message = frame_.messages[index_];
    message_ = {.packet = ++packets_,
                .time = frame_.time,
                .kind = TRACE_SENT,
                .id = message.id,
                .handle = 0,
                .destination = 0,
                .status = 0,
                .index = index_,
                .count = frame_.count,
                .thread = 0,
                .length = message.length,
                .payload = {reinterpret_cast<const uint8_t *>(message.address), message.length},
                .origin = &origin_};
    ++index_;
    return &message_;
  }

 private:
  // False at the end.
  bool fetch() {
    index_ = frame_.count = 0;
    if (is_interrupted) stop_(tap_);
    int32_t status = next_(tap_, 0, &frame_);
    for (uint32_t silence = 0; status != KELVODRIX_OK; silence += kWait) {
      const bool is_away = status == KELVODRIX_ERR_SERVER;
      if ((!is_away && status != KELVODRIX_ERR_PENDING) || (has_end_ && silence >= kLongestSilence)) {
        const bool is_silent = status == KELVODRIX_ERR_PENDING;
        throw capture::BadCapture(endpoint_ + ": " +
                                  (is_silent ? "the stream does not go on to its end" : text_of_(status)));
      }
      if (is_away && !was_away_) complain(endpoint_ + ": " + text_of_(status) + "; it is waited for");
      was_away_ = is_away;
      idle_();
      if (is_interrupted) stop_(tap_);
      status = next_(tap_, kWait, &frame_);
    }
    was_away_ = false;
    if (frame_.count == 0) return false;
    origin_.program = frame_.name;
    return true;
  }

  const Message *end() {
    has_ended_ = true;
    const std::string lacks = what_lacks();
    if (!lacks.empty()) throw capture::BadCapture(lacks);
    return nullptr;
  }

  std::string what_lacks() const {
    kelvodrix_tap_counters counters = {};
    get_counters_(tap_, &counters);
    std::string text;
    const auto tell = [&](uint64_t number, const char *what) {
      if (number > 0) text += (text.empty() ? endpoint_ + ": " : "; ") + std::to_string(number) + what;
    };
    tell(counters.malformed, " frames were left out, which are none of this version");
    tell(counters.lost, " frames were lost, as they came faster than they were read");
    if (!is_stream(endpoint_))
      tell(counters.interruptions, " interruptions of the connection, in which frames may be missing");
    return text;
  }

  BusLibrary library_;
  std::string endpoint_;
  bool has_end_;
  std::function<void()> idle_;
  decltype(&kelvodrix_tap_next) next_;
  decltype(&kelvodrix_tap_stop) stop_;
  decltype(&kelvodrix_tap_close) close_;
  decltype(&kelvodrix_tap_get_counters) get_counters_;
  decltype(&kelvodrix_strerror) text_of_;
  kelvodrix_tap *tap_ = nullptr;
  kelvodrix_frame frame_ = {};
  uint32_t index_ = 0;
  uint64_t packets_ = 0;
  bool was_away_ = false;
  bool has_ended_ = false;
  capture::Origin origin_;
  Message message_ = {};
};

}  // namespace

bool is_endpoint(const std::string &path) {
  const std::string scheme = path.substr(0, path.find("://"));
  return scheme != path && (scheme == "nats" || scheme == "tls" || scheme == "nats-stream" || scheme == "tls-stream");
}

bool has_endpoint(const std::vector<std::string> &paths, const TapOptions &options) {
  bool any = false;
  for (const std::string &path : paths) {
    if (!is_endpoint(path)) continue;
    any = true;
    if (paths.size() > 1 && (options.follow || !is_stream(path)))
      throw BadUsage(path + " has no end, so nothing else can be read with it");
  }
  return any;
}

capture::Timeline::Open opener(const SelectionOptions &options, std::function<void()> idle) {
  return [options, idle = std::move(idle)](const std::string &path) -> std::unique_ptr<capture::Feed> {
    const auto recorded = options.tap.recorded.find(path);
    if (recorded != options.tap.recorded.end()) return std::make_unique<capture::File>(recorded->second, path);
    if (is_endpoint(path)) return std::make_unique<Tap>(path, options, idle);
    return std::make_unique<capture::File>(path);
  };
}

bool record(const std::string &endpoint, TraceKind kind, const TapOptions &options, const std::string &file) {
  SelectionOptions all;
  all.tap = options;
  capture::Writer writer(file);
  capture::Timeline timeline({endpoint}, complain, opener(all));
  while (const Message *message = timeline.next()) {
    Message copy = *message;
    if (copy.kind != TRACE_NOTE) copy.kind = kind;
    writer.write(copy);
  }
  writer.flush();
  return timeline.is_whole();
}

}  // namespace quopa
