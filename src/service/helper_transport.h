// HelperTransport: serves the helper's listening socket. Each accepted connection gets its own
// thread, which reads its frames one at a time, checks the peer before each and passes the request
// to the handler; a peer that fails the check is disconnected without a reply. serve() runs on one
// thread; stop() may be called from any other.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "platform/peer_process.h"
#include "service/helper_log.h"
#include "service/helper_protocol.h"

class HelperTransport {
 public:
  // Connections served at once; more are closed at accept.
  static constexpr std::size_t kMaxConnections = 32;

  using Handler =
      std::function<HelperProtocol::Response(std::string_view request, std::uint32_t caller)>;
  using PeerFilter = std::function<bool(const PeerProcess& peer)>;

  struct Events {
    std::function<void()> connectionAccepted;
    std::function<void()> connectionEnded;
  };

  // Takes ownership of the listening descriptor `listeningFd`.
  HelperTransport(int listeningFd, PeerFilter accepts, Handler handler, Events events,
                  HelperLog& log);
  HelperTransport(const HelperTransport&) = delete;
  HelperTransport& operator=(const HelperTransport&) = delete;
  // Stops serving and waits for the connection threads.
  ~HelperTransport();

  // Accepts connections until stop(); each runs on a thread of its own. Returns at once when the
  // transport could not be set up.
  void serve();

  // Ends serve(), disconnects every open connection and waits until their threads have finished
  // (a request in progress completes first). Safe to call more than once.
  void stop();

 private:
  void serveConnection(int fd);

  int listeningFd_;
  int wakeFds_[2] = {-1, -1};  // stop() writes to [1]; serve() polls [0]
  PeerFilter accepts_;
  Handler handler_;
  Events events_;
  HelperLog& log_;

  std::mutex lock_;
  std::condition_variable finished_;
  std::set<int> open_;        // guarded by lock_: descriptors of live connections
  std::size_t running_ = 0;   // guarded by lock_: connection threads not yet finished
  bool stopping_ = false;     // guarded by lock_
  bool loggedLimit_ = false;  // guarded by lock_
};
