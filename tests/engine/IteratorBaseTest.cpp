#include "Probes.h"
#include "support/LogCapture.h"
#include "support/TestTagger.h"

#include <chronotick/Logging.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

using chronotick::Tag;
using chronotick::testing::LogCapture;
using chronotick::testing::TestTagger;
using probes::Gate;
using probes::Recorder;
using probes::Shifter;
using probes::tag;

namespace {

class Thrower : public chronotick::IteratorBase {
public:
  Thrower(chronotick::ChronotickBase *tagger, bool standard, bool throw_on_stop)
      : IteratorBase(tagger), standard_(standard), throw_on_stop_(throw_on_stop) {
    finishInitialization();
  }
  ~Thrower() override { stop(); }
  int stops = 0;

protected:
  bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override {
    if (standard_)
      throw std::runtime_error("bad block");
    throw 42;
  }
  void on_stop() override {
    if (++stops && throw_on_stop_)
      throw std::logic_error("stop failed");
  }

private:
  bool standard_, throw_on_stop_;
};

} // namespace

TEST(IteratorBase, FencesKeepBlocksReadBeforeStartOrClearAway) {
  TestTagger tagger;
  Gate gate(&tagger);
  Recorder rec(&tagger);

  // Block 1 is read and held at the gate, ahead of the recorder.
  tagger.push({tag(1, 10)}, 0, 100);
  ASSERT_TRUE(gate.waitUntilHeld());
  rec.clear();
  gate.open();
  tagger.pushAndWait({tag(1, 150)}, 100, 200);
  auto blocks = rec.blocks();
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].tags[0].time, 150);
  EXPECT_EQ(rec.getCaptureDuration(), 100) << "the ignored block must not count as captured time";

  // The same for start on a stopped iterator.
  Gate gate2(&tagger);
  Recorder late(&tagger, /*start=*/false);
  tagger.push({tag(1, 250)}, 200, 300);
  ASSERT_TRUE(gate2.waitUntilHeld());
  late.start();
  gate2.open();
  tagger.pushAndWait({tag(1, 350)}, 300, 400);
  ASSERT_EQ(late.blocks().size(), 1u);
  EXPECT_EQ(late.blocks()[0].tags[0].time, 350);
  EXPECT_EQ(late.starts(), 1);
}

TEST(IteratorBase, StartStopAndClearSemantics) {
  TestTagger tagger;
  Recorder rec(&tagger);
  EXPECT_TRUE(rec.isRunning());
  EXPECT_EQ(rec.starts(), 1);
  rec.start(); // already running: only lifts the limit
  EXPECT_EQ(rec.starts(), 1);
  tagger.pushAndWait({tag(1, 5)}, 0, 50);
  rec.stop();
  rec.stop();
  EXPECT_EQ(rec.stops(), 1) << "stop on a stopped iterator must not run on_stop again";
  EXPECT_FALSE(rec.isRunning());
  tagger.pushAndWait({tag(1, 60)}, 50, 100);
  EXPECT_EQ(rec.blocks().size(), 1u) << "a stopped iterator gets no blocks";
  EXPECT_EQ(rec.getCaptureDuration(), 50);
  rec.clear();
  EXPECT_EQ(rec.getCaptureDuration(), 0);
  EXPECT_FALSE(rec.isRunning()) << "clear keeps the running state";
}

TEST(IteratorBase, StartForCutsInsideABlock) {
  TestTagger tagger;
  Recorder rec(&tagger, false);
  rec.startFor(250);
  EXPECT_EQ(rec.starts(), 1);
  tagger.pushAndWait({tag(1, 10), tag(2, 90)}, 0, 100);
  tagger.pushAndWait({tag(1, 120), tag(1, 349), tag(1, 350), tag(2, 360)}, 100, 400);
  EXPECT_FALSE(rec.isRunning());
  EXPECT_EQ(rec.stops(), 1);
  EXPECT_EQ(rec.getCaptureDuration(), 250);
  auto blocks = rec.blocks();
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[1].begin_time, 100);
  EXPECT_EQ(blocks[1].end_time, 250);
  ASSERT_EQ(blocks[1].tags.size(), 1u);
  EXPECT_EQ(blocks[1].tags[0].time, 120);
  tagger.pushAndWait({tag(1, 450)}, 400, 500);
  EXPECT_EQ(rec.blocks().size(), 2u);

  // startFor without clear extends from the present duration; with clear on a
  // running iterator it restarts the count without on_start.
  rec.startFor(100, false);
  EXPECT_EQ(rec.starts(), 2);
  tagger.pushAndWait({}, 500, 540);
  const std::uint32_t fence = tagger.getFence(false);
  rec.startFor(100, false); // running: limit becomes 290 + 100, and no new fence
  EXPECT_EQ(tagger.getFence(false), fence);
  tagger.pushAndWait({}, 540, 700);
  EXPECT_EQ(rec.getCaptureDuration(), 390);
  EXPECT_FALSE(rec.isRunning());
  rec.start();
  rec.startFor(30, true);
  EXPECT_EQ(rec.starts(), 3);
  EXPECT_EQ(rec.getCaptureDuration(), 0);
  tagger.pushAndWait({}, 700, 800);
  EXPECT_EQ(rec.getCaptureDuration(), 30);
  EXPECT_EQ(rec.stops(), 3);
}

TEST(IteratorBase, StartForEndingExactlyAtABlockEndStopsOnTheNextBlock) {
  TestTagger tagger;
  Recorder rec(&tagger, false);
  rec.startFor(100);
  tagger.pushAndWait({tag(1, 50)}, 0, 100);
  EXPECT_TRUE(rec.isRunning());
  EXPECT_EQ(rec.getCaptureDuration(), 100);
  tagger.pushAndWait({tag(1, 150)}, 100, 200);
  EXPECT_FALSE(rec.isRunning());
  auto blocks = rec.blocks();
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(std::make_tuple(blocks[1].tags.size(), blocks[1].begin_time, blocks[1].end_time, rec.stops()),
            std::make_tuple(std::size_t(0), std::int64_t(100), std::int64_t(100), 1));
}

TEST(IteratorBase, VirtualChannelCutByStartForKeepsOutputForTheFirstPartOnly) {
  TestTagger tagger;
  Shifter shifter(&tagger, 300);
  shifter.startFor(100);
  Recorder after(&tagger);
  tagger.pushAndWait({tag(1, 10), tag(1, 90), tag(1, 110), tag(2, 150)}, 0, 200);
  EXPECT_EQ(chronotick::testing::firstDifference(
                after.tags(), {tag(1, 10), tag(300, 10), tag(1, 90), tag(300, 90), tag(1, 110), tag(2, 150)}),
            "");
}

TEST(IteratorBase, ExceptionStopsOnlyThatIteratorAndIsLogged) {
  LogCapture log;
  TestTagger tagger;
  Thrower standard(&tagger, true, false);
  Thrower other(&tagger, false, true);
  Recorder rec(&tagger);
  tagger.pushAndWait({tag(1, 1)}, 0, 10);
  tagger.pushAndWait({tag(1, 11)}, 10, 20);
  EXPECT_FALSE(standard.isRunning());
  EXPECT_FALSE(other.isRunning());
  EXPECT_EQ(standard.stops, 1);
  EXPECT_EQ(other.stops, 1);
  EXPECT_EQ(standard.getCaptureDuration(), 0);
  EXPECT_EQ(rec.blocks().size(), 2u);

  auto address = [](chronotick::IteratorBase *it) {
    char text[32];
    std::snprintf(text, sizeof(text), "%p", static_cast<void *>(it));
    return std::string(text);
  };
  EXPECT_EQ(
      log.count("Unhandled exception on IteratorBase " + address(&standard) + ": bad block", chronotick::LOGGER_ERROR),
      1);
  EXPECT_EQ(log.count("Unhandled exception on IteratorBase " + address(&other), chronotick::LOGGER_ERROR), 1);
  EXPECT_EQ(log.count("Unhandled exception on stopping IteratorBase " + address(&other) + ": stop failed",
                      chronotick::LOGGER_ERROR),
            1);
  for (const std::string &m : log.messages())
    EXPECT_EQ(m.rfind("IteratorBase.cpp:", 0), 0u) << "the file part has no directory: " << m;
}

TEST(IteratorBase, ChannelRegistrationIsCountedOncePerIterator) {
  LogCapture log;
  struct Registrar : chronotick::IteratorBase {
    explicit Registrar(chronotick::ChronotickBase *t) : IteratorBase(t) {}
    ~Registrar() override { stop(); }
    using IteratorBase::registerChannel;
    using IteratorBase::unregisterChannel;
    bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override { return false; }
  };
  TestTagger tagger(8, chronotick::CT_CHANNEL_NUMBER_SCHEME_ONE);
  {
    Registrar a(&tagger);
    Registrar b(&tagger);
    a.registerChannel(3);
    a.registerChannel(3);
    b.registerChannel(3);
    EXPECT_EQ(tagger.registrations(3), 2);
    a.unregisterChannel(3);
    a.unregisterChannel(3);
    EXPECT_EQ(tagger.registrations(3), 1);
    a.registerChannel(chronotick::CHANNEL_UNUSED);
    EXPECT_TRUE(log.messages().empty()) << "CHANNEL_UNUSED is a silent no-op";
    a.registerChannel(0);
    EXPECT_EQ(log.count("Tried to register an unknown channel", chronotick::LOGGER_WARNING), 1);
    a.registerChannel(4);
  }
  EXPECT_EQ(tagger.registrations(3), 0) << "destruction unregisters what is left";
  EXPECT_EQ(tagger.registrations(4), 0);
}

TEST(IteratorBase, DestructorOfARunningIteratorLogs) {
  LogCapture log;
  TestTagger tagger;
  struct Careless : chronotick::IteratorBase {
    explicit Careless(chronotick::ChronotickBase *t) : IteratorBase(t) { finishInitialization(); }
    bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override { return false; }
  };
  { Careless c(&tagger); }
  EXPECT_EQ(log.count("Iterator still running, please call stop() within the destructor", chronotick::LOGGER_ERROR), 1);
}

TEST(IteratorBase, AMeasurementCanEndItsOwnRun) {
  struct OneShot : chronotick::IteratorBase {
    explicit OneShot(chronotick::ChronotickBase *t) : IteratorBase(t) { finishInitialization(); }
    ~OneShot() override { stop(); }
    int blocks = 0;
    int stops = 0;
    bool next_impl(std::vector<Tag> &, std::int64_t, std::int64_t) override {
      ++blocks;
      stopWithinNext();
      return false;
    }
    void on_stop() override { ++stops; }
  };
  TestTagger tagger;
  OneShot plain(&tagger);
  OneShot cut(&tagger);
  cut.startFor(5);
  tagger.pushAndWait({tag(1, 1)}, 0, 10);
  tagger.pushAndWait({tag(1, 11)}, 10, 20);
  for (OneShot *m : {&plain, &cut}) {
    EXPECT_FALSE(m->isRunning());
    EXPECT_EQ(m->blocks, 1);
    EXPECT_EQ(m->stops, 1) << "on_stop runs once, also when the block was cut";
  }
}
