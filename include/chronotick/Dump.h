#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Deprecated: appends the raw 16-byte Tag records of the stream to one file,
// without header, compression or splitting. Use FileWriter instead.
//
// Events handled: with a channel list, TimeTags of other channels are left
// out; every other tag (Error, OverflowBegin/End, MissedEvents of any channel)
// is written. The records are written in the host's byte order.
// Every start, also after a stop, truncates the file and writes it anew; a
// clear while running does the same. A file that can't be opened or written
// is not reported. Building one logs an error about the deprecation; nothing
// is thrown.
// Thread safety: start, stop and clear may be called from any thread.
class CHRONOTICK_API Dump : public IteratorBase {
public:
  // max_tags: stop after this many tags written since construction or the
  // last clear, negative for no limit. An empty channel list takes every tag;
  // otherwise time tags of other channels are left out.
  Dump(ChronotickBase *tagger, const std::string &filename, std::int64_t max_tags,
       const std::vector<std::int32_t> &channels = std::vector<std::int32_t>());
  ~Dump() override;

protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::unique_ptr<std::ofstream> output_stream; // open exactly while running
  std::unique_ptr<char[]> stream_buffer;
  std::vector<std::int32_t> channels;
  std::string filename;
  std::uint64_t count;
  std::int64_t max_tags;
  std::vector<Tag> filtered; // reused across blocks
};

} // namespace chronotick
