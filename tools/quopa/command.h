// The commands of quopa: what each can be told, and how it ends.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace quopa {

// Exit statuses.
inline constexpr int kGood = 0;
inline constexpr int kBad = 1;    // bad input, a rejected buffer, or differences found
inline constexpr int kUsage = 2;  // the command line is wrong
inline constexpr int kHit = 3;    // a rule of watch has hit

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
  std::string type;  // or CAPTURE#NUMBER
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
  std::string type;  // or a packet of a capture, as for decode
  std::string file = "-";
  std::string labels;
  std::string color = "auto";
  bool hex = false;
  bool full = false;
};
int annotate(const AnnotateOptions &options);

// How endpoints at servers are read.
struct TapOptions {
  std::string bus = "libkelvodrix.so";
  bool follow = false;                          // goes on where a stream ends
  std::map<std::string, std::string> recorded;  // files that have what was read of endpoints
};

// Which messages of which captures; what is not asked for does not matter.
struct SelectionOptions {
  std::vector<std::string> paths;  // files, folders and endpoints
  TapOptions tap;
  std::vector<std::string> types;  // patterns as for file names; any of them
  std::vector<std::string> where;  // all of them
  std::string from;                // see Moment
  std::string to;
  std::string labels;
  bool any_element = false;  // see Where
  bool sent = false;
  bool received = false;
  bool rejected = false;
  bool failed = false;
};

struct TraceOptions {
  SelectionOptions selection;
  std::string output;
  uint64_t count = UINT64_MAX;
  bool json = false;
  bool bytes = false;
  bool bare = false;
  std::string color = "auto";
  bool date = false;
  bool delta = false;
  bool ipv6 = false;
};
int trace(const TraceOptions &options);

struct StatsOptions {
  SelectionOptions selection;
  uint64_t count = UINT64_MAX;
  bool json = false;
};
int stats(const StatsOptions &options);

struct CompareOptions {
  std::string sender;
  std::vector<std::string> receivers;  // one behind the other; empty: the sender's
  TapOptions tap;
  std::string labels;
  bool by_key = false;
  std::string color = "auto";
  bool json = false;
  bool ipv6 = false;
};
int compare(const CompareOptions &options);

// Of the selection, the conditions are on entries.
struct TableOptions {
  SelectionOptions selection;
  std::string at;
  bool json = false;
  bool ipv6 = false;
};
int table(const TableOptions &options);

struct HistoryOptions {
  SelectionOptions selection;
  std::string key;
  bool json = false;
  bool ipv6 = false;
};
int history(const HistoryOptions &options);

struct DiffOptions {
  SelectionOptions selection;  // without paths
  std::string here;            // either with @TIME
  std::string there;           // empty: what was received in the first
  bool json = false;
  bool ipv6 = false;
};
int diff(const DiffOptions &options);

struct WatchOptions {
  SelectionOptions selection;
  std::vector<std::string> rules;  // any of them
  std::string keep = "5s";
  std::string after = "1s";
  std::string folder = ".";
  std::string command;
  uint64_t count = UINT64_MAX;
};
int watch(const WatchOptions &options);

struct ReplayOptions {
  std::vector<std::string> paths;
  std::string endpoint;
  std::string speed = "1";
  std::string bus = "libkelvodrix.so";
  bool received = false;
};
int replay(const ReplayOptions &options);

struct DissectorOptions {
  std::string labels;
  std::string output;
};
int dissector(const DissectorOptions &options);

}  // namespace quopa
