#include "StorageTestSupport.h"
#include "support/TestTagger.h"

#include <chronotick/Dump.h>

#include <gtest/gtest.h>

#include <filesystem>

using namespace chronotick;
using namespace chronotick::storage_test;
using chronotick::testing::TestTagger;

namespace {
std::vector<Tag> dumped(const std::string &name) {
  const std::string bytes = readFile(name);
  EXPECT_EQ(bytes.size() % sizeof(Tag), 0u);
  std::vector<Tag> tags(bytes.size() / sizeof(Tag));
  if (!bytes.empty())
    std::memcpy(tags.data(), bytes.data(), bytes.size());
  return tags;
}
std::vector<Tag> block(std::int64_t from) {
  std::vector<Tag> tags;
  for (int i = 0; i < 8; ++i)
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1 + i % 3, from + i});
  tags[6] = Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, from + 6};
  tags[7] = Tag{Tag::Type::MissedEvents, 0, 9, 4, from + 7};
  return tags;
}
} // namespace

TEST(Dump, WritesRawRecords) {
  TempDir dir;
  TestTagger tagger;
  LogRecorder recorder;
  {
    Dump all(&tagger, dir / "all.bin", -1);
    Dump limited(&tagger, dir / "five.bin", 5);
    Dump none(&tagger, dir / "none.bin", 0);
    Dump filtered(&tagger, dir / "filtered.bin", -1, {2});
    EXPECT_EQ(recorder.count("The Dump class is deprecated and will be removed soon. Please use FileWriter instead."),
              4);
    tagger.pushAndWait(block(0), 0, 10);
    tagger.pushAndWait(block(10), 10, 20);
    // Reaching the maximum stops the measurement by itself.
    EXPECT_FALSE(limited.isRunning());
    EXPECT_FALSE(none.isRunning());
    EXPECT_TRUE(all.isRunning());
    all.stop();
    limited.stop();
    none.stop();
    filtered.stop();

    const auto a = dumped(dir / "all.bin");
    ASSERT_EQ(a.size(), 16u);
    for (std::size_t i = 0; i < 16; ++i)
      EXPECT_TRUE(sameTag(a[i], block(i < 8 ? 0 : 10)[i % 8]));
    const auto five = dumped(dir / "five.bin");
    ASSERT_EQ(five.size(), 5u);
    EXPECT_TRUE(sameTag(five[4], block(0)[4]));
    EXPECT_TRUE(dumped(dir / "none.bin").empty());
    // The filter keeps its channels' time tags and every other kind of tag.
    const auto f = dumped(dir / "filtered.bin");
    ASSERT_EQ(f.size(), 8u);
    for (const Tag &t : f)
      EXPECT_TRUE(t.type != Tag::Type::TimeTag || t.channel == 2);

    // A clear while running empties the file; a start begins it anew.
    all.start();
    tagger.pushAndWait(block(20), 20, 30);
    EXPECT_EQ(dumped(dir / "all.bin").size(), 0u); // still in the stream buffer
    all.clear();
    tagger.pushAndWait(block(30), 30, 40);
    all.stop();
    const auto cleared = dumped(dir / "all.bin");
    ASSERT_EQ(cleared.size(), 8u);
    EXPECT_EQ(cleared[0].time, 30);
  }
}
