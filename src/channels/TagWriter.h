#pragma once

#include <chronotick/Tag.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace chronotick {

// Writes tags into an output vector through a cursor that the hot loops keep
// in registers (push_back would reload the vector's pointers after every
// store of a Tag). The vector's present size is the room to write in: a
// recycled block vector is overwritten without being cleared, and only the
// part beyond it is initialised when it must grow. finish() cuts the vector
// to what was written.
class TagWriter {
public:
  explicit TagWriter(std::vector<Tag> &out) : vec(out), base(out.data()), cur(base), end(base + out.size()) {}

  void push(const Tag &tag) {
    room();
    *cur++ = tag;
  }

  // Writes `tag` but keeps it only if `take`, without a branch.
  void pushIf(const Tag &tag, bool take) {
    room();
    *cur = tag;
    cur += take;
  }

  void finish() { vec.resize(static_cast<std::size_t>(cur - base)); }

private:
  void room() {
    if (cur == end) [[unlikely]] {
      const auto used = static_cast<std::size_t>(cur - base);
      base = enlarge(vec);
      cur = base + used;
      end = base + vec.size();
    }
  }

  [[gnu::noinline]] static Tag *enlarge(std::vector<Tag> &vec) {
    vec.resize(vec.size() + std::max<std::size_t>(vec.size() / 8, 4096));
    return vec.data();
  }

  std::vector<Tag> &vec;
  Tag *base;
  Tag *cur;
  Tag *end;
};

} // namespace chronotick
