// The receiving end of a stream: has the server send what follows what is handled, at the start and whenever frames are
// missing, and notes in the bucket of floors what is handled. The server's own account of it is not used: one that goes on
// after a pause takes for acknowledged what it has sent, and some forget it.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <thread>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "floors.h"
#include "inbox.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kHeartbeat(1000), kSilence(3000), kLongestElection(10000);
constexpr std::chrono::milliseconds kLookAgain(100);
constexpr int kQuestions = 6;  // until one who receives under the name must be alive
constexpr uint64_t kMostOwed = 64;
constexpr uint64_t kFewSilences = 2;  // instead of an answer, until another server is to lead: not all ask at once

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
    floors_ = std::make_unique<Stream>(session_, place_.bucket);
    int32_t status = stream_->open();
    if (status == KELVODRIX_OK) status = floors_->open();
    if (status == KELVODRIX_OK) status = require_alone(place_.alive, kQuestions);
    if (status == KELVODRIX_OK) alive_.emplace(session_, place_.alive, [](natsConnection *, const Message &) {});
    if (status == KELVODRIX_OK) status = consume();
    if (status == KELVODRIX_OK) status = put_floor();
    return status;
  }

 private:
  int32_t consume() {
    Owned<jsStreamInfo> stream;
    if (const int32_t status = stream_->info(stream); status != KELVODRIX_OK) return status;
    const uint64_t last = stream->State.LastSeq, before = std::max<uint64_t>(stream->State.FirstSeq, 1) - 1;
    if (created_ == 0) {
      Message found;  // a right that is needed when frames are missing is missed at once
      if (const int32_t status = stream_->get(std::max<uint64_t>(last, 1), found); status != KELVODRIX_OK)
        return status;
      Floor floor;
      if (const int32_t status = find_floor(found, floor); status != KELVODRIX_OK) return status;
      handled_ = place_.from == "now" ? last
                 : place_.from == "table"
                     ? before
                     : std::clamp(floor.created == stream->Created ? floor.place : 0, before, last);
    } else if (created_ != stream->Created) {  // another one is in its place
      handled_ = before;
    }
    // Where servers have lost the end of the stream, something new may stand at places that are handled.
    for (Message found; newest_ != 0 && handled_ > before && handled_ <= last; --handled_) {
      if (const int32_t status = stream_->get(handled_, found); status != KELVODRIX_OK) return status;
      if (found == nullptr || natsMsg_GetTime(found.get()) <= static_cast<int64_t>(newest_)) break;
    }

    const std::string subject = inbox_ + '.' + std::to_string(++times_);
    queue_ = std::make_shared<Queue>();
    // By a wildcard, some servers would not see that somebody is there.
    frames_.emplace(session_, subject,
                    [queue = queue_](natsConnection *, Message message) { queue->put(std::move(message)); });
    answers_at_ = subject + ".";
    answers_.emplace(
        session_, answers_at_ + '*',
        [queue = queue_, answer = answer_, skipped = answers_at_.size()](natsConnection *, Message message) {
          const uint64_t put = std::strtoull(natsMsg_GetSubject(message.get()) + skipped, nullptr, 10);
          if (put <= answer->put) return;
          answer->revision = read_stored(message.get()).at;
          answer->put = put;
          queue->put(std::move(message));  // to wake the loop
        });
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.DeliverSubject = subject.c_str();
    config.DeliverPolicy = js_DeliverByStartSequence;
    config.OptStartSeq = std::min(handled_, last) + 1;  // less, if the server has lost what it had
    config.AckPolicy = js_AckNone;
    config.Replicas = 1;
    config.MemoryStorage = true;
    config.FlowControl = true;  // or the server sends all at once
    config.Heartbeat = std::chrono::nanoseconds(kHeartbeat).count();
    jsErrCode error{};
    const natsStatus made = js_AddConsumer(nullptr, stream_->js(), stream_->name(), &config, nullptr, &error);
    if (made != NATS_OK) return stream_->status(made, error);
    created_ = stream->Created;
    received_ = 0;
    missing_ = false;
    in_doubt_ = putting_;
    heard_ = Clock::now();
    return KELVODRIX_OK;
  }

  int32_t idle() override {
    const Deadline now = Clock::now();
    const bool silent = now - heard_ > kSilence, unanswered = putting_ && now - put_at_ > kSilence;
    const bool in_doubt = in_doubt_ || unanswered;
    if (unanswered && session_->connected() && ++silences_ > kFewSilences + owner_ % kFewSilences) {
      silences_ = 0;
      floors_->step_down();
    }
    look_ms_ = missing_ || silent || putting_ ? 100 : 1000;
    if (!(missing_ || silent || in_doubt) || !session_->connected() || now < next_attempt_) return KELVODRIX_OK;
    int32_t status = missing_ || silent ? consume() : KELVODRIX_OK;
    if (status == KELVODRIX_OK && in_doubt) status = look_at_floor();
    next_attempt_ = Clock::now() + kLookAgain;
    return status == KELVODRIX_ERR_IN_USE ? status : KELVODRIX_OK;
  }

  void handle(Loop &loop, const Message &message) override {
    const std::string_view subject = natsMsg_GetSubject(message.get());
    if (subject.starts_with(answers_at_)) return;
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
    if (!is_frame(frame)) {
      drop(loop, message);
    } else {
      // Or again what was never acknowledged to its writer, after servers have lost it.
      const std::string_view id = header_of(message.get(), "Nats-Msg-Id"), writer = id.substr(0, id.find('-'));
      const auto count = load<uint32_t>(&frame[16]);
      const uint64_t end = load<uint64_t>(&frame[8]) + count;
      const bool is_handled = !writer.empty() && writer == writer_ && end <= end_;
      if (count != 0 && !is_handled) {
        missing_ = true;  // if the subscriber ends the thread: then the frame comes again
        loop.deliver(frame);
        missing_ = false;
      }
      if (!is_handled) writer_ = writer, end_ = end;
    }
    handled_ = delivery.place;
    newest_ = std::max(newest_, delivery.time);
    if (++owed_ >= kMostOwed) acknowledge();
  }

  // Whether the stream has, or may have, anything between these places. What was purged it has not. One answer says it all,
  // as the next may come from another server, which has not caught up either.
  bool holds_between(uint64_t before, uint64_t behind) const {
    Owned<jsStreamInfo> info;
    if (stream_->info(info, Stream::kDeleted) != KELVODRIX_OK || info->State.LastSeq < behind) return true;
    const uint64_t *const deleted = info->State.Deleted, *const end = deleted + info->State.DeletedLen;
    uint64_t at = std::max(before + 1, info->State.FirstSeq);
    while (at < behind && std::find(deleted, end, at) != end) ++at;
    return at < behind;
  }

  void control(natsMsg *message, const char *reply) {
    // The server waits until what came before this is handled.
    const std::string stalled(reply != nullptr ? reply : header_of(message, "Nats-Consumer-Stalled"));
    if (!stalled.empty()) natsConnection_Publish(session_->nc(), stalled.c_str(), nullptr, 0);
    const std::string_view last = header_of(message, "Nats-Last-Consumer");
    if (!last.empty()) missing_ = last != std::to_string(received_);
  }

  // The floor is put by one message at a time, each of which names the place of the one before in the bucket: so nobody
  // who receives under the same name can take it back.

  Message make_floor(const std::string &reply) const {
    const std::string text = write_floor({handled_, created_, owner_});
    const std::span bytes(reinterpret_cast<const uint8_t *>(text.data()), text.size());
    return make_message(place_.floor, reply, bytes, "Nats-Expected-Last-Subject-Sequence", std::to_string(revision_));
  }

  void acknowledge() override {
    if (putting_ && answer_->put == puts_) {
      const uint64_t revision = answer_->revision;
      in_doubt_ = putting_ = revision == 0;
      if (revision != 0) revision_ = revision, silences_ = 0;
    }
    if (owed_ == 0 || putting_) return;
    const Message message = make_floor(answers_at_ + std::to_string(puts_ + 1));
    if (natsConnection_PublishMsg(session_->nc(), message.get()) != NATS_OK) return;
    ++puts_;
    putting_ = true;
    put_at_ = Clock::now();
    owed_ = 0;
  }

  int32_t find_floor(Message &found, Floor &floor) {
    const int32_t status = floors_->get_last(place_.floor, found);
    if (status != KELVODRIX_OK) return status;
    floor = found != nullptr ? read_floor(found.get()) : Floor();
    revision_ = found != nullptr ? natsMsg_GetSequence(found.get()) : 0;
    return KELVODRIX_OK;
  }

  int32_t put_floor() {
    Stored stored;
    floors_->store(make_floor("").get(), stored);
    if (stored.at == 0)
      return stored.error == JSStreamWrongLastSequenceErr ? KELVODRIX_ERR_IN_USE
                                                          : floors_->status(NATS_ERR, stored.error);
    revision_ = stored.at;
    return KELVODRIX_OK;
  }

  // What has become of the last message is not known.
  int32_t look_at_floor() {
    Message found;
    Floor floor;
    if (const int32_t status = find_floor(found, floor); status != KELVODRIX_OK) return status;
    if (floor.owner != 0 && floor.owner != owner_) return KELVODRIX_ERR_IN_USE;
    in_doubt_ = putting_ = false;
    if (floor.place != handled_) owed_ = std::max<uint64_t>(owed_, 1);
    return KELVODRIX_OK;
  }

  // Until the servers have noted what is handled: nobody repeats it. There may be an election.
  void finish() override {
    const Deadline start = Clock::now();
    in_doubt_ |= putting_;
    while ((in_doubt_ || owed_ != 0) && Clock::now() - start < (session_->connected() ? kLongestElection : kSilence)) {
      int32_t status = look_at_floor();
      if (status == KELVODRIX_ERR_IN_USE) return;
      if (status == KELVODRIX_OK && owed_ != 0) {
        status = put_floor();
        in_doubt_ = status == KELVODRIX_ERR_IN_USE;  // by one of before that was under way
        if (status == KELVODRIX_OK) owed_ = 0;
      }
      if (status != KELVODRIX_OK && !in_doubt_) std::this_thread::sleep_for(kLookAgain);
    }
  }

  const Place place_;
  const uint64_t owner_ = random_number();
  std::string inbox_;
  std::unique_ptr<Stream> stream_, floors_;
  std::optional<Subscription> alive_, frames_, answers_;

  // To the last floor that was put, as soon as it comes.
  struct Answer {
    std::atomic<uint64_t> put = 0, revision = 0;
  };
  const std::shared_ptr<Answer> answer_ = std::make_shared<Answer>();

  // The loop's own.
  int64_t created_ = 0;     // the stream; 0: not known yet
  uint64_t times_ = 0;      // that a consumer was made
  uint64_t received_ = 0;   // from this one
  uint64_t handled_ = 0;    // the place of the last frame
  uint64_t newest_ = 0;     // when it was stored
  std::string writer_;      // who has sent that
  uint64_t end_ = 0;        // how many messages of its are handled
  bool missing_ = false;    // frames were lost on the way
  uint64_t owed_ = 0;       // frames handled and not put into the floor
  std::string answers_at_;  // what the subjects of answers start with
  uint64_t puts_ = 0;       // of the floor
  uint64_t revision_ = 0;   // the place of the last one in the bucket
  bool putting_ = false;    // one is under way
  uint64_t silences_ = 0;   // in a row, instead of an answer
  bool in_doubt_ = false;   // and it is not known what became of it
  Deadline put_at_{}, heard_{}, next_attempt_{};
};

}  // namespace

int32_t make_stream_inbox(const Place &place, std::unique_ptr<Inbox> &inbox) {
  auto made = std::make_unique<StreamInbox>(place);
  const int32_t status = made->open();
  if (status == KELVODRIX_OK) inbox = std::move(made);
  return status;
}

}  // namespace kelvodrix
