// Looks on at an endpoint of a server.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "stream.h"

namespace kelvodrix {

namespace {

using std::chrono::milliseconds;

constexpr size_t kMostWaitingBytes = 64 << 20;
constexpr size_t kMostSubjects = 64;  // to subscribe to, for fewer frames
constexpr size_t kMostConsumers = 8;  // of a stream, likewise
constexpr milliseconds kMoment(1);
constexpr uint64_t kTenth = 100'000'000;  // ns; libnats leaves out zeros behind the point of a time in seconds

class ServerTap : public Tap {
 public:
  ServerTap(Place place, const kelvodrix_tap_options &options)
      : place_(std::move(place)), ids_(options.ids, options.ids + options.id_count) {}

  kelvodrix_tap_counters counters() const override {
    kelvodrix_tap_counters counters = counters_;
    natsStatistics *statistics = nullptr;
    if (natsStatistics_Create(&statistics) == NATS_OK && natsConnection_GetStats(session_->nc(), statistics) == NATS_OK)
      natsStatistics_GetCounts(statistics, nullptr, nullptr, nullptr, nullptr, &counters.interruptions);
    natsStatistics_Destroy(statistics);
    return counters;
  }

 protected:
  int32_t connect() {
    const int32_t status = Session::get(place_.servers, Use::tapping, kConnectMs, session_);
    if (status == KELVODRIX_OK) session_->forget_denials();  // of other endpoints
    return status;
  }

  // Under which the frames come that are asked for, and perhaps others.
  std::vector<std::string> subjects(size_t most) const {
    const std::string all = place_.subject + "m.";
    if (ids_.empty() || ids_.size() >= most) return {all + '>'};
    std::vector<std::string> subjects = {all + "mixed"};
    for (const uint32_t id : ids_) {
      const DrixSendDescriptor message = {0, id, 0};
      subjects.push_back(all + id_subject({&message, 1}));
    }
    return subjects;
  }

  // What is to be seen in a message: a frame, or several behind the instance of who they are for.
  void take(Message message, bool has_instance, uint64_t time) {
    const auto bytes = bytes_of(message.get());
    rest_ = bytes.subspan(has_instance ? std::min(kInstanceBytes, bytes.size()) : 0);
    if (!(has_instance ? are_frames(rest_) : is_frame(rest_))) {
      ++counters_.malformed;
      rest_ = {};
    }
    const std::string_view subject = natsMsg_GetSubject(message.get());
    const size_t start = subject.find('.') + 1;
    name_ = subject.substr(start, subject.find('.', start) - start);
    time_ = time;
    shown_ = std::move(message);
  }

  // The next frame of what was taken; false when there is none that has messages.
  bool show(kelvodrix_frame &frame) {
    messages_.clear();
    while (messages_.empty() && !rest_.empty()) {
      ++counters_.frames;
      visit_messages(take_frame(rest_), [&](uint32_t id, const uint8_t *at, uint32_t length) {
        messages_.push_back({reinterpret_cast<uintptr_t>(at), id, length});
      });
    }
    frame = {name_.c_str(), time_, messages_.data(), static_cast<uint32_t>(messages_.size())};
    return !messages_.empty();
  }

  int32_t nothing() const {
    if (session_->closed()) return KELVODRIX_ERR_CREDENTIALS;
    const int32_t status = session_->status();
    return status != KELVODRIX_OK ? status : KELVODRIX_ERR_PENDING;
  }

  const Place place_;
  const std::vector<uint32_t> ids_;
  std::shared_ptr<Session> session_;
  kelvodrix_tap_counters counters_ = {};

 private:
  Message shown_;
  std::span<const uint8_t> rest_;  // of it
  uint64_t time_ = 0;
  std::string name_;
  std::vector<DrixSendDescriptor> messages_;
};

// What the library's thread has taken in.
struct Arrivals {
  struct Arrival {
    Message message;
    uint64_t time;
  };

  void put(Message message) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const size_t cost = kMessageCosts + bytes_of(message.get()).size();
    std::lock_guard lock(mutex);
    if (bytes + cost > kMostWaitingBytes) {
      ++lost;
      return;
    }
    bytes += cost;
    queue.push_back(
        {std::move(message), static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count())});
    if (queue.size() == 1) changed.notify_one();
  }

  std::mutex mutex;  // guards what follows
  std::condition_variable changed;
  std::deque<Arrival> queue;
  size_t bytes = 0;
  uint64_t lost = 0;
};

class DirectTap final : public ServerTap {
 public:
  using ServerTap::ServerTap;

  int32_t open() {
    if (const int32_t status = connect(); status != KELVODRIX_OK) return status;
    for (const std::string &subject : subjects(kMostSubjects)) {
      frames_.push_back(std::make_unique<Subscription>(
          session_, subject,
          [arrivals = arrivals_](natsConnection *, Message message) { arrivals->put(std::move(message)); }));
    }
    if (natsConnection_FlushTimeout(session_->nc(), kConnectMs) != NATS_OK) return KELVODRIX_ERR_SERVER;
    return session_->status();
  }

  int32_t next(Deadline until, kelvodrix_frame &frame) override {
    while (!show(frame)) {
      if (at_hand_.empty() && !take_arrivals(until)) {
        if (!stopped_) return nothing();
        frame = {};
        return KELVODRIX_OK;
      }
      Arrivals::Arrival arrival = std::move(at_hand_.front());
      at_hand_.pop_front();
      take(std::move(arrival.message), true, arrival.time);
    }
    return KELVODRIX_OK;
  }

  void stop() override {
    if (std::exchange(stopped_, true)) return;
    for (const auto &each : frames_) each->drain(kConnectMs);
  }

 private:
  bool take_arrivals(Deadline until) {
    std::unique_lock lock(arrivals_->mutex);
    arrivals_->changed.wait_until(lock, until, [&] { return !arrivals_->queue.empty() || stopped_; });
    at_hand_.swap(arrivals_->queue);
    arrivals_->bytes = 0;
    counters_.lost = arrivals_->lost;
    return !at_hand_.empty();
  }

  const std::shared_ptr<Arrivals> arrivals_ = std::make_shared<Arrivals>();
  std::vector<std::unique_ptr<Subscription>> frames_;
  std::deque<Arrivals::Arrival> at_hand_;
  bool stopped_ = false;
};

// Consumers that the server forgets, one a subject, whose frames are put together in the order of their places.
class StreamTap final : public ServerTap {
 public:
  StreamTap(Place place, const kelvodrix_tap_options &options)
      : ServerTap(std::move(place), options), follows_(options.follows != 0), from_(options.from) {}

  int32_t open() {
    const SignalsHeldBack held_back;
    if (const int32_t status = connect(); status != KELVODRIX_OK) return status;
    stream_ = std::make_unique<Stream>(session_, place_.stream);
    int32_t status = stream_->open(false);
    for (const std::string &subject : subjects(kMostConsumers))
      if (status == KELVODRIX_OK) status = consume(subject);
    return status;
  }

  int32_t next(Deadline until, kelvodrix_frame &frame) override {
    for (;;) {
      Part *first = nullptr;
      for (Part &part : parts_) {
        const bool is_awaited = part.left != 0 || parts_.size() == 1;
        if (part.message == nullptr && (part.left != 0 || follows_) && !fetch(part, is_awaited, until))
          return nothing();
        if (part.message != nullptr && (first == nullptr || part.place < first->place)) first = &part;
      }
      if (first != nullptr) {
        Message message = std::move(first->message);
        if (first->time >= from_) take(std::move(message), false, first->time);
        if (show(frame)) return KELVODRIX_OK;
      } else if (!follows_) {
        frame = {};
        return KELVODRIX_OK;
      } else if (Clock::now() >= until) {
        return nothing();
      }
    }
  }

  ~StreamTap() override {
    for (Part &part : parts_) session_->bury(part.consumer.release());
  }

  void stop() override {
    follows_ = false;
    for (Part &part : parts_) part.left = 0;
  }

 private:
  struct Part {
    Owned<natsSubscription> consumer;
    uint64_t left;  // that was there at the start
    Message message = nullptr;
    uint64_t place = 0, time = 0;
  };

  int32_t consume(const std::string &subject) {
    jsSubOptions options;
    jsSubOptions_Init(&options);
    options.Stream = stream_->name();
    options.Ordered = true;
    options.Config.DeliverPolicy = from_ != 0 ? js_DeliverByStartTime : js_DeliverAll;
    options.Config.OptStartTime = static_cast<int64_t>(from_ - from_ % kTenth);
    natsSubscription *made = nullptr;
    jsErrCode error{};
    natsStatus status = js_SubscribeSync(&made, stream_->js(), subject.c_str(), nullptr, &options, &error);
    Owned<natsSubscription> consumer(made);
    Owned<jsConsumerInfo> info;
    if (status == NATS_OK) status = ask(made, info, error);
    if (status != NATS_OK) return stream_->status(status, error);
    parts_.push_back({std::move(consumer), info->NumPending + info->Delivered.Consumer});
    return KELVODRIX_OK;
  }

  static natsStatus ask(natsSubscription *consumer, Owned<jsConsumerInfo> &info, jsErrCode &error) {
    jsConsumerInfo *found = nullptr;
    const natsStatus status = natsSubscription_GetConsumerInfo(&found, consumer, nullptr, &error);
    info.reset(found);
    return status;
  }

  // False when something is awaited and did not come in time.
  bool fetch(Part &part, bool is_awaited, Deadline until) {
    if (get(part, is_awaited ? until : Deadline()) || !is_awaited) return true;
    if (part.left == 0) return false;
    // What was to come may have been purged. What the server has sent is here when it answers.
    jsErrCode error{};
    Owned<jsConsumerInfo> info;
    if (ask(part.consumer.get(), info, error) != NATS_OK || info->NumPending != 0) return false;
    if (!get(part, Deadline())) part.left = 0;
    return true;
  }

  bool get(Part &part, Deadline until) {
    const auto wait = std::max(std::chrono::ceil<milliseconds>(until - Clock::now()), kMoment);
    natsMsg *got = nullptr;
    if (natsSubscription_NextMsg(&got, part.consumer.get(), wait.count()) != NATS_OK) return false;
    part.message.reset(got);
    jsMsgMetaData *data = nullptr;
    if (natsMsg_GetMetaData(&data, got) == NATS_OK) {
      const Owned<jsMsgMetaData> delivery(data);
      part.place = delivery->Sequence.Stream;
      part.time = static_cast<uint64_t>(delivery->Timestamp);
      part.left = delivery->NumPending == 0 || part.left == 0 ? 0 : part.left - 1;
    }
    return true;
  }

  bool follows_;
  const uint64_t from_;
  std::unique_ptr<Stream> stream_;
  std::vector<Part> parts_;
};

template <class Made>
int32_t open_tap(const Place &place, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap) {
  auto made = std::make_unique<Made>(place, options);
  const int32_t status = made->open();
  if (status == KELVODRIX_OK) tap = std::move(made);
  return status;
}

}  // namespace

int32_t make_nats_tap(const char *endpoint, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap) {
  std::string text(endpoint);
  const bool is_of_all = text.ends_with("/*");
  if (is_of_all) text.back() = '-';
  Place place;
  if (const int32_t status = parse_place(text.c_str(), false, place); status != KELVODRIX_OK) return status;
  if (!place.stream.empty()) return is_of_all ? KELVODRIX_ERR_ENDPOINT : open_tap<StreamTap>(place, options, tap);
  if (is_of_all) place.subject = "drix.*.";
  return open_tap<DirectTap>(place, options, tap);
}

}  // namespace kelvodrix
