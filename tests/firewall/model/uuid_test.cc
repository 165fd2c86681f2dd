#include "firewall/model/uuid.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace {

TEST(Uuid, ReadsEitherCaseAndWritesUpperCase) {
  std::optional<Uuid> lower = Uuid::parse("6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b");
  std::optional<Uuid> upper = Uuid::parse("6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  ASSERT_TRUE(lower && upper);
  EXPECT_EQ(*lower, *upper);
  EXPECT_EQ(lower->text(), "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  EXPECT_EQ(lower->bytes[0], 0x6F);
  EXPECT_EQ(lower->bytes[15], 0x5B);
  EXPECT_EQ(Uuid::parse(lower->text()), lower);
}

TEST(Uuid, RefusesEverythingButTheHyphenatedForm) {
  for (const char* text : {
           "",
           "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b",        // no hyphens
           "{6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b}",  // braces
           "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5",     // one digit short
           "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5bc",   // one digit more
           "6f1c2a7e3-b4d-4e5f-8a9b-0c1d2e3f4a5b",    // hyphen moved
           "6f1c2a7g-3b4d-4e5f-8a9b-0c1d2e3f4a5b",    // not hexadecimal
           " 6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5",    // blank
           "6f1c2a7e-3b4d-4e5f-8a9b+0c1d2e3f4a5b",
       }) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
}

TEST(Uuid, EqualIdentitiesHashEquallyAndDistinctOnesSpread) {
  std::hash<Uuid> hash;
  Uuid a = *Uuid::parse("00000000-0000-0000-0000-000000000001");
  Uuid b = *Uuid::parse("00000000-0000-0000-0000-000000000001");
  EXPECT_EQ(hash(a), hash(b));
  std::unordered_set<std::size_t> seen;
  for (int i = 0; i < 256; ++i) {
    Uuid u;
    u.bytes[i % 16] = static_cast<std::uint8_t>(i + 1);
    seen.insert(hash(u));
  }
  EXPECT_GT(seen.size(), 250u);
  EXPECT_LT(a, *Uuid::parse("00000000-0000-0000-0000-000000000002"));
}

}  // namespace
