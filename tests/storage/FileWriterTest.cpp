#include "support/TagFiles.h"

#include <chronotick/FileWriter.h>

#include <gtest/gtest.h>

#include <filesystem>

// Cases name only the stream options they change.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using Types = std::vector<std::uint32_t>;
const Types PRELUDE{2, 5, 3, 1};

// What the parts of recordings hold, read from the bytes.
struct Layout {
  std::vector<Types> types;                   // block types of each part
  std::set<std::array<std::uint32_t, 4>> ids; // file ids
  std::set<std::uint32_t> compressions;       // of the time tag blocks
  std::size_t time_blocks = 0;
  std::int64_t size = 0; // without the BLOCK_END of each part
};

Layout survey(const std::vector<std::string> &bases) {
  Layout layout;
  for (const std::string &base : bases) {
    for (const std::string &part : partFiles(base)) {
      const std::string bytes = readFile(part);
      const auto blocks = walkBlocks(bytes);
      EXPECT_EQ(blocks.back().end, bytes.size()) << part;
      EXPECT_EQ(blocks.back().type, 1u) << part;
      layout.ids.insert(load<std::array<std::uint32_t, 4>>(bytes, 32));
      layout.size += std::int64_t(bytes.size()) - 16;
      layout.types.emplace_back();
      for (const BlockInfo &b : blocks) {
        layout.types.back().push_back(b.type);
        if (b.type == 4) {
          ++layout.time_blocks;
          layout.compressions.insert(load<std::uint32_t>(bytes, b.offset + 16 + 36));
        }
      }
    }
  }
  return layout;
}

} // namespace

TEST(FileWriter, RoundTripsOfRandomStreams) {
  TempDir dir;
  struct Case {
    const char *name;
    std::int64_t max_file_size;
    StreamOptions options;
  };
  // Overflow stretches run across blocks, and so across parts where they rotate.
  const Case cases[] = {
      {"plain", 0x40000000, {}},
      {"raw", 0x40000000, {.max_tags = 200}}, // below the compression floor throughout
      {"rotating", 6000, {.start_time = -(std::int64_t(1) << 40)}},
      {"part per block", 1, {}},
      {"late", -1, {.huge_deltas = false, .start_time = std::int64_t(1) << 60}},
  };
  std::uint64_t seed = 17;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir / c.name;
    const auto stream = randomBlocks(seed++, c.options);
    const auto expected = expectedRecording(stream);
    TestTagger tagger;
    FileWriter writer(&tagger, base, {1, 2, -1, 5, 8, 1});
    writer.setMaxFileSize(c.max_file_size);
    for (const auto &block : stream)
      tagger.push(block.tags, block.begin_time, block.end_time);
    tagger.waitUntilDone();
    writer.stop();
    EXPECT_EQ(firstDifference(readRecording({base}), expected), "");
    EXPECT_EQ(writer.getTotalEvents(), std::int64_t(expected.size()));
    // Part 0 holds the prelude only; every part is whole and shares the id.
    const Layout layout = survey({base});
    EXPECT_EQ(writer.getTotalSize(), layout.size);
    EXPECT_EQ(layout.types.at(0), PRELUDE);
    EXPECT_EQ(layout.ids.size(), 1u);
    EXPECT_EQ(layout.time_blocks, stream.size());
    EXPECT_EQ(layout.compressions,
              (c.options.max_tags == 200 ? std::set<std::uint32_t>{0} : std::set<std::uint32_t>{0, 1}));
    // Part 1 already holds its prelude when the first block comes, so each
    // block goes to a part of its own from part 2 on.
    EXPECT_TRUE(c.max_file_size != 1 || (layout.types.size() == stream.size() + 2 && layout.types[1] == PRELUDE));
    EXPECT_TRUE(c.max_file_size != 6000 || layout.types.size() > 4);
  }
}

TEST(FileWriter, PartLayoutAcrossStartStopAndSplit) {
  TempDir dir;
  const std::string run = dir / "run", other = dir / "other";
  TestTagger tagger;
  FileWriter writer(&tagger, run + ".ctbin", {1, 2});
  writer.stop();
  EXPECT_EQ(survey({run}).types, (std::vector<Types>{PRELUDE, PRELUDE}));
  writer.split(""); // stopped: nothing happens
  writer.start();
  tagger.pushAndWait({makeTag(1, 50)}, 0, 100);
  writer.setMarker("marked");
  tagger.pushAndWait({makeTag(2, 150)}, 200);
  writer.split(run + ".ctbin"); // the same name goes on counting
  tagger.pushAndWait({makeTag(2, 250)}, 300);
  writer.split(other);
  tagger.pushAndWait({makeTag(1, 350)}, 400);
  writer.clear(); // clearing starts a new part as well
  tagger.pushAndWait({makeTag(1, 450)}, 500);
  writer.stop();
  const Types one{2, 5, 3, 4, 1};
  EXPECT_EQ(survey({run}).types, (std::vector<Types>{PRELUDE, PRELUDE, {2, 5, 3, 4, 6, 4, 1}, one}));
  EXPECT_EQ(survey({other}).types, (std::vector<Types>{PRELUDE, one, one}));
  const Layout both = survey({run, other});
  EXPECT_EQ(both.ids.size(), 1u);
  EXPECT_EQ(writer.getTotalSize(), both.size);
  EXPECT_EQ(writer.getTotalEvents(), 5);
  EXPECT_EQ(tagger.registrations(1), 1);

  // Reading back: configuration, marker and the tags of each recording.
  FileReader reader(run);
  EXPECT_EQ(reader.getConfiguration(), tagger.getConfiguration());
  std::vector<Tag> tags;
  EXPECT_TRUE(reader.getDataRaw(tags));
  EXPECT_EQ(firstDifference(tags, {makeTag(1, 50)}), "");
  EXPECT_EQ(reader.getLastMarker(), "marked");
  EXPECT_EQ(readRecording({run, other}).size(), 5u);
}

TEST(FileWriter, Errors) {
  TempDir dir;
  TestTagger tagger;
  auto message = [&](const std::string &name, const std::vector<std::int32_t> &channels) -> std::string {
    try {
      FileWriter writer(&tagger, name, channels);
    } catch (const std::runtime_error &e) {
      return e.what();
    }
    return "accepted";
  };
  const std::string missing = dir / "no_such_dir/rec";
  EXPECT_EQ(message(missing, {1}), "FileWriter: Error on opening the file '" + missing + "' for writing.");
  std::vector<std::int32_t> channels;
  for (int i = 1; i <= 251; ++i)
    channels.push_back(i);
  EXPECT_EQ(message(dir / "many", channels), "Too many channels. This format does not support more than 250 channels.");
  channels.pop_back();
  EXPECT_EQ(message(dir / "many", channels), "accepted");
  EXPECT_EQ(message(dir / "none", {}),
            "FileWriter is called without any channels. This would result in an empty file.");
  EXPECT_FALSE(std::filesystem::exists(dir / "none.ctbin"));
  // Only unused channels: an empty channel map, and no registration.
  EXPECT_EQ(message(dir / "unused", {CHANNEL_UNUSED}), "accepted");
  EXPECT_EQ(tagger.registrations(CHANNEL_UNUSED), 0);
  const std::string map = readFile(dir / "unused.1.ctbin");
  EXPECT_EQ(load<std::uint32_t>(map, walkBlocks(map)[2].offset + 16), 0u);
}
