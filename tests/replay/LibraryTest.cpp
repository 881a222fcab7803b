#include <chronotick/Library.h>

#include <gtest/gtest.h>

namespace chronotick {
namespace {

TEST(Library, CreatesAndFreesReplayTaggers) {
  // Converted while the taggers live: the conversion to a virtual base reads the object.
  ChronotickVirtual *a = createChronotickVirtual(), *b = createChronotickVirtual();
  ChronotickBase *base_a = a, *base_b = b, *base_c = createChronotickVirtual();
  EXPECT_NE(a, b);
  EXPECT_EQ(a->getNewVirtualChannel(), 257); // each is a tagger of its own
  EXPECT_EQ(b->getNewVirtualChannel(), 257);

  int not_a_tagger = 0;
  EXPECT_FALSE(freeChronotick(reinterpret_cast<ChronotickBase *>(&not_a_tagger)));
  EXPECT_FALSE(freeChronotick(nullptr));
  EXPECT_TRUE(freeChronotick(base_a));
  EXPECT_FALSE(freeChronotick(base_a)); // no longer registered
  freeAllChronotick();
  EXPECT_FALSE(freeChronotick(base_b));
  EXPECT_FALSE(freeChronotick(base_c));
  freeAllChronotick(); // on an empty registry
}

} // namespace
} // namespace chronotick
