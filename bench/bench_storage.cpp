// Recording and reading back .ctbin files: 8 channels, engine blocks of
// 131072 tags. The component benchmarks split a block's cost into packing,
// LZ4, SHA-1, signature and decoding.

#include "storage/ChronotickFileIO.h"
#include "support/TestTagger.h"

#include <chronotick/FileReader.h>
#include <chronotick/FileWriter.h>

#include <benchmark/benchmark.h>
#include <lz4.h>

#include <filesystem>
#include <random>

using namespace chronotick;

namespace {

constexpr std::size_t BLOCK_TAGS = 131072;
constexpr int CHANNELS = 8;

// Tags on channels 1..8 with random gaps of about 1 ns on average, as from a
// busy instrument; one block spans roughly 130 us.
std::vector<Tag> makeBlock(std::int64_t &time, std::mt19937_64 &random) {
  std::vector<Tag> tags(BLOCK_TAGS);
  std::exponential_distribution<double> gap(1.0 / 1000.0);
  for (Tag &tag : tags) {
    time += 1 + std::int64_t(gap(random));
    tag = Tag{Tag::Type::TimeTag, 0, 0, 1 + int(random() % CHANNELS), time};
  }
  return tags;
}

struct BlockSet {
  std::vector<std::vector<Tag>> blocks;
  std::vector<std::int64_t> begins;
  std::int64_t end;
  explicit BlockSet(int n) {
    std::mt19937_64 random(42);
    std::int64_t time = 0;
    for (int i = 0; i < n; ++i) {
      begins.push_back(time);
      blocks.push_back(makeBlock(time, random));
    }
    end = time + 1;
  }
  std::int64_t endOf(std::size_t i) const { return i + 1 < begins.size() ? begins[i + 1] : end; }
};

const BlockSet &blockSet() {
  static const BlockSet set(16);
  return set;
}

std::filesystem::path scratch() {
  auto dir = std::filesystem::temp_directory_path() / ("ct_bench_storage_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(dir);
  return dir;
}

std::vector<std::int32_t> channelList() {
  std::vector<std::int32_t> channels;
  for (int c = 1; c <= CHANNELS; ++c)
    channels.push_back(c);
  return channels;
}

TagFileWriter::ChannelList pairList() {
  TagFileWriter::ChannelList pairs;
  for (int c = 1; c <= CHANNELS; ++c)
    pairs.emplace_back(c, -c);
  return pairs;
}

// The whole recording path: engine workers, FileWriter, parallel sealing, disk.
void BM_FileWriterRecording(benchmark::State &state) {
  const BlockSet &set = blockSet();
  const auto dir = scratch();
  {
    testing::TestTagger tagger(CHANNELS);
    FileWriter writer(&tagger, (dir / "bench").string(), channelList());
    std::int64_t offset = 0;
    const std::int64_t span = set.end;
    for (auto _ : state) {
      state.PauseTiming();
      std::vector<std::vector<Tag>> copies = set.blocks;
      for (auto &block : copies)
        for (Tag &tag : block)
          tag.time += offset;
      state.ResumeTiming();
      for (std::size_t i = 0; i < copies.size(); ++i)
        tagger.push(std::move(copies[i]), set.begins[i] + offset, set.endOf(i) + offset);
      tagger.waitUntilDone();
      offset += span;
    }
    writer.stop();
    state.counters["bytes_per_tag"] =
        double(writer.getTotalSize()) / double(state.iterations() * set.blocks.size() * BLOCK_TAGS);
  }
  std::filesystem::remove_all(dir);
  state.SetItemsProcessed(std::int64_t(state.iterations() * set.blocks.size() * BLOCK_TAGS));
}
BENCHMARK(BM_FileWriterRecording)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FileReaderGetDataRaw(benchmark::State &state) {
  const BlockSet &set = blockSet();
  const auto dir = scratch();
  const std::string base = (dir / "read").string();
  {
    ctbin::FileId id{1, 2, 3, 4};
    TagFileWriter prelude(base, 0, id);
    TagFileWriter writer(base, 1, id);
    writer.writeChannelList(pairList());
    for (std::size_t i = 0; i < set.blocks.size(); ++i) {
      ctbin::TagBlock *block = writer.pack(set.blocks[i], set.begins[i], set.endOf(i));
      writer.seal(block);
      writer.write(block);
      writer.recycle(block);
    }
  }
  std::vector<Tag> tags;
  std::size_t total = 0;
  for (auto _ : state) {
    FileReader reader(base);
    while (reader.hasData()) {
      reader.getDataRaw(tags);
      total += tags.size();
    }
    benchmark::DoNotOptimize(tags.data());
  }
  std::filesystem::remove_all(dir);
  state.SetItemsProcessed(std::int64_t(total));
}
BENCHMARK(BM_FileReaderGetDataRaw)->Unit(benchmark::kMillisecond);

// ---- where a block's time goes

struct Packed {
  std::vector<std::uint32_t> words;
  Packed() {
    const auto dir = scratch();
    {
      TagFileWriter writer((dir / "p").string(), 0, {});
      writer.writeChannelList(pairList());
      const BlockSet &set = blockSet();
      ctbin::TagBlock *block = writer.pack(set.blocks[0], set.begins[0], set.endOf(0));
      words = block->words;
      writer.recycle(block);
    }
    std::filesystem::remove_all(dir);
  }
};

const Packed &packed() {
  static const Packed p;
  return p;
}

void BM_Pack(benchmark::State &state) {
  const auto dir = scratch();
  {
    TagFileWriter writer((dir / "p").string(), 0, {});
    writer.writeChannelList(pairList());
    const BlockSet &set = blockSet();
    for (auto _ : state) {
      ctbin::TagBlock *block = writer.pack(set.blocks[0], set.begins[0], set.endOf(0));
      benchmark::DoNotOptimize(block->words.data());
      writer.recycle(block);
    }
  }
  std::filesystem::remove_all(dir);
  state.SetItemsProcessed(std::int64_t(state.iterations() * BLOCK_TAGS));
}
BENCHMARK(BM_Pack)->Unit(benchmark::kMicrosecond);

void BM_Lz4Compress(benchmark::State &state) {
  const auto &words = packed().words;
  const int n = int(words.size() * 4);
  std::vector<char> out(std::size_t(LZ4_compressBound(n)));
  int result = 0;
  for (auto _ : state) {
    result = LZ4_compress_default(reinterpret_cast<const char *>(words.data()), out.data(), n, int(out.size()));
    benchmark::DoNotOptimize(result);
  }
  state.counters["ratio"] = double(result) / double(n);
  state.SetItemsProcessed(std::int64_t(state.iterations() * BLOCK_TAGS));
}
BENCHMARK(BM_Lz4Compress)->Unit(benchmark::kMicrosecond);

void BM_Sha1(benchmark::State &state) {
  const auto &words = packed().words;
  std::uint8_t hash[32];
  for (auto _ : state) {
    ctbin::sha1Field(words.data(), words.size() * 4, hash);
    benchmark::DoNotOptimize(hash);
  }
  state.SetItemsProcessed(std::int64_t(state.iterations() * BLOCK_TAGS));
}
BENCHMARK(BM_Sha1)->Unit(benchmark::kMicrosecond);

void BM_Sign(benchmark::State &state) {
  std::uint8_t hash[32] = {1, 2, 3};
  std::uint8_t signature[64];
  for (auto _ : state) {
    ctbin::signHash(hash, signature);
    benchmark::DoNotOptimize(signature);
  }
}
BENCHMARK(BM_Sign)->Unit(benchmark::kMicrosecond);

void BM_Verify(benchmark::State &state) {
  std::uint8_t hash[32] = {1, 2, 3};
  std::uint8_t signature[64];
  ctbin::signHash(hash, signature);
  for (auto _ : state)
    benchmark::DoNotOptimize(ctbin::verifyHash(hash, signature));
}
BENCHMARK(BM_Verify)->Unit(benchmark::kMicrosecond);

void BM_Lz4Decompress(benchmark::State &state) {
  const auto &words = packed().words;
  const int n = int(words.size() * 4);
  std::vector<char> compressed(std::size_t(LZ4_compressBound(n)));
  const int size =
      LZ4_compress_default(reinterpret_cast<const char *>(words.data()), compressed.data(), n, int(compressed.size()));
  std::vector<char> out(static_cast<std::size_t>(n));
  for (auto _ : state)
    benchmark::DoNotOptimize(LZ4_decompress_safe(compressed.data(), out.data(), size, n));
  state.SetItemsProcessed(std::int64_t(state.iterations() * BLOCK_TAGS));
}
BENCHMARK(BM_Lz4Decompress)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
