"""Measurements from Python: arrays of the right shape and dtype, filled from
the very tags a raw stream saw, arguments and errors as in C++."""

import numpy as np
import pytest

import chronotick as ct
from conftest import CLICKS, DELAY, ECHO, LASER, capture

DURATION = 5_000_000_000  # ps of stream: 5 ms


@pytest.fixture(scope="module")
def run(tagger):
    """Every measurement started together with a raw stream of channels 1 to 3."""
    def build(t):
        return {
            "counter": ct.Counter(t, [LASER, CLICKS], binwidth=1_000_000, n_values=3_000),
            "countrate": ct.Countrate(t, channels=[LASER, CLICKS, CLICKS]),
            "histogram": ct.Histogram(t, click_channel=CLICKS, start_channel=LASER, binwidth=1000, n_bins=100),
            "differences": ct.TimeDifferences(t, CLICKS, LASER, binwidth=1000, n_bins=100),
            "correlation": ct.Correlation(t, ECHO, CLICKS, binwidth=500, n_bins=100),
            "startstop": ct.StartStop(t, CLICKS, LASER, binwidth=1000),
            "markers": ct.CountBetweenMarkers(t, CLICKS, LASER, ct.CHANNEL_UNUSED, 100),
            "flim": ct.Flim(t, CLICKS, LASER, ECHO, binwidth=1000, n_bins=50, n_histograms=4),
            "nd": ct.TimeDifferencesND(t, CLICKS, LASER, [ECHO, LASER], [], [3, 2], binwidth=1000, n_bins=20),
            "h2d": ct.Histogram2D(t, LASER, CLICKS, ECHO, 1000, 2000, n_bins_1=10, n_bins_2=20),
            "logbins": ct.HistogramLogBins(t, CLICKS, LASER, exp_start=-10, exp_stop=-7, n_bins=30),
            "scope": ct.Scope(t, [CLICKS], LASER, window_size=50_000, n_traces=3, n_max_events=-1),
        }

    m, buffer = capture(tagger, build, [LASER, CLICKS, ECHO], DURATION)
    channels, times = buffer.getChannels(), buffer.getTimestamps()
    places = np.arange(len(times))  # orders tags of equal time
    return m, {c: times[channels == c] for c in (LASER, CLICKS, ECHO)}, {c: places[channels == c] for c in (LASER, CLICKS)}


@pytest.mark.parametrize(
    "name, getter, dtype, shape",
    [
        ("counter", "getData", np.int32, (2, 3_000)),
        ("counter", "getIndex", np.int64, (3_000,)),
        ("countrate", "getData", np.float64, (3,)),
        ("countrate", "getCountsTotal", np.int64, (3,)),
        ("histogram", "getData", np.int32, (100,)),
        ("differences", "getData", np.int32, (1, 100)),
        ("correlation", "getDataNormalized", np.float64, (100,)),
        ("markers", "getBinWidths", np.int64, (100,)),
        ("flim", "getData", np.int32, (4, 50)),
        ("flim", "getIndex", np.int64, (50,)),
        ("nd", "getData", np.int32, (6, 20)),
        ("h2d", "getData", np.int32, (10, 20)),
        ("h2d", "getIndex", np.int64, (10, 20, 2)),
        ("h2d", "getIndex_2", np.int64, (20,)),
        ("logbins", "getData", np.uint64, (30,)),
        ("logbins", "getDataNormalizedG2", np.float64, (30,)),
        ("logbins", "getBinEdges", np.int64, (31,)),
    ],
)
def test_getter_shape_and_dtype(run, name, getter, dtype, shape):
    result = getattr(run[0][name], getter)()
    assert isinstance(result, np.ndarray)
    assert result.dtype == dtype and result.shape == shape


def test_data_match_the_raw_stream(run):
    """The arrays carry the C++ results unchanged: compared with numpy on the same tags."""
    m, tags, places = run
    laser, clicks = tags[LASER], tags[CLICKS]
    np.testing.assert_array_equal(m["countrate"].getCountsTotal(), [len(laser), len(clicks), len(clicks)])
    # Histogram: each click against every laser pulse standing before it, up to 100 ns.
    first = np.searchsorted(laser, clicks - 99_999, "left")
    last = np.searchsorted(places[LASER], places[CLICKS])
    reps = np.maximum(last - first, 0)
    idx = np.repeat(last - reps.cumsum(), reps) + np.arange(reps.sum())
    expected = np.bincount((np.repeat(clicks, reps) - laser[idx]) // 1000, minlength=100)
    np.testing.assert_array_equal(m["histogram"].getData(), expected)
    np.testing.assert_array_equal(m["histogram"].getIndex(), np.arange(100) * 1000)
    np.testing.assert_array_equal(m["differences"].getData(), expected[np.newaxis, :])
    # Index arrays and the echo peak of the correlation.
    index = m["correlation"].getIndex()
    np.testing.assert_array_equal(index, np.arange(100) * 500 - 25_000)
    assert abs(index[np.argmax(m["correlation"].getData())] - DELAY) <= 500
    np.testing.assert_array_equal(m["h2d"].getIndex()[3, 5], [3000, 10_000])
    markers = m["markers"]
    np.testing.assert_array_equal(markers.getIndex(), laser[:100] - laser[0])
    np.testing.assert_array_equal(markers.getData(), np.diff(np.searchsorted(places[CLICKS], places[LASER][:101])))
    data = m["startstop"].getData()
    assert data.dtype == np.int64 and data.shape[1] == 2 and data[:, 1].sum() > 0
    assert np.all(np.diff(data[:, 0]) > 0) and np.all(data[:, 0] % 1000 == 0)
    for name in ("flim", "h2d", "logbins"):
        assert m[name].getData().sum() > 0, name


def test_scope_traces_are_lists_of_events(run):
    scope = run[0]["scope"]
    assert scope.triggered() == 3 and scope.ready()
    traces = scope.getData()
    assert len(traces) == 3
    for events in traces:
        assert events[0].time == 0
        assert all(isinstance(e, ct.Event) and 0 <= e.time < 50_000 for e in events)
        assert {e.level for e in events[1:]} <= {ct.EventLevel.LevelHigh, ct.EventLevel.LevelLow}


@pytest.mark.parametrize(
    "make, message",
    [
        (lambda t: ct.Histogram(t, CLICKS, binwidth=0), "binwidth must be at least 1 ps"),
        (lambda t: ct.Counter(t, [CLICKS], n_values=0), "n_values must be at least 1"),
        (lambda t: ct.StartStop(t, CLICKS, binwidth=0), "binwidth must not be 0"),
        (lambda t: ct.TimeDifferencesND(t, CLICKS, LASER, [ECHO], [], [2, 2], 1000, 10),
         "dimension mismatch of input arguments"),
        (lambda t: ct.Histogram2D(t, LASER, CLICKS, ECHO, 0, 10, 10, 10),
         "binwidth_1 and binwidth_2 must be at least 1 ps"),
        (lambda t: ct.FastBinning(0, 10), "divisor must be at least 1"),
    ],
)
def test_bad_arguments_raise_value_error(tagger, make, message):
    with pytest.raises(ValueError, match=message):
        make(tagger)


def test_defaults_and_bindings_per_class(tagger):
    np.testing.assert_array_equal(ct.Histogram(tagger, CLICKS).getIndex(), np.arange(1000) * 1000)
    assert ct.Counter(tagger, channels=[CLICKS]).getData().shape == (1, 1)
    assert ct.Correlation(tagger, channel_1=CLICKS).getIndex()[0] == -500_000
    differences = ct.TimeDifferences(tagger, CLICKS, LASER, next_channel=ECHO, n_histograms=2)
    differences.setMaxCounts(max_counts=5)
    assert differences.getCounts() == 0 and isinstance(differences, ct.IteratorBase)
    assert not hasattr(ct.Histogram(tagger, CLICKS), "getCounts")
    assert not hasattr(ct.Flim(tagger, CLICKS, LASER, ECHO, 1000, 10, 2), "setMaxCounts")
    binning = ct.FastBinning(divisor=1024, max_duration=10**12)
    assert binning.getMode() == ct.FastBinning.Mode.PowerOfTwo and binning.getShift() == 10

