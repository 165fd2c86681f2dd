// HelperTransport: serves the helper's listening socket. Each accepted connection gets its own
// thread, which reads its frames one at a time, checks the peer before each and passes the request
// to the handler; a peer that fails the check is disconnected without a reply. Threads,
// descriptors and the bytes of frames held in memory are bounded by the constants below. serve()
// runs on one thread; stop() may be called from any other.
#pragma once

#include <chrono>
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
  // Connections served at once. One more is closed at accept, and the first refusal is logged
  // (again only once the count has dropped below the limit). Each connection costs a thread and
  // two descriptors (its socket and the peer's pidfd); serve() raises the soft descriptor limit to
  // the hard one and, when even that is short, lowers this limit to what it allows, keeping
  // kReservedDescriptors for the requests' own files and pipes.
  static constexpr std::size_t kMaxConnections = 1280;
  static constexpr std::size_t kReservedDescriptors = 256;
  // Stack of a connection thread: 1280 of them reserve 640 MiB of address space, and touch only
  // the pages they use.
  static constexpr std::size_t kThreadStackBytes = std::size_t{512} * 1024;
  // Frames up to this size are read at once (all connections together: at most 20 MiB).
  static constexpr std::uint32_t kSmallFrame = 16 * 1024;
  // Larger frames first reserve their announced size from this budget, shared by all
  // connections, and give it back once the request is answered: together they never hold more.
  static constexpr std::size_t kFrameBudget = std::size_t{64} * 1024 * 1024;
  // A larger frame that gets no share of the budget within this time is answered with a fault and
  // its connection closed.
  static constexpr std::chrono::seconds kBudgetWait{5};
  // While a body is read, a sender that sends nothing for this long is disconnected, freeing its
  // share of the budget.
  static constexpr std::chrono::seconds kBodyStall{10};

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
  // Takes `size` bytes of kFrameBudget, waiting at most kBudgetWait; false when it could not.
  bool reserve(std::size_t size);
  void release(std::size_t size);

  int listeningFd_;
  int wakeFds_[2] = {-1, -1};  // stop() writes to [1]; serve() polls [0]
  PeerFilter accepts_;
  Handler handler_;
  Events events_;
  HelperLog& log_;

  std::size_t connectionLimit_ = kMaxConnections;  // set by serve() before any connection

  std::mutex lock_;
  std::condition_variable finished_;
  std::condition_variable budgetFreed_;
  std::size_t budgetUsed_ = 0;  // guarded by lock_: bytes of kFrameBudget reserved
  std::set<int> open_;          // guarded by lock_: descriptors of live connections
  std::size_t running_ = 0;     // guarded by lock_: connection threads not yet finished
  bool stopping_ = false;       // guarded by lock_
  bool loggedLimit_ = false;    // guarded by lock_
};
