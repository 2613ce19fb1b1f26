#include "tools/quopa/selection.h"

#include <fnmatch.h>

#include <algorithm>

#include "tools/quopa/complain.h"
#include "tools/quopa/show.h"

namespace quopa {

using drix::describe::Type;

Selection::Selection(const SelectionOptions &options)
    : sent_(options.sent), received_(options.received), rejected_(options.rejected), failed_(options.failed) {
  for (const std::string &glob : options.types) {
    const Type *const one = drix::describe::find(glob);  // also by the C record's name, or the ID
    globs_.push_back(one == nullptr ? glob : one->name());
  }
  matched_.resize(globs_.size());
  const auto read_moment = [](const char *option, const std::string &text, std::optional<Moment> &moment) {
    try {
      if (!text.empty()) moment.emplace(text);
    } catch (const MomentError &error) {
      throw BadUsage(std::string(option) + ' ' + error.what());
    }
  };
  read_moment("--from", options.from, from_);
  read_moment("--to", options.to, to_);
  try {
    for (const std::string &text : options.where) {
      const drix::inspect::Term term(text);
      if (PacketTerm::is_one(text)) {
        packet_terms_.emplace_back(term);
      } else {
        where_.add(term);
      }
    }
    if (options.any_element) where_.allow_any_element();
  } catch (const drix::inspect::WhereError &error) {
    throw BadUsage(std::string("--where ") + error.what());
  }
}

bool Selection::matches(const std::string &type_name) {
  bool any = globs_.empty();
  for (std::size_t i = 0; i < globs_.size(); ++i) {
    if (fnmatch(globs_[i].c_str(), type_name.c_str(), 0) == 0) any = matched_[i] = true;
  }
  return any;
}

// Told of every message, for the first one is what relative times go by.
bool Selection::takes_time(uint64_t time) {
  if (!start_) {
    start_ = time;
    if (from_) first_ = from_->in(time).first;
    if (to_) last_ = to_->in(time).last;
  }
  latest_ = std::max(latest_, time);
  const bool is_wanted = time >= first_ && time <= last_;
  in_time_ |= is_wanted;
  return is_wanted;
}

bool Selection::takes_type(const Look &look) {
  if (globs_.empty()) return true;
  if (look.type() == nullptr) return matches(type_name(look.message()));
  const auto known = known_.find(look.type());
  if (known != known_.end()) return known->second;
  return known_[look.type()] = matches(look.type()->name());
}

bool Selection::takes(Look &look, Styles &styles) {
  const Message &message = look.message();
  if (!takes_time(message.time)) return false;
  if ((sent_ && !message.is_sent()) || (received_ && !message.is_received())) return false;
  if (failed_ && !message.has_failed()) return false;
  if (!takes_type(look)) return false;
  const auto holds = [&](const PacketTerm &term) { return term.holds(message, *start_); };
  if (!std::all_of(packet_terms_.begin(), packet_terms_.end(), holds)) return false;
  if (rejected_ && !look.is_rejected()) return false;
  if (where_.is_empty()) return true;
  if (look.type() == nullptr) return false;
  const drix::inspect::Labels &labels = styles.of(*message.origin).labels;
  if (!where_.fits(*look.type(), labels)) return false;
  const uint8_t *const record = look.record();
  return where_.holds(*look.type(), record, look.extent(), labels, &look.matches());
}

void Selection::expect_fitting(Styles &styles) {
  static const Origin own;
  const drix::inspect::Labels &labels = styles.of(own).labels;
  for (std::size_t i = 0; i < globs_.size(); ++i) {
    for (const Type *type : own.types->types()) matches(type->name());
    if (matched_[i]) continue;
    const drix::describe::Suggestion suggestion = drix::describe::suggested_type(globs_[i]);
    throw BadUsage("no type matches \"" + globs_[i] + '"' +
                   (suggestion.is_there() ? suggestion.text() : "; \"quopa types\" lists them"));
  }
  const std::vector<std::string> misfits = where_.misfits(labels);
  for (const Type *type : own.types->types()) {
    if (matches(type->name())) where_.fits(*type, labels);
  }
  for (const std::string &misfit : where_.misfits(labels)) throw BadUsage("--where " + misfit);
  if (start_ && !in_time_) {
    complain("--from and --to leave nothing of messages from " + time_text(*start_, true) + " to " +
             time_text(latest_, true));
  }
  for (const std::string &misfit : misfits) complain("--where fits no message: " + misfit);
}

}  // namespace quopa
