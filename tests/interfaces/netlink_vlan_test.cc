// The rtnetlink VLAN configuration against the kernel. Each test re-runs this binary for itself in
// a network namespace of this kernel's (unshare --net), and where that kernel has no 802.1Q VLAN
// links and the test needs them, in the one of a user-mode Linux kernel that loads them
// (tests/uml-run.sh). The machine's own namespace is never touched.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/netlink_vlan_configuration.h"
#include "service/helper_command.h"
#include "support/user_mode_linux.h"
#include "test_environment.h"

namespace {

using Result = HelperCommand::Result;
using ID = NetworkInterfaceID;
const std::string kNoVLANs = "this kernel has no 802.1Q VLAN links (CONFIG_VLAN_8021Q): ";

Result ip(const std::string& arguments) {
  return HelperCommand::run("/bin/sh", {"-c", "exec /sbin/ip " + arguments});
}
void mustIP(const std::string& arguments) {
  const Result result = ip(arguments);
  ASSERT_EQ(result.status, 0) << arguments << ": " << result.combinedOutput();
}
bool shows(const std::string& link, const std::string& part = "") {  // false when it is gone
  const Result shown = ip("-d link show " + link);
  return shown.status == 0 && shown.stdout.find(part) != std::string::npos;
}

std::set<std::string> openDescriptors() {  // the listing's own left out
  std::set<std::string> fds;
  DIR* dir = ::opendir("/proc/self/fd");
  while (dirent* entry = ::readdir(dir)) fds.insert(entry->d_name);
  fds.erase(std::to_string(::dirfd(dir)));
  ::closedir(dir);
  return fds;
}

// A VLAN with `tag` planned in `preferences` on the physical interface named `parent`.
std::optional<ID> plan(VLANPreferences& preferences, const std::string& parent, std::int64_t tag) {
  const std::optional<std::vector<ID>> physicals = preferences.availablePhysicalInterfaces();
  for (ID id : physicals.value()) {
    if (preferences.bsdName(id) == parent) return preferences.createVLAN(id, tag);
  }
  return std::nullopt;
}

class NetlinkVLANInNamespace : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!inside) runInItsNamespace();
  }
  // Runs this test in a namespace of its own and takes over its outcome there (a failure, a skip
  // with its reason, or a pass); on user-mode Linux when it skipped here for want of VLAN links.
  void runInItsNamespace() {
    static const Result namespaces = HelperCommand::run("/usr/bin/unshare", {"--net", "true"});
    if (namespaces.status != 0) {
      GTEST_SKIP() << "network namespaces are unavailable here: " << namespaces.combinedOutput();
    }
    const Result here = runThisTest({"/usr/bin/unshare", "--net", "--"});
    std::string noUML;
    if (here.status == 0 && skipReason(here).starts_with(kNoVLANs)) {
      noUML = UserModeLinux::unavailableReason();
      if (noUML.empty()) {
        const Result uml = runThisTest(UserModeLinux::launcher({"8021q", "ifb"}));
        noUML = UserModeLinux::failure(uml.status, uml.stderr);
        if (noUML.empty()) return takeOutcome(uml, "");
      }
    }
    takeOutcome(here, noUML);
  }
  Result runThisTest(std::vector<std::string> command) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    command.insert(
        command.end(),
        {"/usr/bin/env", "-u", "GTEST_OUTPUT", "TARNLY_VLAN_TEST_NETNS=1", currentExecutablePath(),
         std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()});
    return HelperCommand::run(command.front(), {command.begin() + 1, command.end()});
  }
  static std::string skipReason(const Result& run) {
    const std::size_t at = run.stdout.find(": Skipped\n") + 10;  // npos + 10 is 9
    return at == 9 ? "" : run.stdout.substr(at, run.stdout.find('\n', at) - at);
  }
  void takeOutcome(const Result& run, const std::string& also) {
    ASSERT_EQ(run.status, 0) << run.stdout << run.stderr;
    if (!skipReason(run).empty())
      GTEST_SKIP() << skipReason(run) << (also.empty() ? "" : "; ") << also;
    ASSERT_NE(run.stdout.find("[  PASSED  ] 1 test."), std::string::npos) << run.stdout;
  }

  // Parents are ifb links: plain ethernet links, also where the kernel has no dummy links.
  void addParent(const std::string& name) { mustIP("link add " + name + " type ifb"); }
  std::string create(const std::string& name, std::int64_t tag, const std::string& parent) {
    return HelperVLAN::create(test.env, configuration, name, tag, parent);
  }
  void remove(const std::string& name) { HelperVLAN::deleteVLAN(test.env, configuration, name); }
  std::vector<CreatedVLAN> list() { return HelperVLAN::createdVLANs(test.env, configuration); }

  const bool inside = std::getenv("TARNLY_VLAN_TEST_NETNS") != nullptr;
  TestEnvironment test;
  NetlinkVLANConfiguration configuration;
};

TEST_F(NetlinkVLANInNamespace, VLANsAreMadeWithTheirTagAndAliasListedAndDeleted) {
  if (!inside) return;
  addParent("eth0x");
  addParent("eth1x");
  mustIP("link set eth1x up");
  const Result outside = ip("link add link eth0x name vlan7 type vlan id 7");  // not the helper's
  if (outside.status != 0) GTEST_SKIP() << kNoVLANs << outside.combinedOutput();

  EXPECT_EQ(create(" \tOffice net ", 42, "eth1x"), "vlan0");
  for (const char* part :
       {"vlan0@eth1x", "vlan protocol 802.1Q id 42 ", "alias Office net\n", ",UP"}) {
    EXPECT_TRUE(shows("vlan0", part)) << part;
  }
  // The same tag on another parent is another VLAN; a blank name sets no alias. The parent is
  // down, so the VLAN cannot be brought up, and is made all the same.
  EXPECT_EQ(create("   ", 42, "eth0x"), "vlan1");
  EXPECT_FALSE(shows("vlan1", "alias") || shows("vlan1", ",UP"));
  // The alias is best effort: the kernel keeps up to IFALIASZ (256) bytes with the terminating
  // zero netlink carries along, so 254 fit and 255 and 300 do not; those VLANs are made, recorded,
  // listed and deleted all the same. The name's length is the tag.
  const std::string longest(254, 'n');
  EXPECT_EQ(create("\t" + longest + " ", 60, "eth0x"), "vlan2");
  EXPECT_EQ(create(std::string(255, 'n'), 255, "eth0x"), "vlan3");
  EXPECT_EQ(create(std::string(300, 'n'), 300, "eth0x"), "vlan4");
  EXPECT_TRUE(shows("vlan3", "vlan protocol 802.1Q id 255 "));
  EXPECT_EQ(list(), (std::vector<CreatedVLAN>{{"vlan0", 42, "eth1x", "Office net"},
                                              {"vlan1", 42, "eth0x", ""},
                                              {"vlan2", 60, "eth0x", longest},
                                              {"vlan3", 255, "eth0x", ""},
                                              {"vlan4", 300, "eth0x", ""}}));
  // A VLAN made outside is not deleted, keeps its parent and tag and carries no VLAN.
  EXPECT_THROW(remove("vlan7"), HelperVLAN::VLANError);
  EXPECT_TRUE(shows("vlan7"));
  EXPECT_THROW(create("", 7, "eth0x"), HelperVLAN::VLANError);
  EXPECT_THROW(create("", 5, "vlan7"), HelperVLAN::VLANError);
  remove("vlan0");
  remove("vlan3");
  EXPECT_EQ(create("", 4094, "eth1x"), "vlan0");  // the lowest free name again
  EXPECT_TRUE(shows("vlan0", "id 4094 ") && !shows("vlan3"));

  // Commit looks at the kernel again. A name another program took meanwhile: the next free one.
  std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences("test");
  std::optional<ID> vlan = plan(*preferences, "eth1x", 100);
  const std::string planned = preferences->bsdName(vlan.value()).value_or("");
  addParent(planned);
  ASSERT_TRUE(preferences->commit() && preferences->apply());
  const std::string actual = preferences->bsdName(*vlan).value_or("");
  EXPECT_TRUE(actual != planned && shows(actual, "id 100 ")) << actual;
  // A parent and tag another program took meanwhile.
  preferences = configuration.createPreferences("test");
  vlan = plan(*preferences, "eth1x", 300);
  mustIP("link add link eth1x name out300 type vlan id 300");
  EXPECT_FALSE(preferences->commit());
}

TEST_F(NetlinkVLANInNamespace, OnlyPlainEthernetLinksCarryVLANsAndNoSocketStaysOpen) {
  if (!inside) return;
  addParent("eth3x");
  addParent("eth4x");
  // Link kinds the kernel may lack; each is checked where it has them.
  for (const char* link :
       {"link add br3x type bridge", "link add link eth3x name mv3x type macvlan",
        "tuntap add dev tap3x mode tap", "link add bond3x type bond"}) {
    ip(link);
  }
  const std::set<std::string> before = openDescriptors();
  std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences("test");
  const std::set<std::string> during = openDescriptors();  // the handle's sockets: close-on-exec
  ASSERT_TRUE(preferences && during.size() > before.size());
  for (const std::string& fd : during) {
    const int flags = before.count(fd) != 0 ? FD_CLOEXEC : ::fcntl(std::stoi(fd), F_GETFD);
    EXPECT_TRUE(flags >= 0 && (flags & FD_CLOEXEC) != 0) << "descriptor " << fd;
  }
  // A VLAN on a parent that went away before the commit is refused; nothing is carried out.
  ASSERT_TRUE(plan(*preferences, "eth4x", 200));
  mustIP("link del eth4x");
  EXPECT_FALSE(preferences->commit());
  EXPECT_TRUE(preferences->apply());
  // A VLAN made and removed again in the same handle is never carried out.
  preferences = configuration.createPreferences("test");
  const std::optional<ID> dropped = plan(*preferences, "eth3x", 300);
  EXPECT_TRUE(preferences->remove(dropped.value()));
  EXPECT_FALSE(preferences->remove(*dropped));
  EXPECT_TRUE(preferences->commit() && preferences->apply());
  EXPECT_FALSE(shows("vlan0"));
  preferences.reset();

  // Refused requests leave nothing open and nothing recorded; ids outside 802.1Q's range never
  // reach the kernel.
  const std::string noPhysical = "No physical interface named ";
  const std::string refused = "macOS refused to create the VLAN interface.";
  for (const char* parent : {"eth4x", "br3x", "mv3x", "tap3x", "bond3x", "lo"}) {
    EXPECT_EQ(errorOf([&] { create("", 5, parent); }), noPhysical + parent + ".");
  }
  for (std::int64_t tag : {0, 4095}) EXPECT_EQ(errorOf([&] { create("", tag, "eth3x"); }), refused);
  EXPECT_FALSE(pathExists(test.recordFile()) || shows("vlan0"));
  EXPECT_TRUE(test.logged().empty());
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
