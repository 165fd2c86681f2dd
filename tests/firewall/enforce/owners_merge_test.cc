// Who wins a contested subnet, what is logged for the losers, and the subnet owners table.
#include "firewall/enforce/owners_merge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "enforce_fixtures.h"

namespace {

using enforce_test::network;
using testing::ElementsAre;
namespace Store = NetworkFirewall::PolicyStore;

TimePoint at(double seconds) {
  return fromSecondsSinceReferenceDate(seconds);
}

std::vector<std::string> names(const std::vector<FirewallNetworkPolicy>& networks) {
  std::vector<std::string> result(networks.size());
  std::transform(networks.begin(), networks.end(), result.begin(),
                 [](const auto& n) { return n.name; });
  return result;
}

class OwnersMerge : public enforce_test::EnforceTest {};

TEST_F(OwnersMerge, LaterApplyWinsAndTheLoserIsLogged) {
  Store::Owners owners;
  owners["501"] = {{network(1, "Lab", "192.168.64.0/24"), network(2, "Farm", "192.168.70.0/24")},
                   at(100)};
  owners["502"] = {{network(3, "Other lab", "192.168.64.0/24")}, at(200)};

  NetworkFirewall::Review review = HelperFirewall::mergeAndReview(env, owners, hostAddresses);
  EXPECT_THAT(names(review.enforceable), ElementsAre("Other lab", "Farm"));
  EXPECT_THAT(logLines(), ElementsAre("192.168.64.0/24 is claimed by networks of more than one "
                                      "user; uid 501's \"Lab\" is left out for the most recently "
                                      "applied one."));
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport(owners),
            "192.168.64.0/24 502\n192.168.70.0/24 501");
}

TEST_F(OwnersMerge, EqualDatesGoToTheSmallerKeyInTextOrder) {
  Store::Owners owners;
  owners["501"] = {{network(1, "Five", "192.168.64.0/24")}, at(100)};
  owners["1000"] = {{network(2, "Thousand", "192.168.64.0/24")}, at(100)};
  Store::Merged merged = Store::merged(owners);
  EXPECT_THAT(names(merged.kept), ElementsAre("Thousand"));
  ASSERT_EQ(merged.leftOut.size(), 1u);
  EXPECT_EQ(merged.leftOut[0].first, "501");
}

TEST_F(OwnersMerge, WithinOneOwnerTheEarlierNetworkWinsEvenWithHostBitsSet) {
  Store::Owners owners;
  owners["501"] = {
      {network(1, "First", "192.168.64.7/24"), network(2, "Second", "192.168.64.0/24")}, at(100)};
  std::vector<Store::Claim> claims = Store::claims(owners);
  ASSERT_EQ(claims.size(), 2u);
  EXPECT_EQ(claims[0].subnetKey, "192.168.64.0/24");
  EXPECT_TRUE(claims[0].kept);
  EXPECT_FALSE(claims[1].kept);

  NetworkFirewall::Review review = HelperFirewall::mergeAndReview(env, owners, hostAddresses);
  EXPECT_THAT(names(review.enforceable), ElementsAre("First"));
  EXPECT_EQ(review.enforceable[0].subnetCIDR, "192.168.64.0/24");
  EXPECT_THAT(logLines(), ElementsAre("192.168.64.0/24 is claimed by networks of more than one "
                                      "user; uid 501's \"Second\" is left out for the most "
                                      "recently applied one."));
}

TEST_F(OwnersMerge, LegacyLosesAndIsCalledUnowned) {
  Store::Owners owners;
  owners["legacy"] = {{network(1, "Old", "192.168.64.0/24")}, Store::legacyDate()};
  owners["501"] = {{network(2, "New", "192.168.64.0/24")}, at(-1e9)};
  HelperFirewall::mergeAndReview(env, owners, hostAddresses);
  EXPECT_THAT(logLines(), ElementsAre("192.168.64.0/24 is claimed by networks of more than one "
                                      "user; an unowned \"Old\" is left out for the most recently "
                                      "applied one."));
}

TEST_F(OwnersMerge, UnusableSubnetsContestByTextAndAreRefusedByTheReview) {
  Store::Owners owners;
  owners["501"] = {{network(1, "Wide", "10.0.0.0/8"), network(2, "Home", "192.168.1.0/24")},
                   at(200)};
  owners["502"] = {{network(3, "Also wide", "10.0.0.0/8")}, at(100)};
  NetworkFirewall::Review review = HelperFirewall::mergeAndReview(env, owners, hostAddresses);
  EXPECT_TRUE(review.enforceable.empty());
  ASSERT_EQ(review.refused.size(), 2u);
  EXPECT_EQ(review.refused[0].label, "Wide");
  EXPECT_EQ(review.refused[1].label, "Home");
  EXPECT_EQ(logLines().size(), 1u);
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport(owners), "10.0.0.0/8 501\n192.168.1.0/24 501");
}

TEST_F(OwnersMerge, EmptyStoreGivesNothing) {
  EXPECT_TRUE(Store::claims({}).empty());
  NetworkFirewall::Review review = HelperFirewall::mergeAndReview(env, {}, hostAddresses);
  EXPECT_TRUE(review.enforceable.empty() && review.refused.empty() && review.skippedRules.empty());
  EXPECT_TRUE(logLines().empty());
  EXPECT_EQ(NetworkFirewall::subnetOwnersReport({}), "(none)");
}

}  // namespace
