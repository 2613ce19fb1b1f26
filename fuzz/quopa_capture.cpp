// Any bytes as a capture: every message in it is judged, shown and asked for what it holds, and what is accepted can be
// encoded again from the JSON that is shown.
#include <sstream>

#include "capture/file.h"
#include "inspect/where.h"
#include "target.h"
#include "tools/quopa/command.h"
#include "tools/quopa/show.h"

namespace {

void look_at(const capture::Message &message) {
  static const drix::inspect::JsonStyle style;
  static drix::inspect::Where conditions[] = {drix::inspect::Where("f1.f3=2001:db8::/32"),
                                              drix::inspect::Where("f2>=07")};
  std::ostringstream shown;
  if (message.kind == TRACE_NOTE) return quopa::show_note(shown, message, true);
  quopa::Look look(message);
  show_text(shown, look, style);
  show_json(shown, look, style);
  if (look.type() == nullptr) return;
  const uint8_t *const record = look.record();
  for (auto &condition : conditions) condition.holds(*look.type(), record, look.extent(), style.labels);
  if (!look.verdict().accepted()) return;
  std::ostringstream json;
  write_json(json, *look.type(), record, style);
  drix::inspect::read_json(json.str(), *look.type(), style.labels);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  try {
    capture::File capture(std::span(data, size));
    while (const capture::Message *message = capture.next()) look_at(*message);
  } catch (const capture::BadCapture &) {
  }
  return 0;
}
