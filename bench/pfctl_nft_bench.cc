// tarnly-pfctl against the kernel, in private mount and network namespaces of its own:
//  - AnchorLoad/N: one `pfctl -a ANCHOR -f FILE` of N networks of 50 rules each (10 times the
//    networks should take at most 12 times as long);
//  - ConnectionRate/N: TCP connections per second from a "vm" namespace on bridge100 to the
//    gateway with N networks loaded, the VM's own among them (1 and 1,000 should be within 20%);
//    both labs stand side by side and their repetitions interleave.
// Needs root, namespaces and nf_tables; without them it says why and exits 0.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "service/helper_command.h"
#include "support/temp_tree.h"

namespace {

const std::string kAnchor = "com.apple/900.tarnly.firewall";
constexpr uint16_t kPort = 9000;

// The helper's ruleset shape for `count` networks of 50 rules: the VM's 192.168.64.0/24 first,
// then 10.x.y.0/24 networks.
std::string ruleset(int count) {
  std::string text = "# generated for the benchmark\n\n";
  for (int i = 0; i < count; ++i) {
    std::string prefix =
        i == 0 ? "192.168.64" : "10." + std::to_string(i / 250) + "." + std::to_string(i % 250);
    std::string subnet = prefix + ".0/24";
    std::string gateway = prefix + ".1";
    text.append("# --- net").append(std::to_string(i)).append(" (").append(subnet);
    text.append(") ---\nblock drop quick on bridge").append(std::to_string(100 + i));
    text.append(" inet6 all\npass in quick proto udp from ").append(subnet);
    text.append(" port 68 to { ")
        .append(gateway)
        .append(", 255.255.255.255 } port 67 keep state\n");
    text.append("pass out quick proto udp from ").append(gateway).append(" port 67 to ");
    text.append(subnet).append(" port 68\npass in quick proto udp from ").append(subnet);
    text.append(" to ").append(gateway).append("/32 port 53 keep state\n");
    for (int r = 0; r < 44; ++r) {
      if (r % 2 == 0) {
        text += "block drop in quick proto tcp from " + subnet + " to 172.16." + std::to_string(r) +
                ".0/24 port " + std::to_string(1000 + r) + "\n";
      } else {
        text += "pass out quick proto tcp from any to " + subnet + " port " +
                std::to_string(2000 + r) + ":" + std::to_string(2010 + r) + " keep state\n";
      }
    }
    text += "pass in quick from " + subnet + " to any keep state\n";
    text += "block drop out quick from any to " + subnet + "\n\n";
  }
  return text;
}

void AnchorLoad(benchmark::State& state) {
  TempTree tree;
  int networks = static_cast<int>(state.range(0));
  std::string file = tree.write("anchor.conf", ruleset(networks));
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    HelperCommand::Result result =
        HelperCommand::run(TARNLY_PFCTL_PATH, {"-a", kAnchor, "-f", file});
    if (result.status != 0) {
      state.SkipWithError(result.combinedOutput().c_str());
      return;
    }
  }
  state.counters["rules"] = networks * 50;
}
BENCHMARK(AnchorLoad)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->UseRealTime();

// The connection-rate labs: for each network count, a host namespace with that many networks
// loaded and a VM namespace behind its bridge100, side by side so that the runs of both
// interleave.
struct ConnectionLab {
  int vmNamespace = -1;
};
std::map<int, ConnectionLab> connectionLabs;

void ConnectionRate(benchmark::State& state) {
  const ConnectionLab& lab = connectionLabs.at(static_cast<int>(state.range(0)));
  sockaddr_in gateway{};
  gateway.sin_family = AF_INET;
  gateway.sin_port = htons(kPort);
  inet_pton(AF_INET, "192.168.64.1", &gateway.sin_addr);
  linger reset{1, 0};
  // Sockets belong to the namespace they are made in: the client's are the VM's.
  int own = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  ::setns(lab.vmNamespace, CLONE_NEWNET);
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    if (::connect(client, reinterpret_cast<sockaddr*>(&gateway), sizeof gateway) != 0) {
      ::close(client);
      state.SkipWithError("connection from the VM refused or dropped");
      break;
    }
    ::close(client);
  }
  ::setns(own, CLONE_NEWNET);
  ::close(own);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ConnectionRate)
    ->Arg(1)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->UseRealTime();

// Builds the host and VM namespaces of `networks` networks, loads them and starts the gateway's
// acceptor; returns why it cannot, or empty.
std::string buildConnectionLab(TempTree& tree, int networks) {
  std::string n = std::to_string(networks);
  std::string file = tree.write("anchor-" + n + ".conf", ruleset(networks));
  HelperCommand::Result lab = HelperCommand::run("/bin/sh", {"-ec", R"(
ip netns add host$1 && ip netns add vm$1
ip -n host$1 link set lo up
ip -n host$1 link add bridge100 type bridge
ip -n host$1 addr add 192.168.64.1/24 dev bridge100 && ip -n host$1 link set bridge100 up
ip -n host$1 link add vmport type veth peer name eth0 netns vm$1
ip -n host$1 link set vmport master bridge100 up
ip -n vm$1 link set lo up && ip -n vm$1 link set eth0 up
ip -n vm$1 addr add 192.168.64.2/24 dev eth0
ip netns exec host$1 "$2" -E 2>/dev/null
ip netns exec host$1 "$2" -a com.apple/900.tarnly.firewall -f "$3"
)",
                                                             "lab", n, TARNLY_PFCTL_PATH, file});
  if (lab.status != 0) return "cannot build the lab: " + lab.combinedOutput();
  int own = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  int host = ::open(("/run/netns/host" + n).c_str(), O_RDONLY | O_CLOEXEC);
  connectionLabs[networks].vmNamespace =
      ::open(("/run/netns/vm" + n).c_str(), O_RDONLY | O_CLOEXEC);
  if (own < 0 || host < 0 || connectionLabs[networks].vmNamespace < 0 ||
      ::setns(host, CLONE_NEWNET) != 0) {
    return "cannot enter the namespaces";
  }
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::setns(own, CLONE_NEWNET);
  ::close(own);
  ::close(host);
  int yes = 1;
  ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  inet_pton(AF_INET, "192.168.64.1", &address.sin_addr);
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 4096) != 0) {
    return "cannot listen on the gateway";
  }
  // The process ends when the benchmarks are done; the acceptor never returns.
  std::thread([listener] {
    while (true) {
      int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection >= 0) ::close(connection);
    }
  }).detach();
  return {};
}

// Enters private mount and network namespaces with pf enabled, and builds the connection labs;
// returns why it cannot, or empty.
std::string enterLab(TempTree& tree) {
  if (::geteuid() != 0) return "needs root";
  if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return "no mount and network namespaces";
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "no private mounts";
  HelperCommand::Result mounted = HelperCommand::run(
      "/bin/sh", {"-ec", "mkdir -p /run/netns && mount -t tmpfs tmpfs /run/netns"});
  if (mounted.status != 0) return "cannot mount /run/netns: " + mounted.combinedOutput();
  HelperCommand::Result enabled = HelperCommand::run(TARNLY_PFCTL_PATH, {"-E"});
  if (enabled.status != 0) return enabled.combinedOutput();
  for (int networks : {1, 1000}) {
    std::string reason = buildConnectionLab(tree, networks);
    if (!reason.empty()) return reason;
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  TempTree tree;
  std::string reason = enterLab(tree);
  if (!reason.empty()) {
    std::printf("pfctl_nft_bench skipped: %s\n", reason.c_str());
    return 0;
  }
  // The two connection rates are compared: their repetitions interleave so that the machine's
  // load falls on both alike.
  std::vector<char*> arguments(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  arguments.push_back(interleave.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  (void)std::fflush(stdout);
  ::_exit(0);
}
