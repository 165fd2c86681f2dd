// The explanation of what the uninstall clean-up left: reasons in order, each once, other names
// sorted and listed with the English list rule.
#include "service/helper_uninstall.h"

#include <gtest/gtest.h>

namespace {

using HelperUninstall::englishList;
using HelperUninstall::explanation;

constexpr const char* kFirewall = "firewall rules another account on this Mac still uses";
constexpr const char* kVLANs =
    "the list of VLANs Tarnly created, which lets a later install remove them";

TEST(HelperUninstallTest, EnglishListJoinsOneTwoAndMoreItems) {
  EXPECT_EQ(englishList({}), "");
  EXPECT_EQ(englishList({"A"}), "A");
  EXPECT_EQ(englishList({"A", "B"}), "A and B");
  EXPECT_EQ(englishList({"A", "B", "C"}), "A, B, and C");
  EXPECT_EQ(englishList({"A", "B", "C", "D"}), "A, B, C, and D");
}

TEST(HelperUninstallTest, NothingLeftNeedsNoExplanation) {
  EXPECT_EQ(explanation({}), std::nullopt);
}

TEST(HelperUninstallTest, OneReasonStandsAlone) {
  EXPECT_EQ(explanation({"firewall.pf.conf", "firewall-policies.json"}), kFirewall)
      << "the firewall reason appears once for several firewall files";
  EXPECT_EQ(explanation({"vlans.json"}), kVLANs);
  EXPECT_EQ(explanation({"notes.txt"}), "notes.txt");
}

TEST(HelperUninstallTest, TwoReasonsAreJoinedByAnd) {
  EXPECT_EQ(explanation({"vlans.json", "firewall-loaded.json"}),
            std::string(kFirewall) + " and " + kVLANs);
  EXPECT_EQ(explanation({"backup.old", "vlans.json"}), std::string(kVLANs) + " and backup.old");
}

TEST(HelperUninstallTest, ThreeReasonsAreListedWithCommas) {
  EXPECT_EQ(explanation({"zeta", "vlans.json", "firewall.pf.conf", "Alpha", "beta"}),
            std::string(kFirewall) + ", " + kVLANs + ", and Alpha, beta, and zeta");
}

TEST(HelperUninstallTest, OtherNamesSortUpperCaseFirst) {
  EXPECT_EQ(explanation({"b.txt", "a.txt", "C.txt"}), "C.txt, a.txt, and b.txt");
  EXPECT_EQ(explanation({"\xc3\xa9t\xc3\xa9", "zoo"}), "zoo and \xc3\xa9t\xc3\xa9")
      << "code-point order puts é after z";
}

}  // namespace
