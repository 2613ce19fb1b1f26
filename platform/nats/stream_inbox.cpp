// The receiving end of a stream: a consumer of it that is made anew, behind what is handled, at the start and whenever
// frames are missing. One that is resumed would bring new frames before old ones.
#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <thread>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "inbox.h"
#include "stream.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kHeartbeat(1000), kSilence(3000), kLongestElection(10000);
constexpr std::chrono::milliseconds kLookAgain(100);
constexpr int kLooks = 15;  // until one who receives under the name must be alive
constexpr int64_t kMostUnderWay = 4096;
constexpr uint64_t kMostOwed = 64;
constexpr std::chrono::hours kNever(24 * 365);  // does the server send a frame again by itself

// What the server says of a message, in its reply subject:
// $JS.ACK.[DOMAIN.ACCOUNT.]STREAM.CONSUMER.TIMES.PLACE.NUMBER.TIME.LEFT[.MORE]
struct Delivery {
  uint64_t place = 0;   // in the stream
  uint64_t number = 0;  // among what the consumer was sent: 1, 2, 3, ...; 0: it is no message of a stream
  uint64_t time = 0;    // when it was stored
};

Delivery read_delivery(std::string_view reply) {
  if (!reply.starts_with("$JS.ACK.")) return {};
  std::array<std::string_view, 12> words;
  size_t count = 0;
  for (; count < words.size() && !reply.empty(); ++count) {
    const size_t dot = std::min(reply.find('.'), reply.size());
    words[count] = reply.substr(0, dot);
    reply.remove_prefix(std::min(dot + 1, reply.size()));
  }
  const size_t at = count == 9 ? 5 : 7;
  if (count < 9 || count == 10) return {};
  Delivery delivery;
  uint64_t *const values[] = {&delivery.place, &delivery.number, &delivery.time};
  for (size_t i = 0; i < 3; ++i)
    std::from_chars(words[at + i].data(), words[at + i].data() + words[at + i].size(), *values[i]);
  return delivery;
}

class StreamInbox final : public ServerInbox {
 public:
  explicit StreamInbox(const Place &place) : place_(place) {}

  int32_t open() {
    const SignalsHeldBack held_back;
    if (const int32_t status = Session::get(place_.servers, Use::receiving, kConnectMs, session_);
        status != KELVODRIX_OK)
      return status;
    session_->forget_denials();  // of other endpoints
    inbox_ = session_->inbox();
    stream_ = std::make_unique<Stream>(session_, place_.stream);
    int32_t status = stream_->open();
    if (status == KELVODRIX_OK) status = consume();
    // The server may not know yet who is gone.
    for (int looks = kLooks; looks != 0 && status == KELVODRIX_ERR_IN_USE; --looks) {
      std::this_thread::sleep_for(kLookAgain);
      status = consume();
    }
    return status;
  }

 private:
  // Has the server send what follows what is handled.
  int32_t consume() {
    jsErrCode error{};
    Owned<jsStreamInfo> stream;
    if (const natsStatus status = stream_->info(stream, error); status != NATS_OK)
      return stream_->status(status, error);
    const uint64_t last = stream->State.LastSeq, before = std::max<uint64_t>(stream->State.FirstSeq, 1) - 1;
    std::optional<uint64_t> floors[2];
    for (size_t i = 0; i < 2; ++i) {
      Owned<jsConsumerInfo> found;
      error = {};
      const natsStatus status = stream_->consumer(consumer(i), found, error);
      if (error == JSConsumerNotFoundErr) continue;
      if (status != NATS_OK) return stream_->status(status, error);
      if (found->PushBound && !std::string_view(found->Config->DeliverSubject).starts_with(inbox_))
        return KELVODRIX_ERR_IN_USE;
      floors[i] = floor_of(*found);
    }
    if (created_ == 0 && place_.from != "now" && place_.from != "table")
      handled_ = std::max(before, std::min(last, std::max(floors[0].value_or(0), floors[1].value_or(0))));
    else if (created_ != stream->Created)  // at the start, or of a stream in the place of another one
      handled_ = created_ == 0 && place_.from == "now" ? last : before;

    // Where servers have lost the end of the stream, something new may stand at places that are handled.
    for (int64_t time = INT64_MAX; newest_ != 0 && handled_ > before && handled_ <= last; --handled_) {
      if (const int32_t got = find_time(handled_, time); got != KELVODRIX_OK) return got;
      if (time <= static_cast<int64_t>(newest_)) break;
    }

    // The new one is there before the old one goes, so that there is always one that knows.
    const size_t old = floors[1] > floors[0] ? 1 : 0, next = 1 - old;  // none is less than any
    if (floors[next]) js_DeleteConsumer(stream_->js(), stream_->name(), consumer(next).c_str(), nullptr, nullptr);
    const std::string subject = inbox_ + '.' + std::to_string(++times_);
    queue_ = std::make_shared<Queue>();
    frames_.emplace(session_, subject,
                    [queue = queue_](natsConnection *, Message message) { queue->put(std::move(message)); });
    const std::string name = consumer(next);
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = name.c_str();
    config.DeliverSubject = subject.c_str();
    config.DeliverPolicy = js_DeliverByStartSequence;
    config.OptStartSeq = std::min(handled_, last) + 1;  // less, if the server has lost what it had
    config.AckPolicy = js_AckAll;
    config.AckWait = std::chrono::nanoseconds(kNever).count();
    config.MaxAckPending = kMostUnderWay;
    config.FlowControl = true;  // or the server sends all at once
    config.Heartbeat = std::chrono::nanoseconds(kHeartbeat).count();
    error = {};
    const natsStatus made = js_AddConsumer(nullptr, stream_->js(), stream_->name(), &config, nullptr, &error);
    if (made != NATS_OK) return stream_->status(made, error);
    if (floors[old]) js_DeleteConsumer(stream_->js(), stream_->name(), consumer(old).c_str(), nullptr, nullptr);
    created_ = stream->Created;
    received_ = 0;
    owed_ = 0;
    reply_.clear();
    missing_ = false;
    heard_ = Clock::now();
    return KELVODRIX_OK;
  }

  std::string consumer(size_t which) const { return place_.receiver + std::to_string(which); }

  int32_t idle() override {
    const bool silent = Clock::now() - heard_ > kSilence;
    look_ms_ = missing_ || silent ? 100 : 1000;
    if ((!missing_ && !silent) || !session_->connected() || Clock::now() < next_attempt_) return KELVODRIX_OK;
    const int32_t status = consume();
    if (status != KELVODRIX_ERR_IN_USE) in_use_ = 0;
    next_attempt_ = Clock::now() + (in_use_ == 0 ? kLookAgain : kHeartbeat);
    // In an election a server may take for alive who is gone.
    return status == KELVODRIX_ERR_IN_USE && ++in_use_ > kLooks ? status : KELVODRIX_OK;
  }

  void handle(Loop &loop, const Message &message) override {
    if (missing_) return;
    heard_ = Clock::now();
    const char *const reply = natsMsg_GetReply(message.get());
    const Delivery delivery = read_delivery(reply != nullptr ? reply : "");
    if (delivery.number == 0) return control(message.get(), reply);
    missing_ = delivery.number != received_ + 1;
    if (missing_) return;
    received_ = delivery.number;
    // A server that has not caught up with the others passes over what it lacks, and counts on.
    missing_ = delivery.place > handled_ + 1 && holds_between(handled_, delivery.place);
    if (missing_) return;
    // Twice, unless the server has lost what it once had, and has given its place to something new.
    if (delivery.place <= handled_ && delivery.time <= newest_) return;
    const auto frame = bytes_of(message.get());
    if (good_frame(loop, frame, message) && load<uint32_t>(&frame[16]) != 0) {
      missing_ = true;  // if the subscriber ends the thread: then the frame comes again
      loop.deliver(frame);
      missing_ = false;
    }
    handled_ = delivery.place;
    newest_ = std::max(newest_, delivery.time);
    reply_ = reply;
    if (++owed_ >= kMostOwed) acknowledge();
  }

  // Whether the stream has, or may have, anything between these places. What was purged it has not.
  bool holds_between(uint64_t before, uint64_t behind) const {
    jsErrCode error{};
    Owned<jsStreamInfo> info;
    if (stream_->info(info, error) != NATS_OK) return true;
    for (uint64_t at = std::max(before + 1, info->State.FirstSeq); at < behind; ++at) {
      int64_t time = 0;
      if (find_time(at, time) != KELVODRIX_OK || time != 0) return true;
    }
    return false;
  }

  // When the message there was stored; 0 where there is none.
  int32_t find_time(uint64_t place, int64_t &time) const {
    natsMsg *message = nullptr;
    jsErrCode error{};
    const natsStatus got = js_GetMsg(&message, stream_->js(), stream_->name(), place, nullptr, &error);
    const bool none = got == NATS_NOT_FOUND || error == JSNoMessageFoundErr;
    time = got == NATS_OK ? natsMsg_GetTime(message) : 0;
    natsMsg_Destroy(message);
    return none ? KELVODRIX_OK : stream_->status(got, error);
  }

  void control(natsMsg *message, const char *reply) {
    // The server waits until what came before this is handled.
    const std::string stalled(reply != nullptr ? reply : header_of(message, "Nats-Consumer-Stalled"));
    if (!stalled.empty()) natsConnection_Publish(session_->nc(), stalled.c_str(), nullptr, 0);
    const std::string_view last = header_of(message, "Nats-Last-Consumer");
    if (last.empty()) return;
    missing_ = last != std::to_string(received_);
    // The last acknowledgement may have gone with a server or a connection.
    if (!missing_ && !reply_.empty()) owed_ = std::max<uint64_t>(owed_, 1);
  }

  void acknowledge() override {
    if (owed_ != 0 && natsConnection_PublishString(session_->nc(), reply_.c_str(), "+ACK") == NATS_OK) owed_ = 0;
  }

  // Until the server has noted the last acknowledgement: nobody repeats it. There may be an election.
  void finish() override {
    const Deadline start = Clock::now();
    natsStatus status = reply_.empty() ? NATS_OK : NATS_TIMEOUT;
    while (status != NATS_OK && Clock::now() - start < (session_->connected() ? kLongestElection : kSilence)) {
      natsMsg *noted = nullptr;
      status = natsConnection_RequestString(&noted, session_->nc(), reply_.c_str(), "+ACK", kLookAgain.count());
      natsMsg_Destroy(noted);
      if (status != NATS_OK && status != NATS_TIMEOUT) std::this_thread::sleep_for(kLookAgain);
    }
  }

  const Place place_;
  std::string inbox_;
  std::unique_ptr<Stream> stream_;
  std::optional<Subscription> frames_;

  // The loop's own.
  int64_t created_ = 0;    // the stream; 0: not known yet
  uint64_t times_ = 0;     // that a consumer was made
  uint64_t received_ = 0;  // from this one
  uint64_t handled_ = 0;   // the place of the last frame
  uint64_t newest_ = 0;    // when it was stored
  uint64_t owed_ = 0;      // frames handled and not acknowledged
  std::string reply_;      // what acknowledges them
  bool missing_ = false;   // frames were lost on the way
  int in_use_ = 0;         // how often somebody else was there
  Deadline heard_{}, next_attempt_{};
};

}  // namespace

int32_t make_stream_inbox(const Place &place, std::unique_ptr<Inbox> &inbox) {
  auto made = std::make_unique<StreamInbox>(place);
  const int32_t status = made->open();
  if (status == KELVODRIX_OK) inbox = std::move(made);
  return status;
}

}  // namespace kelvodrix
