#include <chronotick/Library.h>

#include <gtest/gtest.h>

namespace chronotick {
namespace {

TEST(Library, CreatesAndFreesReplayTaggers) {
  EXPECT_EQ(getVersion(), "2.7.0");
  EXPECT_TRUE(hasChronotickVirtualLicense());

  ChronotickVirtual *a = createChronotickVirtual();
  ChronotickVirtual *b = createChronotickVirtual();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(a->getNewVirtualChannel(), 257); // each is a tagger of its own
  EXPECT_EQ(b->getNewVirtualChannel(), 257);

  int not_a_tagger = 0;
  EXPECT_FALSE(freeChronotick(reinterpret_cast<ChronotickBase *>(&not_a_tagger)));
  EXPECT_FALSE(freeChronotick(nullptr));
  EXPECT_TRUE(freeChronotick(a));
  EXPECT_FALSE(freeChronotick(a)); // no longer registered

  ChronotickVirtual *c = createChronotickVirtual();
  freeAllChronotick();
  EXPECT_FALSE(freeChronotick(b));
  EXPECT_FALSE(freeChronotick(c));
  freeAllChronotick(); // on an empty registry
}

} // namespace
} // namespace chronotick
