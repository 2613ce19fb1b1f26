// Any text against what quopa reads: JSON for a type, label files, schemas with a message of their types. The first
// byte chooses the reader, for JSON the type too. What is taken as JSON is written and read again as the same record.
#include <algorithm>
#include <sstream>

#include "describe/compatibility.h"
#include "inspect/where.h"
#include "target.h"
#include "tools/quopa/show.h"
#include "tools/records/records.h"

namespace {

using drix::describe::Type;
using drix::inspect::JsonStyle;

void read_json(const reference::Type &type, const std::string &text) {
  static const JsonStyle style;
  const Type &described = *drix::describe::find(type.prefix());
  const auto record = drix::inspect::read_json(text, described, style.labels);
  std::ostringstream written;
  write_json(written, described, record.data(), style);
  const auto again = drix::inspect::read_json(written.str(), described, style.labels);
  if (!records::first_difference(type, record.data(), again.data()).empty()) std::abort();
}

void read_labels(const std::string &text) {
  const drix::inspect::Labels labels(text);
  for (const Type *type : drix::describe::types()) {
    for (std::size_t i = 0; i < type->slots.size(); ++i) {
      const drix::inspect::Label *label = labels.find(*type, i);
      if (label == nullptr) continue;
      if (labels.slot(*type, label->name) != i) std::abort();
      for (const auto &[word, value] : label->meaning) {
        if (label->value_of(word) != value) std::abort();
        if (!label->is_flags && label->text_of(value) != word) std::abort();
      }
    }
  }
}

// Whatever a type is like, a message of it can be shown in every way, and asked; what is accepted can be made again.
void look_at(const capture::Message &message, drix::inspect::Where &where) {
  static const JsonStyle styles[] = {{}, {.labels = {}, .ipv6 = true}};
  quopa::Look look(message);
  for (const JsonStyle &style : styles) {
    std::ostringstream text, json;
    show_text(text, look, style);
    show_json(json, look, style);
  }
  where.holds(*look.type(), look.record(), look.extent(), {}, &look.matches());
  std::ostringstream matched;
  show_text(matched, look, styles[0]);
  where.misfits({});
  if (!look.verdict().accepted()) return;
  std::ostringstream json, again;
  write_json(json, *look.type(), look.record(), styles[0]);
  write_json(again, *look.type(), drix::inspect::read_json(json.str(), *look.type(), {}).data(), styles[0]);
  if (json.str() != again.str()) std::abort();
}

// A schema, a condition and a message, with zeros between; the message is taken for one of each of the first types.
void read_schema(const std::string &input) {
  const std::size_t schema_end = std::min(input.find('\0'), input.size());
  const std::size_t where_end = std::min(input.find('\0', schema_end + 1), input.size());
  const auto schema = drix::describe::parse_schema(std::string_view(input).substr(0, schema_end));
  compare(schema, drix::describe::current_schema());
  if (to_text(drix::describe::parse_schema(to_text(schema))) != to_text(schema)) std::abort();
  const drix::describe::Catalog catalog(schema);
  if (where_end == input.size()) return;
  drix::inspect::Where where(input.substr(schema_end + 1, where_end - schema_end - 1));
  const std::vector<uint8_t> payload(input.begin() + static_cast<std::ptrdiff_t>(where_end) + 1, input.end());
  capture::Origin origin;
  origin.types = &catalog;
  constexpr std::size_t kTypes = 8;
  for (std::size_t i = 0; i < std::min(kTypes, catalog.types().size()); ++i) {
    capture::Message message = {};
    message.kind = TRACE_RECEIVED;
    message.id = catalog.types()[i]->id;
    message.length = static_cast<uint32_t>(payload.size());
    message.payload = payload;
    message.origin = &origin;
    look_at(message, where);
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(data + 1, data + size);
  const auto &types = reference::all_types();
  try {
    if (data[0] < types.size()) read_json(*types[data[0]], text);
    if (data[0] == 0xFE) read_labels(text);
    if (data[0] == 0xFF) read_schema(text);
  } catch (const drix::inspect::JsonError &) {
  } catch (const drix::inspect::LabelError &) {
  } catch (const drix::inspect::WhereError &) {
  } catch (const drix::describe::SchemaError &) {
  }
  return 0;
}
