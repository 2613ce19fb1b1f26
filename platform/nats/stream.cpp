#include "stream.h"

#include <algorithm>
#include <charconv>

namespace kelvodrix {

namespace {

constexpr int64_t kReplicasInACluster = 3;
// How long the server knows the IDs of messages, in ns: for frames that are sent again soon. Later it is asked what it has.
constexpr int64_t kRemembered = 10'000'000'000;
constexpr int64_t kFloorsBytes = 8 << 20;

}  // namespace

int32_t Stream::open(bool makes) {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kCallMs;
  jsCtx *context = nullptr;
  const natsStatus made = natsConnection_JetStream(&context, session_->nc(), &options);
  js_.reset(context);
  jsStreamInfo *found = nullptr;
  jsErrCode error{};
  const natsStatus status = made == NATS_OK ? js_GetStreamInfo(&found, js(), name(), nullptr, &error) : made;
  const Owned<jsStreamInfo> owned(found);
  return error == JSStreamNotFoundErr && makes ? add() : this->status(status, error);
}

int32_t Stream::add() const {
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const bool of_floors = name_.starts_with(kBucket);
  const std::string subjects = of_floors ? "$KV." + name_.substr(kBucket.size()) + ".>"
                                         : name_.substr(0, 4) + "-stream." + name_.substr(5) + ".>";
  const char *const all[] = {subjects.c_str()};
  config.Name = name();
  config.Subjects = const_cast<const char **>(all);
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Discard = js_DiscardNew;  // or a full stream would lose the start of the table in silence
  config.MaxBytes = of_floors ? kFloorsBytes : session_->settings().max_bytes;
  if (of_floors) {
    config.MaxMsgsPerSubject = 1;
    config.AllowRollup = config.DenyDelete = true;
  } else {
    config.Duplicates = kRemembered;
  }
  const int64_t asked = session_->settings().replicas;
  config.Replicas = asked != 0 ? asked : kReplicasInACluster;
  jsErrCode error{};
  natsStatus status = js_AddStream(nullptr, js(), &config, nullptr, &error);
  if (error == JSStreamReplicasNotSupportedErr && asked == 0) {  // a server alone
    config.Replicas = 1;
    status = js_AddStream(nullptr, js(), &config, nullptr, &error);
  }
  return error == JSStreamNameExistErr ? KELVODRIX_OK : this->status(status, error);  // somebody else was quicker
}

int32_t Stream::status(natsStatus status, jsErrCode error) const {
  if (status == NATS_OK) return KELVODRIX_OK;
  if (const int32_t own = session_->status(); own != KELVODRIX_OK) return own;
  if (status == NATS_NO_RESPONDERS) return KELVODRIX_ERR_STREAM;
  return error == 0 || error == JSClusterNotAvailErr ? KELVODRIX_ERR_SERVER : KELVODRIX_ERR_STREAM;
}

int32_t Stream::info(Owned<jsStreamInfo> &info, Details details) const {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kCallMs;
  if (details == kSubjects) options.Stream.Info.SubjectsFilter = ">";
  options.Stream.Info.DeletedDetails = details == kDeleted;
  jsStreamInfo *found = nullptr;
  jsErrCode error{};
  const natsStatus status = js_GetStreamInfo(&found, js(), name(), &options, &error);
  info.reset(found);
  return this->status(status, error);
}

int32_t Stream::get(uint64_t place, Message &message) const {
  natsMsg *got = nullptr;
  jsErrCode error{};
  const natsStatus status = js_GetMsg(&got, js(), name(), place, nullptr, &error);
  return take(status, error, got, message);
}

int32_t Stream::get_last(const std::string &subject, Message &message) const {
  natsMsg *got = nullptr;
  jsErrCode error{};
  const natsStatus status = js_GetLastMsg(&got, js(), name(), subject.c_str(), nullptr, &error);
  return take(status, error, got, message);
}

natsStatus Stream::store(natsMsg *message, Stored &stored) const {
  natsMsg *answer = nullptr;
  const natsStatus status = natsConnection_RequestMsg(&answer, session_->nc(), message, kCallMs);
  const Message owned(answer);
  stored = status == NATS_OK ? read_stored(answer) : Stored();
  return status;
}

void Stream::step_down() const {
  const std::string subject = "$JS.API.STREAM.LEADER.STEPDOWN." + name_, answer = session_->inbox();
  natsConnection_PublishRequest(session_->nc(), subject.c_str(), answer.c_str(), nullptr, 0);
}

int32_t Stream::take(natsStatus status, jsErrCode error, natsMsg *got, Message &message) const {
  message.reset(got);
  const bool none = status == NATS_NOT_FOUND || error == JSNoMessageFoundErr;
  return none ? KELVODRIX_OK : this->status(status, error);
}

// {"stream":NAME,"seq":PLACE,...} or {"error":{...,"err_code":CODE,...},...}
Stored read_stored(natsMsg *answer) {
  const std::string_view text = text_of(answer);
  const auto number_after = [&](std::string_view word) {
    const size_t at = text.find(word);
    uint64_t number = 0;
    if (at != text.npos) std::from_chars(text.data() + at + word.size(), text.data() + text.size(), number);
    return number;
  };
  if (natsMsg_IsNoResponders(answer)) return {};
  if (text.find("\"error\"") == text.npos) return {number_after("\"seq\":"), {}};
  return {0, static_cast<jsErrCode>(number_after("\"err_code\":"))};
}

}  // namespace kelvodrix
