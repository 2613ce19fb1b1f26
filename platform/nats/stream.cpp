#include "stream.h"

#include <algorithm>

namespace kelvodrix {

namespace {

constexpr int64_t kReplicasInACluster = 3;
// How long the server knows the IDs of messages, in ns: for frames that are sent again soon. Later it is asked what it has.
constexpr int64_t kRemembered = 10'000'000'000;

}  // namespace

int32_t Stream::open(bool makes) {
  jsOptions options;
  jsOptions_Init(&options);
  options.Wait = kCallMs;
  jsCtx *context = nullptr;
  natsStatus status = natsConnection_JetStream(&context, session_->nc(), &options);
  js_.reset(context);
  jsErrCode error{};
  Owned<jsStreamInfo> found;
  if (status == NATS_OK) status = info(found, error);
  return error == JSStreamNotFoundErr && makes ? add() : this->status(status, error);
}

int32_t Stream::add() const {
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const std::string subjects = name_.substr(0, 4) + "-stream." + name_.substr(5) + ".>";
  const char *const all[] = {subjects.c_str()};
  config.Name = name();
  config.Subjects = const_cast<const char **>(all);
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Discard = js_DiscardNew;  // or a full stream would lose the start of the table in silence
  config.MaxBytes = session_->settings().max_bytes;
  config.Duplicates = kRemembered;
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

natsStatus Stream::info(Owned<jsStreamInfo> &info, jsErrCode &error) const {
  jsStreamInfo *found = nullptr;
  const natsStatus status = js_GetStreamInfo(&found, js(), name(), nullptr, &error);
  info.reset(found);
  return status;
}

natsStatus Stream::consumer(const std::string &name, Owned<jsConsumerInfo> &info, jsErrCode &error) const {
  jsConsumerInfo *found = nullptr;
  const natsStatus status = js_GetConsumerInfo(&found, js(), this->name(), name.c_str(), nullptr, &error);
  info.reset(found);
  return status;
}

uint64_t floor_of(const jsConsumerInfo &info) {
  const uint64_t start = info.Config->OptStartSeq;
  return std::max(info.AckFloor.Stream, start != 0 ? start - 1 : 0);
}

}  // namespace kelvodrix
