// Judges the walk by the library and the reference, on every buffer that a program judges the decoder with.
#include <algorithm>

#include "inspect/record.h"
#include "inspect/walk.h"
#include "judge.h"

namespace {

using drix::inspect::Event;
using drix::inspect::Reason;
using drix::inspect::Verdict;

// Builds the record, and keeps which bytes were told.
class Told : public drix::inspect::Sink {
 public:
  Told(const drix::describe::Type &type, const uint8_t *buffer, uint32_t length)
      : builder(type, buffer), bytes_(length) {}

  void take(const drix::inspect::TablePath &path, std::span<const Event> events) override {
    for (const Event &event : events) add(event);
    if (!outside_) builder.take(path, events);
  }

  void add(const Event &event) {
    outside_ = outside_ || event.size == 0 || uint64_t{event.at} + event.size > bytes_.size();
    if (!outside_) std::fill_n(bytes_.begin() + event.at, event.size, true);
  }

  bool all() const { return !outside_ && std::find(bytes_.begin(), bytes_.end(), false) == bytes_.end(); }

  drix::inspect::RecordBuilder builder;

 private:
  std::vector<bool> bytes_;
  bool outside_ = false;
};

// What the decoder would log, in the words of the verdict.
std::string expected_log(const Verdict &verdict) {
  const std::string length = std::to_string(verdict.length);
  const std::string last = std::to_string(verdict.length - 4);
  const std::string target = std::to_string(verdict.target);
  switch (verdict.reason) {
    case Reason::length:
      return "[QUOPA]:Param invalid(nonNull, " + std::to_string(static_cast<int32_t>(verdict.length)) + ", nonNull)";
    case Reason::table_position:
      return "[QUOPA]:Table offset(" + target + ") is out of range(4 - " + length + ')';
    case Reason::vtable_position:
      return "[QUOPA]:Vtable offset(" + target + ") is out of range(4 - " + last + ')';
    case Reason::vtable_length:
      return "[QUOPA]:Vtable Len(" + std::to_string(verdict.culprit.value) + ") is out of range(0 - " +
             std::to_string(verdict.length - verdict.culprit.at) + ')';
    default:
      return {};
  }
}

// As the release of a record that was given up leaves it.
void forget_blocks(const records::Type &type, uint8_t *record) {
  for (const auto &slot : type.slots) {
    if (slot.kind == reference::Kind::table) forget_blocks(*slot.inner, record + slot.member);
    if (records::is_owner(slot)) records::point(record, slot, nullptr, records::length_in(record, slot));
  }
}

std::string judge_walk(const judge::Subject &subject, const uint8_t *buffer, uint32_t length, const void *record) {
  const drix::describe::Type *type = drix::describe::find(subject.type->prefix());
  if (type == nullptr || buffer == nullptr) return {};
  Told told(*type, buffer, length <= INT32_MAX ? length : 0);  // of a longer one, nothing is there to be told
  const Verdict verdict = walk(*type, buffer, length, &told);

  std::string faults;
  const judge::Outcome outcome = judge::last_outcome();
  if (verdict.accepted() != (outcome == judge::Outcome::complete))
    faults += "\n  the walk's verdict: " + explain(verdict);
  const auto &logs = judge::last_trace().logs;
  const std::string log = logs.empty() ? "" : logs[0].text;
  if (verdict.logged() == log.empty() || expected_log(verdict) != log) {
    faults += "\n  the walk has no reason for the log: " + explain(verdict);
  }
  if (!verdict.accepted() && length > 0) told.add(verdict.culprit);
  if (length <= INT32_MAX && !told.all()) faults += "\n  the walk tells of bytes that are not there, or not of all";
  if (outcome == judge::Outcome::rejected) return faults;
  uint8_t *const built = told.builder.record().data();
  if (outcome == judge::Outcome::given_up) forget_blocks(*subject.type, built);
  const std::string difference = records::first_difference(*subject.type, record, built);
  if (!difference.empty()) faults += "\n  the walk's record differs in " + difference;
  return faults;
}

[[maybe_unused]] const bool observing = (judge::also_judge(judge_walk), true);

}  // namespace
