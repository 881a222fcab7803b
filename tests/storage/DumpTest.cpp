#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <chronotick/Dump.h>

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<Tag> dumped(const std::string &name) {
  const std::string bytes = readFile(name);
  EXPECT_EQ(bytes.size() % sizeof(Tag), 0u);
  std::vector<Tag> tags(bytes.size() / sizeof(Tag));
  if (!tags.empty())
    std::memcpy(tags.data(), bytes.data(), tags.size() * sizeof(Tag));
  return tags;
}

std::vector<Tag> block(std::int64_t from) {
  std::vector<Tag> tags;
  for (int i = 0; i < 6; ++i)
    tags.push_back(makeTag(1 + i % 3, from + i));
  tags.push_back(makeTag(CHANNEL_UNUSED, from + 6, Tag::Type::Error));
  tags.push_back(makeTag(4, from + 7, Tag::Type::MissedEvents, 9));
  return tags;
}

} // namespace

TEST(Dump, WritesRawRecords) {
  TempDir dir;
  TestTagger tagger;
  LogCapture capture;
  Dump all(&tagger, dir / "all.bin", -1);
  Dump five(&tagger, dir / "five.bin", 5);
  Dump none(&tagger, dir / "none.bin", 0);
  Dump filtered(&tagger, dir / "filtered.bin", -1, {2});
  EXPECT_EQ(capture.count("The Dump class is deprecated and will be removed soon. Please use FileWriter instead."), 4);
  tagger.pushAndWait(block(0), 0, 10);
  tagger.pushAndWait(block(10), 20);
  // Reaching the maximum stops the measurement by itself.
  EXPECT_FALSE(five.isRunning());
  EXPECT_FALSE(none.isRunning());
  EXPECT_TRUE(all.isRunning());
  all.stop();
  filtered.stop();
  std::vector<Tag> both = block(0), second = block(10);
  both.insert(both.end(), second.begin(), second.end());
  EXPECT_EQ(firstDifference(dumped(dir / "all.bin"), both), "");
  EXPECT_EQ(firstDifference(dumped(dir / "five.bin"), {both.begin(), both.begin() + 5}), "");
  EXPECT_TRUE(dumped(dir / "none.bin").empty());
  // The filter keeps its channels' time tags and every other kind of tag.
  std::vector<Tag> kept;
  std::copy_if(both.begin(), both.end(), std::back_inserter(kept),
               [](const Tag &t) { return t.type != Tag::Type::TimeTag || t.channel == 2; });
  EXPECT_EQ(firstDifference(dumped(dir / "filtered.bin"), kept), "");

  // A clear while running empties the file; a start begins it anew.
  all.start();
  tagger.pushAndWait(block(20), 30);
  all.clear();
  tagger.pushAndWait(block(30), 40);
  all.stop();
  EXPECT_EQ(firstDifference(dumped(dir / "all.bin"), block(30)), "");
}
