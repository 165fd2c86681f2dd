// tarnly-helperctl: sends one request to TarnlyAdminHelper over its socket and prints the reply.
// For tests, demonstrations and administrators; run as the bundle's client so the helper accepts
// it.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "helper_request.h"
#include "platform/files.h"
#include "platform/host_paths.h"
#include "service/wire_frame.h"

namespace {

constexpr int kReplied = 0;
constexpr int kNoReply = 1;
constexpr int kUsage = 2;

int fail(const std::string& line) {
  std::cerr << "tarnly-helperctl: " << line << "\n";
  return kNoReply;
}

std::optional<std::string> readBytes(const std::string& path) {
  if (path != "-") return readFile(path);
  std::string data{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  if (std::cin.bad()) return std::nullopt;
  return data;
}

// A connected stream socket, or -1 with errno set.
int connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  std::string socketPath = HostPaths{}.socketPath;
  if (words.size() >= 2 && words[0] == "--socket") {
    socketPath = words[1];
    words.erase(words.begin(), words.begin() + 2);
  }
  if (words.empty() || words[0] == "--help" || words[0] == "-h") {
    std::cerr << HelperRequest::usage();
    return kUsage;
  }

  std::string request;
  try {
    request = HelperRequest::build(words[0], {words.begin() + 1, words.end()}, readBytes);
  } catch (const HelperRequest::UsageError& error) {
    std::cerr << "tarnly-helperctl: " << error.what() << "\n" << HelperRequest::usage();
    return kUsage;
  }

  int fd = connectTo(socketPath);
  if (fd < 0) return fail("cannot connect to " + socketPath + ": " + std::strerror(errno));
  bool sent = WireFrame::write(fd, request);
  int sendError = errno;
  WireFrame::ReadResult answer = WireFrame::read(fd);
  ::close(fd);

  switch (answer.status) {
    case WireFrame::ReadResult::Status::frame:
      break;
    case WireFrame::ReadResult::Status::closed:
    case WireFrame::ReadResult::Status::truncated:
      return fail("the helper closed the connection without a reply");
    case WireFrame::ReadResult::Status::oversized:
      return fail("the helper's reply is larger than a frame may be");
    case WireFrame::ReadResult::Status::failed:
      // A helper that drops the connection while the request is still unread resets it.
      if (errno == ECONNRESET || (!sent && sendError == EPIPE)) {
        return fail("the helper closed the connection without a reply");
      }
      if (!sent) return fail(std::string("cannot send the request: ") + std::strerror(sendError));
      return fail("the connection to the helper failed: " + std::string(std::strerror(errno)));
  }
  HelperRequest::Answer reply = HelperRequest::interpret(answer.payload);
  if (!reply.ok) return fail(reply.line);
  std::cout << reply.line << "\n" << std::flush;
  return std::cout ? kReplied : kNoReply;
}
