// The service in one process over recording operations: the listener through its seams (a clock
// the test moves, ticks it calls, a recorded exit), the protocol's rows and caller rules, and the
// transport on a temporary socket whose peer check takes this test program for the bundle's app.
#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "firewall/enforce/firewall_lock.h"
#include "host/fake_user_directory.h"
#include "platform/base64.h"
#include "platform/files.h"
#include "platform/service_socket.h"
#include "platform/text.h"
#include "service/helper_command.h"
#include "service/helper_listener.h"
#include "service/helper_peer_check.h"
#include "service/helper_transport.h"
#include "service/helper_uninstall.h"
#include "service/wire_frame.h"
#include "support/flock_waiter.h"
#include "support/temp_tree.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using HelperCommand::Result;
using HelperCommand::run;
using nlohmann::json;
using testing::ElementsAre;

constexpr std::uint32_t kAdmin = 501, kConsole = 502, kOther = 503;  // kConsole is no admin

bool eventually(const std::function<bool()>& condition) {  // polled, for ten seconds at most
  for (auto end = std::chrono::steady_clock::now() + 10s; !condition(); std::this_thread::yield())
    if (std::chrono::steady_clock::now() > end) return false;
  return true;
}

std::string request(std::string_view selector, json args = json::array()) {
  return json{{"method", selector}, {"args", std::move(args)}}.dump();
}

std::string nextReply(int fd) {  // the next frame's payload, or "<closed>"
  WireFrame::ReadResult result = WireFrame::read(fd);
  return result.status == WireFrame::ReadResult::Status::frame ? result.payload : "<closed>";
}

class ServiceConcurrentTest : public ::testing::Test {
 protected:
  // An operation that records "<name> <argument>..." and returns `result`, or throws `failure`.
  auto record(const std::string& name, auto result) {
    return [this, name, result](const auto&... args) {
      std::lock_guard<std::mutex> guard(callsLock);
      calls.push_back(name);
      ((calls.back() += " " + testing::PrintToString(args)), ...);
      if (!failure.empty()) throw std::runtime_error(failure);
      return result;
    };
  }
  ServiceConcurrentTest() {
    for (std::uint32_t uid : {kAdmin, kConsole, kOther, ::geteuid()})
      users.addUser(uid, {20, uid == kAdmin || uid == ::geteuid() ? 80u : 12u});
    auto& ops = service.operations;
    ops.noteActivity = [this] { ++activity; };
    ops.versionString = [] { return "9.9"; };
    ops.applyFirewall = record("apply", "applied"s);
    ops.removeFirewall = record("remove", 0);
    ops.firewallReport = record("report", "status"s);
    ops.createVLAN = record("createVLAN", "vlan0"s);
    ops.deleteVLAN = record("deleteVLAN", 0);
    ops.createdVLANs = record("createdVLANs", "[]"s);
    ops.installCLISymlink = record("installCLISymlink", 0);
    ops.removeCLISymlink = record("removeCLISymlink", 0);
    ops.pruneStaleVMInterfaces = record("prune", "pruned"s);
    ops.setResolver = record("resolver", 0);
    ops.shutdownForUpgrade = record("shutdown", 0);
    ops.removeFilesForUninstall = record("uninstall", std::optional<std::string>());
  }
  ~ServiceConcurrentTest() override {
    released = true;
    if (transport) transport->stop();
    if (server.joinable()) server.join();
  }

  std::vector<std::string> takeCalls() {
    std::lock_guard<std::mutex> guard(callsLock);
    return std::exchange(calls, {});
  }
  json reply(const std::string& request, std::uint32_t caller) {
    return json::parse(HelperProtocol::handle(request, caller, service).payload)["reply"];
  }
  std::vector<std::string> logLines() const {  // without the "2026-11-16T20:51:26Z " stamps
    std::vector<std::string> lines;
    const std::string text = readFile(paths.logFile).value_or("");
    for (std::string_view line : split(text, '\n', false)) lines.emplace_back(line.substr(21));
    return lines;
  }

  std::chrono::steady_clock::time_point now() const {
    return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(ticks));
  }
  void advance(std::chrono::steady_clock::duration by) { ticks += by.count(); }

  // Serves the socket with `app` (hard-linked: the peer check refuses links) as the bundle's app,
  // and a report that waits until `released`.
  void serve(const std::string& app) {
    std::string helper = tree.write("Tarnly.app/Contents/Helpers/TarnlyAdminHelper", "");
    std::filesystem::create_directories(tree.path("Tarnly.app/Contents/MacOS"));
    std::filesystem::create_hard_link(app, tree.path("Tarnly.app/Contents/MacOS/Tarnly"));
    auto check = std::make_shared<HelperPeerCheck>(helper, users);
    service.operations.noteActivity = nullptr;  // the protocol runs without it too
    service.operations.firewallReport = [this] {
      return ++reportStarted, eventually([this] { return released.load(); }), "report"s;
    };
    std::string error;
    int fd = bindServiceSocket(tree.path("helper.sock"), error);
    ASSERT_GE(fd, 0) << error;
    transport = std::make_unique<HelperTransport>(
        fd, [check](const PeerProcess& peer) { return check->accepts(peer); },
        [this](std::string_view request, std::uint32_t caller) {
          return HelperProtocol::handle(request, caller, service);
        },
        HelperTransport::Events{[this] { listener->connectionAccepted(); },
                                [this] { listener->connectionEnded(); }},
        log);
    // Only the timer stays off: nothing here may reach the real exit.
    HelperListener::Seams seams;
    seams.startTimer = [](const std::function<void()>&) {};
    listener = HelperListener::create(env, seams);
    server = std::thread([this] { listener->listen([this] { transport->serve(); }); });
  }
  // A client socket connected to the helper; -1 on failure.
  int connect() const {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    tree.path("helper.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    return ::close(fd), -1;
  }

  TempTree tree;
  HostPaths paths = tree.hostPaths();
  HelperLog log{paths.logFile, paths.rotatedLogFile,
                [] { return fromSecondsSinceReferenceDate(816555086.0); }};  // 2026-11-16T20:51:26Z
  HelperEnvironment env{paths, systemNow, log};
  FakeUserDirectory users;
  std::optional<std::uint32_t> console = kConsole;
  HelperProtocol::Service service{{}, {users, [this] { return ++consoleAsks, console; }, log}};
  std::mutex callsLock;
  std::vector<std::string> calls;  // guarded by callsLock
  std::string failure;             // when set, every operation throws it
  std::atomic<int> consoleAsks{0}, activity{0}, sleeps{0}, timerStarts{0}, exits{0},
      reportStarted{0};
  std::atomic<std::chrono::steady_clock::duration::rep> ticks{0};
  std::atomic<bool> released{false};
  std::shared_ptr<HelperListener> listener;
  std::unique_ptr<HelperTransport> transport;
  std::thread server;
};

TEST_F(ServiceConcurrentTest, ExitsWhenIdleShutDownOrReplacedButNeverUnderWorkOrTheFirewallLock) {
  const std::string launchFile = tree.write("Tarnly.app/Contents/Helpers/TarnlyAdminHelper", "1"),
                    update = tree.write("new-helper", "3");  // made now: it cannot reuse the inode
  env.paths.executable = launchFile;
  HelperListener::Seams seams;
  seams.now = [this] { return now(); };
  seams.sleep = [this](std::chrono::microseconds duration) { advance(duration), ++sleeps; };
  seams.startTimer = [this](const std::function<void()>&) { ++timerStarts; };
  seams.exit = [this] { ++exits; };
  seams.holdFirewallLock = [this] { HelperFirewall::FirewallLock taken(env); };
  (listener = HelperListener::create(env, seams))->listen([] {});  // returns at once
  EXPECT_EQ(timerStarts, 1);
  listener->connectionEnded();  // an end without a start stays at 0
  EXPECT_EQ(listener->activeConnections(), 0);
  listener->connectionAccepted();
  listener->connectionAccepted();
  std::ofstream(launchFile, std::ios::trunc) << "2 rewritten in place";
  for (int open : {1, 0}) {  // open connections keep the helper alive for any time
    advance(1h);
    listener->idleTick();
    listener->connectionEnded();
    EXPECT_EQ(listener->activeConnections(), open);
    if (open == 1) ::unlink(launchFile.c_str());  // a missing file does not exit either
  }
  EXPECT_EQ(listener->lastActivity(), now());
  advance(300s);
  listener->noteActivity();  // a request postpones the exit
  advance(HelperListener::kIdleLimit);
  listener->idleTick();
  EXPECT_EQ(exits, 0) << "exactly the limit is not more than it";
  advance(1us);
  listener->idleTick();
  EXPECT_EQ(exits, 1);

  // Deferred work holds off the idle exit and the replaced-executable exit; the shutdown waits for
  // it only 10 s (polled, the clock moving with each sleep), then for an apply that holds the
  // firewall lock in another process.
  std::atomic<bool> finished{false};
  listener->runDeferred([&] { eventually([&] { return released.load(); }), finished = true; });
  ASSERT_EQ(::rename(update.c_str(), launchFile.c_str()), 0);
  advance(1h);
  listener->idleTick();
  createDirectories(paths.stateDirectory);
  HeldFlock apply(paths.state(std::string(HelperFirewall::kLockFile)));
  auto asked = now();
  listener->shutdownForUpgrade();
  EXPECT_TRUE(waitForFlockWaiter(apply.inode(), [&] { return exits > 1; }))
      << "exited while an apply held the lock";
  EXPECT_EQ(listener->workInFlight(), 1);
  EXPECT_EQ(now() - asked, 300ms + 10s);
  EXPECT_EQ(sleeps, 101);
  apply.release();
  ASSERT_TRUE(eventually([&] { return exits == 2; }));
  released = true;
  ASSERT_TRUE(eventually([&] { return finished && listener->workInFlight() == 0; }));
  listener->shutdownForUpgrade();  // with no work in flight: only the 0.3 s delay
  ASSERT_TRUE(eventually([&] { return exits == 3; }));
  EXPECT_EQ(sleeps, 102);
  listener->connectionAccepted();  // the check runs with connections open
  listener->idleTick();
  EXPECT_EQ(exits, 4);
  // clang-format off
  const std::string shutdown = "Shutdown requested for upgrade; exiting so launchd re-execs the new binary.";
  EXPECT_THAT(logLines(), ElementsAre("Helper " + std::string(TARNLY_VERSION) + " listening on com.orbelle.tarnly.adminhelper.",
                                      "Idle; exiting. launchd will relaunch on the next request.", shutdown, shutdown,
                                      "This helper's executable was replaced by an update; exiting so launchd starts the new one."));
  // clang-format on
}

// One client stays throughout: it is served in order while another leaves in mid-request and
// while each bad input gets its fault (or is dropped) and only its own connection ends.
TEST_F(ServiceConcurrentTest, ServesInOrderWhileLeavingClientsAndBadInputEndOnlyTheirOwn) {
  ASSERT_NO_FATAL_FAILURE(serve(currentExecutablePath()));
  int leaving = connect(), staying = connect();
  ASSERT_TRUE(WireFrame::write(leaving, request("firewallReportWithReply:")));
  ASSERT_TRUE(eventually([&] { return reportStarted == 1; }));
  ::close(leaving);  // before its (slow) reply
  // Two requests in one write are answered one after the other, with the connection's uid.
  std::string both = WireFrame::encode(request("helperVersionWithReply:")) +
                     WireFrame::encode(request("removeFirewallWithReply:"));
  ASSERT_EQ(::send(staying, both.data(), both.size(), MSG_NOSIGNAL), ssize_t(both.size()));
  EXPECT_EQ(nextReply(staying), R"({"reply":["9.9"]})");
  EXPECT_EQ(nextReply(staying), R"({"reply":[null]})");
  EXPECT_THAT(takeCalls(), ElementsAre("remove " + std::to_string(::geteuid()) + " false"));
  released = true;
  ASSERT_TRUE(eventually([&] { return listener->activeConnections() == 1; }));

  auto frame = [](std::string_view method, json args = json::array()) {
    return WireFrame::encode(request(method, std::move(args)));
  };
  auto version = [&] {  // the staying client's next exchange
    return WireFrame::write(staying, request("helperVersionWithReply:")) ? nextReply(staying) : "";
  };
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {  // bytes sent, fault (none: dropped)
      {"\0\0"s, ""},
      {"\0\0\0\x20{\"method\""s, ""},
      {"\x01\0\0\x01"s, "The request is larger than 16 MiB."},
      {WireFrame::encode("{\"method\": [}"), "The request is not valid JSON."},
      {WireFrame::encode("[\"helperVersionWithReply:\"]"), "The request must be a JSON object with a method name and an argument list."},
      {frame("rebootWithReply:"), "The helper has no method named rebootWithReply:."},
      {frame("helperVersionWithReply:", {true}), "helperVersionWithReply: takes 0 arguments, not 1."},
      {frame("setTarnlyResolverWithEnabled:withReply:", {"yes"}), "Argument 1 of setTarnlyResolverWithEnabled:withReply: must be true or false."},
      {frame("deleteVLANWithBsdName:withReply:", {7}), "Argument 1 of deleteVLANWithBsdName:withReply: must be a string."},
      {frame("applyFirewallWithPolicyData:withReply:", {"W10"}), "Argument 1 of applyFirewallWithPolicyData:withReply: must be a base64 string."},
      {WireFrame::encode(R"({"method":"createVLANWithName:tag:parentBSD:withReply:","args":["a",9223372036854775808,"en0"]})"),
       "Argument 2 of createVLANWithName:tag:parentBSD:withReply: must be a 64-bit integer."},
  };
  // clang-format on
  for (const auto& [bytes, fault] : cases) {
    SCOPED_TRACE(fault);
    int fd = connect();
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    ::shutdown(fd, SHUT_WR);
    EXPECT_EQ(nextReply(fd), fault.empty() ? "<closed>" : json({{"fault", fault}}).dump());
    EXPECT_EQ(nextReply(fd), "<closed>");
    ::close(fd);
    EXPECT_EQ(version(), R"({"reply":["9.9"]})");
  }
  EXPECT_FALSE(WireFrame::write(staying, std::string(WireFrame::kMaxFrame + 1, 'x')));
  EXPECT_EQ(version(), R"({"reply":["9.9"]})") << "nothing of the larger frame went out";
  EXPECT_TRUE(takeCalls().empty());
  ASSERT_TRUE(eventually([&] { return listener->activeConnections() == 1; }));
  ::close(staying);
  ASSERT_TRUE(eventually([&] { return listener->activeConnections() == 0; }));
}

// A client that runs another program is disconnected with nothing run. The socket file is
// replaced only once stale, and any other file is left alone.
TEST_F(ServiceConcurrentTest, AnotherProgramIsDisconnectedAndOnlyAStaleSocketIsReplaced) {
  ASSERT_NO_FATAL_FAILURE(serve(std::filesystem::canonical("/bin/sh").string()));
  int fd = connect();
  WireFrame::write(fd, request("firewallReportWithReply:"));  // it may be closed already
  EXPECT_EQ(nextReply(fd), "<closed>");
  ::close(fd);
  EXPECT_EQ(reportStarted, 0);
  EXPECT_THAT(logLines(), ElementsAre(testing::StartsWith("Helper ")));
  std::string path = tree.path("helper.sock"), file = tree.write("plain", "keep me"), error;
  EXPECT_EQ(modeOf(path), 0666);
  EXPECT_EQ(bindServiceSocket(path, error), -1);
  EXPECT_EQ(error, "Left " + path + " alone: another process is listening on it.");
  transport->stop();
  server.join();
  transport.reset();  // the socket file stays behind, stale
  EXPECT_GE(fd = bindServiceSocket(path, error), 0) << error;
  ::close(fd);
  EXPECT_EQ(bindServiceSocket(file, error), -1);
  EXPECT_EQ(error, "Left " + file + " alone: it is not a socket.");
  EXPECT_EQ(contentOf(file), "keep me");
}

// The strict check against a bundle only root can change (made in /run, root's alone), a copy of
// the client as the peer: every change to the bundle is seen at the very next message.
TEST(HelperPeerCheckTest, SeesEveryChangeToTheBundleAtTheNextMessage) {
  char top[] = "/run/tarnly-peer-XXXXXX";
  if (::geteuid() != 0 || ::mkdtemp(top) == nullptr) GTEST_SKIP() << "needs root and /run";
  namespace fs = std::filesystem;
  const std::string bundle = top + "/Tarnly.app"s, contents = bundle + "/Contents",
                    macos = contents + "/MacOS", client = macos + "/Tarnly", old = client + ".old",
                    socketPath = top + "/helper.sock"s;
  for (const std::string& folder : {contents + "/Helpers", macos}) fs::create_directories(folder);
  std::ofstream(contents + "/Helpers/TarnlyAdminHelper").close();
  fs::copy_file(TARNLY_HELPERCTL_PATH, client);
  FakeUserDirectory users;
  HelperPeerCheck check(contents + "/Helpers/TarnlyAdminHelper", users);
  ASSERT_TRUE(check.strict());
  // The client connects, sends its request and waits for a reply that never comes.
  std::string error;
  int listener = bindServiceSocket(socketPath, error);
  ASSERT_GE(listener, 0) << error;
  const char* argv[] = {client.c_str(), "--socket", socketPath.c_str(),
                        "helperVersionWithReply:", nullptr};
  pid_t pid = 0;
  ASSERT_EQ(::posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  std::optional<PeerProcess> peer = PeerProcess::ofSocket(connection);
  ASSERT_TRUE(peer);
  EXPECT_TRUE(check.accepts(*peer));
  // clang-format off
  const std::pair<const char*, std::function<void(bool)>> changes[] = {  // made, then undone
      {"its folder writable by all", [&](bool make) { fs::permissions(macos, fs::perms(make ? 0777 : 0755)); }},
      {"the bundle owned by nobody", [&](bool make) { ::lchown(bundle.c_str(), make ? 65534 : 0, make ? 65534 : 0); }},
      {"the file writable by nobody's group", [&](bool make) { ::lchown(client.c_str(), 0, make ? 65534 : 0), fs::permissions(client, fs::perms(0775)); }},
      {"the file moved away", [&](bool make) { fs::rename(make ? client : old, make ? old : client); }},
      {"a link in its place", [&](bool make) { fs::rename(make ? client : old, make ? old : client); if (make) fs::create_symlink(old, client); }},
      {"the folder moved away", [&](bool make) {
        make ? fs::rename(macos, contents + "/Old") : (void)fs::remove(macos);
        make ? (void)fs::create_directory(macos) : fs::rename(contents + "/Old", macos); }},
  };
  // clang-format on
  for (const auto& [change, make] : changes) {
    SCOPED_TRACE(change);
    make(true);
    EXPECT_FALSE(check.accepts(*peer));
    make(false);
    EXPECT_TRUE(check.accepts(*peer));
  }
  ::close(connection);
  ::waitpid(pid, nullptr, 0);
  EXPECT_FALSE(check.accepts(*peer)) << "the peer has exited";
  ::close(listener);
  fs::remove_all(top);
}

// Each row's caller rule ('n' anybody, 'c' administrators or the console user, 'a' administrators
// only; only 'c' asks for the console user), then what an administrator's request records and gets
// back, and a thrown error's reply and failure line.
TEST_F(ServiceConcurrentTest, EachRowChecksItsCallerRepliesInItsShapeAndReportsFailures) {
  // clang-format off
  struct Row { std::string selector; std::vector<json> args; char rule; std::string call, reply; bool logsFailure; };
  const Row rows[] = {
      {"helperVersionWithReply:", {}, 'n', "", R"(["9.9"])", false},
      {"applyFirewallWithPolicyData:withReply:", {"W10="}, 'c', R"(apply "[]" 501 false)", R"(["applied",null])", true},
      {"removeFirewallWithReply:", {}, 'c', "remove 501 false", "[null]", true},
      {"firewallReportWithReply:", {}, 'n', "report", R"(["status",null])", false},
      {"createVLANWithName:tag:parentBSD:withReply:", {"Lab", -9, "en0"}, 'a', R"(createVLAN "Lab" -9 "en0")", R"(["vlan0",null])", true},
      {"deleteVLANWithBsdName:withReply:", {"vlan0"}, 'a', R"(deleteVLAN "vlan0")", "[null]", true},
      {"createdVLANsWithReply:", {}, 'n', "createdVLANs", R"(["W10=",null])", false},
      {"installCLISymlinkWithReply:", {}, 'c', "installCLISymlink", "[null]", true},
      {"removeCLISymlinkWithReply:", {}, 'c', "removeCLISymlink", "[null]", true},
      {"pruneStaleVMInterfacesWithReply:", {}, 'c', "prune", R"(["pruned",null])", false},
      {"setTarnlyResolverWithEnabled:withReply:", {true}, 'c', "resolver true", "[null]", true},
      {"setTarnlyResolverWithEnabled:withReply:", {false}, 'a', "resolver false", "[null]", true},
      {"shutdownForUpgradeWithReply:", {}, 'c', "shutdown", "[]", false},
      {"removeFilesForUninstallWithReply:", {}, 'c', "uninstall", "[null,null]", false},
  };
  // clang-format on
  for (const Row& row : rows) {
    const HelperProtocol::Method& method = *HelperProtocol::find(row.selector);
    json refused(method.replyCount(), nullptr), failed = refused;  // text in the error position
    if (!refused.empty()) refused.back() = HelperAuthorization::kRefusalText;
    if (!failed.empty()) failed.back() = "It broke.";
    reply(request(row.selector, row.args), kAdmin);  // the administrator's call, exactly
    EXPECT_EQ(takeCalls(), std::vector<std::string>(!row.call.empty(), row.call));
    for (auto [caller, allowed] :
         {std::pair{kAdmin, true}, {kConsole, row.rule != 'a'}, {kOther, row.rule == 'n'}}) {
      SCOPED_TRACE(row.selector + " from " + std::to_string(caller));
      activity = consoleAsks = 0;
      json replied = reply(request(row.selector, row.args), caller);
      EXPECT_EQ(takeCalls().size(), allowed && !row.call.empty() ? 1u : 0u);
      EXPECT_EQ(replied.dump(), allowed ? row.reply : refused.dump());
      EXPECT_EQ(activity, row.selector == "shutdownForUpgradeWithReply:" ? 0 : 1);
      // Running firewall rows also ask whom legacy rules belong to.
      bool legacy = allowed && (row.call.starts_with("apply ") || row.call.starts_with("remove "));
      EXPECT_EQ(consoleAsks, (caller != kAdmin && row.rule == 'c') + legacy);
      if (allowed) continue;
      EXPECT_EQ(logLines().back(), "Refused " + std::string(method.operation) + " for uid " +
                                       std::to_string(caller) + ": not an administrator" +
                                       (row.rule == 'c' ? " or the console user." : "."));
    }
    if (row.call.empty()) continue;
    std::vector<std::string> lines = logLines();
    if (row.logsFailure) lines.push_back(std::string(method.operation) + " failed: It broke.");
    failure = "It broke.";
    EXPECT_EQ(reply(request(row.selector, row.args), kAdmin), failed);
    failure.clear();
    takeCalls();
    EXPECT_EQ(logLines(), lines);
  }
  // The firewall rows pass the caller, and adopt legacy rules for the console user or nobody.
  const std::string apply = request("applyFirewallWithPolicyData:withReply:", {"W10="}),
                    remove = request("removeFirewallWithReply:");
  reply(apply, kAdmin);  // an administrator away from the console
  reply(remove, kConsole);
  console.reset();
  reply(apply, kAdmin);  // nobody at the console
  console = 0, reply(remove, 0);
  EXPECT_THAT(takeCalls(), ElementsAre(R"(apply "[]" 501 false)", "remove 502 true",
                                       R"(apply "[]" 501 true)", "remove 0 true"));
}

// Stamped lines in a 0644 file whatever the umask, rotated only past the limit, also by another
// process under the log's flock (the write waits; both generations stay), truncated when no move
// can replace the older file, whole lines from threads, silence after uninstall or without a
// folder.
TEST_F(ServiceConcurrentTest, LogRotatesOnlyPastTheLimitAlsoUnderAnotherProcess) {
  const std::string file = paths.logFile, rotated = paths.rotatedLogFile,
                    big(HelperLog::kRotationLimit, 'x'), stamp = "2026-11-16T20:51:26Z ";
  ::umask(077);
  log.write("two\nlines");
  ::umask(022);
  EXPECT_EQ(contentOf(file), stamp + "two\nlines\n");
  EXPECT_EQ(modeOf(file), 0644);
  tree.write("var/log/tarnly-adminhelper.log", big);
  log.write("at the limit");  // appended, not rotated
  EXPECT_FALSE(pathExists(rotated));
  HeldFlock other(file);  // another process holds the log while it rotates it
  std::atomic<bool> done{false};
  std::thread writer([&] { log.write("next"), done = true; });
  EXPECT_TRUE(waitForFlockWaiter(other.inode(), [&] { return done.load(); }))
      << "the write went ahead while another process rotated";
  ASSERT_EQ(::rename(file.c_str(), rotated.c_str()), 0);
  other.release();
  writer.join();
  EXPECT_EQ(contentOf(rotated), big + stamp + "at the limit\n");
  EXPECT_EQ(contentOf(file), stamp + "next\n");
  tree.write("var/log/tarnly-adminhelper.log", big + "x");
  log.write("rotated");  // past the limit: the older generation is replaced
  EXPECT_EQ(contentOf(rotated), big + "x");
  std::vector<std::thread> threads(8);
  for (int t = 0; t < 8; ++t)
    threads[t] = std::thread([this, t] {
      for (int i = 0; i < 200; ++i) log.write(std::to_string(t * 1000 + i));
    });
  for (auto& thread : threads) thread.join();
  std::vector<std::string> lines = logLines(), expected{"rotated"};
  for (int t = 0; t < 8000; t += 1000)
    for (int i = 0; i < 200; ++i) expected.push_back(std::to_string(t + i));
  EXPECT_THAT(lines, testing::UnorderedElementsAreArray(expected));
  log.removeForUninstall();
  log.write("after");
  EXPECT_FALSE(pathExists(file) || pathExists(rotated));
  createDirectories(rotated + "/occupied");
  tree.write("var/log/tarnly-adminhelper.log", big + "x");
  HelperLog(file, rotated).write("truncated");
  EXPECT_THAT(logLines(), ElementsAre("truncated"));
  HelperLog(tree.path("missing/x.log"), tree.path("missing/x.log.1")).write("lost");
  EXPECT_FALSE(pathExists(tree.path("missing")));
}

TEST(HelperAuthorizationTest, AdministratorsAreRootWithoutALookupAndMembersOfGroup80) {
  FakeUserDirectory users;  // no entry at all, not even for root
  EXPECT_TRUE(HelperAuthorization::isAdministrator(0, users));
  EXPECT_EQ(users.lookups(), 0) << "root needs no lookup";
  // 501 is a member of the administrators' group and 503 of none; for 502 and 504 it is the
  // primary group, and the group list of 504 cannot be had.
  users.addUser(501, {20, 12, 80});
  users.addUser(503, {20, 800, 8});
  users.addUser(502, {80});
  users.addUser(504, {80});
  users.failGroupsOf(504);
  for (uid_t uid : {501u, 502u, 503u, 504u, 4242u})  // 4242 has no entry
    EXPECT_EQ(HelperAuthorization::isAdministrator(uid, users), uid < 503) << uid;
  uid_t unknown = 4242000;  // the default directory is the real one
  while (systemUserDirectory().user(unknown)) ++unknown;
  EXPECT_FALSE(HelperAuthorization::isAdministrator(unknown));
  EXPECT_EQ(systemUserDirectory().user(0).value().name, "root");
}

// What the uninstall clean-up left: reasons in order, each once, other names sorted by code point
// and listed with the English list rule.
TEST(HelperUninstallTest, ExplanationListsReasonsInOrderAndOtherNamesSorted) {
  EXPECT_TRUE(!HelperUninstall::explanation({}) && HelperUninstall::englishList({}).empty());
  // clang-format off
  const std::string vlans = "the list of VLANs Tarnly created, which lets a later install remove them";
  EXPECT_EQ(HelperUninstall::explanation({"backup.old", "vlans.json"}), vlans + " and backup.old");
  EXPECT_EQ(HelperUninstall::explanation({"zeta", "firewall-loaded.json", "vlans.json", "firewall.pf.conf", "\xc3\xa9t\xc3\xa9", "Alpha", "firewall-policies.json", "beta"}),
            "firewall rules another account on this Mac still uses, " + vlans + ", and Alpha, beta, zeta, and \xc3\xa9t\xc3\xa9");
  // clang-format on
}

TEST(Base64Test, RoundTripsEveryLengthAndRefusesNonCanonicalText) {
  for (std::string bytes; bytes.size() < 260; bytes += static_cast<char>(bytes.size() * 37))
    EXPECT_EQ(Base64::decode(Base64::encode(bytes)), bytes);
  for (const char* bad : {"W10", "W1==", "W11=", "W1=0", "W=0=", "W10*", "W10=AAAA"})
    EXPECT_FALSE(Base64::decode(bad)) << bad;
}

// Exact results: arguments passed one to one without a shell, both streams and the status, start
// failures, invalid UTF-8, signals (ones the helper ignores or blocks act by default in the child),
// output beyond a pipe buffer, a wait that fails, and the combined output.
TEST(HelperCommandRun, ReportsStatusAndBothStreamsExactly) {
  TempTree tree;
  const std::string plain = tree.write("plain", "data", 0644), missing = tree.path("no-tool");
  // clang-format off
  const std::tuple<std::string, std::vector<std::string>, Result> cases[] = {
      {"/bin/echo", {"a b", "$HOME", "*", "'q'"}, {0, "a b $HOME * 'q'\n", ""}},
      {"/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, {3, "out\n", "err\n"}},
      {missing, {}, {-1, "", "Could not run " + missing + ": No such file or directory"}},
      {plain, {}, {-1, "", "Could not run " + plain + ": Permission denied"}},
      {"/bin/sh", {"-c", "printf 'ok \\377\\376 done'; printf '\\303' >&2"}, {0, "ok \uFFFD\uFFFD done", "\uFFFD"}},
      {"/bin/sh", {"-c", "kill -INT $$; exit 0"}, {SIGINT, "", ""}},
      {"/bin/sh", {"-c", "kill -TERM $$; exit 0"}, {SIGTERM, "", ""}},
      // 1 MiB to each stream, far beyond the 64 KiB a pipe holds: both are drained at once.
      {"/bin/sh", {"-c", "head -c 1M /dev/zero | tr '\\0' o; head -c 1M /dev/zero | tr '\\0' e >&2"}, {0, std::string(1 << 20, 'o'), std::string(1 << 20, 'e')}},
  };
  // clang-format on
  auto fields = [](const Result& r) { return std::tuple(r.status, r.stdout, r.stderr); };
  auto savedInt = std::signal(SIGINT, SIG_IGN);
  sigset_t all, savedMask;
  sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &savedMask);
  for (const auto& [path, arguments, expected] : cases)
    EXPECT_EQ(fields(run(path, arguments)), fields(expected)) << testing::PrintToString(arguments);
  ::pthread_sigmask(SIG_SETMASK, &savedMask, nullptr), std::signal(SIGINT, savedInt);
  // With SIGCHLD ignored the kernel reaps the child itself: the failed wait is no success.
  auto savedChild = std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(fields(run("/bin/true", {})),
            fields({-1, "", "Could not wait for /bin/true: No child processes"}));
  (void)std::signal(SIGCHLD, savedChild);
  EXPECT_EQ((Result{1, "\n out \n", "\t err\n\n"}).combinedOutput(), "out\nerr");
  EXPECT_EQ((Result{1, " \n", " \n"}).combinedOutput(), "");
  EXPECT_EQ((Result{1, "", "a\n\nb\n"}).combinedOutput(), "a\n\nb");
}

// While other runs hold their pipes (each says it is ready on one FIFO, then waits for a line on
// another), a child inherits no descriptor of the helper or of them, and each run keeps its output.
TEST(HelperCommandRun, ConcurrentRunsKeepTheirOutputAndLeakNoDescriptor) {
  TempTree tree;
  std::vector<std::string> before;  // descriptors open in this process now
  DIR* dir = ::opendir("/proc/self/fd");
  for (dirent* entry; (entry = ::readdir(dir)) != nullptr;)
    if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != ::dirfd(dir))
      before.emplace_back(entry->d_name);
  ::closedir(dir);
  std::string ready = tree.path("ready"), gate = tree.path("gate");
  ASSERT_EQ(::mkfifo(ready.c_str(), 0600) | ::mkfifo(gate.c_str(), 0600), 0);
  int readyFd = ::open(ready.c_str(), O_RDWR | O_CLOEXEC),
      gateFd = ::open(gate.c_str(), O_RDWR | O_CLOEXEC);
  std::vector<Result> others(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < others.size(); ++i)
    threads.emplace_back([&, i] {
      others[i] = run("/bin/sh", {"-c", "printf x > \"$0\"; read l < \"$1\"; echo $2", ready, gate,
                                  std::to_string(i)});
    });
  char bytes[4];
  for (ssize_t got = 0, n = 0; got < 4; got += n) ASSERT_GT(n = ::read(readyFd, bytes, 4), 0);
  Result result = run("/bin/sh", {"-c", "ls /proc/$$/fd"});  // what the shell inherited
  ASSERT_TRUE(writeAll(gateFd, std::string(others.size(), '\n')));
  for (auto& thread : threads) thread.join();
  ::close(readyFd);
  ::close(gateFd);
  ASSERT_EQ(result.status, 0);
  // All of them the test process had already (inherited itself, not close-on-exec).
  EXPECT_THAT(split(result.stdout, '\n', false), testing::IsSubsetOf(before));
  for (std::size_t i = 0; i < others.size(); ++i)
    EXPECT_EQ(others[i].stdout, std::to_string(i) + "\n");
}

}  // namespace
