#include "trace/folder.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "capture/format.h"
#include "trace/ring.h"
#include "trace/settings.h"
#include "trace/text.h"

namespace trace {
namespace {

constexpr char kHidden[] = ".new";
constexpr uint32_t kLongestNumber = 20;
static_assert(sizeof TRACE_FILE_PREFIX + sizeof Settings::program + 1 + kLongestNumber + 1 + kLongestNumber +
                  sizeof TRACE_FILE_SUFFIX <=
              sizeof Name::text);

int folder = -1;
struct stat opened;

bool is_open() {
  struct stat now;
  return folder >= 0 && fstat(folder, &now) == 0 && now.st_dev == opened.st_dev && now.st_ino == opened.st_ino;
}

// The same descriptor with a number that few processes get to: all others are given away as without the recorder.
int move_up(int descriptor) {
  constexpr rlim_t kSelectable = 1024;
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t numbers = limit.rlim_cur < kSelectable ? limit.rlim_cur : kSelectable;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, static_cast<int>(numbers - numbers / 8));
  close(descriptor);
  return moved;
}

char *append_start(char *at) {
  at = append(append(at, TRACE_FILE_PREFIX), settings().program);
  at = append(append(at, "-"), static_cast<uint64_t>(getpid()));
  return append(at, ".");
}

}  // namespace

int open_folder() {
  if (is_open()) return folder;
  folder = open(settings().folder, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) folder = move_up(folder);
  if (folder >= 0) fstat(folder, &opened);
  return folder;
}

Name file_name(uint32_t number) {
  Name name;
  append(append(append_start(name.text), number), TRACE_FILE_SUFFIX);
  return name;
}

Name hidden_name() {
  Name name;
  append(append(append_start(name.text), clock_now()), kHidden);
  return name;
}

}  // namespace trace
