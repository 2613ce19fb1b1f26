// Any text against what quopa reads: JSON for a type, label files, schemas. The first byte chooses the reader, for JSON
// the type too. What is taken as JSON is written and read again as the same record.
#include <sstream>

#include "describe/catalog.h"
#include "describe/compatibility.h"
#include "inspect/json.h"
#include "target.h"
#include "tools/records/records.h"

namespace {

void read_json(const reference::Type &type, const std::string &text) {
  static const drix::inspect::JsonStyle style;
  const drix::describe::Type &described = *drix::describe::find(type.prefix());
  const auto record = drix::inspect::read_json(text, described, style.labels);
  std::ostringstream written;
  write_json(written, described, record.data(), style);
  const auto again = drix::inspect::read_json(written.str(), described, style.labels);
  if (!records::first_difference(type, record.data(), again.data()).empty()) std::abort();
}

// Whatever a type is like, any buffer of it can be shown.
void walk_and_show(const drix::describe::Type &type, const std::string &text) {
  const auto *const buffer = reinterpret_cast<const uint8_t *>(text.data());
  drix::inspect::RecordBuilder builder(type, buffer);
  const auto verdict = drix::inspect::walk(type, buffer, static_cast<uint32_t>(text.size()), &builder);
  std::ostringstream written;
  write_json(written, type, builder.record().data(), {}, verdict.accepted() ? nullptr : &verdict);
}

void read_schema(const std::string &text) {
  const auto schema = drix::describe::parse_schema(text);
  compare(schema, drix::describe::current_schema());
  const drix::describe::Catalog catalog(schema);
  for (const drix::describe::Type *type : catalog.types()) walk_and_show(*type, text);
  if (to_text(drix::describe::parse_schema(to_text(schema))) != to_text(schema)) std::abort();
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(data + 1, data + size);
  const auto &types = reference::all_types();
  try {
    if (data[0] < types.size()) read_json(*types[data[0]], text);
    if (data[0] == 0xFE) drix::inspect::Labels labels(text);
    if (data[0] == 0xFF) read_schema(text);
  } catch (const drix::inspect::JsonError &) {
  } catch (const drix::inspect::LabelError &) {
  } catch (const drix::describe::SchemaError &) {
  }
  return 0;
}
