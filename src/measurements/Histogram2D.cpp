#include <chronotick/Histogram2D.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace chronotick {

Histogram2D::Histogram2D(ChronotickBase *tagger_, std::int32_t start_channel_, std::int32_t stop_channel_1_,
                         std::int32_t stop_channel_2_, std::int64_t binwidth_1_, std::int64_t binwidth_2_,
                         std::int32_t n_bins_1_, std::int32_t n_bins_2_)
    : IteratorBase(tagger_), start_time(0), stop_1_time(0), stop_2_time(0), have_start(false), have_stop_1(false),
      have_stop_2(false), start_channel(start_channel_), stop_channel_1(stop_channel_1_),
      stop_channel_2(stop_channel_2_), binwidth_1(binwidth_1_), binwidth_2(binwidth_2_), n_bins_1(n_bins_1_),
      n_bins_2(n_bins_2_) {
  if (binwidth_1 < 1 || binwidth_2 < 1)
    throw std::invalid_argument("binwidth_1 and binwidth_2 must be at least 1 ps");
  if (n_bins_1 < 1 || n_bins_2 < 1)
    throw std::invalid_argument("n_bins_1 and n_bins_2 must be at least 1");
  // Bins are found by 32-bit products, which must not wrap.
  if (std::int64_t(n_bins_1) * n_bins_2 > std::numeric_limits<std::int32_t>::max())
    throw std::invalid_argument("n_bins_1 times n_bins_2 must not exceed 2147483647");
  registerChannel(start_channel);
  registerChannel(stop_channel_1);
  registerChannel(stop_channel_2);
  data.resize(static_cast<std::size_t>(n_bins_1) * static_cast<std::size_t>(n_bins_2));
  clear();
  finishInitialization();
}

Histogram2D::~Histogram2D() {
  stop();
}

void Histogram2D::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  have_start = false;
  have_stop_1 = false;
  have_stop_2 = false;
}

bool Histogram2D::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  for (const Tag &tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      have_start = have_stop_1 = have_stop_2 = false;
      continue;
    }
    // Independent tests: one channel may play several roles at one tag.
    if (tag.channel == start_channel) {
      have_start = true;
      have_stop_1 = have_stop_2 = false;
      start_time = tag.time;
    }
    if (tag.channel == stop_channel_1) {
      have_stop_1 = true;
      stop_1_time = tag.time;
    }
    if (tag.channel == stop_channel_2) {
      have_stop_2 = true;
      stop_2_time = tag.time;
    }
    if (have_start && have_stop_1 && have_stop_2) {
      // Stops held with a start are never older than it in a sorted stream;
      // the unsigned compare only keeps a disordered stream from writing
      // outside the data. A zero bin width would fault: such triples drop.
      if (binwidth_1 != 0 && binwidth_2 != 0) {
        const std::int64_t i = (stop_1_time - start_time) / binwidth_1;
        const std::int64_t j = (stop_2_time - start_time) / binwidth_2;
        if (static_cast<std::uint64_t>(i) < static_cast<std::uint64_t>(std::max(n_bins_1, 0)) &&
            static_cast<std::uint64_t>(j) < static_cast<std::uint64_t>(std::max(n_bins_2, 0))) {
          const auto bin = static_cast<std::size_t>(i * n_bins_2 + j);
          if (bin < data.size()) { // the size is a 32-bit product, which may have wrapped
            ++data[bin];
          }
        }
      }
      have_start = have_stop_1 = have_stop_2 = false;
    }
  }
  return false;
}

void Histogram2D::getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate) {
  std::int32_t *out = allocate(static_cast<std::size_t>(n_bins_1), static_cast<std::size_t>(n_bins_2));
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void Histogram2D::getIndex(std::function<std::int64_t *(std::size_t, std::size_t, std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_bins_1), static_cast<std::size_t>(n_bins_2), 2);
  for (std::int64_t i = 0; i < n_bins_1; ++i) {
    for (std::int64_t j = 0; j < n_bins_2; ++j) {
      *out++ = i * binwidth_1;
      *out++ = j * binwidth_2;
    }
  }
}

void Histogram2D::getIndex_1(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_bins_1));
  for (std::int64_t i = 0; i < n_bins_1; ++i) {
    out[i] = i * binwidth_1;
  }
}

void Histogram2D::getIndex_2(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_bins_2));
  for (std::int64_t j = 0; j < n_bins_2; ++j) {
    out[j] = j * binwidth_2;
  }
}

} // namespace chronotick
