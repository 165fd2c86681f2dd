// The explanation of what the uninstall clean-up left: reasons in order, each once, other names
// sorted and listed with the English list rule.
#include "service/helper_uninstall.h"

#include <gtest/gtest.h>

namespace {

using HelperUninstall::explanation;

const std::string kFirewall = "firewall rules another account on this Mac still uses";
const std::string kVLANs =
    "the list of VLANs Tarnly created, which lets a later install remove them";

TEST(HelperUninstallTest, EnglishListJoinsOneTwoAndMoreItems) {
  using HelperUninstall::englishList;
  EXPECT_EQ(englishList({}), "");
  EXPECT_EQ(englishList({"A"}), "A");
  EXPECT_EQ(englishList({"A", "B"}), "A and B");
  EXPECT_EQ(englishList({"A", "B", "C", "D"}), "A, B, C, and D");
}

TEST(HelperUninstallTest, ExplanationListsReasonsInOrderAndOtherNamesSorted) {
  const std::pair<std::vector<std::string>, std::optional<std::string>> cases[] = {
      {{}, std::nullopt},
      {{"firewall.pf.conf", "firewall-policies.json"}, kFirewall},  // one reason for both
      {{"vlans.json"}, kVLANs},
      {{"notes.txt"}, "notes.txt"},
      {{"vlans.json", "firewall-loaded.json"}, kFirewall + " and " + kVLANs},
      {{"backup.old", "vlans.json"}, kVLANs + " and backup.old"},
      {{"zeta", "vlans.json", "firewall.pf.conf", "Alpha", "beta"},
       kFirewall + ", " + kVLANs + ", and Alpha, beta, and zeta"},
      {{"b.txt", "a.txt", "C.txt"}, "C.txt, a.txt, and b.txt"},     // upper case first
      {{"\xc3\xa9t\xc3\xa9", "zoo"}, "zoo and \xc3\xa9t\xc3\xa9"},  // code-point order
  };
  for (const auto& [names, expected] : cases) EXPECT_EQ(explanation(names), expected);
}

}  // namespace
