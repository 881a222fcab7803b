// Inputs kept from fuzzing (fuzz/regressions/<harness>/) and the seed corpus
// (fuzz/corpus/<harness>/) run through the very functions the harnesses call.
// Each must run to its end with both views of its tags agreeing; a damaged
// recording must say so at error level, and a whole one must not.

#include "FuzzTargets.h"
#include "support/LogCapture.h"
#include "support/TagFiles.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>

namespace chronotick {
namespace {

using Harness = std::function<fuzz::RunSummary(const std::uint8_t *, std::size_t)>;

const std::map<std::string, Harness> &harnesses() {
  static const std::map<std::string, Harness> all{{"part_reader", fuzz::runPartReader},
                                                  {"file_reader", fuzz::runFileReader},
                                                  {"replay", fuzz::runReplay},
                                                  {"raw_decoder", fuzz::runRawDecoder}};
  return all;
}

struct Input {
  std::string harness;
  std::string path;
  std::string bytes;
};

std::vector<Input> inputsIn(const std::string &kind) {
  std::vector<Input> inputs;
  for (const auto &[harness, run] : harnesses()) {
    const std::filesystem::path dir = std::filesystem::path(CT_FUZZ_DIR) / kind / harness;
    if (!std::filesystem::is_directory(dir))
      continue;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
      if (entry.is_regular_file())
        inputs.push_back({harness, entry.path().string(), fuzz::readBytes(entry.path().string())});
  }
  return inputs;
}

fuzz::RunSummary run(const Input &input) {
  return harnesses().at(input.harness)(reinterpret_cast<const std::uint8_t *>(input.bytes.data()), input.bytes.size());
}

// Every input kept here once crashed, hung or exhausted memory; all of them
// are damaged recordings, so reading them must also log why it stopped.
TEST(FuzzRegression, SavedInputsRunToTheirEnd) {
  for (const Input &input : inputsIn("regressions")) {
    testing::LogCapture log;
    const fuzz::RunSummary summary = run(input);
    EXPECT_TRUE(summary.consistent) << input.path;
    EXPECT_GT(log.errors(), 0) << input.path;
  }
}

TEST(FuzzRegression, SeedCorpusReadsAsItsNameSays) {
  const std::vector<Input> inputs = inputsIn("corpus");
  ASSERT_GE(inputs.size(), 30u) << "seed corpus missing: run scripts/make-fuzz-corpus.sh";
  for (const Input &input : inputs) {
    const std::string name = std::filesystem::path(input.path).filename().string();
    testing::LogCapture log;
    const fuzz::RunSummary summary = run(input);
    EXPECT_TRUE(summary.consistent) << input.path;
    if (name.rfind("valid_", 0) == 0) {
      EXPECT_EQ(log.errors(), 0) << input.path << ": " << (log.messages().empty() ? "" : log.messages()[0]);
      if (name != "valid_prelude") {
        EXPECT_GT(summary.tags, 0u) << input.path;
      }
    } else {
      EXPECT_GT(log.errors(), 0) << input.path;
    }
  }
}

// A replay tagger accepts blocks only with a correct hash and signature: the
// resealing that lets fuzzed bytes through must make exactly those.
TEST(FuzzRegression, ResealedBlocksPassTheSignatureCheck) {
  const std::string part = fuzz::readBytes(std::string(CT_FUZZ_DIR) + "/corpus/part_reader/valid_part");
  ASSERT_FALSE(part.empty());
  std::string flipped = part;
  // The first time tag block's first word sits after the prelude, its prefix and its record.
  std::size_t offset = 0;
  while (offset + 16 <= flipped.size() && fuzz::detail::load32(flipped, offset + 8) != ctbin::BLOCK_TIME_TAGS)
    offset += 16 + (fuzz::detail::load32(flipped, offset + 4) + 15) / 16 * 16;
  ASSERT_LT(offset + 16 + sizeof(ctbin::TimeTagBlockRecord) + 4, flipped.size());
  flipped[offset + 16 + sizeof(ctbin::TimeTagBlockRecord)] ^= 0x01; // another channel code
  testing::TempDir dir;
  auto blocksRead = [&](const std::string &bytes) {
    const std::string file = dir / "resealed.ctbin";
    fuzz::writeBytes(file, bytes.data(), bytes.size());
    TagFileReader reader(file, true);
    std::uint64_t blocks = 0;
    for (; reader.hasBlock(); ++blocks)
      reader.skipBlock();
    return blocks;
  };
  testing::LogCapture log;
  const std::uint64_t whole = blocksRead(part);
  EXPECT_GT(whole, 1u);
  EXPECT_EQ(blocksRead(flipped), 0u);
  EXPECT_GT(log.errors(), 0);
  fuzz::resealTimeTagBlocks(flipped);
  EXPECT_EQ(blocksRead(flipped), whole);
  std::string resealed = part;
  fuzz::resealTimeTagBlocks(resealed);
  EXPECT_EQ(resealed, part); // Ed25519 signatures are deterministic
}

} // namespace
} // namespace chronotick
