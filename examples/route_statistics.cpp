#include "route_statistics.h"

#include <net/route.h>

#include <cstddef>

namespace routes {
namespace {

const char *kind(uint32_t flags) {
  if (flags & RTF_REJECT) return "rejected";
  if (flags & RTF_LOCAL) return "of this host";
  if (flags & RTF_GATEWAY) return "over a gateway";
  return "on a link";
}

// A list after a label, broken into lines.
class Paragraph {
 public:
  explicit Paragraph(const std::string &label) : text_(label), column_(label.size()), indent_(label.size()) {}

  void add(const std::string &item) {
    const bool first = column_ == indent_;
    if (!first) text_ += ',';
    if (column_ + item.size() + 3 > 80) {
      text_ += '\n' + std::string(indent_, ' ');
      column_ = indent_;
    } else if (!first) {
      text_ += ' ';
      column_ += 2;
    }
    text_ += item;
    column_ += item.size();
  }

  std::string text() const { return text_ + '\n'; }

 private:
  std::string text_;
  std::size_t column_;
  std::size_t indent_;
};

}  // namespace

void Statistics::take(const fib6Sync_ipv6Fwd &route, const std::string &interface) {
  ++kinds_[kind(route.f2)];
  ++interfaces_[interface];
  ++prefix_lengths_[route.f4];
}

std::string Statistics::summary() const {
  Paragraph kinds("By kind:       ");
  for (const auto &[kind, count] : kinds_) kinds.add(std::to_string(count) + " " + kind);
  Paragraph interfaces("By interface:  ");
  for (const auto &[interface, count] : interfaces_) interfaces.add(interface + " " + std::to_string(count));
  Paragraph lengths("By length:     ");
  for (const auto &[length, count] : prefix_lengths_) {
    lengths.add("/" + std::to_string(length) + " " + std::to_string(count));
  }
  return kinds.text() + interfaces.text() + lengths.text();
}

}  // namespace routes
