// The administrator test: root without a lookup, membership of group 80 through the primary or a
// supplementary group, and every failed lookup counting against the user.
#include "service/helper_authorization.h"

#include <gtest/gtest.h>
#include <pwd.h>

#include "host/fake_user_directory.h"
#include "support/temp_tree.h"

namespace {

using HelperAuthorization::isAdministrator;

TEST(HelperAuthorizationTest, AdministratorsAreRootAndMembersOfGroup80) {
  FakeUserDirectory users;  // no entry at all, not even for root
  EXPECT_TRUE(isAdministrator(0, users));
  EXPECT_EQ(users.lookups(), 0) << "root needs no lookup";

  users.addUser(501, {20, 12, 80, 33});  // supplementary member
  users.addUser(502, {80});              // primary group only
  users.addUser(503, {20, 12, 33, 800, 8});
  users.addUser(504, {80});
  users.failGroupsOf(504);
  EXPECT_TRUE(isAdministrator(501, users));
  EXPECT_TRUE(isAdministrator(502, users));
  EXPECT_FALSE(isAdministrator(503, users));
  EXPECT_FALSE(isAdministrator(504, users)) << "unlistable groups";
  EXPECT_FALSE(isAdministrator(4242, users)) << "no passwd entry";
}

TEST(HelperAuthorizationTest, OnlyANonAdministratorsEverydayRequestAsksForTheConsoleUser) {
  TempTree tree;
  HelperLog log(tree.path("log"), tree.path("log.1"));
  FakeUserDirectory users;
  users.addUser(501, {80});
  users.addUser(502, {20});
  int asked = 0;
  HelperAuthorization::Authority authority{users, [&] { return ++asked, std::optional(502u); },
                                           log};
  using HelperAuthorization::refusal;
  EXPECT_FALSE(refusal(false, "applyFirewall", 0, authority));
  EXPECT_FALSE(refusal(false, "applyFirewall", 501, authority));
  EXPECT_EQ(asked, 0);
  EXPECT_FALSE(refusal(false, "applyFirewall", 502, authority));
  EXPECT_TRUE(refusal(true, "createVLAN", 502, authority));
  EXPECT_EQ(asked, 1);
}

TEST(HelperAuthorizationTest, RealDatabaseKnowsRootAndNotAnUnknownUid) {
  EXPECT_TRUE(isAdministrator(0, systemUserDirectory()));
  auto root = systemUserDirectory().user(0);
  ASSERT_TRUE(root.has_value());
  EXPECT_EQ(root->name, "root");
  uid_t unknown = 4242000;
  while (::getpwuid(unknown) != nullptr) ++unknown;
  EXPECT_FALSE(isAdministrator(unknown)) << "the default directory is the real one";
}

}  // namespace
