#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Deprecated: appends the raw 16-byte Tag records of the stream to one file,
// without header, compression or splitting. Use FileWriter instead.
class CHRONOTICK_API Dump : public IteratorBase {
public:
  // max_tags: stop after this many tags, negative for no limit. An empty
  // channel list takes every tag; otherwise time tags of other channels are left out.
  Dump(ChronotickBase *tagger, const std::string &filename, std::int64_t max_tags,
       const std::vector<std::int32_t> &channels = std::vector<std::int32_t>());
  ~Dump() override;

protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::ofstream output_stream;
  std::unique_ptr<char[]> stream_buffer;
  std::vector<std::int32_t> channels;
  std::string filename;
  std::uint64_t count;
  std::int64_t max_tags;
  std::vector<Tag> filtered; // reused across blocks
};

} // namespace chronotick
