// The end-to-end driver: a client of the running helper that many connections and processes make
// at once. Inside an isolated root it is the bundle's Contents/Helpers/TarnlyService, one of the
// two programs the helper answers. One mode per run; each prints its figures and exits 0 when
// every check held, else 1 with the first failure on standard error.
//   load CLIENTS REQUESTS    CLIENTS connections at once (uids 0, 501 and 502 in turn), each
//                            sending REQUESTS mixed requests; checks every reply
//   idle COUNT               COUNT idle connections and a few stalled half frames, then a new
//                            client's round trip; then connections up to the helper's limit
//   flood COUNT              COUNT connections each sending half of a 16 MiB frame and stalling
//   crash KILLS SEED         streams applies and removes from three uids while the helper is
//                            killed KILLS times at seeded random moments; checks the files
// Policies are read from /tmp/policy-<uid>.json.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "firewall/enforce/firewall_state.h"
#include "platform/base64.h"
#include "platform/files.h"
#include "platform/host_paths.h"
#include "service/wire_frame.h"

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

const HostPaths kPaths;
const std::string kVersionReply = std::string(R"({"reply":[")") + TARNLY_VERSION + "\"]}";
const std::string kHelper = "/Applications/Tarnly.app/Contents/Helpers/TarnlyAdminHelper";
constexpr unsigned kUids[] = {0, 501, 502};

[[noreturn]] void fail(const std::string& why) {
  (void)std::fprintf(stderr, "%s\n", why.c_str());
  (void)std::fflush(stderr);
  ::_exit(1);
}

int connectToHelper() {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kPaths.socketPath.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::string request(const std::string& method, const json& args = json::array()) {
  return json{{"method", method}, {"args", args}}.dump();
}

// One round trip; the reply's payload, or "<closed>".
std::string roundTrip(int fd, const std::string& payload) {
  if (!WireFrame::write(fd, payload)) return "<closed>";
  WireFrame::ReadResult reply = WireFrame::read(fd);
  return reply.status == WireFrame::ReadResult::Status::frame ? reply.payload : "<closed>";
}

std::string policy(unsigned uid) {
  std::ifstream in("/tmp/policy-" + std::to_string(uid) + ".json");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (text.empty()) fail("no /tmp/policy-" + std::to_string(uid) + ".json");
  return text;
}

std::string applyRequest(unsigned uid) {
  return request("applyFirewallWithPolicyData:withReply:", {Base64::encode(policy(uid))});
}

// Becomes `uid` with its groups (alice is in the administrators' group 80, bob has it as a
// supplementary group), in a child that ends with the driver.
void becomeUser(unsigned uid) {
  gid_t gid = uid == 501 ? 80 : uid;
  gid_t groups[] = {gid, 80};
  if (uid != 0 && (::setgroups(2, groups) != 0 || ::setresgid(gid, gid, gid) != 0 ||
                   ::setresuid(uid, uid, uid) != 0)) {
    fail("could not become uid " + std::to_string(uid));
  }
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // set after the change of credentials, which clears it
}

// The helper's pid, from the credentials of a connection to it.
pid_t helperPid() {
  int fd = connectToHelper();
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (fd < 0 || ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    fail("cannot reach the helper");
  }
  ::close(fd);
  return credentials.pid;
}

// A field of /proc/<pid>/status in kB ("VmHWM", "Threads" as counts).
long statusField(pid_t pid, const std::string& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(name + ":", 0) == 0) return std::stol(line.substr(name.size() + 1));
  }
  return -1;
}

// Forks a child that runs `body` and exits with its status.
pid_t forkRunning(const std::function<int()>& body) {
  pid_t pid = ::fork();
  if (pid == 0) {
    (void)std::fflush(stdout);
    ::_exit(body());
  }
  return pid;
}

bool childSucceeded(pid_t pid) {
  int status = 0;
  return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// ---- load

// Whether `reply` is the right answer to the request numbered `i` of a client of `uid`.
bool checkLoadReply(unsigned uid, int i, const std::string& reply) {
  if (i % 50 == 0) {
    std::string own = "Enforcing 1 network: Net" + std::to_string(uid);
    json value = json::parse(reply, nullptr, false);
    if (!value.contains("reply") || value["reply"].size() != 2 || !value["reply"][0].is_string() ||
        !value["reply"][1].is_null()) {
      return false;
    }
    std::string text = value["reply"][0].get<std::string>();
    return text == own || text == own + " - 1 more for other users of this Mac" ||
           text == own + " - 2 more for other users of this Mac";
  }
  if (i % 10 == 5) {
    return reply.rfind(R"({"reply":["== pf status ==)", 0) == 0 &&
           reply.find("== subnet owners ==") != std::string::npos;
  }
  return reply == (i % 2 == 0 ? kVersionReply : std::string(R"({"reply":["W10=",null]})"));
}

int runLoad(int clients, int requests) {
  pid_t helper = helperPid();
  std::vector<pid_t> children;
  Clock::time_point start = Clock::now();
  for (unsigned uid : kUids) {
    int mine = clients / 3 + (uid == 0 ? clients % 3 : 0);
    children.push_back(forkRunning([uid, mine, requests] {
      becomeUser(uid);
      std::string apply = applyRequest(uid);
      std::string report = request("firewallReportWithReply:");
      std::string version = request("helperVersionWithReply:");
      std::string vlans = request("createdVLANsWithReply:");
      std::atomic<int> failures{0};
      std::latch connected(mine);
      std::vector<std::thread> threads;
      threads.reserve(static_cast<std::size_t>(mine));
      for (int c = 0; c < mine; ++c) {
        threads.emplace_back([&] {
          int fd = connectToHelper();
          connected.arrive_and_wait();  // every client is connected before any request
          for (int i = 0; i < requests && fd >= 0; ++i) {
            const std::string& sent = i % 50 == 0   ? apply
                                      : i % 10 == 5 ? report
                                      : i % 2 == 0  ? version
                                                    : vlans;
            std::string reply = roundTrip(fd, sent);
            if (!checkLoadReply(uid, i, reply) && failures++ == 0) {
              (void)std::fprintf(stderr, "uid %u request %d: %s\n", uid, i, reply.c_str());
            }
          }
          if (fd < 0 && failures++ == 0) (void)std::fprintf(stderr, "uid %u: no connection\n", uid);
          if (fd >= 0) ::close(fd);
        });
      }
      for (std::thread& thread : threads) thread.join();
      return failures.load() == 0 ? 0 : 1;
    }));
  }
  bool ok = true;
  for (pid_t child : children) ok = childSucceeded(child) && ok;
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (::kill(helper, 0) != 0) fail("the helper is gone");
  (void)std::printf(
      "load: %d clients x %d requests in %.1f s: %.0f requests/s; helper VmHWM %ld kB\n", clients,
      requests, seconds, clients * requests / seconds, statusField(helper, "VmHWM"));
  return ok ? 0 : 1;
}

// ---- idle and flood

double versionRoundTripMs() {
  Clock::time_point start = Clock::now();
  int fd = connectToHelper();
  std::string reply = fd >= 0 ? roundTrip(fd, request("helperVersionWithReply:")) : "<no socket>";
  if (fd >= 0) ::close(fd);
  if (reply != kVersionReply) fail("a new client got " + reply);
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double medianVersionRoundTripMs() {
  std::vector<double> times;
  times.reserve(21);
  for (int i = 0; i < 21; ++i) times.push_back(versionRoundTripMs());
  std::nth_element(times.begin(), times.begin() + 10, times.end());
  return times[10];
}

// True when the helper has closed `fd` (end of file) — waits at most `wait`.
bool closedByHelper(int fd, std::chrono::milliseconds wait) {
  pollfd entry{fd, POLLIN, 0};
  if (::poll(&entry, 1, static_cast<int>(wait.count())) <= 0) return false;
  char byte;
  return ::recv(fd, &byte, 1, MSG_DONTWAIT) <= 0;
}

// The 4 bytes announcing a frame of `size` bytes.
std::string header(std::uint32_t size) {
  return {static_cast<char>(size >> 24), static_cast<char>(size >> 16 & 0xff),
          static_cast<char>(size >> 8 & 0xff), static_cast<char>(size & 0xff)};
}

int runIdle(int count) {
  double before = medianVersionRoundTripMs();
  std::vector<int> idle;
  for (int i = 0; i < count; ++i) {
    int fd = connectToHelper();
    if (fd < 0) fail("idle connection " + std::to_string(i) + " failed");
    idle.push_back(fd);
  }
  // Five of them stall in the middle of a frame: a small one, and a large one holding its budget.
  for (int i = 0; i < 4; ++i) {
    std::string half = header(200) + std::string(100, '{');
    ::send(idle[i], half.data(), half.size(), MSG_NOSIGNAL);
  }
  std::string large = header(WireFrame::kMaxFrame) + std::string(WireFrame::kMaxFrame / 2, ' ');
  ::send(idle[4], large.data(), large.size(), MSG_NOSIGNAL);
  double after = medianVersionRoundTripMs();
  (void)std::printf("idle: round trip %.2f ms alone, %.2f ms beside %d idle connections\n", before,
                    after, count);
  if (after > 10 * before + 20) fail("the new client waited too long");
  for (int fd : idle) {
    if (closedByHelper(fd, std::chrono::milliseconds(0))) fail("an idle connection was closed");
  }
  // Up to the limit and three beyond: those three are closed at once.
  pid_t helper = helperPid();
  std::vector<int> more;
  int refused = 0;
  for (int i = 0; i < 1400 && refused < 3; ++i) {
    int fd = connectToHelper();
    if (fd < 0) fail("connecting failed");
    more.push_back(fd);
    if (i >= 200 && closedByHelper(fd, std::chrono::milliseconds(20))) ++refused;
  }
  long threads = statusField(helper, "Threads");
  (void)std::printf("idle: %zu connections open, %d refused, helper threads %ld\n",
                    idle.size() + more.size() - refused, refused, threads);
  for (int fd : more) ::close(fd);
  for (int fd : idle) ::close(fd);
  return refused == 3 ? 0 : 1;
}

int runFlood(int count) {
  pid_t helper = helperPid();
  long base = statusField(helper, "VmHWM");
  std::atomic<int> held{0}, busy{0}, other{0};
  std::latch sent(count);
  std::vector<int> fds;
  std::vector<std::thread> senders;
  std::string frame = header(WireFrame::kMaxFrame) + std::string(WireFrame::kMaxFrame / 2, ' ');
  for (int i = 0; i < count; ++i) {
    int fd = connectToHelper();
    if (fd < 0) fail("connecting failed");
    fds.push_back(fd);
    senders.emplace_back([&, fd] {
      // Blocks until the helper has read it all or answers and closes.
      std::size_t done = 0;
      ssize_t n = 0;
      while (done < frame.size() &&
             (n = ::send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL)) > 0) {
        done += static_cast<std::size_t>(n);
      }
      if (done == frame.size()) {
        ++held;
      } else {
        WireFrame::ReadResult reply = WireFrame::read(fd);
        if (reply.payload.find("busy") != std::string::npos)
          ++busy;
        else
          ++other;
      }
      sent.count_down();
    });
  }
  // While they stall, a small request is still served at once.
  double during = versionRoundTripMs();
  sent.wait();
  long peak = statusField(helper, "VmHWM");
  for (std::thread& thread : senders) thread.join();
  for (int fd : fds) ::close(fd);
  (void)std::printf(
      "flood: %d half frames of 16 MiB: %d held, %d refused as busy, %d other; version "
      "round trip %.2f ms meanwhile; helper VmHWM %ld kB (%ld kB before)\n",
      count, held.load(), busy.load(), other.load(), during, peak, base);
  return other == 0 ? 0 : 1;
}

// ---- crash

// Streams applies and removes for `uid` until killed; counts answered requests.
[[noreturn]] void streamChanges(unsigned uid, std::atomic<long>* answered) {
  becomeUser(uid);
  std::string apply = applyRequest(uid);
  std::string remove = request("removeFirewallWithReply:");
  std::mt19937 random(uid);
  while (true) {
    int fd = connectToHelper();
    if (fd < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));  // the helper is starting
      continue;
    }
    while (roundTrip(fd, random() % 3 == 0 ? remove : apply) != "<closed>") ++*answered;
    ::close(fd);
  }
}

pid_t startHelper() {
  pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setpgid(0, 0);  // the helper and the programs it runs, to be killed together
    int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(null, 0);
    ::dup2(null, 1);
    ::dup2(null, 2);
    ::execl(kHelper.c_str(), kHelper.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // Started once it answers (at most 10 s).
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    int fd = connectToHelper();
    if (fd >= 0) {
      std::string reply = roundTrip(fd, request("helperVersionWithReply:"));
      ::close(fd);
      if (reply == kVersionReply) return pid;
    }
    if (::waitpid(pid, nullptr, WNOHANG) == pid) fail("the helper exited at start");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  fail("the helper did not start answering");
}

// Kills the helper with the programs it runs, as the service manager would, and reaps them all
// (the driver is their subreaper): none still holds the helper's socket afterwards.
void killHelper(pid_t helper) {
  ::kill(-helper, SIGKILL);
  while (::waitpid(-helper, nullptr, 0) > 0) {
  }
}

std::string readAll(const std::string& path) {
  return readFile(path, 64 << 20).value_or("");
}

// The store holds only the networks the clients send, each under its own uid; the record holds a
// rules digest. Returns whether there is a store.
bool checkFiles(const std::vector<NetworkFirewall::PolicyStore::Owners>& sent) {
  bool haveStore = pathExists(kPaths.state(HelperFirewall::kStoreFile));
  if (haveStore) {
    std::string text = readAll(kPaths.state(HelperFirewall::kStoreFile));
    json strict = json::parse(text, nullptr, false);
    auto owners = NetworkFirewall::PolicyStore::decoded(text);
    if (!strict.is_object() || !strict.contains("owners") || !owners) fail("torn store:\n" + text);
    for (const auto& [key, entry] : *owners) {
      bool known = false;
      for (std::size_t i = 0; i < 3; ++i) {
        known = known || (key == std::to_string(kUids[i]) &&
                          entry.policies == sent[i].begin()->second.policies);
      }
      if (!known) fail("store entry " + key + " is no document a client sent:\n" += text);
    }
  }
  if (pathExists(kPaths.state(HelperFirewall::kLoadedFile))) {
    std::string text = readAll(kPaths.state(HelperFirewall::kLoadedFile));
    auto record = NetworkFirewall::LoadedRuleset::decoded(text);
    if (!record || record->rulesDigest.size() != 64) fail("torn record: " + text);
  }
  return haveStore;
}

int runCrash(int kills, unsigned seed) {
  std::vector<NetworkFirewall::PolicyStore::Owners> sent;
  for (unsigned uid : kUids) {
    auto owners = NetworkFirewall::PolicyStore::decoded(policy(uid));
    if (!owners) fail("unreadable policy of uid " + std::to_string(uid));
    sent.push_back(*owners);
  }
  // The log starts just below its limit, so that it rotates during the run.
  {
    std::ofstream log(kPaths.logFile, std::ios::app);
    std::string line = "2026-11-23T00:00:00Z filler line of the crash test, forty-odd bytes\n";
    for (std::size_t size = 0; size + line.size() < 524000; size += line.size()) log << line;
  }
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  auto* answered = static_cast<std::atomic<long>*>(::mmap(nullptr, sizeof(std::atomic<long>),
                                                          PROT_READ | PROT_WRITE,
                                                          MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (answered) std::atomic<long>(0);
  pid_t helper = startHelper();
  std::vector<pid_t> clients;
  for (unsigned uid : kUids) {
    for (int copy = 0; copy < 2; ++copy) {
      pid_t pid = ::fork();
      if (pid == 0) streamChanges(uid, answered);
      clients.push_back(pid);
    }
  }
  std::mt19937 random(seed);
  int reapplied = 0, rotations = 0;
  std::size_t longest = 0;
  for (int kill = 1; kill <= kills; ++kill) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 100000));
    for (pid_t client : clients) ::kill(client, SIGSTOP);
    killHelper(helper);
    bool haveStore = checkFiles(sent);
    std::size_t logBefore = readAll(kPaths.logFile).size();
    helper = startHelper();
    for (const auto& entry : std::filesystem::directory_iterator(kPaths.stateDirectory)) {
      if (isTemporaryFileName(entry.path().filename().string())) {
        fail("left behind after a start: " + entry.path().string());
      }
    }
    // The start's lines: the re-apply right before the listening line.
    std::string log = readAll(kPaths.logFile);
    if (log.size() < logBefore) {
      ++rotations;
      log.insert(0, readAll(kPaths.rotatedLogFile));
    }
    std::size_t listening = log.rfind(" listening on com.orbelle.tarnly.adminhelper.\n");
    if (listening == std::string::npos || log.rfind('\n', listening) == std::string::npos) {
      fail("no start line in the log");
    }
    std::size_t lineStart = log.rfind('\n', log.rfind('\n', listening) - 1);
    std::string previous = log.substr(lineStart + 1, log.rfind('\n', listening) - lineStart);
    if (haveStore) {
      if (previous.find(" Boot re-apply") == std::string::npos) {
        fail("start " + std::to_string(kill) + " without a re-apply; it logged: " + previous);
      }
      ++reapplied;
    }
    std::string current = readAll(kPaths.logFile);
    std::size_t lastLine = current.size() < 2 ? 0 : current.rfind('\n', current.size() - 2) + 1;
    longest = std::max({longest, logBefore, current.size()});
    if (lastLine > 524288) fail("the log grew past its limit: " + std::to_string(current.size()));
    for (pid_t client : clients) ::kill(client, SIGCONT);
  }
  for (pid_t client : clients) {
    ::kill(client, SIGKILL);
    ::waitpid(client, nullptr, 0);
  }
  ::kill(helper, SIGKILL);
  ::waitpid(helper, nullptr, 0);
  (void)std::printf(
      "crash: %d kills survived; %ld requests answered; %d starts re-applied; %d log "
      "rotations; largest log %zu bytes\n",
      kills, answered->load(), reapplied, rotations, longest);
  return answered->load() >= kills / 8 ? 0 : 1;  // the stream really ran between the kills
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  (void)::signal(SIGPIPE, SIG_IGN);
  auto number = [&](std::size_t i) { return i < args.size() ? std::stoi(args[i]) : 0; };
  std::string mode = args.empty() ? "" : args[0];
  if (mode == "load") return runLoad(number(1), number(2));
  if (mode == "idle") return runIdle(number(1));
  if (mode == "flood") return runFlood(number(1));
  if (mode == "crash") return runCrash(number(1), static_cast<unsigned>(number(2)));
  (void)std::fprintf(stderr, "usage: e2e_driver load|idle|flood|crash ...\n");
  return 2;
}
