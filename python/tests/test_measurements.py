"""Measurements from Python, checked against numpy on the very same tags."""

import time

import numpy as np
import pytest

import chronotick as ct

LASER = 1  # periodic, every PERIOD ps
CLICKS = 2  # Poisson
ECHO = 3  # every click again, DELAY ps later
PERIOD = 100_000
DELAY = 20_000
DURATION = 20_000_000_000  # ps of stream per capture: 20 ms


@pytest.fixture(scope="module")
def tagger():
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra", seed=7))
    sim.setSignal(serial, LASER - 1, sim.Signal.periodic(PERIOD, 3))
    sim.setSignal(serial, CLICKS - 1, sim.Signal.poisson(1e6))
    sim.setSignal(serial, ECHO - 1, sim.Signal.copy(CLICKS - 1, DELAY, 5))
    t = ct.createChronotick(serial)
    yield t
    ct.freeChronotick(t)
    sim.removeBoard(serial)


def capture(tagger, build, duration=DURATION):
    """Runs the measurements that build(tagger) makes together with a raw
    stream of channels 1 to 3; returns them and, by channel, the tag times
    and the tags' places in the stream (which orders tags of equal time)."""
    group = ct.SynchronizedMeasurements(tagger)
    measurements = build(group.getTagger())
    stream = ct.TimeTagStream(group.getTagger(), n_max_events=10_000_000, channels=[LASER, CLICKS, ECHO])
    group.startFor(duration)
    deadline = time.monotonic() + 30
    while group.isRunning():
        assert time.monotonic() < deadline, "capture did not end"
        time.sleep(0.01)
    buffer = stream.getData()
    assert not buffer.has_overflows
    channels, times = buffer.getChannels(), buffer.getTimestamps()
    places = np.arange(len(times))
    tags = {c: times[channels == c] for c in (LASER, CLICKS, ECHO)}
    return measurements, tags, {c: places[channels == c] for c in (LASER, CLICKS, ECHO)}


def all_pairs(starts, clicks, low, high, start_places=None, click_places=None):
    """click - start for every pair with low <= click - start <= high; with
    places given, the start must also stand before the click."""
    first = np.searchsorted(starts, clicks - high, "left")
    if start_places is None:
        last = np.searchsorted(starts, clicks - low, "right")
    else:
        last = np.searchsorted(start_places, click_places)
    reps = last - first
    idx = np.repeat(last - reps.cumsum(), reps) + np.arange(reps.sum())
    return np.repeat(clicks, reps) - starts[idx]


@pytest.fixture(scope="module")
def run(tagger):
    def build(t):
        return {
            "counter": ct.Counter(t, [LASER, CLICKS], binwidth=1_000_000, n_values=30_000),
            "countrate": ct.Countrate(t, channels=[LASER, CLICKS, CLICKS]),
            "histogram": ct.Histogram(t, click_channel=CLICKS, start_channel=LASER, binwidth=1000, n_bins=100),
            "differences": ct.TimeDifferences(t, CLICKS, LASER, binwidth=1000, n_bins=100),
            "correlation": ct.Correlation(t, ECHO, CLICKS, binwidth=500, n_bins=100),
            "startstop": ct.StartStop(t, CLICKS, LASER, binwidth=1000),
            "markers": ct.CountBetweenMarkers(t, CLICKS, LASER, ct.CHANNEL_UNUSED, 100),
        }

    return capture(tagger, build)


class TestAgainstNumpy:
    def test_counter_bins_fit_one_grid(self, run):
        m, tags, _ = run
        data = m["counter"].getData()
        assert data.shape == (2, 30_000) and data.dtype == np.int32
        np.testing.assert_array_equal(m["counter"].getIndex(), np.arange(30_000) * 1_000_000)
        # Bins not reached yet come first; the laser fills every bin reached.
        data = data[:, np.flatnonzero(data[0])[0]:]
        assert abs(data.shape[1] - DURATION // 1_000_000) <= 1
        assert np.all(np.abs(data[0] - 10) <= 1)  # 1 us bins of a 100 ns laser
        for row, times in zip(data, (tags[LASER], tags[CLICKS])):
            # Bin k holds the tags from anchor + k * binwidth on: one anchor,
            # at or before the first tag, must fit every bin edge at once.
            before = np.concatenate(([0], np.cumsum(row)[:-1]))
            k = np.arange(len(row)) * 1_000_000
            lower = np.where(before > 0, times[np.maximum(before - 1, 0)] - k, -np.inf)
            upper = times[np.minimum(before, len(times) - 1)] - k
            upper = np.where(before < len(times), upper, np.inf)
            assert lower.max() < upper.min() <= times[0]

    def test_countrate_counts_every_tag(self, run):
        m, tags, _ = run
        totals = m["countrate"].getCountsTotal()
        assert totals.dtype == np.int64
        np.testing.assert_array_equal(totals, [len(tags[LASER]), len(tags[CLICKS]), len(tags[CLICKS])])
        rates = m["countrate"].getData()
        assert rates.dtype == np.float64 and rates.shape == (3,)
        assert rates[0] == pytest.approx(1e12 / PERIOD, rel=0.01)
        assert rates[1] == pytest.approx(len(tags[CLICKS]) / (DURATION * 1e-12), rel=0.01)

    def test_histogram_equals_all_pairs(self, run):
        m, tags, places = run
        d = all_pairs(tags[LASER], tags[CLICKS], 0, 100 * 1000 - 1, places[LASER], places[CLICKS])
        expected = np.bincount(d // 1000, minlength=100)
        np.testing.assert_array_equal(m["histogram"].getData(), expected)
        np.testing.assert_array_equal(m["histogram"].getIndex(), np.arange(100) * 1000)
        np.testing.assert_array_equal(m["differences"].getData(), expected[np.newaxis, :])

    def test_correlation_finds_the_echo(self, run):
        m, tags, _ = run
        half = 100 * 500 // 2
        d = all_pairs(tags[CLICKS], tags[ECHO], -half, half)
        bins = (d + half) // 500
        expected = np.bincount(bins[bins < 100], minlength=100)
        corr = m["correlation"]
        np.testing.assert_array_equal(corr.getData(), expected)
        index = corr.getIndex()
        np.testing.assert_array_equal(index, np.arange(100) * 500 - half)
        assert abs(index[np.argmax(corr.getData())] - DELAY) <= 500
        normalized = corr.getDataNormalized()
        assert normalized.dtype == np.float64 and normalized.max() > 10

    def test_startstop_takes_the_first_click(self, run):
        m, tags, places = run
        starts, clicks = tags[LASER], tags[CLICKS]
        following = np.searchsorted(places[LASER], places[CLICKS]) - 1  # the start standing before each click
        ok = following >= 0
        first_click = ok & np.concatenate(([True], following[1:] != following[:-1]))
        d = clicks[first_click] - starts[following[first_click]]
        edges, counts = np.unique(d // 1000 * 1000, return_counts=True)
        data = m["startstop"].getData()
        assert data.dtype == np.int64 and data.shape == (len(edges), 2)
        np.testing.assert_array_equal(data[:, 0], edges)
        np.testing.assert_array_equal(data[:, 1], counts)

    def test_count_between_markers(self, run):
        m, tags, places = run
        markers = m["markers"]
        begins = tags[LASER][:101]
        clicks_before = np.searchsorted(places[CLICKS], places[LASER][:101])
        np.testing.assert_array_equal(markers.getData(), np.diff(clicks_before))
        np.testing.assert_array_equal(markers.getBinWidths(), np.diff(begins))
        np.testing.assert_array_equal(markers.getIndex(), begins[:100] - begins[0])
        assert markers.ready()


@pytest.fixture(scope="module")
def shapes_run(tagger):
    def build(t):
        return {
            "flim": ct.Flim(t, CLICKS, LASER, ECHO, binwidth=1000, n_bins=50, n_histograms=4),
            "nd": ct.TimeDifferencesND(t, CLICKS, LASER, [ECHO, LASER], [], [3, 2], binwidth=1000, n_bins=20),
            "h2d": ct.Histogram2D(t, LASER, CLICKS, ECHO, 1000, 2000, n_bins_1=10, n_bins_2=20),
            "logbins": ct.HistogramLogBins(t, CLICKS, LASER, exp_start=-10, exp_stop=-7, n_bins=30),
            "scope": ct.Scope(t, [CLICKS], LASER, window_size=50_000, n_traces=3, n_max_events=-1),
        }

    return capture(tagger, build, duration=5_000_000_000)


class TestShapesAndDtypes:
    @pytest.mark.parametrize(
        "name, getter, dtype, shape",
        [
            ("flim", "getData", np.int32, (4, 50)),
            ("flim", "getIndex", np.int64, (50,)),
            ("nd", "getData", np.int32, (6, 20)),
            ("nd", "getIndex", np.int64, (20,)),
            ("h2d", "getData", np.int32, (10, 20)),
            ("h2d", "getIndex", np.int64, (10, 20, 2)),
            ("h2d", "getIndex_1", np.int64, (10,)),
            ("h2d", "getIndex_2", np.int64, (20,)),
            ("logbins", "getData", np.uint64, (30,)),
            ("logbins", "getDataNormalizedCountsPerPs", np.float64, (30,)),
            ("logbins", "getDataNormalizedG2", np.float64, (30,)),
            ("logbins", "getBinEdges", np.int64, (31,)),
        ],
    )
    def test_getter(self, shapes_run, name, getter, dtype, shape):
        result = getattr(shapes_run[0][name], getter)()
        assert isinstance(result, np.ndarray)
        assert result.dtype == dtype and result.shape == shape

    def test_results_are_filled(self, shapes_run):
        m = shapes_run[0]
        assert m["flim"].getData().sum() > 0
        assert m["h2d"].getData().sum() > 0
        assert m["logbins"].getData().sum() > 0
        index = m["h2d"].getIndex()
        np.testing.assert_array_equal(index[3, 5], [3000, 10_000])
        np.testing.assert_array_equal(m["h2d"].getIndex_2(), np.arange(20) * 2000)

    def test_log_bin_edges(self, shapes_run):
        edges = shapes_run[0]["logbins"].getBinEdges()
        expected = 10.0 ** (-10 + 12 + np.arange(31) * 3 / 30)
        assert np.all(np.abs(edges - expected) <= 1)

    def test_scope_traces(self, shapes_run):
        scope = shapes_run[0]["scope"]
        assert scope.getWindowSize() == 50_000
        assert scope.triggered() == 3 and scope.ready()
        traces = scope.getData()
        assert len(traces) == 3
        for events in traces:
            assert events[0].time == 0
            assert all(isinstance(e, ct.Event) for e in events)
            assert all(0 <= e.time < 50_000 for e in events)
            assert {e.level for e in events[1:]} <= {ct.EventLevel.LevelHigh, ct.EventLevel.LevelLow}


class TestArguments:
    @pytest.mark.parametrize(
        "make, message",
        [
            (lambda t: ct.Histogram(t, CLICKS, binwidth=0), "binwidth must be at least 1 ps"),
            (lambda t: ct.Counter(t, [CLICKS], n_values=0), "n_values must be at least 1"),
            (lambda t: ct.Correlation(t, CLICKS, n_bins=0), "n_bins must be at least 1"),
            (lambda t: ct.StartStop(t, CLICKS, binwidth=0), "binwidth must not be 0"),
            (lambda t: ct.TimeDifferences(t, CLICKS, n_histograms=0), "n_histograms must be at least 1"),
            (lambda t: ct.TimeDifferencesND(t, CLICKS, LASER, [ECHO], [], [2, 2], 1000, 10),
             "dimension mismatch of input arguments"),
            (lambda t: ct.TimeDifferencesND(t, CLICKS, LASER, [ECHO], [], [2], 1000, -1),
             "n_bins must be at least 1"),
            (lambda t: ct.Histogram2D(t, LASER, CLICKS, ECHO, 0, 10, 10, 10),
             "binwidth_1 and binwidth_2 must be at least 1 ps"),
            (lambda t: ct.Flim(t, CLICKS, LASER, ECHO, 1000, 10, 0), "n_histograms must be at least 1"),
            (lambda t: ct.FastBinning(0, 10), "divisor must be at least 1"),
        ],
    )
    def test_bad_arguments_raise_value_error(self, tagger, make, message):
        with pytest.raises(ValueError, match=message):
            make(tagger)

    def test_defaults_as_in_cpp(self, tagger):
        histogram = ct.Histogram(tagger, CLICKS)
        np.testing.assert_array_equal(histogram.getIndex(), np.arange(1000) * 1000)
        counter = ct.Counter(tagger, channels=[CLICKS])
        assert counter.getData().shape == (1, 1)
        assert counter.getIndex()[0] == 0
        assert ct.Correlation(tagger, channel_1=CLICKS).getIndex()[0] == -500_000

    def test_pass_counters_only_where_they_mean_something(self, tagger):
        differences = ct.TimeDifferences(tagger, CLICKS, LASER, next_channel=ECHO, n_histograms=2)
        differences.setMaxCounts(max_counts=5)
        assert differences.getCounts() == 0
        assert isinstance(differences, ct.IteratorBase)
        assert not hasattr(ct.Histogram(tagger, CLICKS), "getCounts")
        assert not hasattr(ct.Flim(tagger, CLICKS, LASER, ECHO, 1000, 10, 2), "setMaxCounts")

    def test_measurement_outlives_a_freed_tagger(self):
        replay = ct.createChronotickVirtual()
        counter = ct.Countrate(replay, [1])
        ct.freeChronotick(replay)
        np.testing.assert_array_equal(counter.getCountsTotal(), [0])
        with pytest.raises(RuntimeError, match="This tagger was freed."):
            ct.Countrate(replay, [1])


@pytest.mark.parametrize(
    "divisor, max_duration, mode",
    [
        (10, 5, ct.FastBinning.Mode.AlwaysZero),
        (1, 10**9, ct.FastBinning.Mode.Identity),
        (1024, 10**12, ct.FastBinning.Mode.PowerOfTwo),
        (1000, 10**6, ct.FastBinning.Mode.MulShift32),
    ],
)
def test_fast_binning_modes(divisor, max_duration, mode):
    binning = ct.FastBinning(divisor=divisor, max_duration=max_duration)
    assert binning.getMode() == mode
    assert (binning.getDivisor(), binning.getMaxDuration()) == (divisor, max_duration)
    if mode == ct.FastBinning.Mode.PowerOfTwo:
        assert binning.getShift() == 10
