#include "service/helper_transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "service/wire_frame.h"

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
      }
      continue;
    }
    std::unique_lock<std::mutex> guard(lock_);
    if (stopping_) {
      ::close(fd);
      return;
    }
    if (open_.size() >= kMaxConnections) {
      bool log = !loggedLimit_;
      loggedLimit_ = true;
      guard.unlock();
      ::close(fd);
      if (log) {
        log_.write("Refused a connection: " + std::to_string(kMaxConnections) +
                   " connections are open already.");
      }
      continue;
    }
    open_.insert(fd);
    ++running_;
    guard.unlock();
    if (events_.connectionAccepted) events_.connectionAccepted();
    try {
      std::thread([this, fd] { serveConnection(fd); }).detach();
    } catch (const std::system_error&) {
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
  if (std::optional<PeerProcess> peer = PeerProcess::ofSocket(fd)) {
    while (true) {
      WireFrame::ReadResult request = WireFrame::read(fd);
      using Status = WireFrame::ReadResult::Status;
      if (request.status != Status::frame && request.status != Status::oversized) break;
      if (!accepts_(*peer)) break;
      HelperProtocol::Response response;
      try {
        response = request.status == Status::oversized
                       ? HelperProtocol::Response{HelperProtocol::faultPayload(
                                                      "The request is larger than 16 MiB."),
                                                  true}
                       : handler_(request.payload, static_cast<std::uint32_t>(peer->uid()));
      } catch (const std::exception&) {
        break;  // out of memory or the like: this connection ends, the helper goes on
      }
      if (!WireFrame::write(fd, response.payload) || response.closeAfter) break;
    }
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    open_.erase(fd);
    if (open_.size() < kMaxConnections) loggedLimit_ = false;
    ::close(fd);
  }
  if (events_.connectionEnded) events_.connectionEnded();
  // Counted down and notified under the lock: stop() cannot return, and the transport go away,
  // before this thread is done with it.
  std::lock_guard<std::mutex> guard(lock_);
  --running_;
  finished_.notify_all();
}

void HelperTransport::stop() {
  std::unique_lock<std::mutex> guard(lock_);
  stopping_ = true;
  if (wakeFds_[1] >= 0) {
    char byte = 0;
    (void)!::write(wakeFds_[1], &byte, 1);
  }
  for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
  finished_.wait(guard, [this] { return running_ == 0; });
}
