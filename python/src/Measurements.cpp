// The analysis measurements: constructors on a Python tagger object, results
// as new numpy arrays of the library's element types.

#include "Bindings.h"

#include <chronotick/Measurements.h>

namespace chronotick::python {

namespace {

// Negative sizes given to unsigned parameters become 0, so that the
// library's own check reports them instead of a conversion error.
std::uint64_t atLeastZero(std::int64_t value) {
  return value < 0 ? 0 : static_cast<std::uint64_t>(value);
}

void bindFastBinning(py::module_ &m) {
  py::class_<FastBinning> binning(m, "FastBinning", R"(
Maps a non-negative time difference v (ps) to its bin floor(v / divisor)
with the cheapest arithmetic that is exact for every v up to max_duration.
The choice is made once, at construction; getMode() tells which.)");
  py::enum_<FastBinning::Mode>(binning, "Mode")
      .value("AlwaysZero", FastBinning::Mode::AlwaysZero, "max_duration < divisor: every value is in bin 0")
      .value("Identity", FastBinning::Mode::Identity, "divisor 1")
      .value("PowerOfTwo", FastBinning::Mode::PowerOfTwo, "v >> shift")
      .value("MulShift32", FastBinning::Mode::MulShift32, "(v * factor) >> 32, low 64 bits of the product")
      .value("MulHigh64", FastBinning::Mode::MulHigh64, "high 64 bits of the 128-bit product v * factor")
      .value("Div32", FastBinning::Mode::Div32, "32-bit hardware division on the low 32 bits")
      .value("Div64", FastBinning::Mode::Div64, "64-bit hardware division");
  binning
      .def(py::init([](std::uint64_t divisor, std::uint64_t max_duration) {
             // The library leaves a divisor of 0 unchecked; here it would end the interpreter.
             if (divisor == 0)
               throw std::invalid_argument("divisor must be at least 1");
             return FastBinning(divisor, max_duration);
           }),
           py::arg("divisor"), py::arg("max_duration"), "Raises ValueError for a divisor of 0.")
      .def("getMode", &FastBinning::getMode)
      .def("getDivisor", &FastBinning::getDivisor)
      .def("getMaxDuration", &FastBinning::getMaxDuration)
      .def("getFactor", &FastBinning::getFactor, "Meaningful in MulShift32 and MulHigh64 only.")
      .def("getShift", &FastBinning::getShift, "Meaningful in PowerOfTwo only.");
}

void bindCounters(py::module_ &m) {
  py::class_<Counter, IteratorBase>(m, "Counter", R"(
Rolling trace of the number of tags per time bin, one row a channel, for the
most recent n_values bins of binwidth ps.

TimeTags on a listed channel count in the bin of their time (a channel listed
twice counts in both rows). Error, OverflowBegin/End and MissedEvents empty the
bin being filled and re-anchor the grid; finished bins stay. Lost tags are not
counted. Raises ValueError "binwidth must be at least 1 ps" or
"n_values must be at least 1".)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> channels, std::int64_t binwidth,
                       std::int32_t n_values) {
             return new Counter(tagger.get(), std::move(channels), binwidth, n_values);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channels"), py::arg("binwidth") = 1000000000,
           py::arg("n_values") = 1)
      .def(
          "getData", [](Counter &self) { return array2<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (number of channels, n_values): tags per bin, oldest bin first; the bin being filled is "
          "left out, bins not reached yet are 0.")
      .def(
          "getIndex",
          [](Counter &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_values): element i is i * binwidth, in ps.");

  py::class_<Countrate, IteratorBase>(m, "Countrate", R"(
Average rate of each channel since the measurement began, and the total
number of its tags.

TimeTags on a listed channel count one; MissedEvents count their
missed_events, so tags lost in an overflow still count. Error restarts the
rate from the next counted tag; the total goes on. OverflowBegin/End are
ignored. A start begins afresh, the totals included, as does clear.)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> channels) {
             return new Countrate(tagger.get(), std::move(channels));
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channels"))
      .def(
          "getData", [](Countrate &self) { return array1<double>([&](auto allocate) { self.getData(allocate); }); },
          "float64 array (number of channels): counts per second since the start (or the last Error); 0 before "
          "any time passed.")
      .def(
          "getCountsTotal",
          [](Countrate &self) { return array1<std::int64_t>([&](auto allocate) { self.getCountsTotal(allocate); }); },
          "int64 array (number of channels): tags and missed events since the last start or clear.");
}

void bindTimeDifferences(py::module_ &m) {
  py::class_<TimeDifferences, IteratorBase>(m, "TimeDifferences", R"(
Histograms of the time from each start to every later click within
n_bins * binwidth ps; a next channel moves on to the following histogram and
a sync channel re-arms the sequence.

Every click counts in bin floor((click - start) / binwidth) of the histogram
selected when the start came; all pairs count. With start_channel unused each
click is also a start. With a next channel nothing is recorded before the
first next tag; the next tag after the last histogram completes a pass
(getCounts) and wraps, or with a sync channel waits for a sync tag. With
max_counts set, start, next and sync tags are ignored after that many passes.
Error, OverflowBegin/End and MissedEvents drop the open starts and rewind the
sequence; the histograms and the pass count stay.
Raises ValueError "binwidth must be at least 1 ps", "n_bins must be at least
1", "n_histograms must be at least 1" or "n_bins times n_histograms must not
exceed 2147483647".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel,
                       std::int32_t next_channel, std::int32_t sync_channel, std::int64_t binwidth, std::int32_t n_bins,
                       std::int32_t n_histograms) {
             return new TimeDifferences(tagger.get(), click_channel, start_channel, next_channel, sync_channel,
                                        binwidth, n_bins, n_histograms);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"),
           py::arg("start_channel") = CHANNEL_UNUSED, py::arg("next_channel") = CHANNEL_UNUSED,
           py::arg("sync_channel") = CHANNEL_UNUSED, py::arg("binwidth") = 1000, py::arg("n_bins") = 1000,
           py::arg("n_histograms") = 1)
      .def(
          "getData",
          [](TimeDifferences &self) { return array2<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (n_histograms, n_bins): counts, row by row.")
      .def(
          "getIndex",
          [](TimeDifferences &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins): lower bin edges, i * binwidth, in ps.")
      .def("setMaxCounts", &TimeDifferences::setMaxCounts, py::arg("max_counts"),
           "Limit of completed passes through the histograms; 0 for none.")
      .def("getCounts", &TimeDifferences::getCounts, "Passes through the histograms completed since the last clear.")
      .def("ready", &TimeDifferences::ready,
           "True once max_counts passes are done and no start is open; without a limit, whether no start is open.");

  // Histogram and Flim hide the pass counters of TimeDifferences: in Python
  // they derive from IteratorBase alone.
  py::class_<Histogram, IteratorBase>(m, "Histogram", R"(
Histogram of the time from each start to every later click within
n_bins * binwidth ps: a TimeDifferences with one row, without next and sync.

Every click counts in bin floor((click - start) / binwidth); all pairs count.
With start_channel unused each click is also a start and pairs with itself in
bin 0. Error, OverflowBegin/End and MissedEvents drop the open starts; the
histogram stays. Raises ValueError "binwidth must be at least 1 ps" or
"n_bins must be at least 1".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel,
                       std::int64_t binwidth, std::int32_t n_bins) {
             return new Histogram(tagger.get(), click_channel, start_channel, binwidth, n_bins);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"),
           py::arg("start_channel") = CHANNEL_UNUSED, py::arg("binwidth") = 1000, py::arg("n_bins") = 1000)
      .def(
          "getData",
          [](Histogram &self) { return array1<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (n_bins): counts per bin.")
      .def(
          "getIndex",
          [](Histogram &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins): lower bin edges, i * binwidth, in ps.");

  py::class_<Flim, IteratorBase>(m, "Flim", R"(
Fluorescence lifetime imaging: one histogram of the delay from an excitation
pulse (start) to a photon (click) per pixel, the pixel clock (next channel)
moving from pixel to pixel.

Nothing is recorded before the first pixel clock tag, which selects pixel 0;
the one after the last pixel begins a new frame at pixel 0. Every photon less
than n_bins * binwidth ps after a pulse counts in bin
floor((photon - pulse) / binwidth) of the pixel current at the pulse.
Error, OverflowBegin/End and MissedEvents drop the open pulses; the next pixel
clock tag selects pixel 0 again. Raises ValueError "binwidth must be at least
1 ps", "n_bins must be at least 1" or "n_histograms must be at least 1".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel,
                       std::int32_t next_channel, std::int64_t binwidth, std::int32_t n_bins,
                       std::int32_t n_histograms) {
             return new Flim(tagger.get(), click_channel, start_channel, next_channel, binwidth, n_bins, n_histograms);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel"),
           py::arg("next_channel"), py::arg("binwidth"), py::arg("n_bins"), py::arg("n_histograms"))
      .def(
          "getData", [](Flim &self) { return array2<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (n_histograms, n_bins): row h is pixel h, summed over frames.")
      .def(
          "getIndex", [](Flim &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins): lower bin edges, i * binwidth, in ps.");

  py::class_<TimeDifferencesND, IteratorBase>(m, "TimeDifferencesND", R"(
Multi-start, multi-stop histograms, one for each combination of positions in
several dimensions; each dimension moves on its own next channel and may be
re-armed by its own sync channel.

Every click less than n_bins * binwidth ps after an open start counts in bin
floor((click - start) / binwidth) of the histogram selected when the start
came. A start opens only while every dimension has a position: the first next
tag of a dimension selects position 0, each further one moves on, wrapping
(or waiting for a sync tag). sync_channels may be empty, or hold
CHANNEL_UNUSED for a dimension without one. Error, OverflowBegin/End and
MissedEvents forget the positions; data and open starts stay.
Raises ValueError "dimension mismatch of input arguments", "binwidth must be at
least 1 ps", "n_bins must be at least 1" or "all elements of n_histograms must
be at least 1".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel,
                       std::vector<std::int32_t> next_channels, std::vector<std::int32_t> sync_channels,
                       std::vector<std::int32_t> n_histograms, std::int64_t binwidth, std::int64_t n_bins) {
             return new TimeDifferencesND(tagger.get(), click_channel, start_channel, std::move(next_channels),
                                          std::move(sync_channels), std::move(n_histograms), binwidth,
                                          atLeastZero(n_bins));
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel"),
           py::arg("next_channels"), py::arg("sync_channels"), py::arg("n_histograms"), py::arg("binwidth"),
           py::arg("n_bins"))
      .def(
          "getData",
          [](TimeDifferencesND &self) { return array2<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (product of n_histograms, n_bins): one row per combination of positions, the first "
          "dimension varying fastest.")
      .def(
          "getIndex",
          [](TimeDifferencesND &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins): lower bin edges, i * binwidth, in ps.");
}

void bindPairHistograms(py::module_ &m) {
  py::class_<StartStop, IteratorBase>(m, "StartStop", R"(
Sparse histogram of the time from a start to the first click after it,
without an upper limit.

A start tag opens a start, replacing an open one; a click closes it and counts
click - start in bin floor((click - start) / binwidth). With start_channel
unused every click is also the next start. Error, OverflowBegin/End and
MissedEvents close the open start (a MissedEvents tag on the start channel
then opens a new one). Raises ValueError "binwidth must not be 0".)")
      .def(py::init(
               [](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel, std::int64_t binwidth) {
                 return new StartStop(tagger.get(), click_channel, start_channel, binwidth);
               }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"),
           py::arg("start_channel") = CHANNEL_UNUSED, py::arg("binwidth") = 1000)
      .def(
          "getData",
          [](StartStop &self) { return array2<std::int64_t>([&](auto allocate) { self.getData(allocate); }); },
          "int64 array (number of bins hit, 2): rows of (lower bin edge in ps, count), by ascending time.");

  py::class_<Correlation, IteratorBase>(m, "Correlation", R"(
Cross-correlation of two channels (autocorrelation of one): histogram of
d = t(channel_1) - t(channel_2) over a window centred on zero.

With W = n_bins * binwidth / 2, pairs with |d| <= W count in bin
floor((d + W) / binwidth) if below n_bins. With channel_2 unused (or equal to
channel_1) each pair counts at +d and -d and each tag with itself at 0.
Error: no pair spans it. OverflowBegin/End: the time between is left out of
the measured duration. MissedEvents: ignored. Raises ValueError "binwidth
must be at least 1 ps" or "n_bins must be at least 1".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t channel_1, std::int32_t channel_2, std::int64_t binwidth,
                       std::int32_t n_bins) {
             return new Correlation(tagger.get(), channel_1, channel_2, binwidth, n_bins);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("channel_1"), py::arg("channel_2") = CHANNEL_UNUSED,
           py::arg("binwidth") = 1000, py::arg("n_bins") = 1000)
      .def(
          "getData",
          [](Correlation &self) { return array1<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (n_bins): pairs per bin.")
      .def(
          "getDataNormalized",
          [](Correlation &self) { return array1<double>([&](auto allocate) { self.getDataNormalized(allocate); }); },
          "float64 array (n_bins): the histogram divided by N_1 * N_2 * binwidth / T, so 1 for uncorrelated "
          "signals; not finite while either channel has no tags.")
      .def(
          "getIndex",
          [](Correlation &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins): lower bin edges in ps, i * binwidth - W.");

  py::class_<HistogramLogBins, IteratorBase>(m, "HistogramLogBins", R"(
Histogram of the times from start tags to click tags, all pairs counted, on
logarithmically growing bins. exp_start and exp_stop are decimal exponents of
the first and last edge in seconds (-6 is 1 microsecond).

Edge i is 10^(exp_start + 12 + i * (exp_stop - exp_start) / n_bins) ps, cut to
whole ps. Clicks count only once the stream has run longer than the last edge
since the start, the clear or the last break. Error and OverflowBegin/End drop
the remembered starts (the overflow time is left out of the measured
duration); MissedEvents are ignored. A negative n_bins is taken as 0.)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t start_channel, double exp_start,
                       double exp_stop, std::int32_t n_bins) {
             return new HistogramLogBins(tagger.get(), click_channel, start_channel, exp_start, exp_stop, n_bins);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel"),
           py::arg("exp_start"), py::arg("exp_stop"), py::arg("n_bins"))
      .def(
          "getData",
          [](HistogramLogBins &self) { return array1<std::uint64_t>([&](auto allocate) { self.getData(allocate); }); },
          "uint64 array (n_bins): pairs counted per bin.")
      .def(
          "getDataNormalizedCountsPerPs",
          [](HistogramLogBins &self) {
            return array1<double>([&](auto allocate) { self.getDataNormalizedCountsPerPs(allocate); });
          },
          "float64 array (n_bins): counts divided by each bin's width in ps.")
      .def(
          "getDataNormalizedG2",
          [](HistogramLogBins &self) {
            return array1<double>([&](auto allocate) { self.getDataNormalizedG2(allocate); });
          },
          "float64 array (n_bins): counts * T / (N_clicks * N_starts * bin width), 1 for independent streams; not "
          "finite before any count.")
      .def(
          "getBinEdges",
          [](HistogramLogBins &self) {
            return array1<std::int64_t>([&](auto allocate) { self.getBinEdges(allocate); });
          },
          "int64 array (n_bins + 1): the edges in ps.");

  py::class_<Histogram2D, IteratorBase>(m, "Histogram2D", R"(
Two-dimensional histogram of the times from one start to a stop on each of two
channels, one triple at a time.

A start begins a triple; after it the latest stop of each kind is kept. Once
both are there, the triple counts in bin ((stop_1 - start) / binwidth_1,
(stop_2 - start) / binwidth_2), rounded down, if within (n_bins_1, n_bins_2).
Error, OverflowBegin/End and MissedEvents drop the triple being assembled.
Raises ValueError "binwidth_1 and binwidth_2 must be at least 1 ps",
"n_bins_1 and n_bins_2 must be at least 1" or "n_bins_1 times n_bins_2 must
not exceed 2147483647".)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t start_channel, std::int32_t stop_channel_1,
                       std::int32_t stop_channel_2, std::int64_t binwidth_1, std::int64_t binwidth_2,
                       std::int32_t n_bins_1, std::int32_t n_bins_2) {
             return new Histogram2D(tagger.get(), start_channel, stop_channel_1, stop_channel_2, binwidth_1, binwidth_2,
                                    n_bins_1, n_bins_2);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("start_channel"), py::arg("stop_channel_1"),
           py::arg("stop_channel_2"), py::arg("binwidth_1"), py::arg("binwidth_2"), py::arg("n_bins_1"),
           py::arg("n_bins_2"))
      .def(
          "getData",
          [](Histogram2D &self) { return array2<std::int32_t>([&](auto allocate) { self.getData(allocate); }); },
          "int32 array (n_bins_1, n_bins_2).")
      .def(
          "getIndex",
          [](Histogram2D &self) { return array3<std::int64_t>([&](auto allocate) { self.getIndex(allocate); }); },
          "int64 array (n_bins_1, n_bins_2, 2): lower edges in ps of bin (i, j), i * binwidth_1 and j * binwidth_2.")
      .def(
          "getIndex_1",
          [](Histogram2D &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex_1(allocate); }); },
          "int64 array (n_bins_1): lower edges along the first axis, i * binwidth_1 ps.")
      .def(
          "getIndex_2",
          [](Histogram2D &self) { return array1<std::int64_t>([&](auto allocate) { self.getIndex_2(allocate); }); },
          "int64 array (n_bins_2): lower edges along the second axis, j * binwidth_2 ps.");
}

void bindMarkersAndScope(py::module_ &m) {
  py::class_<CountBetweenMarkers, IteratorBase>(m, "CountBetweenMarkers", R"(
Counts the tags of click_channel in n_values bins opened by begin tags; a bin
ends at the next begin tag or at an end tag. Fills the bins once, in order.

A tag that is both a click and a begin counts in the bin it opens; one that is
both a click and an end isn't counted. Error, OverflowBegin/End and
MissedEvents are ignored: an open bin stays open, lost tags are not counted.)")
      .def(py::init([](TaggerHandle &tagger, std::int32_t click_channel, std::int32_t begin_channel,
                       std::int32_t end_channel, std::int32_t n_values) {
             return new CountBetweenMarkers(tagger.get(), click_channel, begin_channel, end_channel, n_values);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("click_channel"), py::arg("begin_channel"),
           py::arg("end_channel"), py::arg("n_values"))
      .def(
          "getData",
          [](CountBetweenMarkers &self) {
            return array1<std::int32_t>([&](auto allocate) { self.getData(allocate); });
          },
          "int32 array (n_values): clicks per bin; 0 for bins not begun.")
      .def(
          "getBinWidths",
          [](CountBetweenMarkers &self) {
            return array1<std::int64_t>([&](auto allocate) { self.getBinWidths(allocate); });
          },
          "int64 array (n_values): width of each closed bin in ps; 0 while a bin is not closed.")
      .def(
          "getIndex",
          [](CountBetweenMarkers &self) {
            return array1<std::int64_t>([&](auto allocate) { self.getIndex(allocate); });
          },
          "int64 array (n_values): begin time of each bin in ps, relative to the first begin tag; 0 for bins not "
          "begun.")
      .def("ready", &CountBetweenMarkers::ready, "True once all n_values bins are complete.");

  py::enum_<EventLevel>(m, "EventLevel", "The level of a signal right after an event of a Scope trace.")
      .value("LevelUnknown", LevelUnknown, "no edge seen yet, or edges or data may have been lost")
      .value("LevelHigh", LevelHigh)
      .value("LevelLow", LevelLow)
      .export_values();

  py::class_<Event>(m, "Event", "One entry of a Scope trace: ps after the trigger, and the level from then on.")
      .def(py::init([](std::int64_t time, EventLevel level) {
             return Event{time, level};
           }),
           py::arg("time") = 0, py::arg("level") = LevelUnknown)
      .def_readwrite("time", &Event::time)
      .def_readwrite("level", &Event::level)
      .def("__repr__", [](const Event &e) {
        return "Event(time=" + std::to_string(e.time) + ", level=" + py::str(py::cast(e.level)).cast<std::string>() +
               ")";
      });

  py::class_<Scope, IteratorBase>(m, "Scope", R"(
Records digital signals like a logic analyser: a trigger tag opens a window of
window_size ps in which every edge of the watched channels (rising on the
channel, falling on its inverted channel) becomes an Event with the level that
follows it. With n_traces below 1 the scope runs continuously, publishing each
finished window and rearming.

Each trace starts with one event per channel at time 0 with the level known
then; at most n_max_events per channel and trace follow (negative: no limit).
Error, OverflowBegin/End and MissedEvents make every level unknown and close
the open windows with a LevelUnknown event per channel.)")
      .def(py::init([](TaggerHandle &tagger, std::vector<std::int32_t> event_channels, std::int32_t trigger_channel,
                       std::int64_t window_size, std::int32_t n_traces, std::int32_t n_max_events) {
             return new Scope(tagger.get(), std::move(event_channels), trigger_channel, window_size, n_traces,
                              n_max_events);
           }),
           py::keep_alive<1, 2>(), py::arg("tagger"), py::arg("event_channels"), py::arg("trigger_channel"),
           py::arg("window_size"), py::arg("n_traces"), py::arg("n_max_events"))
      .def("getData", &Scope::getData,
           "List of n_traces * n_channels lists of Event; trace t, channel c is at t * n_channels + c. In "
           "continuous mode the last published window, with empty lists before the first.")
      .def("getWindowSize", &Scope::getWindowSize, "The window after each trigger, in ps.")
      .def("triggered", &Scope::triggered, "Traces begun since the last clear or rearm.")
      .def("ready", &Scope::ready,
           "Single shot: true once all traces are begun and their windows closed. Continuous: true once a window "
           "has been published.");
}

} // namespace

void bindMeasurements(py::module_ &m) {
  bindFastBinning(m);
  bindCounters(m);
  bindTimeDifferences(m);
  bindPairHistograms(m);
  bindMarkersAndScope(m);
}

} // namespace chronotick::python
