// Who wins a contested subnet, what is logged for the losers, and the subnet owners table.
#include "firewall/enforce/owners_merge.h"

#include "enforce_fixtures.h"

namespace {

using namespace enforce_test;
namespace Store = NetworkFirewall::PolicyStore;

class OwnersMerge : public EnforceTest {};

TEST_F(OwnersMerge, MostRecentWinsTiesGoByKeyTextAndLosersAreLogged) {
  struct Case {
    Store::Owners owners;
    std::vector<std::string> kept;
    std::string loser;
  };
  const std::vector<Case> cases = {
      {{{"501",
         {{network(1, "Lab", "192.168.64.0/24"), network(2, "Farm", "192.168.70.0/24")}, at(100)}},
        {"502", {{network(3, "Other lab", "192.168.64.0/24")}, at(200)}}},
       {"Other lab", "Farm"},
       "uid 501's \"Lab\""},
      // Equal dates: the smaller key in text order wins.
      {{{"501", {{network(1, "Five", "192.168.64.0/24")}, at(100)}},
        {"1000", {{network(2, "Thousand", "192.168.64.0/24")}, at(100)}}},
       {"Thousand"},
       "uid 501's \"Five\""},
      // Within one owner the earlier network wins; host bits are cleared.
      {{{"501",
         {{network(1, "First", "192.168.64.7/24"), network(2, "Second", "192.168.64.0/24")},
          at(100)}}},
       {"First"},
       "uid 501's \"Second\""},
      {{{"legacy", {{network(1, "Old", "192.168.64.0/24")}, Store::legacyDate()}},
        {"501", {{network(2, "New", "192.168.64.0/24")}, at(-1e9)}}},
       {"New"},
       "an unowned \"Old\""},
  };
  for (const Case& c : cases) {
    removeFile(paths.logFile);
    NetworkFirewall::Review review = HelperFirewall::mergeAndReview(env, c.owners, hostAddresses);
    std::vector<std::string> kept;
    for (const auto& n : review.enforceable) kept.push_back(n.name);
    EXPECT_EQ(kept, c.kept);
    EXPECT_EQ(review.enforceable.at(0).subnetCIDR, "192.168.64.0/24");
    EXPECT_THAT(logLines(),
                testing::ElementsAre("192.168.64.0/24 is claimed by networks of more "
                                     "than one user; " +
                                     c.loser + " is left out for the most recently applied one."));
  }
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport(cases[0].owners),
            "192.168.64.0/24 502\n192.168.70.0/24 501");
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport({}), "(none)");
}

}  // namespace
