#include "interfaces/helper_vmnet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_environment.h"

namespace {

using Lines = std::vector<std::string>;
using Names = std::set<std::string>;

// `ifconfig -a` of a Mac with a bridge, vmenet0 inside bridge100 and vmenet1 in no bridge.
constexpr const char* kListing =
    "bridge0: flags=8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST> mtu 1500\n"
    "\tmember: en1 flags=3<LEARNING,DISCOVER>\nvmenet0: flags=8963<UP,PROMISC> mtu 1500\n"
    "\tstatus: active\nbridge100: flags=8a63<UP,ALLMULTI> mtu 1500\n"
    "\tmember: vmenet0 flags=3<LEARNING,DISCOVER>\nvmenet1: flags=8963<UP,PROMISC> mtu 1500\n";

// Fake pgrep and ifconfig programs: each call is appended to "<program>.calls", the listing and
// the running virtual machines come from files the test writes, and a destroy is refused (with
// the text of the file) for names with a "refuse-<name>".
class PruneTest : public ::testing::Test {
 protected:
  PruneTest() {
    const std::string calls =
        "d='" + test.tree.path("fake") + "'; echo \"$*\" >>\"$d/${0##*/}.calls\"\n";
    test.tree.script("bin/pgrep", calls + R"([ -s "$d/vms" ] && cat "$d/vms")");
    test.tree.script("bin/ifconfig", calls + R"([ "$1" = -a ] && exec cat "$d/listing"
[ -f "$d/refuse-$1" ] && { cat "$d/refuse-$1" >&2; exit 1; }; exit 0)");
    write("listing", kListing);
    write("vms", "");
  }
  ~PruneTest() override { HelperVMNet::previousCandidates().forget(); }

  void write(const std::string& file, const std::string& text) {
    test.tree.write("fake/" + file, text);
  }
  std::string calls(const std::string& program) const {
    return contentOf(test.tree.path("fake/" + program + ".calls"));
  }
  std::string scan() { return HelperVMNet::pruneStale(test.env, memory); }

  TestEnvironment test;
  HelperVMNet::ScanMemory memory;
  const std::string remember =
      "1 vmnet interface(s) in no bridge for now; destroyed if still so at the next scan.";
  const std::string destroyedOne = "Destroyed 1 of 1 stale vmnet interface(s) (1 in use).";
};

TEST_F(PruneTest, OnlyWhatTwoScansInARowFindInNoBridgeIsDestroyedAndOnlyWithoutRunningVMs) {
  EXPECT_EQ(scan(), remember);
  EXPECT_EQ(calls("pgrep"), "-x com.apple.Virtualization.VirtualMachine\n");
  EXPECT_TRUE(test.logged().empty());
  EXPECT_EQ(scan(), destroyedOne);
  // A running virtual machine empties the memory, and ifconfig does not run.
  write("vms", "4242\n\n4343\n");
  EXPECT_EQ(scan(), "2 VM process(es) running; not pruning.");
  EXPECT_TRUE(memory.contents().empty());
  write("vms", "");
  EXPECT_EQ(scan(), remember);
  // A missing pgrep counts as no virtual machine, a missing ifconfig as a failed listing, which
  // keeps the memory.
  test.env.paths.pgrep = test.tree.path("bin/no-pgrep");
  EXPECT_EQ(scan(), destroyedOne);
  test.env.paths.ifconfig = test.tree.path("bin/no-ifconfig");
  EXPECT_EQ(scan(), "ifconfig didn't answer: Could not run " + test.env.paths.ifconfig +
                        ": No such file or directory");
  EXPECT_EQ(memory.contents(), Names{"vmenet1"});
  // Without a memory of its own, a scan uses the process-wide one.
  test.env.paths = test.paths;
  HelperVMNet::pruneStale(test.env);
  EXPECT_EQ(HelperVMNet::pruneStale(test.env), destroyedOne);

  // Only unindented lines name interfaces, and only "member: " lines with a name put them in a
  // bridge, wherever the blanks are.
  write("listing",
        "vmenet0:\nvmenet1:\n vmenet3:\nbridge100:\n\tmember: vmenet0\n member: vmenet1\n");
  EXPECT_EQ(scan(), "2 vmnet interface(s), every one in a bridge.");
  EXPECT_TRUE(memory.contents().empty());
  write("listing", "bridge0:\n\tmember: en1\n");
  EXPECT_EQ(scan(), "No vmnet interfaces.");
  const std::string four = "vmenet1:\nvmenet2: x\nvmenet2:\nvmenet3\nvmenet4:\n\tmember: vmenet4\n";
  write("listing", four + "\tmember: \n");
  scan();
  write("listing", four + "vmenet5:\n");
  write("refuse-vmenet1", "ifconfig: SIOCIFDESTROY: Device busy\n");
  write("refuse-vmenet3", "\n ifconfig: interface vmenet3 does not exist \n");
  const std::string refused =
      "vmenet1: ifconfig: SIOCIFDESTROY: Device busy; vmenet3: ifconfig: interface vmenet3 does "
      "not exist";
  EXPECT_EQ(scan(), "Destroyed 2 of 4 stale vmnet interface(s) (2 in use). Refused: " + refused);
  EXPECT_EQ(memory.contents(), (Names{"vmenet1", "vmenet2", "vmenet3", "vmenet5"}));
  // When every destroy is refused, no "Destroyed" line is logged.
  write("listing", kListing);
  write("refuse-vmenet1", "");
  EXPECT_EQ(scan(), "Destroyed 0 of 1 stale vmnet interface(s) (1 in use). Refused: vmenet1: ");
  const std::string one = "Destroyed stale vmnet interface(s) in no bridge: vmenet1";
  EXPECT_EQ(
      test.logged(),
      (Lines{one, one, one, "Destroyed stale vmnet interface(s) in no bridge: vmenet2 vmenet2",
             "Couldn't destroy stale vmnet interface(s): " + refused,
             "Couldn't destroy stale vmnet interface(s): vmenet1: "}));
  EXPECT_EQ(calls("ifconfig"),
            "-a\n-a\nvmenet1 destroy\n-a\n-a\nvmenet1 destroy\n-a\n-a\n"
            "vmenet1 destroy\n-a\n-a\n-a\n-a\nvmenet1 destroy\nvmenet2 destroy\n"
            "vmenet2 destroy\nvmenet3 destroy\n-a\nvmenet1 destroy\n");
}

TEST_F(PruneTest, ConcurrentScansShareOneMemory) {
  std::vector<Lines> reports(4);  // one per thread
  std::vector<std::thread> threads;
  threads.reserve(reports.size());
  for (Lines& thread : reports) {
    threads.emplace_back([this, &thread] {
      for (int i = 0; i < 3; ++i) thread.push_back(scan());
    });
  }
  for (std::thread& thread : threads) thread.join();
  Lines all;
  for (const Lines& thread : reports) all.insert(all.end(), thread.begin(), thread.end());
  EXPECT_EQ(std::count(all.begin(), all.end(), remember), 1);  // the first to take the lock
  EXPECT_EQ(std::count(all.begin(), all.end(), destroyedOne), 11);
  EXPECT_EQ(split(calls("ifconfig"), '\n', false).size(), 12U + 11U);  // 12 listings, 11 destroys
}

}  // namespace
