// The simulated board's word stream against its own truth: the signals, the
// slot settings and the buffer, seen through a decoder of the word format.

#include "BoardRig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <numeric>
#include <thread>

namespace chronotick::simulation::testing {
namespace {

// Rms of the residuals of a least-squares line through (k, t[k]), and its slope.
std::pair<double, double> lineFit(const std::vector<std::int64_t> &t) {
  const double n = double(t.size()), mk = (n - 1) / 2;
  double mt = 0, skt = 0, skk = 0;
  for (std::int64_t v : t)
    mt += double(v - t[0]) / n;
  for (std::size_t k = 0; k < t.size(); ++k) {
    skt += (double(k) - mk) * (double(t[k] - t[0]) - mt);
    skk += (double(k) - mk) * (double(k) - mk);
  }
  const double slope = skt / skk;
  double ss = 0;
  for (std::size_t k = 0; k < t.size(); ++k) {
    const double r = double(t[k] - t[0]) - mt - slope * (double(k) - mk);
    ss += r * r;
  }
  return {slope, std::sqrt(ss / n)};
}

TEST(SimulatedBoardStream, WordsAreWellFormedOrderedAndEchoTheFence) {
  Rig rig;
  for (int i = 0; i < 6; ++i) {
    rig.board.setSignal(i, Signal::poisson(2e6 + 1e6 * i));
    rig.threshold(i, 0.5);
    rig.slot(2 * i), rig.slot(2 * i + 1);
  }
  rig.wire(board::WI_FENCE, 0x15A); // only the low byte travels
  rig.start();
  Decoded d;
  decode(rig.read(1 << 20), rig.truth, d);
  EXPECT_EQ(d.bad_words, 0);
  EXPECT_EQ(d.out_of_order, 0);
  EXPECT_EQ(d.errors + d.overflow_begins, 0);
  ASSERT_GT(d.fences.size(), 10u);
  EXPECT_EQ(d.fences.back(), 0x5Au);
  EXPECT_GT(d.events.size(), 900000u);

  rig.wire(board::WI_FENCE, 0x77);
  rig.board.setWireInValue(board::WI_FENCE, 0x78); // not sent: the board keeps 0x77
  Decoded later = d;
  decode(rig.read(1 << 16), rig.truth, later);
  EXPECT_EQ(later.fences.back(), 0x77u);
}

TEST(SimulatedBoardStream, PoissonRateAndIdleStretches) {
  Rig rig("CT-20");
  rig.board.setSignal(0, Signal::poisson(20000));
  rig.threshold(0, 0.5);
  rig.slot(0);
  rig.start();
  Decoded d;
  for (int i = 0; i < 8; ++i)
    decode(rig.read(16384), rig.truth, d);
  const double seconds = double(d.base) * 1e-12, expected = 20000 * seconds;
  EXPECT_GT(seconds, 5.0); // several reads' worth of board time
  EXPECT_NEAR(double(d.events.size()), expected, 5 * std::sqrt(expected));

  // Nothing happening: the roll-overs come compressed, and time still advances.
  rig.board.setSignal(0, Signal::off());
  const std::vector<std::uint32_t> idle = rig.read(256);
  const std::int64_t before = d.base;
  decode(idle, rig.truth, d);
  EXPECT_NEAR(double(d.base - before), 1e12, 2 * 65536.0 * 6000 * 2);
  const int used = int(std::count_if(idle.begin(), idle.end(), [](std::uint32_t w) { return w >> 30 != 0; }));
  EXPECT_LT(used, 20);
}

TEST(SimulatedBoardStream, PeriodicAndCopyKeepPeriodJitterDelayAndWidth) {
  Rig rig;
  const std::int64_t period = 1000000, jitter = 150;
  rig.board.setSignal(0, Signal::periodic(period, jitter));
  Signal copy = Signal::copy(0, 20000);
  copy.width = 500;
  rig.board.setSignal(1, copy);
  rig.board.setSignal(2, Signal::periodic(777773)); // no jitter: only the fine bins' error is left
  rig.threshold(0, 0.3), rig.threshold(1, 0.3), rig.threshold(2, 0.3);
  rig.slot(0), rig.slot(2), rig.slot(3), rig.slot(4);
  rig.start();
  Decoded d;
  decode(rig.read(1 << 19), rig.truth, d);

  const auto sync = d.slotTimes(0), copies = d.slotTimes(2), falls = d.slotTimes(3);
  ASSERT_GT(sync.size(), 100000u);
  const auto [slope, rms] = lineFit(sync);
  EXPECT_NEAR(slope, double(period), 0.01);
  const double q = rig.truth.quantization_rms[0];
  EXPECT_NEAR(rms, std::sqrt(double(jitter * jitter) + q * q), 0.05 * double(jitter));

  // Bin centres against exact times: the error is the delay line's.
  EXPECT_NEAR(lineFit(d.slotTimes(4)).second, rig.truth.quantization_rms[2], 0.05 * rig.truth.quantization_rms[2]);

  // Without jitter of its own a copy keeps its delay, and its falling edge
  // its width, to within two bins' quantization.
  const double bins = 2 * 1.3 * double(rig.truth.clock_period) / rig.truth.bin_count;
  ASSERT_GE(copies.size() + 1, sync.size());
  ASSERT_GE(falls.size() + 1, copies.size());
  for (std::size_t k = 0; k + 1 < sync.size(); ++k) {
    ASSERT_NEAR(double(copies[k] - sync[k]), 20000, bins);
    ASSERT_NEAR(double(falls[k] - copies[k]), 500, bins);
  }
}

TEST(SimulatedBoardStream, FluorescenceLifetimeIsRecovered) {
  Rig rig;
  rig.board.setSignal(0, Signal::periodic(100000000)); // 10 kHz, far apart against the lifetime
  rig.board.setSignal(1, Signal::fluorescence(0, 0.3, 3000000, 2000));
  rig.threshold(0, 0.5), rig.threshold(1, 0.5);
  rig.slot(0), rig.slot(2);
  rig.start();
  Decoded d;
  for (int i = 0; i < 6; ++i)
    decode(rig.read(16384), rig.truth, d);
  const auto sync = d.slotTimes(0), decays = d.slotTimes(2);
  ASSERT_GT(decays.size(), 10000u);
  double sum = 0;
  std::size_t cause = 0;
  for (std::int64_t t : decays) {
    while (cause + 1 < sync.size() && sync[cause + 1] <= t)
      ++cause;
    sum += double(t - sync[cause]);
  }
  const double n = double(decays.size());
  EXPECT_NEAR(sum / n, 2000 + 3000000, 5 * 3000000 / std::sqrt(n));
  EXPECT_NEAR(n / double(sync.size()), 0.3, 0.02);
}

TEST(SimulatedBoardStream, DeadTimeDividerMuxAndThresholdActPerSlot) {
  Rig rig("CT-20");
  rig.board.setSignal(0, Signal::poisson(20e6));
  for (int i = 0; i < 5; ++i)
    rig.threshold(i, 0.5);
  rig.slot(0);          // input 0 as it is
  rig.slot(2, 0, 300);  // input 1: copy of 0 behind 300 cycles of dead time
  rig.slot(4, 0, 0, 9); // input 2: copy of 0, one in ten
  rig.slot(6, 1);       // input 3 takes input 2's connector, the copy
  rig.slot(8, 3);       // input 4: the test signal
  for (int i = 1; i < 3; ++i)
    rig.board.setSignal(i, Signal::copy(0, 0));
  Signal faint = Signal::copy(0, 0);
  faint.amplitude = 0.4;
  rig.board.setSignal(5, faint);
  rig.slot(10); // input 5: below its threshold
  rig.threshold(5, 0.5);
  rig.wire(board::WI_TEST_PERIOD, 74);
  rig.wire(board::WI_TEST_HALF_PERIOD, 37);
  rig.start();
  Decoded d;
  decode(rig.read(1 << 20), rig.truth, d);

  const auto all = d.slotTimes(0), dead = d.slotTimes(2), divided = d.slotTimes(4), muxed = d.slotTimes(6);
  ASSERT_GT(all.size(), 200000u);
  const std::int64_t deadtime = 300 * rig.truth.clock_period;
  for (std::size_t k = 1; k < dead.size(); ++k)
    ASSERT_GT(dead[k] - dead[k - 1], deadtime - rig.truth.clock_period);
  // A dead time that doesn't extend: r / (1 + r tau) of the rate r pass.
  EXPECT_NEAR(double(dead.size()), double(all.size()) / (1 + 20e6 * double(deadtime) * 1e-12),
              0.03 * double(dead.size()));
  EXPECT_NEAR(double(divided.size()), double(all.size()) / 10, 2);
  EXPECT_NEAR(double(muxed.size()), double(all.size()), 2); // input 2's connector carries the undivided copy
  EXPECT_TRUE(d.slotTimes(10).empty());

  const auto test = d.slotTimes(8);
  ASSERT_GT(test.size(), 1000u);
  EXPECT_NEAR(lineFit(test).first, 74 * 3 * 6000 * (1 + 1.0 / 65536), 1.0); // 751 kHz, off the clock
}

TEST(SimulatedBoardStream, AFullBufferGivesAnOverflowStretch) {
  Rig rig;
  rig.board.setSignal(0, Signal::poisson(5e6));
  rig.threshold(0, 0.5);
  rig.slot(0), rig.slot(1);
  rig.wire(board::WI_BUFFER_SIZE, 32768);
  rig.wire(board::WI_BUFFER_HALF, 16384);
  rig.board.setBandwidth(2e6);
  rig.start();
  Decoded d;
  decode(rig.read(1 << 20), rig.truth, d);
  EXPECT_GT(d.overflow_begins, 1);
  EXPECT_GE(d.overflow_begins, d.overflow_ends);
  EXPECT_LE(d.overflow_begins, d.overflow_ends + 1);
  ASSERT_GT(d.missed[0] + d.missed[1], 0u);
  // Edges seen plus edges missed are all there were: the link carried 2 M
  // words per second of 10 M.
  const double seconds = double(d.base) * 1e-12;
  const double seen = double(d.events.size()) / seconds;
  EXPECT_NEAR(seen, 2e6, 0.1e6);
  // Each stretch: the buffer fills from half to full at 10 - 2 M/s, then
  // drains back to half at 2 M/s.
  const double stretch = 16384 / 8e6 + 16384 / 2e6;
  EXPECT_NEAR(d.overflow_begins, seconds / stretch, 0.1 * seconds / stretch);
  rig.board.setBandwidth(1e9);
  Decoded after;
  decode(rig.read(1 << 18), rig.truth, after);
  EXPECT_LE(after.overflow_begins, 1); // the stretch under way ends, no new one starts
}

TEST(SimulatedBoardStream, SignalsChangeUnderARunningStream) {
  Rig rig;
  rig.board.setSignal(0, Signal::poisson(5e6));
  rig.threshold(0, 0.5);
  rig.slot(0), rig.slot(1);
  rig.start();
  std::atomic<bool> done{false};
  std::thread changer([&] {
    for (int k = 0; !done; ++k) {
      Signal s = k % 3 == 0 ? Signal::periodic(500000 + k, k % 7 * 100) : Signal::poisson(1e6 * (k % 5 + 1));
      s.width = k % 2 ? 200 : 3000000; // edges of the old width are still under way
      rig.board.setSignal(0, s);
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  Decoded d;
  for (int i = 0; i < 300; ++i)
    decode(rig.read(4096), rig.truth, d);
  done = true;
  changer.join();
  EXPECT_EQ(d.bad_words + d.out_of_order, 0);
  EXPECT_GT(d.events.size(), 1000000u);
  // Every pulse has both edges, whatever its width was changed to meanwhile.
  EXPECT_NEAR(double(d.slotTimes(0).size()), double(d.slotTimes(1).size()), 20);
}

TEST(SimulatedBoardStream, TheSeedDecidesEverything) {
  const auto stream = [](std::uint64_t seed) {
    Rig rig("CT-Ultra", seed);
    rig.board.setSignal(0, Signal::poisson(3e6));
    rig.board.setSignal(1, Signal::periodic(777777, 300));
    rig.threshold(0, 0.5), rig.threshold(1, 0.5);
    rig.slot(0), rig.slot(2), rig.slot(3);
    rig.start();
    return std::make_pair(rig.read(1 << 16), rig.truth.bin_widths);
  };
  const auto a = stream(7), b = stream(7), c = stream(8);
  EXPECT_EQ(a.first, b.first);
  EXPECT_EQ(a.second, b.second);
  EXPECT_NE(a.first, c.first);
  EXPECT_NE(a.second, c.second);
}

TEST(SimulatedBoardStream, TruthDescribesTheDelayLine) {
  for (const char *model : {"CT-20", "CT-Ultra"}) {
    Rig rig(model);
    const BoardTruth &t = rig.truth;
    ASSERT_EQ(int(t.bin_widths.size()), t.inputs);
    for (int i = 0; i < t.inputs; ++i) {
      const auto &w = t.bin_widths[std::size_t(i)];
      ASSERT_EQ(int(w.size()), t.bin_count);
      EXPECT_DOUBLE_EQ(std::accumulate(w.begin(), w.end(), 0.0), double(t.clock_period));
      const auto [lo, hi] = std::minmax_element(w.begin(), w.end());
      EXPECT_GT(*hi / *lo, 1.3) << "bins must differ";
      const double uniform = double(t.clock_period) / t.bin_count / std::sqrt(12.0);
      EXPECT_GT(t.quantization_rms[std::size_t(i)], uniform);
      EXPECT_LT(t.quantization_rms[std::size_t(i)], 1.2 * uniform);
    }
    EXPECT_NE(t.bin_widths[0], t.bin_widths[1]);
  }
}

TEST(SimulatedBoardStream, RealTimeReadsKeepToTheWallClock) {
  Rig rig;
  rig.board.setRealTime(true);
  rig.board.setSignal(0, Signal::poisson(1e6));
  rig.threshold(0, 0.5);
  rig.slot(0);
  const auto begin = std::chrono::steady_clock::now();
  rig.start();
  Decoded d;
  decode(rig.read(4096), rig.truth, d);
  const double wall_ps =
      double(std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - begin).count()) *
      1e3;
  EXPECT_GT(d.events.size(), 3000u);
  EXPECT_LE(double(d.last), wall_ps); // no word from the board's future

  rig.board.setSignal(0, Signal::off());
  const auto idle = rig.read(1 << 16); // far more than an idle board has: padded
  EXPECT_GT(std::count(idle.begin(), idle.end(), 0u), 1 << 15);
}

} // namespace
} // namespace chronotick::simulation::testing
