#include "capture/file.h"

namespace capture {

void File::fail(const std::string &what) const { throw BadCapture(name_of(path_) + ": " + what); }

const Message *File::next() {
  using Found = Blocks::Found;
  if (packets_ > 0) blocks_.pass();
  Found found = blocks_.look();
  for (; found == Found::filler; found = blocks_.look()) blocks_.pass();
  if (found == Found::end && blocks_.knows_format()) return nullptr;
  if (found == Found::gone) fail("was deleted, or written anew by its process, before it was read to its end");
  if (found != Found::packet) {
    const std::string what = found == Found::damaged ? blocks_.damage() : "it ends in the middle of a block";
    if (!blocks_.knows_format()) fail("no capture file: " + (found == Found::end ? "it is empty" : what));
    fail("damaged behind packet " + std::to_string(packets_) + ", at byte " + std::to_string(blocks_.position()) +
         ": " + what);
  }
  ++packets_;
  try {
    message_ = take_packet(blocks_.packet(), origin_);
    message_.packet = packets_;
  } catch (const BadCapture &error) {
    fail("packet " + std::to_string(packets_) + ": " + error.what());
  }
  return &message_;
}

}  // namespace capture
