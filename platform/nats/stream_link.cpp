// The sending end of a stream: keeps frames until they are stored.
#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "../kelvodrix/status.h"
#include "../kelvodrix/window.h"
#include "floors.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds kSoon(1), kLook(20), kNothingToDo(3600000);
// Without an answer for so long frames are sent again, and again at intervals.
constexpr milliseconds kPatience(1500), kResendInterval(300);
constexpr uint64_t kSilences = 3;  // in a row, until another server is to lead
// What a server for so long denies to have, it has lost: some say so in an election.
constexpr milliseconds kLostForGood(10000);
constexpr size_t kFramesAtATime = 64;
// Small frames grow together while so many are under way.
constexpr size_t kSharedBytes = 16 << 10, kEnoughUnderWay = 2;
// With so many under way, more may wait for the next answer, and who sends for some room: nobody wakes for each frame.
constexpr size_t kBusy = 16;
constexpr size_t kMostSpentBytes = 1 << 20;
constexpr size_t kHeadersCost = 200;  // bytes of a message besides the frame, at most

class Writer;
struct Writers {
  std::mutex mutex;
  std::list<std::weak_ptr<Writer>> all;
};

Writers &writers() {
  static Writers &instance = *new Writers;
  return instance;
}

// Small ones are bytes until they are sent, and grow; large ones are copied once only.
struct Frame {
  std::string subject, id;
  std::vector<uint8_t> bytes;
  Message message = nullptr;  // for a round of sending
  uint64_t round = 0;
};

struct Kept {
  std::shared_ptr<Frame> frame;  // shared with the thread while it sends
  bool first_of_table, last_of_table;
  bool ready;  // perhaps sent; it does not change any more
};

// Everything that has to do with the server is done by a thread, which owns the writer as long as its channel is open.
// Those who send wait for nothing but it.
class Writer final : public Link, public std::enable_shared_from_this<Writer> {
 public:
  Writer(const Place &place, const kelvodrix_options &options) : place_(place), options_(options), window_(options) {
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(random_number()));
    name_ = text;
  }

  void start() {
    const SignalsHeldBack held_back;
    std::thread([self = shared_from_this()] { self->work(); }).detach();
    std::lock_guard lock(writers().mutex);
    writers().all.remove_if([](const auto &each) { return each.expired(); });
    writers().all.push_back(weak_from_this());
  }
  void stop() {
    Undelivered none;
    settle(Deadline(), true, none);
  }

  int32_t send(std::span<const DrixSendDescriptor> messages, bool &) override {
    const size_t limit = std::min(KELVODRIX_MAX_FRAME_BYTES, options_.window_bytes);
    size_t frame_bytes;
    if (const int32_t status = measure_frame(messages, limit, frame_bytes); status != KELVODRIX_OK) return status;
    const Deadline deadline = Clock::now() + milliseconds(options_.send_timeout_ms);
    std::unique_lock lock(mutex_);
    for (;;) {
      const int32_t status = take(messages, frame_bytes);
      const bool may_change = status == KELVODRIX_ERR_WINDOW || status == KELVODRIX_ERR_FULL ||
                              status == KELVODRIX_ERR_SERVER || status == KELVODRIX_ERR_HOST;
      if (!may_change) reached_ = KELVODRIX_ERR_SERVER;  // for the next one, who tries anew
      if (!may_change || Clock::now() >= deadline) return status;
      changed_.wait_until(lock, std::min(deadline, Clock::now() + kLook));
    }
  }

  void settle(Deadline until, bool close, Undelivered &total) override {
    std::unique_lock lock(mutex_);
    ask_again_ = kSoon;
    while (!closed_ && messages_ != 0 && (!fresh_ || pending()) && Clock::now() < until) {
      asked_ = true;
      wake();
      changed_.wait_until(lock, until);
    }
    fresh_ = false;
    if (close) {
      closed_ = true;
      wake();
      changed_.notify_all();
    }
    total.messages += messages_ - handled_;
    total.pending |= pending();
  }

  int32_t checkpoint() override {
    std::lock_guard lock(mutex_);
    if (lost_) return KELVODRIX_ERR_WRITER;
    if (std::exchange(next_begins_table_, true)) return KELVODRIX_OK;  // nothing was sent since
    if (kept_.empty())
      purge_to_ = table_at_;
    else
      kept_.back().last_of_table = true;
    wake();
    return KELVODRIX_OK;
  }

  bool write_left() override { return false; }
  void finish(Deadline start) override {
    const Deadline deadline = start + milliseconds(options_.send_timeout_ms);
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return closed_ || window_.empty(); });
  }

 private:
  // All of these are called with the mutex locked, and those that get the lock let it go while they wait for the server.
  using Lock = std::unique_lock<std::mutex>;

  void wake() {
    news_ = true;
    thread_.notify_one();
  }

  bool pending() const { return !window_.empty() || purge_to_ != 0 || (stored() > handled_); }
  uint64_t stored() const { return messages_ - window_.undelivered(); }

  int32_t take(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
    if (closed_) return KELVODRIX_ERR_HANDLE;
    if (lost_) return KELVODRIX_ERR_WRITER;
    if (!begun_) {
      wanted_ = true;
      wake();
      return reached_;
    }
    if (frame_bytes + kHeadersCost > most_bytes_) return KELVODRIX_ERR_TOO_BIG;
    if (joins(messages, frame_bytes)) return KELVODRIX_OK;
    if (!window_.fits(frame_bytes)) {
      const int32_t status = full_ ? KELVODRIX_ERR_FULL : stream_->session().status();
      return status != KELVODRIX_OK ? status : KELVODRIX_ERR_WINDOW;
    }
    keep("m." + id_subject(messages), "", messages, frame_bytes);
    next_begins_table_ = false;
    if (published_ < kBusy) wake();
    return KELVODRIX_OK;
  }

  void keep(const std::string &subject, const std::string &id_end, std::span<const DrixSendDescriptor> messages,
            size_t frame_bytes) {
    auto frame = std::make_shared<Frame>();
    frame->subject = place_.subject + subject;
    frame->id = name_ + '-' + std::to_string(messages_) + id_end;
    const bool grows = frame_bytes < kSharedBytes;
    std::vector<uint8_t> &bytes = grows ? frame->bytes : large_;
    if (bytes.size() < frame_bytes) bytes.resize(frame_bytes);
    write_frame(messages, frame_bytes, messages_, bytes.data());
    if (!grows) prepare(*frame, std::span(large_).first(frame_bytes), window_.last() + 1);
    if (large_.capacity() > kMostSpentBytes) std::vector<uint8_t>().swap(large_);
    kept_.push_back({std::move(frame), next_begins_table_ && !messages.empty(), false, !grows});
    window_.add(static_cast<uint32_t>(messages.size()), frame_bytes);
    messages_ += messages.size();
  }

  // Makes the message of this round.
  void prepare(Frame &frame, std::span<const uint8_t> bytes, uint64_t index) const {
    const std::string reply = inbox_ + '.' + std::to_string(round_) + '.' + std::to_string(index);
    Message message = make_message(frame.subject, reply, bytes, "Nats-Msg-Id", frame.id);
    set_header(message.get(), "Nats-Expected-Last-Sequence", std::to_string(base_ + index - 1));
    frame.message = std::move(message);
    frame.round = round_;
  }

  // Whether the last frame, which is not sent yet, takes these messages too.
  bool joins(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
    const size_t more = frame_bytes - kHeaderBytes;
    if (kept_.empty() || kept_.back().ready || next_begins_table_ || more > options_.window_bytes - window_.bytes())
      return false;
    Frame &frame = *kept_.back().frame;
    if (frame.bytes.size() + more > std::min(kSharedBytes, most_bytes_ - kHeadersCost) ||
        frame.subject != place_.subject + "m." + id_subject(messages))
      return false;
    append_to_frame(messages, more, frame.bytes);
    window_.extend_last(static_cast<uint32_t>(messages.size()), more);
    messages_ += messages.size();
    return true;
  }

  void keep_mark() { keep("c", "-c" + std::to_string(window_.last()), {}, kHeaderBytes); }

  // The thread.
  void work() {
    Lock lock(mutex_);
    while (!closed_) {
      news_ = false;
      guarded([&]() -> int32_t {
        step(lock);
        return KELVODRIX_OK;
      });
      if (!lock.owns_lock()) lock.lock();
      const bool busy = wanted_ || purge_to_ != 0 || !kept_.empty();
      const Deadline next = Clock::now() + (busy ? kLook : kNothingToDo);
      thread_.wait_until(lock, asked_ ? std::min(next, next_question_) : next, [&] { return news_ || closed_; });
    }
    lock.unlock();
    answers_.reset();
    stream_.reset();
  }

  void step(Lock &lock) {
    const Deadline now = Clock::now();
    if ((!begun_ || stream_->session().closed()) && !reach(lock)) return;
    if (published_ != 0 && now - heard_ > kPatience) {
      trouble_ = true;
      if (++silences_ % kSilences == 0) stream_->step_down();
    }
    if (in_doubt_) look(lock);
    if (trouble_ && now >= not_before_) {  // from the first that is not stored, and that alone until it is
      trouble_ = false;
      alone_ = true;
      published_ = 0;
      ++round_;
      not_before_ = now + kResendInterval;
    }
    publish(lock);
    if (asked_ && now >= next_question_) ask(lock);
    if (purge_to_ != 0 && now >= next_purge_) purge(lock);
  }

  // Has the writer begin, when it has not.
  bool reach(Lock &lock) {
    if (!(begun_ || wanted_) || Clock::now() < next_attempt_) return false;
    wanted_ = false;
    next_attempt_ = Clock::now() + kLook;
    lock.unlock();
    std::shared_ptr<Session> session;
    answers_.reset();
    int32_t status = forked() ? KELVODRIX_ERR_FORKED : Session::get(place_.servers, Use::sending, kConnectMs, session);
    std::shared_ptr<Stream> stream;
    if (status == KELVODRIX_OK) {
      session->forget_denials();  // of other endpoints
      stream = std::make_shared<Stream>(session, place_.stream);
      status = stream->open();
    }
    if (status == KELVODRIX_OK) status = floors_.open(session, place_.bucket);
    uint64_t begin = 0, passed = 0;
    if (status == KELVODRIX_OK && !begun_) {
      status = begin_in(*stream, begin);
      // Who has the bucket's place of this knows all receivers that were there before.
      const std::vector<uint8_t> name(name_.begin(), name_.end());
      uint64_t known = 0;
      if (status == KELVODRIX_OK) status = store_in(floors_.bucket(), {place_.floor, name_ + "-f", name}, known);
      floors_.expect(known);
      Owned<jsStreamInfo> table;
      if (status == KELVODRIX_OK) status = stream->info(table);
      if (status == KELVODRIX_OK) status = floors_.look(table->Created);
      passed = floors_.highest();
    }
    if (status == KELVODRIX_OK) {
      inbox_ = session->inbox();
      answers_.emplace(session, inbox_ + ".>", [self = shared_from_this()](natsConnection *, const Message &message) {
        self->take_answer(message.get());
      });
    }
    lock.lock();
    changed_.notify_all();
    reached_ = status;
    if (status != KELVODRIX_OK) return false;
    stream_ = stream;
    if (!begun_) {
      base_ = begin_at_ = stored_at_ = begin;
      // Where servers have lost the end of a stream, receivers have already passed these places, and would miss what
      // comes there.
      for (uint64_t place = begin; place < passed; ++place) keep_mark();
    }
    begun_ = trouble_ = true;
    most_bytes_ = static_cast<size_t>(natsConnection_GetMaxPayload(session->nc()));
    return true;
  }

  // Says that the frames that follow are this writer's: from then on nobody else's are stored.
  int32_t begin_in(const Stream &stream, uint64_t &at) {
    Frame frame = {place_.subject + 'w', name_ + "-w", std::vector<uint8_t>(kHeaderBytes)};
    write_frame({}, kHeaderBytes, 0, frame.bytes.data());
    return store_in(stream, frame, at);
  }

  int32_t store_in(const Stream &stream, const Frame &frame, uint64_t &at) {
    Stored stored;
    const Message message = make_message(frame.subject, "", frame.bytes, "Nats-Msg-Id", frame.id);
    const natsStatus status = stream.store(message.get(), stored);
    if (status == NATS_TIMEOUT && ++silences_ % kSilences == 0) stream.step_down();
    at = stored.at;
    return at != 0 ? KELVODRIX_OK : is_full(stored.error) ? KELVODRIX_ERR_FULL : stream.status(NATS_ERR, stored.error);
  }

  static bool is_full(jsErrCode error) {
    return error == JSStreamStoreFailedErr || error == JSStorageResourcesExceededErr ||
           error == JSInsufficientResourcesErr || error == JSAccountResourcesExceededErr;
  }

  void publish(Lock &lock) {
    while (!closed_ && !trouble_ && published_ < (alone_ ? std::min<size_t>(1, kept_.size()) : kept_.size())) {
      const auto from = kept_.begin() + static_cast<ptrdiff_t>(published_);
      const size_t count = alone_ ? 1 : std::min(kFramesAtATime, kept_.size() - published_);
      // The last one may grow until something is stored.
      if (count == 1 && published_ >= kEnoughUnderWay && !from->ready && from->frame->bytes.size() < kSharedBytes / 2)
        return;
      uint64_t index = window_.first() + published_;
      std::vector<std::shared_ptr<const Frame>> frames;
      for (auto each = from; frames.size() < count; ++each, ++index) {
        Frame &frame = *each->frame;
        if (frame.message == nullptr)
          prepare(frame, frame.bytes, index);
        else if (frame.round != round_)
          prepare(frame, bytes_of(frame.message.get()), index);
        each->ready = true;
        frames.push_back(each->frame);
      }
      if (published_ == 0) heard_ = Clock::now();
      published_ += count;
      lock.unlock();
      natsStatus status = NATS_OK;
      for (const auto &frame : frames)
        if (status == NATS_OK) status = natsConnection_PublishMsg(stream_->session().nc(), frame->message.get());
      frames.clear();
      lock.lock();
      if (status != NATS_OK) trouble_ = true;
    }
  }

  void take_answer(natsMsg *message) {
    const std::string_view subject = natsMsg_GetSubject(message);
    const auto number_at = [&](size_t dot) {
      uint64_t number = 0;
      std::from_chars(subject.data() + dot + 1, subject.data() + subject.size(), number);
      return number;
    };
    const size_t last_dot = subject.rfind('.');
    const uint64_t index = number_at(last_dot), round = number_at(subject.rfind('.', last_dot - 1));
    const Stored stored = read_stored(message);
    std::vector<std::shared_ptr<Frame>> spent;  // each that goes by itself wakes a thread of the library
    std::lock_guard lock(mutex_);
    if (spent_bytes_ > kMostSpentBytes || spent_.size() >= kFramesAtATime) {
      spent_.swap(spent);
      spent_bytes_ = 0;
    }
    if (index < window_.first() || index > window_.last()) return;
    if (stored.at == base_ + index) {
      settle_stored(index);
    } else if (stored.at == 0 && round == round_) {
      in_doubt_ = stored.error == JSStreamWrongLastSequenceErr && index == window_.first();
      full_ = is_full(stored.error);
      trouble_ = true;
    }
    const bool has_more = published_ < std::min(kBusy, kept_.size());
    if (trouble_ || has_more || purge_to_ != 0 || window_.empty()) wake();
    const size_t most_frames = options_.window_frames, most_bytes = options_.window_bytes;
    const bool has_room =
        window_.frames() <= std::max(kBusy, most_frames / 4 * 3) && window_.bytes() <= most_bytes / 4 * 3;
    if (trouble_ || has_room) changed_.notify_all();
  }

  void settle_stored(uint64_t last) {
    heard_ = Clock::now();
    alone_ = full_ = false;
    silences_ = 0;
    not_before_ = doubted_ = Deadline();
    for (; !kept_.empty() && window_.first() <= last; kept_.pop_front()) {
      stored_at_ = base_ + window_.first();
      spent_bytes_ += window_.first_bytes();
      window_.settle_first(true);
      if (kept_.front().first_of_table) table_at_ = stored_at_;
      if (kept_.front().last_of_table) purge_to_ = table_at_;
      if (published_ != 0) --published_;
      spent_.push_back(std::move(kept_.front().frame));
    }
  }

  // Something else may have the place of the first frame: itself, when the answer is lost and the server has forgotten
  // its ID; another writer; or something foreign, behind which it goes on.
  void look(Lock &lock) {
    const uint64_t first = window_.first(), place = base_ + first;
    const auto frame = kept_.front().frame;
    const auto stream = stream_;
    lock.unlock();
    Message found;
    Owned<jsStreamInfo> info;
    const bool known = stream->get(place, found) == KELVODRIX_OK;
    const bool informed = known && found == nullptr && stream->info(info) == KELVODRIX_OK;
    lock.lock();
    in_doubt_ = false;
    trouble_ = true;
    if (first != window_.first()) return;
    if (found != nullptr) {
      not_before_ = Deadline();
      if (header_of(found.get(), "Nats-Msg-Id") == frame->id) return settle_stored(first);
      if (natsMsg_GetSubject(found.get()) == place_.subject + "w") return lose();
      ++base_;
    }
    if (!informed) return;
    if (info->State.LastSeq >= place) return lose();  // somebody has purged that
    if (info->State.LastSeq == place - 1) return;
    if (doubted_ == Deadline()) doubted_ = Clock::now();
    if (Clock::now() - doubted_ > kLostForGood) lose();
  }

  // The stream takes nothing more of this writer.
  void lose() {
    lost_ = true;
    window_.lose_all();
    kept_.clear();
    published_ = 0;
    trouble_ = false;
    changed_.notify_all();
  }

  void purge(Lock &lock) {
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = kCallMs;
    options.Stream.Purge.Sequence = purge_to_;  // which stays
    const auto stream = stream_;
    lock.unlock();
    const natsStatus status = js_PurgeStream(stream->js(), stream->name(), &options, nullptr);
    lock.lock();
    if (status != NATS_OK) {
      next_purge_ = Clock::now() + kResendInterval;
    } else if (purge_to_ == options.Stream.Purge.Sequence) {
      purge_to_ = 0;
    }
    changed_.notify_all();
  }

  // What all receivers have handled.
  void ask(Lock &lock) {
    const uint64_t stored_now = stored(), last = stored_at_;
    const auto stream = stream_;
    asked_ = false;
    next_question_ = Clock::now() + ask_again_;
    ask_again_ = std::min(2 * ask_again_, kLook);
    lock.unlock();
    uint64_t handled = stored_now;
    const bool good = find_handled(*stream, last, handled);
    lock.lock();
    if (!good) return;
    handled_ = handled;
    fresh_ = true;
    changed_.notify_all();
  }

  bool find_handled(const Stream &stream, uint64_t last, uint64_t &handled) {
    Owned<jsStreamInfo> table;
    if (stream.info(table) != KELVODRIX_OK || floors_.look(table->Created) != KELVODRIX_OK) return false;
    if (table->State.LastSeq < last) return false;
    // The frames tell how many messages there were before them. What was purged nobody has to handle.
    Message frame;
    for (uint64_t at = std::max({floors_.lowest(last) + 1, begin_at_ + 1, table->State.FirstSeq}); at <= last; ++at) {
      if (stream.get(at, frame) != KELVODRIX_OK || frame == nullptr) return false;
      const std::string_view id = header_of(frame.get(), "Nats-Msg-Id");
      if (!id.starts_with(name_)) continue;
      std::from_chars(id.data() + name_.size() + 1, id.data() + id.size(), handled);
      break;
    }
    return true;
  }

  const Place place_;
  const kelvodrix_options options_;
  std::string name_;

  std::mutex mutex_;  // guards what follows but for what is the thread's own
  std::condition_variable changed_;
  Window window_;
  std::vector<uint8_t> large_;                 // to make a large frame in
  std::vector<std::shared_ptr<Frame>> spent_;  // some that are stored
  size_t spent_bytes_ = 0;
  std::deque<Kept> kept_;               // as many as in the window
  size_t published_ = 0;                // of these, in this round
  std::atomic<uint64_t> silences_ = 0;  // instead of an answer
  uint64_t round_ = 0;                  // of sending what is not stored
  bool alone_ = false;                  // no more than one at a time: the first has to be stored
  bool trouble_ = false;                // a round has failed
  bool in_doubt_ = false;               // the first frame's place seems to be taken
  bool full_ = false;                   // the stream is
  bool lost_ = false;                   // another one writes
  bool closed_ = false;
  uint64_t base_ = 0;                   // the place of a frame is this and its number in the window
  uint64_t begin_at_ = 0;               // the place at which it has begun
  uint64_t stored_at_ = 0;              // the place of the last frame that is stored
  uint64_t messages_ = 0;               // taken
  uint64_t handled_ = 0;                // of these, by all receivers
  bool asked_ = false, fresh_ = false;  // handled_ is wanted, and as it was after that
  milliseconds ask_again_ = kSoon;      // after so long
  bool next_begins_table_ = true;
  uint64_t table_at_ = 0;  // the place of the last table's first frame
  uint64_t purge_to_ = 0;  // not 0: the place up to which the stream is to be purged
  Deadline heard_{}, not_before_{}, doubted_{};
  int32_t reached_ = KELVODRIX_ERR_SERVER;  // what the last attempt to begin has come to
  bool begun_ = false, wanted_ = false;
  size_t most_bytes_ = 0;
  std::condition_variable thread_;
  bool news_ = false;

  // The thread's own.
  std::shared_ptr<Stream> stream_;
  std::string inbox_;
  std::optional<Subscription> answers_;
  Floors floors_;
  Deadline next_attempt_{}, next_question_{}, next_purge_{};
};

}  // namespace

std::shared_ptr<Link> make_stream_link(const Place &place, const kelvodrix_options &options) {
  const auto writer = std::make_shared<Writer>(place, options);
  writer->start();
  return {writer.get(), [writer](Link *) { writer->stop(); }};
}

void finish_streams() {
  const Deadline start = Clock::now();
  std::vector<std::shared_ptr<Writer>> left;
  {
    std::lock_guard lock(writers().mutex);
    for (const auto &each : writers().all) left.push_back(each.lock());
  }
  for (const auto &each : left) {
    if (each == nullptr) continue;
    each->finish(start);
    each->stop();
  }
}

}  // namespace kelvodrix
