// A message looked into, as far as is asked for.
#pragma once

#include <optional>
#include <vector>

#include "capture/message.h"
#include "inspect/extent.h"
#include "inspect/record.h"
#include "inspect/walk.h"
#include "inspect/where.h"

namespace quopa {

using capture::Message;

// Valid as long as the message. All but type() is for messages of a known type.
class Look {
 public:
  explicit Look(const Message &message) : message_(message), type_(message.type()) {}
  Look(const Look &) = delete;
  Look &operator=(const Look &) = delete;

  const Message &message() const { return message_; }
  const drix::describe::Type *type() const { return type_; }  // null when the trace does not know it

  const drix::inspect::Verdict &verdict() {
    if (!verdict_) walk(nullptr);
    return *verdict_;
  }

  // Whether a decoder rejects it; of what was cut nobody can tell.
  bool is_rejected() { return type_ != nullptr && !message_.is_cut() && !verdict().accepted(); }

  // As far as it is decoded, see extent().
  const uint8_t *record() {
    if (!builder_) {
      builder_.emplace(*type_, message_.payload.data());
      walk(&*builder_);
    }
    return builder_->record().data();
  }

  // Members for which the message was chosen.
  std::vector<drix::inspect::Where::Match> &matches() { return matches_; }

  drix::inspect::Extent extent() { return extent_of(verdict()); }

 private:
  void walk(drix::inspect::Sink *sink) {
    verdict_ =
        drix::inspect::walk(*type_, message_.payload.data(), static_cast<uint32_t>(message_.payload.size()), sink);
  }

  const Message &message_;
  const drix::describe::Type *type_;
  std::optional<drix::inspect::Verdict> verdict_;
  std::optional<drix::inspect::RecordBuilder> builder_;
  std::vector<drix::inspect::Where::Match> matches_;
};

}  // namespace quopa
