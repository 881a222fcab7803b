#include <chronotick/Dump.h>

#include "engine/Log.h"

#include <algorithm>
#include <fstream>

namespace chronotick {

namespace {
constexpr std::size_t DUMP_STREAM_BUFFER_SIZE = 1048576;
}

Dump::Dump(ChronotickBase *tagger, const std::string &filename, std::int64_t max_tags,
           const std::vector<std::int32_t> &channels)
    : IteratorBase(tagger), output_stream(std::make_unique<std::ofstream>()),
      stream_buffer(new char[DUMP_STREAM_BUFFER_SIZE]), channels(channels), filename(filename), count(0),
      max_tags(max_tags) {
  CT_ERROR("The Dump class is deprecated and will be removed soon. Please use FileWriter instead.");
  for (std::int32_t channel : channels)
    registerChannel(channel);
  clear();
  finishInitialization();
}

Dump::~Dump() {
  stop();
}

void Dump::on_start() {
  output_stream->rdbuf()->pubsetbuf(stream_buffer.get(), DUMP_STREAM_BUFFER_SIZE);
  output_stream->open(filename, std::ios::binary | std::ios::out | std::ios::trunc);
}

void Dump::on_stop() {
  if (output_stream->is_open())
    output_stream->close();
}

void Dump::clear_impl() {
  // The stream is open exactly while the measurement runs.
  if (output_stream->is_open()) {
    on_stop();
    count = 0;
    on_start();
  } else {
    count = 0;
  }
}

bool Dump::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  const std::vector<Tag> *taken = &tags;
  if (!channels.empty()) {
    filtered.clear();
    for (const Tag &tag : tags) {
      if (tag.type != Tag::Type::TimeTag || std::find(channels.begin(), channels.end(), tag.channel) != channels.end())
        filtered.push_back(tag);
    }
    taken = &filtered;
  }
  std::uint64_t n = taken->size();
  if (max_tags >= 0)
    n = std::min<std::uint64_t>(n, std::uint64_t(max_tags) - std::min<std::uint64_t>(count, std::uint64_t(max_tags)));
  if (n > 0 && output_stream->is_open())
    output_stream->write(reinterpret_cast<const char *>(taken->data()), std::streamsize(n * sizeof(Tag)));
  count += n;
  if (max_tags >= 0 && count >= std::uint64_t(max_tags)) {
    stopWithinNext(); // closes the file; the measurement stops itself
  }
  return false;
}

} // namespace chronotick
