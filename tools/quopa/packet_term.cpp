#include "tools/quopa/packet_term.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>

#include "describe/printable.h"
#include "tools/quopa/moment.h"

namespace quopa {
namespace {

using capture::Message;
using drix::inspect::compares;
using drix::inspect::Comparison;
using drix::inspect::Term;
using drix::inspect::WhereError;

struct Number {
  const char *name;
  uint64_t (*of)(const Message &message);
};

constexpr Number kNumbers[] = {
    {".process", [](const Message &message) -> uint64_t { return message.origin->process; }},
    {".thread", [](const Message &message) -> uint64_t { return message.thread; }},
    {".handle", [](const Message &message) -> uint64_t { return message.handle; }},
    {".destination", [](const Message &message) -> uint64_t { return message.destination; }},
    {".packet", [](const Message &message) -> uint64_t { return message.packet; }},
    {".size", [](const Message &message) -> uint64_t { return message.length; }},
};
constexpr const char *kOthers[] = {".time", ".program", ".status"};

template <class T>
int order(T a, T b) {
  return a < b ? -1 : a > b;
}

int64_t number_of(const Term &term) {
  int64_t number = 0;
  const char *const end = term.value.data() + term.value.size();
  const auto [last, error] = std::from_chars(term.value.data(), end, number);
  if (error != std::errc() || last != end)
    throw WhereError(term.text + ": " + drix::describe::quoted(term.value) + " is no number");
  return number;
}

bool wants_equal(const Term &term) {
  if (term.comparison != Comparison::equal && term.comparison != Comparison::unequal) {
    throw WhereError(term.text + ": " + term.path + " goes with = and != only");
  }
  return term.comparison == Comparison::equal;
}

std::function<bool(const Message &, uint64_t)> time_term(const Term &term) {
  try {
    return [moment = Moment(term.value), comparison = term.comparison](const Message &message, uint64_t start) {
      const auto [first, last] = moment.in(start);
      return compares(comparison, message.time < first ? -1 : message.time > last);
    };
  } catch (const MomentError &error) {
    throw WhereError(term.text + ": " + error.what());
  }
}

std::function<bool(const Message &, uint64_t)> status_term(const Term &term) {
  constexpr std::pair<std::string_view, bool (*)(int32_t status)> kWords[] = {
      {"ok", [](int32_t status) { return status == 0; }},
      {"failed", [](int32_t status) { return status != 0 && status != TRACE_NO_ANSWER; }},
      {"unanswered", [](int32_t status) { return status == TRACE_NO_ANSWER; }}};
  for (const auto &[word, is_so] : kWords) {
    if (term.value != word) continue;
    return [equal = wants_equal(term), holds = is_so](const Message &message, uint64_t) {
      return holds(message.status) == equal;
    };
  }
  return [number = number_of(term), comparison = term.comparison](const Message &message, uint64_t) {
    return compares(comparison, order(int64_t{message.status}, number));
  };
}

}  // namespace

std::vector<std::string> PacketTerm::names() {
  std::vector<std::string> names(std::begin(kOthers), std::end(kOthers));
  for (const Number &number : kNumbers) names.emplace_back(number.name);
  return names;
}

PacketTerm::PacketTerm(const Term &term) {
  if (term.path == ".time") {
    holds_ = time_term(term);
  } else if (term.path == ".status") {
    holds_ = status_term(term);
  } else if (term.path == ".program") {
    holds_ = [glob = term.value, equal = wants_equal(term)](const Message &message, uint64_t) {
      return (fnmatch(glob.c_str(), message.origin->program.c_str(), 0) == 0) == equal;
    };
  } else {
    const auto number = std::find_if(std::begin(kNumbers), std::end(kNumbers),
                                     [&](const Number &one) { return one.name == term.path; });
    if (number == std::end(kNumbers)) {
      drix::describe::Suggestion suggestion(term.path);
      std::string all;
      for (const std::string &name : names()) {
        suggestion.consider(name);
        all += ' ' + name;
      }
      throw WhereError("no " + drix::describe::quoted(term.path) +
                       (suggestion.is_there() ? suggestion.text() : "; messages have" + all));
    }
    holds_ = [of = number->of, wanted = number_of(term), comparison = term.comparison](const Message &message,
                                                                                       uint64_t) {
      return compares(comparison, order(static_cast<int64_t>(of(message)), wanted));
    };
  }
}

}  // namespace quopa
