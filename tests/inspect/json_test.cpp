// Every record survives the way through JSON, in every style.
#include <gtest/gtest.h>

#include <sstream>

#include "inspect/json.h"
#include "schema.h"
#include "tools/records/records.h"

namespace {

using drix::inspect::JsonStyle;
using drix::inspect::Labels;

// Labels for the first members of every type, of each kind that fits.
Labels labels_for_all() {
  std::string file;
  for (const drix::describe::Type *type : drix::describe::types()) {
    file += '[' + type->name() + "]\n";
    for (std::size_t i = 0; i < type->slots.size(); ++i) {
      const std::string name = 'f' + std::to_string(i);
      const drix::describe::SlotInfo &slot = type->slots[i];
      std::string what;
      if (slot.kind == drix::Kind::scalar)
        what = i % 2 == 0 ? "enum one=1 two-and-a-half=25 three=3" : "flags U=1 !=6 '=8";
      if (slot.kind == drix::Kind::array && slot.width == 4 && slot.elements == 4) what = "ipv6";
      file += name + " = label-" + name + ' ' + what + '\n';
    }
  }
  return Labels(file);
}

TEST(Json, IsReadBackAsTheSameRecord) {
  const JsonStyle styles[] = {{}, {.labels = {}, .ipv6 = true}, {.labels = labels_for_all()}};
  const records::Mix mixes[] = {{}, {.zeros = 50}, {.zeros = 100, .most_bytes = 0, .most_elements = 0}};
  records::Random random(1);
  int read = 0;
  for (const reference::Type *type : reference::all_types()) {
    const drix::describe::Type *described = drix::describe::find(type->prefix());
    ASSERT_NE(described, nullptr) << type->prefix();
    ASSERT_EQ(described->record_size, type->record_size);
    for (int i = 0; i < 30; ++i) {
      records::Arena arena;
      std::vector<uint8_t> record(type->record_size);
      records::fill_random(*type, record.data(), random, mixes[i % 3], arena);
      for (const JsonStyle &style : styles) {
        std::ostringstream text;
        write_json(text, *described, record.data(), style);
        const auto again = drix::inspect::read_json(text.str(), *described, style.labels);
        EXPECT_EQ(records::first_difference(*type, record.data(), again.data()), "") << text.str();
        ++read;
      }
    }
  }
  EXPECT_EQ(read, 9000);
}

}  // namespace
