// The administrator test: root without a lookup, membership of group 80 through the primary or a
// supplementary group, and every failed lookup counting against the user.
#include "service/helper_authorization.h"

#include <gtest/gtest.h>
#include <pwd.h>

#include <algorithm>

#include "host/fake_user_directory.h"

namespace {

using HelperAuthorization::isAdministrator;

// A uid this machine's passwd database has no entry for.
uid_t uidWithoutEntry() {
  for (uid_t uid = 4242000;; ++uid) {
    if (::getpwuid(uid) == nullptr) return uid;
  }
}

TEST(HelperAuthorizationTest, RootIsAnAdministratorWithoutAnyLookup) {
  FakeUserDirectory users;  // no entry at all, not even for root
  EXPECT_TRUE(isAdministrator(0, users));
  EXPECT_EQ(users.lookups(), 0);
}

TEST(HelperAuthorizationTest, MembershipOfGroup80CountsThroughEitherKindOfGroup) {
  FakeUserDirectory users;
  users.addUser(501, 20, {12, 80, 33});  // supplementary member
  users.addUser(502, 80);                // primary group only
  users.addUser(503, 20, {12, 33, 800, 8});
  EXPECT_TRUE(isAdministrator(501, users));
  EXPECT_TRUE(isAdministrator(502, users));
  EXPECT_FALSE(isAdministrator(503, users));
}

TEST(HelperAuthorizationTest, FailedLookupsCountAgainstTheUser) {
  FakeUserDirectory users;
  users.addUser(504, 80);
  users.failGroupsOf(504);
  EXPECT_FALSE(isAdministrator(504, users)) << "unlistable groups";
  EXPECT_FALSE(isAdministrator(4242, users)) << "no passwd entry";
  EXPECT_FALSE(isAdministrator(0xFFFFFFFFu, users)) << "the largest uid";
}

TEST(HelperAuthorizationTest, RealDatabaseKnowsRootAndNotAnUnknownUid) {
  const UserDirectory& real = systemUserDirectory();
  EXPECT_TRUE(isAdministrator(0, real));

  auto root = real.user(0);
  ASSERT_TRUE(root.has_value());
  EXPECT_EQ(root->name, "root");
  auto groups = real.groups(root->name, root->primaryGroup);
  ASSERT_TRUE(groups.has_value());
  EXPECT_NE(std::find(groups->begin(), groups->end(), root->primaryGroup), groups->end());

  uid_t unknown = uidWithoutEntry();
  EXPECT_FALSE(real.user(unknown).has_value());
  EXPECT_FALSE(isAdministrator(unknown, real));
  EXPECT_FALSE(isAdministrator(unknown)) << "the default directory is the real one";
}

}  // namespace
