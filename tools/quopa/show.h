// A message as a line of text or of JSON.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "tools/quopa/look.h"
#include "tools/quopa/styles.h"

namespace quopa {

// PACKAGE.MESSAGE, or 0x and the ID of a type that the trace does not know.
std::string type_name(const Message &message);

// "2025-11-25 09:17:01.123456", local time; or without the date.
std::string time_text(uint64_t nanoseconds, bool with_date);

// Nanoseconds as seconds: "1764062221.123456789".
std::string seconds_text(uint64_t nanoseconds);

// What the recorder has to tell beside messages: "5 messages were not recorded"; empty for what only describes the
// file.
std::string note_text(const Message &note);

// A member that has its own bytes, of a table's record.
bool is_zero(const drix::describe::SlotInfo &slot, const uint8_t *table);
std::string value_text(const drix::describe::SlotInfo &slot, const uint8_t *table, const drix::inspect::Label *label);

// In quotes.
std::string json_string(const std::string &text);

// What a line begins with.
struct LineStyle {
  bool has_capture = true;         // the packet's number has its capture in front
  bool has_date = false;           // and the time has the date
  bool has_color = false;          // what went wrong is red
  std::optional<uint64_t> before;  // the time of the line before, to which the distance is told
};

// Write one line, without its end. Of a record, the text has the members that are not zero.
void show_text(std::ostream &out, Look &look, const drix::inspect::JsonStyle &style, const LineStyle &line = {});
void show_json(std::ostream &out, Look &look, const drix::inspect::JsonStyle &style, bool with_bytes = false);

// Writes a line where there is something to tell.
void show_note(std::ostream &out, const Message &note, bool json, const LineStyle &line = {});

// CAPTURE#NUMBER, as it may be given to a command.
std::string packet_name(const Message &message);

}  // namespace quopa
