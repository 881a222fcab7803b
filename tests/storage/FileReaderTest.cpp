#include "StorageTestSupport.h"
#include "storage/ChronotickFileIO.h"

#include <chronotick/FileReader.h>

#include <gtest/gtest.h>

#include <filesystem>

using namespace chronotick;
using namespace chronotick::storage_test;

namespace {

Tag timeTag(std::int32_t channel, std::int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}

// Writes a recording: part 0 with the prelude only, then one part per entry
// of `parts`, each holding the given blocks of tags.
void writeRecording(const std::string &base, const ctbin::FileId &id,
                    const std::vector<std::vector<std::vector<Tag>>> &parts, const std::string &config = "{}") {
  for (std::size_t p = 0; p <= parts.size(); ++p) {
    TagFileWriter writer(base, std::uint32_t(p), id);
    writer.writeConfiguration(config);
    writer.writeChannelList({{1, -1}, {2, -2}});
    if (p == 0)
      continue;
    for (const auto &tags : parts[p - 1]) {
      ctbin::TagBlock *block =
          writer.pack(tags, tags.empty() ? 0 : tags.front().time, tags.empty() ? 1 : tags.back().time + 1);
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
    }
  }
}

std::vector<Tag> ramp(std::int32_t channel, std::int64_t from, int n) {
  std::vector<Tag> tags;
  for (int i = 0; i < n; ++i)
    tags.push_back(timeTag(channel, from + 10 * i));
  return tags;
}

std::vector<std::int64_t> timesOf(FileReader &reader) {
  std::vector<std::int64_t> times;
  std::vector<Tag> tags;
  for (int guard = 0; reader.hasData() && guard < 1000; ++guard) {
    reader.getDataRaw(tags);
    for (const Tag &t : tags)
      times.push_back(t.time);
  }
  return times;
}

std::vector<std::int64_t> timesOf(const std::vector<std::vector<Tag>> &blocks) {
  std::vector<std::int64_t> times;
  for (const auto &b : blocks)
    for (const Tag &t : b)
      times.push_back(t.time);
  return times;
}

} // namespace

TEST(FileReader, FollowsPartsAndRecordings) {
  TempDir dir;
  const std::string a = dir / "a", b = dir / "b";
  const std::vector<std::vector<Tag>> a_blocks{ramp(1, 100, 5), {}, ramp(2, 1000, 3), ramp(1, 2000, 4)};
  writeRecording(a, {1, 1, 1, 1}, {{a_blocks[0], a_blocks[1]}, {a_blocks[2]}, {a_blocks[3]}}, "{\"a\": 1}");
  writeRecording(b, {2, 2, 2, 2}, {{ramp(2, 50, 2)}});

  LogRecorder recorder;
  {
    FileReader with_ending(a + ".ctbin"), without(a);
    EXPECT_EQ(with_ending.getConfiguration(), "{\"a\": 1}");
    EXPECT_EQ(timesOf(with_ending), timesOf(a_blocks));
    EXPECT_EQ(timesOf(without), timesOf(a_blocks));
  }
  {
    FileReader both({a, b});
    std::vector<std::int64_t> expected = timesOf(a_blocks);
    expected.push_back(50);
    expected.push_back(60);
    EXPECT_EQ(timesOf(both), expected);
  }
  EXPECT_TRUE(recorder.messages().empty());

  // The calls around the end: false once, then true with nothing.
  {
    FileReader reader(b);
    std::vector<Tag> tags{timeTag(1, 1)};
    EXPECT_TRUE(reader.getDataRaw(tags));
    EXPECT_EQ(tags.size(), 2u);
    EXPECT_TRUE(reader.hasData());
    EXPECT_FALSE(reader.getDataRaw(tags));
    EXPECT_TRUE(tags.empty());
    EXPECT_FALSE(reader.hasData());
    tags.push_back(timeTag(1, 1));
    EXPECT_TRUE(reader.getDataRaw(tags));
    EXPECT_TRUE(tags.empty());
  }

  // A gap in the numbering ends the recording; the next one follows.
  std::filesystem::remove(ctbin::partName(a, 2));
  {
    FileReader reader({a, b});
    EXPECT_EQ(timesOf(reader), (std::vector<std::int64_t>{100, 110, 120, 130, 140, 50, 60}));
  }

  // A part of another recording under a matching name: one empty read, then its tags.
  std::filesystem::copy_file(ctbin::partName(b, 1), ctbin::partName(a, 2));
  {
    FileReader reader(a);
    std::vector<Tag> tags;
    EXPECT_TRUE(reader.getDataRaw(tags));
    EXPECT_EQ(tags.size(), 5u);
    EXPECT_FALSE(reader.getDataRaw(tags));
    EXPECT_TRUE(tags.empty());
    EXPECT_EQ(recorder.count("File '" + ctbin::partName(a, 2) +
                             "' matches the naming schema, but was not written in the same FileWriter. Skipped."),
              1);
    EXPECT_TRUE(reader.hasData());
    EXPECT_TRUE(reader.getDataRaw(tags));
    EXPECT_EQ(tags.size(), 2u);
    EXPECT_EQ(tags[0].time, 50);
  }
}

TEST(FileReader, GetDataColumns) {
  TempDir dir;
  const std::string name = dir / "cols";
  std::vector<Tag> first = ramp(1, 1000, 7);
  first.insert(first.begin() + 3, Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, 1025});
  first.push_back(Tag{Tag::Type::MissedEvents, 0, 77, 2, 1500});
  first.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, 1600});
  writeRecording(name, {3, 3, 3, 3}, {{first, ramp(2, 5000, 4)}});
  // What the file gives: the overflow swallows the time tags within it.
  std::vector<Tag> expected(first.begin(), first.begin() + 4);
  expected.push_back(Tag{Tag::Type::MissedEvents, 0, 77, 2, 1025});
  expected.push_back(first.back());
  for (const Tag &t : ramp(2, 5000, 4))
    expected.push_back(t);

  FileReader reader(name);
  EXPECT_EQ(reader.getData(0).size, 0u);
  std::vector<Tag> got;
  std::vector<std::int64_t> starts, ends;
  bool any_overflow = false;
  while (reader.hasData()) {
    TimeTagStreamBuffer buffer = reader.getData(4);
    ASSERT_LE(buffer.size, 4u);
    std::vector<std::int32_t> channels;
    std::vector<std::int64_t> times;
    std::vector<std::uint16_t> missed;
    std::vector<std::uint8_t> types;
    buffer.getChannels([&](std::size_t n) { return (channels.resize(n), channels.data()); });
    buffer.getTimestamps([&](std::size_t n) { return (times.resize(n), times.data()); });
    buffer.getMissedEvents([&](std::size_t n) { return (missed.resize(n), missed.data()); });
    buffer.getEventTypes([&](std::size_t n) { return (types.resize(n), types.data()); });
    ASSERT_EQ(times.size(), buffer.size);
    bool overflow_here = false;
    for (std::size_t i = 0; i < buffer.size; ++i) {
      got.push_back(Tag{Tag::Type(types[i]), 0, missed[i], channels[i], times[i]});
      overflow_here |= types[i] != 0;
    }
    EXPECT_EQ(buffer.has_overflows, overflow_here);
    any_overflow |= overflow_here;
    starts.push_back(buffer.t_start);
    ends.push_back(buffer.t_get_data);
    if (buffer.size) {
      EXPECT_EQ(buffer.t_get_data, times.back());
    }
  }
  EXPECT_TRUE(any_overflow);
  ASSERT_EQ(got.size(), expected.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    EXPECT_TRUE(sameTag(got[i], expected[i])) << i;
  EXPECT_EQ(starts.front(), 1000); // the first block's begin
  for (std::size_t i = 1; i < starts.size(); ++i)
    EXPECT_EQ(starts[i], ends[i - 1]);
  // After the end: empty, and both times at the last tag.
  TimeTagStreamBuffer after = reader.getData(10);
  EXPECT_EQ(after.size, 0u);
  EXPECT_FALSE(after.has_overflows);
  EXPECT_EQ(after.t_start, 5030);
  EXPECT_EQ(after.t_get_data, 5030);
}

TEST(FileReader, BadInput) {
  TempDir dir;
  try {
    FileReader reader(std::vector<std::string>{});
    ADD_FAILURE();
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "no file provided");
  }
  writeRecording(dir / "real", {1, 2, 3, 4}, {});
  try {
    FileReader reader({dir / "real", dir / "missing"});
    ADD_FAILURE();
  } catch (const std::runtime_error &e) {
    EXPECT_EQ(std::string(e.what()), "FileReader could not open file '" + (dir / "missing.ctbin") + "'.");
  }
  // A recording with no time tags at all passes without a word.
  LogRecorder recorder;
  {
    FileReader reader(dir / "real");
    std::vector<Tag> tags;
    EXPECT_FALSE(reader.getDataRaw(tags));
    EXPECT_FALSE(reader.hasData());
    TimeTagStreamBuffer buffer = reader.getData(5);
    EXPECT_EQ(buffer.t_start, -1);
    EXPECT_EQ(buffer.t_get_data, -1);
  }
  EXPECT_TRUE(recorder.messages().empty());
  // Something that isn't a tag file gets past construction.
  writeFile(dir / "junk.ctbin", "this is not a recording at all");
  FileReader reader(dir / "junk");
  EXPECT_EQ(recorder.count("Incorrect Header"), 1);
  EXPECT_TRUE(reader.hasData());
  EXPECT_EQ(reader.getData(100).size, 0u);
  EXPECT_FALSE(reader.hasData());
}
