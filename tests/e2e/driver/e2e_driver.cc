// The end-to-end driver: a client of the running helper that opens many connections at once, run in
// an isolated root as the bundle's companion service. `e2e_driver IDLE FLOOD PEAK_KB` holds IDLE
// idle connections and stalled half frames beside a new client, opens connections up to the
// helper's limit, then has FLOOD connections each send half of a 16 MiB frame and stall, the
// helper's peak staying under PEAK_KB. It prints what it saw (its figures on standard error) and
// exits 0 when every check held, else 1 after printing the first failure.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/host_paths.h"
#include "service/wire_frame.h"

namespace {

[[noreturn]] void fail(const std::string& why) {
  (void)std::printf("%s\n", why.c_str());
  ::_exit(1);
}

int connectToHelper() {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, HostPaths().socketPath.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("no socket");
  return fd;
}

// A new client's version request, answered while the others wait.
void expectVersionForANewClient() {
  int fd = connectToHelper();
  WireFrame::ReadResult reply;
  if (WireFrame::write(fd, R"({"method":"helperVersionWithReply:","args":[]})")) {
    reply = WireFrame::read(fd);
  }
  ::close(fd);
  if (reply.payload != std::string(R"({"reply":[")") + TARNLY_VERSION + "\"]}") {
    fail("a new client got " + reply.payload);
  }
}

// The helper's peak resident size in kB, from /proc/<pid>/status of the connection's peer.
long helperPeakKb() {
  int fd = connectToHelper();
  ucred peer{};
  socklen_t size = sizeof peer;
  (void)::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  ::close(fd);
  std::string text =
      readFile("/proc/" + std::to_string(peer.pid) + "/status", 1 << 16).value_or("");
  size_t at = text.find("\nVmHWM:");
  if (at == std::string::npos) fail("the helper is gone");
  return std::stol(text.substr(at + 7));
}

// Whether the helper closes `fd` within `ms`.
bool closedByHelper(int fd, int ms) {
  pollfd entry{fd, POLLIN, 0};
  char byte;
  return ::poll(&entry, 1, ms) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

std::string halfFrame(std::uint32_t size) {
  return WireFrame::encode(std::string(size, ' ')).substr(0, 4 + size / 2);
}

void idle(int count) {
  std::vector<int> fds;
  for (int i = 0; i < count; ++i) fds.push_back(connectToHelper());
  // Five stall in the middle of a frame: four small ones, and a large one holding its budget.
  for (int i = 0; i < 5; ++i) {
    std::string half = halfFrame(i < 4 ? 200 : WireFrame::kMaxFrame);
    (void)::send(fds[i], half.data(), half.size(), MSG_NOSIGNAL);
  }
  expectVersionForANewClient();
  for (int fd : fds) {
    if (closedByHelper(fd, 0)) fail("an idle connection was closed");
  }
  // Up to the limit and three beyond: those three are closed at once.
  int refused = 0;
  for (int i = 0; i < 1400 && refused < 3; ++i) {
    fds.push_back(connectToHelper());
    refused += i >= 200 && closedByHelper(fds.back(), 20);
  }
  (void)std::printf("idle: %d kept, %d over the limit refused\n", count, refused);
  (void)std::fprintf(stderr, "idle: %zu connections open\n", fds.size() - refused);
  for (int fd : fds) ::close(fd);
}

bool flood(int count, long limitKb) {
  long before = helperPeakKb();
  std::atomic<int> held{0}, busy{0}, other{0};
  std::latch sent(count);
  const std::string frame = halfFrame(WireFrame::kMaxFrame);
  std::vector<std::jthread> senders;
  for (int i = 0; i < count; ++i) {
    senders.emplace_back([&, fd = connectToHelper()] {
      // Blocks until the helper has read it all, or has answered and closed.
      ssize_t n = 1;
      for (std::size_t done = 0; done < frame.size() && n > 0; done += std::max<ssize_t>(n, 0)) {
        n = ::send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
      }
      ++(n > 0                                                           ? held
         : WireFrame::read(fd).payload.find("busy") != std::string::npos ? busy
                                                                         : other);
      sent.arrive_and_wait();
      ::close(fd);
    });
  }
  expectVersionForANewClient();  // while they stall, a small request is still served
  sent.wait();
  long peak = helperPeakKb();
  (void)std::printf("flood: %d half frames of 16 MiB: %d held, %d refused as busy, %d other\n",
                    count, held.load(), busy.load(), other.load());
  (void)std::fprintf(stderr, "flood: helper VmHWM %ld kB (%ld kB before)\n", peak, before);
  if (peak >= limitKb) fail("the helper's peak of " + std::to_string(peak) + " kB is too high");
  return other == 0;
}

}  // namespace

int main(int argc, char** argv) {
  (void)::signal(SIGPIPE, SIG_IGN);
  if (argc != 4) fail("usage: e2e_driver IDLE FLOOD PEAK_KB");
  idle(std::stoi(argv[1]));
  return flood(std::stoi(argv[2]), std::stol(argv[3])) ? 0 : 1;
}
