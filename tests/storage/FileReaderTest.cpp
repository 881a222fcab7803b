#include "storage/ChronotickFileIO.h"
#include "support/AllocationProbe.h"
#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <gmock/gmock.h>

#include <filesystem>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

std::vector<Tag> joined(const std::vector<std::vector<Tag>> &parts) {
  std::vector<Tag> all;
  for (const auto &p : parts)
    all.insert(all.end(), p.begin(), p.end());
  return all;
}

} // namespace

TEST(FileReader, FollowsPartsAndRecordings) {
  TempDir dir;
  const std::string a = dir / "a", b = dir / "b";
  const std::vector<std::vector<Tag>> a_parts{
      {makeTag(1, 100), makeTag(2, 110)}, {makeTag(2, 1000)}, {makeTag(1, 2000)}};
  const std::vector<Tag> b_tags{makeTag(2, 50), makeTag(1, 60)};
  writeRecording(a, {1, 1, 1, 1}, a_parts, "{\"a\": 1}");
  writeRecording(b, {2, 2, 2, 2}, {b_tags});

  LogCapture capture;
  EXPECT_EQ(FileReader(a + ".ctbin").getConfiguration(), "{\"a\": 1}");
  EXPECT_EQ(firstDifference(readRecording({a + ".ctbin"}), joined(a_parts)), "");
  EXPECT_EQ(firstDifference(readRecording({a, b}), joined({joined(a_parts), b_tags})), "");
  EXPECT_TRUE(capture.messages().empty());

  // The calls around the end: false once, then true with nothing.
  FileReader reader(b);
  std::vector<Tag> tags{makeTag(1, 1)};
  auto raw = [&] {
    const bool more = reader.getDataRaw(tags);
    return std::make_pair(more, tags.size());
  };
  EXPECT_EQ(raw(), std::make_pair(true, std::size_t(2)));
  EXPECT_TRUE(reader.hasData());
  EXPECT_EQ(raw(), std::make_pair(false, std::size_t(0)));
  EXPECT_FALSE(reader.hasData());
  tags.push_back(makeTag(1, 1));
  EXPECT_EQ(raw(), std::make_pair(true, std::size_t(0)));

  // A gap in the numbering ends the recording; the next one follows.
  std::filesystem::remove(dir / "a.2.ctbin");
  EXPECT_EQ(firstDifference(readRecording({a, b}), joined({a_parts[0], b_tags})), "");

  // A part of another recording under a matching name: one empty read, then its tags.
  std::filesystem::copy_file(dir / "b.1.ctbin", dir / "a.2.ctbin");
  FileReader foreign(a);
  EXPECT_TRUE(foreign.getDataRaw(tags));
  EXPECT_FALSE(foreign.getDataRaw(tags));
  EXPECT_TRUE(tags.empty());
  EXPECT_EQ(capture.count("File '" + (dir / "a.2.ctbin") +
                          "' matches the naming schema, but was not written in the same FileWriter. Skipped."),
            1);
  EXPECT_TRUE(foreign.getDataRaw(tags));
  EXPECT_EQ(firstDifference(tags, b_tags), "");
}

TEST(FileReader, GetDataColumns) {
  TempDir dir;
  const std::vector<Tag> tags{makeTag(1, 1000),
                              makeTag(2, 1010),
                              makeTag(CHANNEL_UNUSED, 1025, Tag::Type::OverflowBegin),
                              makeTag(2, 1025, Tag::Type::MissedEvents, 77),
                              makeTag(CHANNEL_UNUSED, 1600, Tag::Type::OverflowEnd),
                              makeTag(1, 5000),
                              makeTag(1, 5010),
                              makeTag(2, 5030)};
  writeRecording(dir / "cols", {3, 3, 3, 3}, {{tags.begin(), tags.begin() + 5}, {tags.begin() + 5, tags.end()}});
  FileReader reader(dir / "cols");
  EXPECT_EQ(reader.getData(0).size, 0u);
  std::vector<Tag> got;
  std::int64_t last_end = 995; // the first block's begin
  while (reader.hasData()) {
    TimeTagStreamBuffer buffer = reader.getData(3);
    ASSERT_LE(buffer.size, 3u);
    const std::vector<Tag> part = tagsOf(buffer);
    got.insert(got.end(), part.begin(), part.end());
    EXPECT_EQ(buffer.has_overflows,
              std::any_of(part.begin(), part.end(), [](const Tag &t) { return t.type != Tag::Type::TimeTag; }));
    EXPECT_EQ(buffer.t_start, last_end);
    last_end = buffer.t_get_data;
    EXPECT_EQ(buffer.t_get_data, part.empty() ? buffer.t_start : part.back().time);
  }
  EXPECT_EQ(firstDifference(got, tags), "");
  // After the end: empty, and both times at the last tag.
  TimeTagStreamBuffer after = reader.getData(10);
  EXPECT_EQ(std::make_tuple(after.size, after.has_overflows, after.t_start, after.t_get_data),
            std::make_tuple(std::size_t(0), false, std::int64_t(5030), std::int64_t(5030)));
}

TEST(FileReader, BadInput) {
  TempDir dir;
  auto refused = [](const std::vector<std::string> &names, const std::string &message) {
    EXPECT_THAT([&] { FileReader reader(names); }, ::testing::ThrowsMessage<std::runtime_error>(message));
  };
  writeRecording(dir / "real", {1, 2, 3, 4}, {});
  refused({}, "no file provided");
  refused({dir / "real", dir / "missing"}, "FileReader could not open file '" + (dir / "missing.ctbin") + "'.");
  // A recording with no time tags at all passes without a word.
  LogCapture capture;
  {
    FileReader reader(dir / "real");
    std::vector<Tag> tags;
    EXPECT_FALSE(reader.getDataRaw(tags));
    EXPECT_FALSE(reader.hasData());
    TimeTagStreamBuffer buffer = reader.getData(5);
    EXPECT_EQ(std::make_pair(buffer.t_start, buffer.t_get_data), std::make_pair(std::int64_t(-1), std::int64_t(-1)));
  }
  EXPECT_TRUE(capture.messages().empty());
  // Something that isn't a tag file gets past construction.
  writeFile(dir / "junk.ctbin", "this is not a recording at all");
  FileReader reader(dir / "junk");
  EXPECT_EQ(capture.count("Incorrect Header"), 1);
  EXPECT_TRUE(reader.hasData());
  EXPECT_EQ(reader.getData(100).size, 0u);
  EXPECT_FALSE(reader.hasData());
}

TEST(FileReader, ReadFailuresEndOnlyThePartThatFailed) {
  namespace allocation = chronotick::testing::allocation;
  TempDir dir;
  // Part 1 of "big" holds a small block, one too large for the memory left,
  // and another small one.
  std::vector<Tag> large;
  for (int i = 0; i < 70000; ++i)
    large.push_back(makeTag(1 + i % 2, 2000 + i));
  const std::vector<Tag> first{makeTag(1, 10), makeTag(2, 20)}, last{makeTag(2, 80000)};
  writeRecording(dir / "big", {5, 5, 5, 5}, {first});
  {
    TagFileWriter writer(dir / "big", 1, {5, 5, 5, 5});
    writer.writeChannelList({{1, -1}, {2, -2}});
    for (auto [tags, begin, end] :
         {std::tuple(first, 0, 1000), std::tuple(large, 1000, 75000), std::tuple(last, 75000, 90000)}) {
      ctbin::TagBlock *block = writer.pack(tags, begin, end);
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
    }
  }
  const std::vector<Tag> other{makeTag(1, 50), makeTag(2, 60)};
  // A configuration text this long makes each part's reader take a buffer of 1 MiB.
  writeRecording(dir / "unread", {6, 6, 6, 6}, {other}, std::string(1536 * 1024, ' '));
  writeRecording(dir / "other", {7, 7, 7, 7}, {other});

  LogCapture capture;
  // Requests of 1 MiB and more: the large block's tags fail, and so does the
  // buffer of "unread", part 0.
  allocation::failLargeRequests(std::size_t(1) << 20, 0, 2);
  FileReader reader({dir / "big", dir / "unread", dir / "other"});
  std::vector<Tag> got;
  while (reader.hasData()) {
    const std::vector<Tag> more = tagsOf(reader.getData(1000000));
    got.insert(got.end(), more.begin(), more.end());
  }
  allocation::stopFailing();
  EXPECT_EQ(firstDifference(got, joined({first, other})), "");
  EXPECT_EQ(capture.count("The rest of this file is skipped.", LOGGER_ERROR), 1);
  EXPECT_EQ(capture.count("' could not be read: std::bad_alloc. Reading goes on after it.", LOGGER_ERROR), 1);
}
