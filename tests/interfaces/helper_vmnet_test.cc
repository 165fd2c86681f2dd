#include "interfaces/helper_vmnet.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "interfaces/vmnet_listing.h"
#include "test_environment.h"

namespace {

using Lines = std::vector<std::string>;
using Names = std::set<std::string>;

// `ifconfig -a` of a Mac with a bridge, vmenet0 inside bridge100 and vmenet1 in no bridge.
constexpr const char* kListing = R"(lo0: flags=8049<UP,LOOPBACK,RUNNING,MULTICAST> mtu 16384
	inet 127.0.0.1 netmask 0xff000000
en0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500
	status: active
en1: flags=8963<UP,BROADCAST,SMART,RUNNING,PROMISC,SIMPLEX,MULTICAST> mtu 1500
	status: inactive
bridge0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500
	Configuration:
		id 0:0:0:0:0:0 priority 0 hellotime 0 fwddelay 0
	member: en1 flags=3<LEARNING,DISCOVER>
	        ifmaxaddr 0 port 8 priority 0 path cost 0
	status: inactive
vmenet0: flags=8963<UP,BROADCAST,SMART,RUNNING,PROMISC,SIMPLEX,MULTICAST> mtu 1500
	status: active
bridge100: flags=8a63<UP,BROADCAST,SMART,RUNNING,ALLMULTI,SIMPLEX,MULTICAST> mtu 1500
	member: vmenet0 flags=3<LEARNING,DISCOVER>
	        ifmaxaddr 0 port 21 priority 0 path cost 0
	status: active
vmenet1: flags=8963<UP,BROADCAST,SMART,RUNNING,PROMISC,SIMPLEX,MULTICAST> mtu 1500
	status: active
)";

// A header line for a vmnet interface, and a bridge listing the given members.
std::string vmnet(const std::string& name) {
  return name + ": flags=8963<UP,BROADCAST,SMART,RUNNING> mtu 1500\n\tstatus: active\n";
}
std::string bridge(const std::string& name, const Lines& members) {
  std::string text = name + ": flags=8a63<UP,BROADCAST> mtu 1500\n\tConfiguration:\n";
  for (const std::string& member : members) {
    text += "\tmember: " + member + " flags=3<LEARNING,DISCOVER>\n\t        ifmaxaddr 0 port 21\n";
  }
  return text;
}

TEST(InterfaceListing, ReadsOnlyHeaderLinesAndIndentedMemberLines) {
  // (The Mac listing above is read through the pruning tests.)
  HelperVMNet::InterfaceListing listing = HelperVMNet::parseInterfaceListing(
      "vmenet2: flags=0<> mtu 1500\n"
      "vmenet2: flags=0<> mtu 1500\n"   // listed twice: counted twice
      " vmenet3: flags=0<> mtu 1500\n"  // indented: no header
      "vmenet4\n"                       // no colon: the whole line is the name
      "vmenet5:: odd\n"
      "xvmenet6: flags=0<>\n"
      "\n\n"
      "\t  member: vmenet7  flags=3<>\n"  // blanks and tabs around, doubled blanks inside
      "member: vmenet8\n"                 // not indented
      "\u00a0member: vmenet12 flags=3\n"  // a no-break space is a blank too
      "\tmember:\tvmenet9 flags=3\n"      // a tab after the colon is not "member: "
      "\tmember: \n"                      // no name
      "\tmembers: vmenet10\n"
      "\tMember: vmenet11\n");
  EXPECT_EQ(listing.vmnets, (Lines{"vmenet2", "vmenet2", "vmenet4", "vmenet5"}));
  EXPECT_EQ(listing.members, (Names{"vmenet7", "vmenet8", "vmenet12"}));
  EXPECT_TRUE(HelperVMNet::parseInterfaceListing("\n\n").vmnets.empty());
}

// Fake pgrep and ifconfig programs in a temporary tree: each call is appended to a file, the
// listing (its error text and status) and the running virtual machines come from files the test
// writes, and a destroy is refused (with the text of the file) for names with a "refuse-<name>".
class PruneTest : public ::testing::Test {
 protected:
  PruneTest() {
    std::string folder = "d='" + test.tree.path("fake") + "'\n";
    test.tree.script("bin/pgrep", folder + R"(echo "$*" >> "$d/pgrep.calls"
[ -s "$d/vms" ] && { cat "$d/vms"; exit 0; }
exit 1
)");
    test.tree.script("bin/ifconfig", folder + R"sh(echo "$*" >> "$d/ifconfig.calls"
if [ "$1" = -a ]; then cat "$d/listing"; cat "$d/listing.err" >&2; exit "$(cat "$d/status")"; fi
[ "$2" = destroy ] || exit 64
[ -f "$d/refuse-$1" ] && { cat "$d/refuse-$1" >&2; exit 1; }
exit 0
)sh");
    listing(kListing);
    runningVMs("");
  }
  ~PruneTest() override { HelperVMNet::previousCandidates().forget(); }

  void listing(const std::string& out, const std::string& err = "", int status = 0) {
    test.tree.write("fake/listing", out);
    test.tree.write("fake/listing.err", err);
    test.tree.write("fake/status", std::to_string(status));
  }
  void runningVMs(const std::string& pids) { test.tree.write("fake/vms", pids); }
  void refuse(const std::string& name, const std::string& text) {
    test.tree.write("fake/refuse-" + name, text);
  }
  Lines calls(const std::string& program) const {
    const std::string text = readFile(test.tree.path("fake/" + program + ".calls")).value_or("");
    Lines lines;
    for (std::string_view line : split(text, '\n', false)) lines.emplace_back(line);
    return lines;
  }
  Lines destroys() const {
    Lines lines = calls("ifconfig");
    std::erase(lines, "-a");
    return lines;
  }
  std::string scan() { return HelperVMNet::pruneStale(test.env, memory); }

  TestEnvironment test;
  HelperVMNet::ScanMemory memory;
  const std::string remember =
      "1 vmnet interface(s) in no bridge for now; destroyed if still so at the next scan.";
  const std::string destroyedOne = "Destroyed 1 of 1 stale vmnet interface(s) (1 in use).";
};

TEST_F(PruneTest, FirstScanOnlyRemembersAndTheSecondDestroys) {
  EXPECT_EQ(scan(), remember);
  EXPECT_EQ(calls("pgrep"), Lines{"-x com.apple.Virtualization.VirtualMachine"});
  EXPECT_EQ(calls("ifconfig"), Lines{"-a"});
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});
  EXPECT_TRUE(test.logged().empty());

  EXPECT_EQ(scan(), destroyedOne);
  EXPECT_EQ(destroys(), Lines{"vmenet1 destroy"});
  EXPECT_EQ(test.logged(), Lines{"Destroyed stale vmnet interface(s) in no bridge: vmenet1"});
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});

  // Without a memory of its own, a scan uses the process-wide one.
  HelperVMNet::pruneStale(test.env);
  EXPECT_EQ(HelperVMNet::previousCandidates().contents(), Names{"vmenet1"});
  EXPECT_EQ(HelperVMNet::pruneStale(test.env), destroyedOne);
}

TEST_F(PruneTest, RunningVMEmptiesTheMemoryAndAFailedListingKeepsIt) {
  scan();
  runningVMs("4242\n\n4343\n");
  EXPECT_EQ(scan(), "2 VM process(es) running; not pruning.");
  EXPECT_TRUE(memory.contents().empty());
  EXPECT_EQ(calls("ifconfig"), Lines{"-a"});  // ifconfig did not run for this scan
  runningVMs("");
  EXPECT_EQ(scan(), remember);
  EXPECT_TRUE(destroys().empty());

  listing(" partial \n", "ifconfig: ioctl: Operation not permitted\n", 1);
  EXPECT_EQ(scan(), "ifconfig didn't answer: partial\nifconfig: ioctl: Operation not permitted");
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});
  EXPECT_TRUE(destroys().empty());
  listing(kListing);
  EXPECT_EQ(scan(), destroyedOne);

  // A missing pgrep counts as no virtual machine, a missing ifconfig as a failed listing.
  test.env.paths.pgrep = test.tree.path("bin/no-pgrep");
  EXPECT_EQ(scan(), destroyedOne);
  test.env.paths.ifconfig = test.tree.path("bin/no-ifconfig");
  EXPECT_EQ(scan(), "ifconfig didn't answer: Could not run " + test.env.paths.ifconfig +
                        ": No such file or directory");
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});
}

TEST_F(PruneTest, BridgedOnesStayDuplicatesCountTwiceAndRefusedDestroysAreTriedAgain) {
  scan();
  listing(vmnet("vmenet0") + vmnet("vmenet1") + bridge("bridge100", {"vmenet0", "vmenet1"}));
  EXPECT_EQ(scan(), "2 vmnet interface(s), every one in a bridge.");
  EXPECT_TRUE(memory.contents().empty());
  listing(bridge("bridge0", {"en1"}));
  EXPECT_EQ(scan(), "No vmnet interfaces.");

  const std::string four = vmnet("vmenet1") + vmnet("vmenet2") + vmnet("vmenet2") +
                           vmnet("vmenet3") + vmnet("vmenet4") + bridge("bridge100", {"vmenet4"});
  listing(four);
  scan();
  listing(four + vmnet("vmenet5"));
  refuse("vmenet1", "ifconfig: SIOCIFDESTROY: Device busy\n");
  refuse("vmenet3", "\n ifconfig: interface vmenet3 does not exist \n");
  EXPECT_EQ(scan(),
            "Destroyed 2 of 4 stale vmnet interface(s) (2 in use). Refused: vmenet1: ifconfig: "
            "SIOCIFDESTROY: Device busy; vmenet3: ifconfig: interface vmenet3 does not exist");
  EXPECT_EQ(destroys(),
            (Lines{"vmenet1 destroy", "vmenet2 destroy", "vmenet2 destroy", "vmenet3 destroy"}));
  EXPECT_EQ(test.logged(),
            (Lines{"Destroyed stale vmnet interface(s) in no bridge: vmenet2 vmenet2",
                   "Couldn't destroy stale vmnet interface(s): vmenet1: ifconfig: SIOCIFDESTROY: "
                   "Device busy; vmenet3: ifconfig: interface vmenet3 does not exist"}));
  EXPECT_EQ(memory.contents(), (Names{"vmenet1", "vmenet2", "vmenet3", "vmenet5"}));
  // When every destroy is refused, no "Destroyed" line is logged.
  listing(kListing);
  refuse("vmenet1", "");
  EXPECT_EQ(scan(), "Destroyed 0 of 1 stale vmnet interface(s) (1 in use). Refused: vmenet1: ");
  EXPECT_EQ(test.logged().size(), 3U);
}

TEST_F(PruneTest, ConcurrentScansShareOneMemory) {
  constexpr int kThreads = 4;
  constexpr int kScans = 3;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::vector<Lines> reports(kThreads);  // one per thread
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t, &reports] {
      for (int i = 0; i < kScans; ++i) reports[t].push_back(scan());
    });
  }
  for (std::thread& thread : threads) thread.join();

  int remembered = 0;
  for (const Lines& thread : reports) {
    for (const std::string& report : thread) {
      EXPECT_TRUE(report == remember || report == destroyedOne) << report;
      remembered += report == remember ? 1 : 0;
    }
  }
  // Exactly one scan saw an empty memory: the first to take the lock.
  EXPECT_EQ(remembered, 1);
  EXPECT_EQ(destroys().size(), static_cast<size_t>(kThreads * kScans - 1));
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});
}

}  // namespace
