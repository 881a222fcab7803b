// Records the emulated test signal of a replay tagger and plays the recording
// back as fast as possible.
//
//   1. A replay tagger at speed 1.0 with nothing to replay runs on in real
//      time; its test signal, switched on for inputs 1 to 4, fills the stream.
//   2. A FileWriter records those four channels for 1.5 seconds.
//   3. A second replay tagger replays the recording at full speed into a
//      TimeTagStream, and the demo prints what came back.

#include <chronotick/FileWriter.h>
#include <chronotick/Library.h>
#include <chronotick/TimeTagStream.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace chronotick;

int main() {
  const std::vector<std::int32_t> channels{1, 2, 3, 4};
  const std::filesystem::path directory = std::filesystem::temp_directory_path();
  const std::string recording = (directory / "chronotick_demo").string();
  std::printf("Chronotick %s\n\n", getVersion().c_str());

  // 1 and 2: record 1.5 s of the test signal in real time.
  std::int64_t recorded_tags = 0;
  std::int64_t recorded_bytes = 0;
  {
    ChronotickVirtual *source = createChronotickVirtual();
    source->setReplaySpeed(1.0);
    source->setTestSignal(channels, true);
    FileWriter writer(source, recording, channels);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    writer.stop();
    recorded_tags = writer.getTotalEvents();
    recorded_bytes = writer.getTotalSize();
    freeChronotick(source);
  }
  std::printf("Recorded %lld tags of the test signal on channels 1-4 into %s.ctbin and its parts\n",
              static_cast<long long>(recorded_tags), recording.c_str());
  std::printf("  size %.2f MB, %.2f bytes per tag\n\n", recorded_bytes / 1e6,
              recorded_tags ? static_cast<double>(recorded_bytes) / recorded_tags : 0.0);

  // 3: replay as fast as possible, draining the stream while it runs.
  ChronotickVirtual *player = createChronotickVirtual();
  player->setReplaySpeed(-1.0);
  TimeTagStream stream(player, 4000000);
  std::map<std::int32_t, std::int64_t> counts;
  std::map<std::int32_t, std::int64_t> first;
  std::map<std::int32_t, std::int64_t> last;
  std::int64_t other = 0;
  std::vector<std::int32_t> tag_channels;
  std::vector<std::int64_t> tag_times;
  std::vector<std::uint8_t> tag_types;
  auto drain = [&] {
    TimeTagStreamBuffer data = stream.getData();
    data.getChannels([&](std::size_t n) { return tag_channels.resize(n), tag_channels.data(); });
    data.getTimestamps([&](std::size_t n) { return tag_times.resize(n), tag_times.data(); });
    data.getEventTypes([&](std::size_t n) { return tag_types.resize(n), tag_types.data(); });
    for (std::size_t i = 0; i < tag_times.size(); ++i) {
      if (tag_types[i] != 0) {
        ++other;
        continue;
      }
      const std::int32_t channel = tag_channels[i];
      if (counts[channel]++ == 0)
        first[channel] = tag_times[i];
      last[channel] = tag_times[i];
    }
  };

  const auto start = std::chrono::steady_clock::now();
  const std::uint64_t id = player->replay(recording);
  while (!player->waitForCompletion(id, 5))
    drain();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  drain();

  std::int64_t replayed = 0;
  std::printf("Replayed at full speed:\n");
  for (const auto &[channel, n] : counts) {
    replayed += n;
    // Rising edges of one channel come once per period of the test signal.
    const double period_ns = n > 1 ? (last[channel] - first[channel]) / 1e3 / static_cast<double>(n - 1) : 0.0;
    std::printf("  channel %2d: %9lld tags, test signal period %.3f ns (%.1f kHz)\n", channel,
                static_cast<long long>(n), period_ns, period_ns > 0 ? 1e6 / period_ns : 0.0);
  }
  if (other > 0)
    std::printf("  %lld error or overflow tags\n", static_cast<long long>(other));
  std::printf("  %lld of %lld recorded tags in %.3f s: %.1f M tags/s\n", static_cast<long long>(replayed),
              static_cast<long long>(recorded_tags), seconds, replayed / seconds / 1e6);

  freeChronotick(player);
  for (int part = 0;; ++part) {
    std::string name = recording;
    if (part > 0)
      name.append(".").append(std::to_string(part));
    name.append(".ctbin");
    if (!std::filesystem::remove(name))
      break;
  }
  return replayed == recorded_tags ? 0 : 1;
}
