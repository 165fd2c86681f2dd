#include "service/helper_transport.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "service/wire_frame.h"

namespace {

HelperProtocol::Response fault(const std::string& sentence) {
  return {HelperProtocol::faultPayload(sentence), true};
}

// Sets how long a read on `fd` may wait for data; zero waits for ever.
void setReceiveTimeout(int fd, std::chrono::seconds timeout) {
  struct timeval value {};
  value.tv_sec = static_cast<time_t>(timeout.count());
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
}

// Raises the soft descriptor limit to the hard one; the connections it leaves room for.
std::size_t connectionsTheDescriptorsAllow() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return HelperTransport::kMaxConnections;
  if (limit.rlim_cur < limit.rlim_max) {
    rlim_t wanted = limit.rlim_max;
    limit.rlim_cur = wanted;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur == RLIM_INFINITY) return HelperTransport::kMaxConnections;
  rlim_t usable = limit.rlim_cur > HelperTransport::kReservedDescriptors
                      ? limit.rlim_cur - HelperTransport::kReservedDescriptors
                      : 0;
  return static_cast<std::size_t>(std::max<rlim_t>(1, usable / 2));
}

}  // namespace

HelperTransport::HelperTransport(int listeningFd, PeerFilter accepts, Handler handler,
                                 Events events, HelperLog& log)
    : listeningFd_(listeningFd),
      accepts_(std::move(accepts)),
      handler_(std::move(handler)),
      events_(std::move(events)),
      log_(log) {
  if (::pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) wakeFds_[0] = wakeFds_[1] = -1;
}

HelperTransport::~HelperTransport() {
  stop();
  for (int fd : wakeFds_) {
    if (fd >= 0) ::close(fd);
  }
  if (listeningFd_ >= 0) ::close(listeningFd_);
}

void HelperTransport::serve() {
  if (listeningFd_ < 0 || wakeFds_[0] < 0) return;
  connectionLimit_ = std::min(kMaxConnections, connectionsTheDescriptorsAllow());
  while (true) {
    struct pollfd fds[2] = {{listeningFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    if (fds[0].revents == 0) continue;
    int fd = ::accept4(listeningFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors or memory: give the open connections a moment to end.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        continue;
      }
      if (errno == EINTR || errno == ECONNABORTED || errno == EAGAIN || errno == EPROTO) continue;
      return;  // the socket itself is broken; retrying would only spin
    }
    std::unique_lock<std::mutex> guard(lock_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    if (open_.size() >= connectionLimit_) {
      bool log = !loggedLimit_;
      loggedLimit_ = true;
      guard.unlock();
      ::close(fd);
      if (log) {
        log_.write("Refused a connection: " + std::to_string(connectionLimit_) +
                   " connections are open already.");
      }
      continue;
    }
    open_.insert(fd);
    ++running_;
    guard.unlock();
    if (events_.connectionAccepted) events_.connectionAccepted();
    // A detached thread with a small stack; it owns its start record.
    struct Start {
      HelperTransport* transport;
      int fd;
    };
    auto* start = new Start{this, fd};
    pthread_attr_t attributes;
    pthread_t thread;
    int created = ::pthread_attr_init(&attributes);
    if (created == 0) {
      ::pthread_attr_setstacksize(&attributes, kThreadStackBytes);
      ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
      created = ::pthread_create(
          &thread, &attributes,
          [](void* argument) -> void* {
            std::unique_ptr<Start> own(static_cast<Start*>(argument));
            own->transport->serveConnection(own->fd);
            return nullptr;
          },
          start);
      ::pthread_attr_destroy(&attributes);
    }
    if (created != 0) {
      delete start;
      guard.lock();
      open_.erase(fd);
      ::close(fd);
      guard.unlock();
      if (events_.connectionEnded) events_.connectionEnded();
      guard.lock();
      --running_;
      finished_.notify_all();
    }
  }
}

void HelperTransport::serveConnection(int fd) {
  using Status = WireFrame::ReadResult::Status;
  std::optional<PeerProcess> peer = PeerProcess::ofSocket(fd);
  // A peer that is none of the bundle's programs goes at once, before a byte of it is read, so it
  // never holds a connection, a thread or buffered bytes.
  if (peer && !accepts_(*peer)) peer.reset();
  // Nothing a peer sends may end the helper: a failure here (out of memory, say) ends this
  // connection alone.
  if (peer) try {
      while (true) {
        WireFrame::Header header = WireFrame::readHeader(fd);
        if (header.status != Status::frame && header.status != Status::oversized) break;
        if (!accepts_(*peer)) break;
        std::size_t reserved =
            header.status == Status::frame && header.size > kSmallFrame ? header.size : 0;
        HelperProtocol::Response response;
        if (header.status == Status::oversized) {
          response = fault("The request is larger than 16 MiB.");
        } else if (reserved > 0 && !reserve(reserved)) {
          response = fault("The helper is busy with other large requests; try again.");
        } else {
          if (reserved > 0) setReceiveTimeout(fd, kBodyStall);
          bool answered = false;
          try {
            WireFrame::ReadResult request = WireFrame::readBody(fd, header.size);
            if (reserved > 0) setReceiveTimeout(fd, std::chrono::seconds(0));
            if (request.status == Status::frame) {
              response = handler_(request.payload, static_cast<std::uint32_t>(peer->uid()));
              answered = true;
            }
          } catch (const std::exception&) {
            // out of memory or the like: this connection ends, the helper goes on
          }
          // The frame's bytes are gone by now, before its share of the budget.
          release(reserved);
          if (!answered) break;
        }
        if (!WireFrame::write(fd, response.payload) || response.closeAfter) break;
      }
    } catch (const std::exception&) {
    }
  {
    std::lock_guard<std::mutex> guard(lock_);
    open_.erase(fd);
    if (open_.size() < connectionLimit_) loggedLimit_ = false;
    ::close(fd);
  }
  if (events_.connectionEnded) events_.connectionEnded();
  // Counted down and notified under the lock: stop() cannot return, and the transport go away,
  // before this thread is done with it.
  std::lock_guard<std::mutex> guard(lock_);
  --running_;
  finished_.notify_all();
}

bool HelperTransport::reserve(std::size_t size) {
  std::unique_lock<std::mutex> guard(lock_);
  bool granted = budgetFreed_.wait_for(
      guard, kBudgetWait, [&] { return stopping_ || budgetUsed_ + size <= kFrameBudget; });
  if (!granted || stopping_) return false;
  budgetUsed_ += size;
  return true;
}

void HelperTransport::release(std::size_t size) {
  if (size == 0) return;
  std::lock_guard<std::mutex> guard(lock_);
  budgetUsed_ -= size;
  budgetFreed_.notify_all();
}

void HelperTransport::stop() {
  std::unique_lock<std::mutex> guard(lock_);
  stopping_ = true;
  budgetFreed_.notify_all();
  if (wakeFds_[1] >= 0) {
    char byte = 0;
    (void)!::write(wakeFds_[1], &byte, 1);
  }
  for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  finished_.wait(guard, [this] { return running_ == 0; });
}
