#include "platform/change_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

constexpr std::uint32_t kEvents = IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_MOVE_SELF | IN_DELETE_SELF | IN_DONT_FOLLOW;

}  // namespace

ChangeWatch::ChangeWatch() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

ChangeWatch::~ChangeWatch() {
  if (fd_ >= 0) ::close(fd_);
}

bool ChangeWatch::arm(const std::vector<std::string>& paths) {
  if (fd_ < 0) return false;
  // The old watches go first, then every queued event (their removal queues some too), so what
  // the queue holds afterwards happened after the new watches were set.
  for (int watch : watches_) ::inotify_rm_watch(fd_, watch);
  watches_.clear();
  alignas(inotify_event) char buffer[4096];
  while (::read(fd_, buffer, sizeof buffer) > 0) {
  }
  for (std::size_t i = 0; i < paths.size(); ++i) {
    int watch = ::inotify_add_watch(fd_, paths[i].c_str(), kEvents);
    if (watch >= 0) {
      watches_.push_back(watch);
    } else if (i == 0 || errno != ENOENT) {
      for (int added : watches_) ::inotify_rm_watch(fd_, added);
      watches_.clear();
      return false;
    }
  }
  return true;
}
