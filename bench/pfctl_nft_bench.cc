// tarnly-pfctl against the kernel, in private mount and network namespaces of its own:
//  - AnchorLoad/N: one `pfctl -a ANCHOR -f FILE` of N networks of 50 rules each (10 times the
//    networks should take at most 12 times as long);
//  - ConnectionRate/N: TCP connections per second from a "vm" namespace on bridge100 to the
//    gateway with N networks loaded, the VM's own among them (1 and 1,000 should be within 20%).
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
#include <string>
#include <thread>

#include "platform/files.h"
#include "service/helper_command.h"
#include "support/temp_tree.h"

namespace {

const std::string kAnchor = "com.apple/900.tarnly.firewall";
constexpr uint16_t kPort = 9000;

int hostNamespace = -1;
int vmNamespace = -1;

// The helper's ruleset shape for `count` networks of 50 rules: the VM's 192.168.64.0/24 first,
// then 10.x.y.0/24 networks.
std::string ruleset(int count) {
  std::string text = "# generated for the benchmark\n\n";
  for (int i = 0; i < count; ++i) {
    std::string prefix =
        i == 0 ? "192.168.64" : "10." + std::to_string(i / 250) + "." + std::to_string(i % 250);
    std::string subnet = prefix + ".0/24";
    std::string gateway = prefix + ".1";
    text += "# --- net" + std::to_string(i) + " (" + subnet + ") ---\n";
    text += "block drop quick on bridge" + std::to_string(100 + i) + " inet6 all\n";
    text += "pass in quick proto udp from " + subnet + " port 68 to { " + gateway +
            ", 255.255.255.255 } port 67 keep state\n";
    text += "pass out quick proto udp from " + gateway + " port 67 to " + subnet + " port 68\n";
    text +=
        "pass in quick proto udp from " + subnet + " to " + gateway + "/32 port 53 keep state\n";
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

HelperCommand::Result load(TempTree& tree, int networks) {
  std::string file = tree.write("anchor-" + std::to_string(networks) + ".conf", ruleset(networks));
  return HelperCommand::run(TARNLY_PFCTL_PATH, {"-a", kAnchor, "-f", file});
}

void AnchorLoad(benchmark::State& state) {
  TempTree tree;
  int networks = static_cast<int>(state.range(0));
  std::string file = tree.write("anchor.conf", ruleset(networks));
  for (auto _ : state) {
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

void ConnectionRate(benchmark::State& state) {
  TempTree tree;
  HelperCommand::Result loaded = load(tree, static_cast<int>(state.range(0)));
  if (loaded.status != 0) {
    state.SkipWithError(loaded.combinedOutput().c_str());
    return;
  }
  sockaddr_in gateway{};
  gateway.sin_family = AF_INET;
  gateway.sin_port = htons(kPort);
  inet_pton(AF_INET, "192.168.64.1", &gateway.sin_addr);
  linger reset{1, 0};
  // Sockets belong to the namespace they are made in: the client's are the VM's.
  setns(vmNamespace, CLONE_NEWNET);
  for (auto _ : state) {
    int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::setsockopt(client, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    if (::connect(client, reinterpret_cast<sockaddr*>(&gateway), sizeof gateway) != 0) {
      ::close(client);
      state.SkipWithError("connection from the VM refused or dropped");
      break;
    }
    ::close(client);
  }
  setns(hostNamespace, CLONE_NEWNET);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ConnectionRate)
    ->Arg(1)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(3.0)
    ->UseRealTime();

// Builds the lab and the gateway's listener; returns why it cannot, or empty.
std::string enterLab() {
  if (::geteuid() != 0) return "needs root";
  if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return "no mount and network namespaces";
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "no private mounts";
  HelperCommand::Result lab = HelperCommand::run("/bin/sh", {"-ec", R"(
mkdir -p /run/netns && mount -t tmpfs tmpfs /run/netns
ip link set lo up
ip link add bridge100 type bridge && ip addr add 192.168.64.1/24 dev bridge100
ip link set bridge100 up
ip netns add vm
ip link add vmport type veth peer name eth0 netns vm && ip link set vmport master bridge100 up
ip -n vm link set lo up && ip -n vm link set eth0 up && ip -n vm addr add 192.168.64.2/24 dev eth0
)"});
  if (lab.status != 0) return "cannot build the lab: " + lab.combinedOutput();
  HelperCommand::Result enabled = HelperCommand::run(TARNLY_PFCTL_PATH, {"-E"});
  if (enabled.status != 0) return enabled.combinedOutput();
  hostNamespace = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  vmNamespace = ::open("/run/netns/vm", O_RDONLY | O_CLOEXEC);
  if (hostNamespace < 0 || vmNamespace < 0) return "cannot open the namespaces";
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

}  // namespace

int main(int argc, char** argv) {
  std::string reason = enterLab();
  if (!reason.empty()) {
    std::printf("pfctl_nft_bench skipped: %s\n", reason.c_str());
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::fflush(stdout);
  ::_exit(0);
}
