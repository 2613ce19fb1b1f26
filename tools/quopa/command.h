// The commands of quopa: what each can be told, and how it ends.
#pragma once

#include <stdexcept>
#include <string>

namespace quopa {

// Exit statuses.
inline constexpr int kGood = 0;
inline constexpr int kBad = 1;    // bad input, a rejected buffer, or differences found
inline constexpr int kUsage = 2;  // the command line is wrong

// One line for the user, behind "quopa: ".
struct BadInput : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct BadUsage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct TypesOptions {
  std::string which;
  std::string old_schema;
  bool json = false;
  bool schema = false;
};
int types(const TypesOptions &options);

struct DecodeOptions {
  std::string type;
  std::string file = "-";
  std::string labels;
  bool hex = false;
  bool ipv6 = false;
};
int decode(const DecodeOptions &options);

struct EncodeOptions {
  std::string type;
  std::string file = "-";
  std::string labels;
  std::string layout;
  std::string output;
  bool hex = false;
};
int encode(const EncodeOptions &options);

struct AnnotateOptions {
  std::string type;
  std::string file = "-";
  std::string labels;
  std::string color = "auto";
  bool hex = false;
  bool ipv6 = false;
  bool full = false;
};
int annotate(const AnnotateOptions &options);

}  // namespace quopa
