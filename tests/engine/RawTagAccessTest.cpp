#include "Probes.h"
#include "support/TestTagger.h"

#include <chronotick/Iterator.h>
#include <chronotick/TimeTagStream.h>

#include <gtest/gtest.h>

#include <future>
#include <tuple>

using chronotick::Tag;
using chronotick::TimeTagStream;
using chronotick::TimeTagStreamBuffer;
using chronotick::testing::TestTagger;
using probes::tag;

namespace {
struct Columns {
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> times;
  std::vector<std::uint16_t> missed;
  std::vector<std::uint8_t> types;
  std::vector<std::uint8_t> overflows;
  int calls = 0;
};

Columns columnsOf(const TimeTagStreamBuffer &buffer) {
  Columns c;
  auto read = [&](auto get, auto &column) {
    (buffer.*get)([&](std::size_t n) {
      ++c.calls;
      column.resize(n);
      return column.data();
    });
  };
  read(&TimeTagStreamBuffer::getChannels, c.channels);
  read(&TimeTagStreamBuffer::getTimestamps, c.times);
  read(&TimeTagStreamBuffer::getMissedEvents, c.missed);
  read(&TimeTagStreamBuffer::getEventTypes, c.types);
  read(&TimeTagStreamBuffer::getOverflows, c.overflows);
  return c;
}
} // namespace

TEST(TimeTagStream, BoundFilterAndReads) {
  TestTagger tagger;
  TimeTagStream all(&tagger, 3);
  TimeTagStream filtered(&tagger, 100, {1});
  Tag missed{Tag::Type::MissedEvents, 0, 7, 2, 40};
  Tag missed1{Tag::Type::MissedEvents, 0, 9, 1, 45};
  tagger.pushAndWait({tag(1, 10), tag(2, 20), tag(5, 30, Tag::Type::OverflowBegin), missed, missed1, tag(1, 50),
                      tag(3, 60, Tag::Type::Error)},
                     0, 100);

  TimeTagStreamBuffer first = all.getData();
  EXPECT_EQ(std::make_tuple(first.size, first.has_overflows, first.t_start, first.t_get_data),
            std::make_tuple(std::size_t(3), true, std::int64_t(100), std::int64_t(100)));
  Columns a = columnsOf(first);
  EXPECT_EQ(a.calls, 5);
  EXPECT_EQ(a.times, (std::vector<std::int64_t>{10, 20, 30}));
  EXPECT_EQ(a.types, (std::vector<std::uint8_t>{0, 0, 2}));
  EXPECT_EQ(a.overflows, (std::vector<std::uint8_t>{0, 0, 1}));

  Columns f = columnsOf(filtered.getData());
  EXPECT_EQ(f.channels, (std::vector<std::int32_t>{1, 5, 1, 1, 3}))
      << "overflow and error marks pass any filter; missed events only on a filtered channel";
  EXPECT_EQ(f.missed, (std::vector<std::uint16_t>{0, 0, 9, 0, 0}));
  EXPECT_EQ(f.types, (std::vector<std::uint8_t>{0, 2, 4, 0, 1}));
  EXPECT_EQ(f.overflows, (std::vector<std::uint8_t>{0, 1, 1, 0, 1}));

  // Nothing buffered: an empty read, and t_start moves on to t_get_data.
  TimeTagStreamBuffer empty = all.getData();
  EXPECT_EQ(std::make_tuple(empty.size, empty.has_overflows, empty.t_start),
            std::make_tuple(std::size_t(0), false, std::int64_t(100)));
  Columns e = columnsOf(empty);
  EXPECT_EQ(e.calls, 5);
  EXPECT_TRUE(e.times.empty());

  tagger.pushAndWait({tag(1, 110)}, 100, 200);
  // The next read continues where the last one ended.
  TimeTagStreamBuffer next = all.getData();
  EXPECT_EQ(std::make_tuple(next.t_start, next.t_get_data, next.has_overflows),
            std::make_tuple(std::int64_t(100), std::int64_t(200), false));
  EXPECT_EQ(all.getCounts(), 0u);
  EXPECT_THROW(next.getChannels(nullptr), std::bad_function_call);
}

TEST(Iterator, HandsOutTimestampsOfItsChannelInArrivalOrder) {
  TestTagger tagger;
  chronotick::Iterator it(&tagger, 2);
  EXPECT_EQ(tagger.registrations(2), 1);
  tagger.pushAndWait({tag(2, 5), tag(1, 6), tag(2, 7, Tag::Type::OverflowBegin), tag(2, 9)}, 0, 10);
  EXPECT_EQ(it.size(), 2u);
  EXPECT_EQ(it.next(), 5);
  EXPECT_EQ(it.next(), 9);
  auto later = std::async(std::launch::async, [&] { return it.next(); });
  EXPECT_EQ(later.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
  tagger.pushAndWait({tag(2, 15)}, 10, 20);
  EXPECT_EQ(later.get(), 15);
  tagger.pushAndWait({tag(2, 25)}, 20, 30);
  it.clear();
  EXPECT_EQ(it.size(), 0u);
}
