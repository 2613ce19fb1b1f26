// The one thread of a sending process: writes what sends have left unwritten, to gather more or for want of room.
#ifndef KELVODRIX_PUMP_H
#define KELVODRIX_PUMP_H

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>

namespace kelvodrix {

class Link;

class Pump {
 public:
  // Of this process; started when it is first asked for. Throws std::system_error. Lives for good.
  static Pump &get();

  // Has Link::pump called soon, and again for as long as it returns true. False without memory for that: the link's
  // next send or flush does as well.
  bool add(std::shared_ptr<Link> link) noexcept;

 private:
  Pump();
  void run();

  std::mutex mutex_;
  std::condition_variable added_;
  std::list<std::shared_ptr<Link>> links_;
};

}  // namespace kelvodrix

#endif
