#include "RandomTagStreams.h"
#include "StorageTestSupport.h"
#include "support/TestTagger.h"

#include <chronotick/FileReader.h>
#include <chronotick/FileWriter.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

using namespace chronotick;
using namespace chronotick::storage_test;
using chronotick::testing::TestTagger;

namespace {

std::vector<Tag> readRecording(const std::vector<std::string> &names) {
  FileReader reader(names);
  std::vector<Tag> all, block;
  for (int guard = 0; reader.hasData() && guard < 100000; ++guard) {
    reader.getDataRaw(block);
    all.insert(all.end(), block.begin(), block.end());
  }
  EXPECT_FALSE(reader.hasData());
  return all;
}

void expectSameTags(const std::vector<Tag> &got, const std::vector<Tag> &expected) {
  ASSERT_EQ(got.size(), expected.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    ASSERT_TRUE(sameTag(got[i], expected[i]))
        << "tag " << i << ": type " << int(got[i].type) << " channel " << got[i].channel << " time " << got[i].time
        << " missed " << got[i].missed_events << ", expected type " << int(expected[i].type) << " channel "
        << expected[i].channel << " time " << expected[i].time << " missed " << expected[i].missed_events;
}

// Parts of a recording on disk, in index order, as long as they follow on.
std::vector<std::string> partFiles(const std::string &base) {
  std::vector<std::string> parts;
  for (int i = 0;; ++i) {
    const std::string name = i == 0 ? base + ".ctbin" : base + "." + std::to_string(i) + ".ctbin";
    if (!std::filesystem::exists(name))
      return parts;
    parts.push_back(name);
  }
}

std::vector<std::uint32_t> blockTypes(const std::string &file) {
  std::vector<std::uint32_t> types;
  for (const BlockInfo &b : walkBlocks(readFile(file)))
    types.push_back(b.type);
  return types;
}

std::array<std::uint32_t, 4> fileIdOf(const std::string &file) {
  return load<std::array<std::uint32_t, 4>>(readFile(file), 32);
}

std::int64_t sizesWithoutEnd(const std::vector<std::string> &parts) {
  std::int64_t total = 0;
  for (const auto &p : parts)
    total += std::int64_t(std::filesystem::file_size(p)) - 16;
  return total;
}

} // namespace

TEST(FileWriter, RoundTripsOfRandomStreams) {
  TempDir dir;
  const std::set<std::int32_t> recorded{1, 2, -1, 5, 8};
  struct Case {
    const char *name;
    std::int64_t max_file_size;
    StreamOptions options;
  };
  std::vector<Case> cases;
  cases.push_back({"plain", 0x40000000, StreamOptions{}});
  StreamOptions small_blocks;
  small_blocks.max_tags = 200; // below the compression floor throughout
  cases.push_back({"raw", 0x40000000, small_blocks});
  StreamOptions contained;
  contained.overflow_across_blocks = false; // a new part restarts outside overflow
  contained.start_time = -(std::int64_t(1) << 40);
  cases.push_back({"rotating", 6000, contained});
  cases.push_back({"part per block", 1, contained});
  StreamOptions late;
  late.start_time = std::int64_t(1) << 60;
  late.huge_deltas = false;
  cases.push_back({"late", -1, late});

  std::uint64_t seed = 17;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir / c.name;
    const auto stream = randomStream(seed++, c.options);
    const auto expected = expectedRecording(stream, recorded);
    std::int64_t events, size;
    {
      TestTagger tagger;
      FileWriter writer(&tagger, base, {1, 2, -1, 5, 8, 1});
      writer.setMaxFileSize(c.max_file_size);
      EXPECT_EQ(writer.getMaxFileSize(), c.max_file_size);
      for (const auto &block : stream)
        tagger.push(block.tags, block.begin_time, block.end_time);
      tagger.waitUntilDone();
      writer.stop();
      events = writer.getTotalEvents();
      size = writer.getTotalSize();
    }
    const auto parts = partFiles(base);
    expectSameTags(readRecording({base}), expected);
    EXPECT_EQ(events, std::int64_t(expected.size()));
    EXPECT_EQ(size, sizesWithoutEnd(parts));
    // Part 0 holds the prelude only; every part is whole and shares the id.
    ASSERT_GE(parts.size(), 2u);
    EXPECT_EQ(blockTypes(parts[0]), (std::vector<std::uint32_t>{2, 5, 3, 1}));
    std::size_t time_blocks = 0;
    std::set<std::uint32_t> compressions;
    for (const auto &p : parts) {
      const std::string bytes = readFile(p);
      const auto blocks = walkBlocks(bytes);
      EXPECT_EQ(blocks.back().end, bytes.size());
      EXPECT_EQ(blocks.back().type, 1u);
      EXPECT_EQ(fileIdOf(p), fileIdOf(parts[0]));
      for (const auto &b : blocks) {
        if (b.type == 4) {
          ++time_blocks;
          compressions.insert(load<std::uint32_t>(bytes, b.offset + 16 + 36));
        }
      }
    }
    EXPECT_EQ(time_blocks, stream.size());
    if (c.max_file_size == 1) {
      // Part 1 already holds its prelude when the first block comes, so each
      // block goes to a part of its own from part 2 on.
      EXPECT_EQ(parts.size(), stream.size() + 2);
      EXPECT_EQ(blockTypes(parts[1]), (std::vector<std::uint32_t>{2, 5, 3, 1}));
    }
    if (c.max_file_size == 6000) {
      EXPECT_GT(parts.size(), 4u);
    }
    if (c.options.max_tags == 200)
      EXPECT_EQ(compressions, std::set<std::uint32_t>{0});
    else
      EXPECT_EQ(compressions, (std::set<std::uint32_t>{0, 1}));
  }
}

TEST(FileWriter, RoundTripOfCutStream) {
  // One sorted stream, cut into blocks at random places by the test source.
  TempDir dir;
  StreamOptions options;
  options.blocks = 1;
  options.max_tags = 20000;
  std::vector<Tag> tags = randomStream(99, options)[0].tags;
  tags.erase(std::remove_if(tags.begin(), tags.end(),
                            [last = std::int64_t(-1)](const Tag &t) mutable {
                              const bool back = t.time < last;
                              last = std::max(last, t.time);
                              return back;
                            }),
             tags.end());
  const auto cuts = chronotick::testing::randomCuts(tags.size(), 30, 5);
  const std::int64_t end = tags.empty() ? 10 : tags.back().time + 10;
  // The same blocks as the test source makes them, for the model.
  std::vector<StreamBlock> blocks;
  std::size_t from = 0;
  std::int64_t begin = 0;
  for (std::size_t cut : cuts) {
    const std::int64_t block_end = cut < tags.size() ? tags[cut].time : end;
    blocks.push_back(
        {std::vector<Tag>(tags.begin() + std::ptrdiff_t(from), tags.begin() + std::ptrdiff_t(cut)), begin, block_end});
    from = cut;
    begin = block_end;
  }
  blocks.push_back({std::vector<Tag>(tags.begin() + std::ptrdiff_t(from), tags.end()), begin, end});
  {
    TestTagger tagger;
    FileWriter writer(&tagger, dir / "cut", {1, 2, -1, 5, 8});
    tagger.pushCut(tags, cuts, 0, end);
    tagger.waitUntilDone();
  }
  expectSameTags(readRecording({dir / "cut"}), expectedRecording(blocks, {1, 2, -1, 5, 8}));
}

TEST(FileWriter, PartLayoutAcrossStartStopAndSplit) {
  TempDir dir;
  const std::string run = dir / "run";
  TestTagger tagger;
  const std::string config = tagger.getConfiguration();
  FileWriter writer(&tagger, run + ".ctbin", {1, 2});
  writer.stop();
  const std::vector<std::uint32_t> prelude{2, 5, 3, 1};
  EXPECT_EQ(partFiles(run).size(), 2u);
  EXPECT_EQ(blockTypes(run + ".ctbin"), prelude);
  EXPECT_EQ(blockTypes(run + ".1.ctbin"), prelude);
  const auto id = fileIdOf(run + ".ctbin");
  EXPECT_EQ(fileIdOf(run + ".1.ctbin"), id);
  EXPECT_EQ(writer.getTotalSize(), sizesWithoutEnd(partFiles(run)));

  writer.split(""); // stopped: nothing happens
  EXPECT_EQ(partFiles(run).size(), 2u);
  writer.start();
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 1, 50}}, 0, 100);
  EXPECT_EQ(partFiles(run).size(), 3u);
  writer.setMarker("marked");
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 2, 150}}, 100, 200);
  writer.split(run + ".ctbin"); // the same name goes on counting
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 2, 250}}, 200, 300);
  EXPECT_EQ(partFiles(run).size(), 4u);
  EXPECT_EQ(blockTypes(run + ".2.ctbin"), (std::vector<std::uint32_t>{2, 5, 3, 4, 6, 4, 1}));
  EXPECT_EQ(fileIdOf(run + ".2.ctbin"), id);

  writer.split(dir / "other");
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 1, 350}}, 300, 400);
  writer.clear(); // clearing starts a new part as well
  tagger.pushAndWait({Tag{Tag::Type::TimeTag, 0, 0, 1, 450}}, 400, 500);
  writer.stop();
  const auto other = partFiles(dir / "other");
  ASSERT_EQ(other.size(), 3u);
  EXPECT_EQ(blockTypes(other[0]), prelude);
  EXPECT_EQ(blockTypes(other[1]), (std::vector<std::uint32_t>{2, 5, 3, 4, 1}));
  EXPECT_EQ(blockTypes(other[2]), (std::vector<std::uint32_t>{2, 5, 3, 4, 1}));
  for (const auto &p : other)
    EXPECT_EQ(fileIdOf(p), id);
  EXPECT_EQ(writer.getTotalEvents(), 5);
  EXPECT_EQ(writer.getTotalSize(), sizesWithoutEnd(partFiles(run)) + sizesWithoutEnd(other));
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(tagger.registrations(2), 1);

  // Reading back: configuration, marker and the tags of each recording.
  FileReader reader(run);
  EXPECT_EQ(reader.getConfiguration(), config);
  EXPECT_EQ(reader.getLastMarker(), "");
  std::vector<Tag> tags;
  EXPECT_TRUE(reader.getDataRaw(tags));
  ASSERT_EQ(tags.size(), 1u);
  EXPECT_EQ(tags[0].time, 50);
  EXPECT_EQ(reader.getLastMarker(), "marked");
  EXPECT_EQ(readRecording({run, dir / "other"}).size(), 5u);
}

TEST(FileWriter, Errors) {
  TempDir dir;
  TestTagger tagger;
  const std::string missing = dir / "no_such_dir/rec";
  try {
    FileWriter writer(&tagger, missing, {1});
    ADD_FAILURE() << "recording into a missing directory";
  } catch (const std::runtime_error &e) {
    EXPECT_EQ(std::string(e.what()), "FileWriter: Error on opening the file '" + missing + "' for writing.");
  }
  std::vector<std::int32_t> channels;
  for (int i = 1; i <= 251; ++i)
    channels.push_back(i);
  try {
    FileWriter writer(&tagger, dir / "many", channels);
    ADD_FAILURE() << "251 channels accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Too many channels. This format does not support more than 250 channels.");
  }
  channels.pop_back();
  EXPECT_NO_THROW(FileWriter(&tagger, dir / "many", channels));
  try {
    FileWriter writer(&tagger, dir / "none", {});
    ADD_FAILURE() << "no channels accepted";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "FileWriter is called without any channels. This would result in an empty file.");
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "none.ctbin"));
  // Only unused channels: an empty channel map, and no registration.
  {
    FileWriter writer(&tagger, dir / "unused", {CHANNEL_UNUSED});
    EXPECT_EQ(tagger.registrations(CHANNEL_UNUSED), 0);
  }
  const std::string map = readFile(dir / "unused.1.ctbin");
  EXPECT_EQ(load<std::uint32_t>(map, walkBlocks(map)[2].offset + 16), 0u);

  // A full disk stops the recording with a log entry.
  LogRecorder recorder;
  std::filesystem::create_symlink("/dev/full", dir.path() / "full.1.ctbin");
  FileWriter writer(&tagger, dir / "full", {1, 2});
  std::mt19937 random(1);
  std::int64_t t = 0;
  for (int b = 0; b < 30; ++b) {
    std::vector<Tag> tags;
    for (int i = 0; i < 20000; ++i)
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1 + int(random() % 2), t += random() % 100000});
    tagger.push(std::move(tags), t + 1);
  }
  tagger.waitUntilDone();
  EXPECT_FALSE(writer.isRunning());
  EXPECT_EQ(recorder.count(": FileWriter: Error on writing to the disk."), 1);
}
