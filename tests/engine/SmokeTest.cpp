#include "support/TestTagger.h"

#include <chronotick/TimeTagStream.h>

#include <gtest/gtest.h>

using namespace chronotick;

TEST(Smoke, BlockReachesStream) {
  chronotick::testing::TestTagger tagger;
  TimeTagStream stream(&tagger, 100);
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 1, 5}}, 0, 10);
  EXPECT_EQ(stream.getCounts(), 1u);
}
