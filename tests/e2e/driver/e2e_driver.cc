// The end-to-end driver, run in an isolated root as the bundle's companion service: `e2e_driver
// IDLE FLOOD` holds IDLE idle connections and stalled half frames while a new client is served,
// opens connections up to the helper's limit, then has FLOOD connections each send half of a 16 MiB
// frame and stall. It prints what it saw; exits 1 after printing the first failure, else 0.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_paths.h"
#include "service/wire_frame.h"

namespace {

[[noreturn]] void fail(const std::string& why) {
  (void)std::printf("%s\n", why.c_str());
  ::_exit(1);
}

int connectToHelper() {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  std::strncpy(address.sun_path, HostPaths().socketPath.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("no socket");
  return fd;
}

// A new client's version request, answered while the others wait.
void expectVersionForANewClient() {
  int fd = connectToHelper();
  std::string reply = WireFrame::write(fd, R"({"method":"helperVersionWithReply:","args":[]})")
                          ? WireFrame::read(fd).payload
                          : "<not sent>";
  ::close(fd);
  if (reply != std::string(R"({"reply":[")") + TARNLY_VERSION + "\"]}") fail("got " + reply);
}

bool closedByHelper(int fd, int ms) {
  pollfd entry{fd, POLLIN, 0};
  char byte;
  return ::poll(&entry, 1, ms) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

std::string halfFrame(std::uint32_t size) {
  return WireFrame::encode(std::string(size, ' ')).substr(0, 4 + size / 2);
}

void idle(int count) {
  std::vector<int> fds(count);
  for (int i = 0; i < count; ++i) {
    fds[i] = connectToHelper();
    // Five stall in the middle of a frame: four small ones, and a large one holding its budget.
    std::string half = i < 5 ? halfFrame(i < 4 ? 200 : WireFrame::kMaxFrame) : "";
    (void)::send(fds[i], half.data(), half.size(), MSG_NOSIGNAL);
  }
  expectVersionForANewClient();
  for (int fd : fds) {
    if (closedByHelper(fd, 0)) fail("an idle connection was closed");
  }
  int refused = 0;  // up to the limit and three beyond: those three are closed at once
  for (int i = 0; i < 1400 && refused < 3; ++i) {
    fds.push_back(connectToHelper());
    refused += i >= 200 && closedByHelper(fds.back(), 20);
  }
  (void)std::printf("idle: %d kept, %d over the limit refused\n", count, refused);
  for (int fd : fds) ::close(fd);
}

bool flood(int count) {
  std::atomic<int> held{0}, busy{0}, other{0};
  std::latch sent(count);
  const std::string frame = halfFrame(WireFrame::kMaxFrame);
  std::vector<std::jthread> senders(count);
  for (std::jthread& sender : senders) {
    sender = std::jthread([&, fd = connectToHelper()] {
      // Blocks until the helper has read it all, or has answered and closed.
      ssize_t n = 1;
      for (std::size_t done = 0; done < frame.size() && n > 0; done += n > 0 ? std::size_t(n) : 0)
        n = ::send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
      bool toldBusy = n <= 0 && WireFrame::read(fd).payload.find("busy") != std::string::npos;
      ++(n > 0 ? held : toldBusy ? busy : other);
      sent.arrive_and_wait();
      ::close(fd);
    });
  }
  expectVersionForANewClient();  // while they stall, a small request is still served
  sent.wait();
  (void)std::printf("flood: %d half frames of 16 MiB: %d held, %d refused as busy, %d other\n",
                    count, held.load(), busy.load(), other.load());
  return other == 0;
}

}  // namespace

int main(int /*argc*/, char** argv) {  // e2e_driver IDLE FLOOD
  (void)::signal(SIGPIPE, SIG_IGN);
  idle(std::stoi(argv[1]));
  return flood(std::stoi(argv[2])) ? 0 : 1;
}
