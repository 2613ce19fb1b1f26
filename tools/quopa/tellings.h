// What the messages of captures tell of tables.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "capture/timeline.h"
#include "inspect/table.h"
#include "tools/quopa/moment.h"
#include "tools/quopa/selection.h"

namespace quopa {

// Whose table it is: what a process sent, or what it received.
struct Teller {
  std::string program;
  uint32_t process;
  TraceKind kind;
  std::size_t number;  // in the order in which they are seen

  bool is_sent() const { return kind == TRACE_SENT; }
};

std::string who(const Teller &teller);  // program and process

// Where packets come from.
struct Source {
  std::string capture;
  const Teller *teller;
  const drix::inspect::JsonStyle *style;  // of the version's types
};

// A packet.
struct Mark {
  uint64_t time = 0;
  uint64_t packet = 0;
  const Source *source = nullptr;
};

struct Told {
  const drix::inspect::Telling &telling;
  const std::string &key;
  const std::string &image;
  Mark mark;
};

class Tellings {
 public:
  // Of the selection, the conditions are left to the caller. Throws BadUsage and BadInput.
  Tellings(const SelectionOptions &options, Styles &styles);

  // Reads captures, and takes what was told until then. A send that failed tells nothing, nor does what a decoder
  // rejects or what the recorder cut. What there is to say of the captures is said once.
  using Take = std::function<void(const Told &)>;
  void read(const std::vector<std::string> &paths, const std::optional<Moment> &until, const Take &take,
            bool is_again = false);

  // The same of one message, which is no note.
  void take(const Message &message, const Take &take) { take_message(message, take, false); }

  const drix::inspect::Tables &tables() const { return tables_; }
  const std::deque<Teller> &tellers() const { return tellers_; }

  // Says on standard error what there is to know of captures that were read: what was left out and what may be missing.
  void complain_of_gaps() const;

  bool is_whole() const { return is_whole_; }
  uint64_t first() const { return first_; }  // time of what was read

 private:
  void take_message(const Message &message, const Take &take, bool is_again);
  const Source &source_of(const Message &message);

  Styles &styles_;
  capture::Timeline::Open open_;
  Selection selection_;
  drix::inspect::Tables tables_;
  std::deque<Teller> tellers_;
  std::deque<Source> sources_;
  const Source *last_source_ = nullptr;
  std::string key_;
  std::string image_;
  uint64_t rejected_ = 0;
  uint64_t cut_ = 0;
  uint64_t failed_ = 0;
  uint64_t first_ = UINT64_MAX;
  bool is_whole_ = true;
};

// The time that an option gives, if it does. Throws BadUsage.
std::optional<Moment> moment_of(const std::string &option, const std::string &text);

// Tells of rings whose first files were written anew.
void tell_overwritten(const std::string &path);

}  // namespace quopa
