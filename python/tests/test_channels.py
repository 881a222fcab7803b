"""Virtual channels from Python: the tags they add, checked against numpy on
the input tags, and virtual channels feeding measurements."""

import time

import numpy as np
import pytest

import chronotick as ct

LASER = 1  # periodic, every PERIOD ps, pulses WIDTH ps wide
CLICKS = 2  # Poisson
ECHO = 3  # every click again, DELAY ps later
GATE_CLOSE = 4  # every laser pulse again, PERIOD / 2 later
PERIOD = 100_000
WIDTH = 3_000
DELAY = 1_000
DURATION = 5_000_000_000  # ps of stream per capture: 5 ms


@pytest.fixture(scope="module")
def tagger():
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra", seed=11))
    laser = sim.Signal.periodic(PERIOD, 3)
    laser.width = WIDTH
    sim.setSignal(serial, LASER - 1, laser)
    sim.setSignal(serial, CLICKS - 1, sim.Signal.poisson(1e6))
    sim.setSignal(serial, ECHO - 1, sim.Signal.copy(CLICKS - 1, DELAY, 5))
    sim.setSignal(serial, GATE_CLOSE - 1, sim.Signal.copy(LASER - 1, PERIOD // 2))
    t = ct.createChronotick(serial)
    yield t
    ct.freeChronotick(t)
    sim.removeBoard(serial)


def capture(tagger, build, extra_channels=()):
    """Runs what build(tagger) makes (a dict) with a raw stream of the inputs
    and of extra_channels(made); returns the objects and the times by channel."""
    group = ct.SynchronizedMeasurements(tagger)
    made = build(group.getTagger())
    channels = [LASER, -LASER, CLICKS, -CLICKS, ECHO, GATE_CLOSE, *extra_channels(made)]
    stream = ct.TimeTagStream(group.getTagger(), n_max_events=10_000_000, channels=channels)
    group.startFor(DURATION)
    deadline = time.monotonic() + 30
    while group.isRunning():
        assert time.monotonic() < deadline, "capture did not end"
        time.sleep(0.01)
    buffer = stream.getData()
    assert not buffer.has_overflows
    column, times = buffer.getChannels(), buffer.getTimestamps()
    made["places"] = {c: np.flatnonzero(column == c) for c in channels}  # orders tags of equal time
    return made, {c: times[column == c] for c in channels}


def all_pairs(starts, clicks, low, high):
    """click - start for every pair with low <= click - start <= high."""
    first = np.searchsorted(starts, clicks - high, "left")
    last = np.searchsorted(starts, clicks - low, "right")
    reps = last - first
    idx = np.repeat(last - reps.cumsum(), reps) + np.arange(reps.sum())
    return np.repeat(clicks, reps) - starts[idx]


class TestVirtualChannelsAgainstNumpy:
    def test_delayed_channel_feeds_a_histogram(self, tagger):
        def build(t):
            delayed = ct.DelayedChannel(t, input_channel=CLICKS, delay=5000)
            return {
                "delayed": delayed,
                "histogram": ct.Histogram(t, delayed.getChannel(), CLICKS, binwidth=100, n_bins=100),
            }

        made, tags = capture(tagger, build, lambda m: [m["delayed"].getChannel()])
        copies, clicks = tags[made["delayed"].getChannel()], tags[CLICKS]
        np.testing.assert_array_equal(copies, clicks[: len(copies)] + 5000)
        expected = np.bincount(all_pairs(clicks, copies, 0, 100 * 100 - 1) // 100, minlength=100)
        np.testing.assert_array_equal(made["histogram"].getData(), expected)
        assert expected[50] >= len(copies)

    def test_delayed_channels_of_a_list(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"delayed": ct.DelayedChannel(t, input_channels=[CLICKS, ECHO], delay=-2000)},
            lambda m: m["delayed"].getChannels(),
        )
        delayed = made["delayed"]
        assert delayed.getChannel() == delayed.getChannels()[0]
        # Negative delay: the copies keep the input times, the stream runs 2 ns late.
        for source, copy in zip((CLICKS, ECHO), delayed.getChannels()):
            np.testing.assert_array_equal(tags[copy][: len(tags[source])], tags[source] - 2000)

    def test_combiner(self, tagger):
        made, tags = capture(
            tagger, lambda t: {"combiner": ct.Combiner(t, [CLICKS, ECHO])}, lambda m: [m["combiner"].getChannel()]
        )
        combiner = made["combiner"]
        counts = combiner.getData()
        assert counts.dtype == np.int64
        np.testing.assert_array_equal(counts, [len(tags[CLICKS]), len(tags[ECHO])])
        merged = np.sort(np.concatenate((tags[CLICKS], tags[ECHO])))
        np.testing.assert_array_equal(tags[combiner.getChannel()], merged)

    def test_gated_channel(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"gate": ct.GatedChannel(t, CLICKS, gate_start_channel=LASER, gate_stop_channel=GATE_CLOSE)},
            lambda m: [m["gate"].getChannel()],
        )
        places = made["places"]
        clicks = tags[CLICKS]
        # Open at a click if the last gate tag standing before it opened the gate.
        last_open = np.searchsorted(places[LASER], places[CLICKS]) - 1
        last_close = np.searchsorted(places[GATE_CLOSE], places[CLICKS]) - 1
        open_at = (last_open >= 0) & (
            (last_close < 0) | (places[LASER][last_open] > places[GATE_CLOSE][np.maximum(last_close, 0)])
        )
        expected = clicks[open_at]
        assert 0.3 < len(expected) / len(clicks) < 0.7
        np.testing.assert_array_equal(tags[made["gate"].getChannel()], expected)

    def test_coincidence_of_clicks_and_echoes(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"coincidence": ct.Coincidence(t, [CLICKS, ECHO], coincidenceWindow=2000)},
            lambda m: [m["coincidence"].getChannel()],
        )
        clicks, echoes = tags[CLICKS], tags[ECHO]
        # Last: a coincidence at each tag whose partner's latest tag is less than the window older.
        def fired(own, other):
            latest = np.searchsorted(other, own, "right") - 1
            return own[(latest >= 0) & (own - other[np.maximum(latest, 0)] < 2000)]

        expected = np.sort(np.concatenate((fired(clicks, echoes), fired(echoes, clicks))))
        found = tags[made["coincidence"].getChannel()]
        assert len(found) > 0.9 * len(clicks)
        np.testing.assert_array_equal(found, expected)

    def test_frequency_multiplier(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"multiplier": ct.FrequencyMultiplier(t, input_channel=LASER, multiplier=4)},
            lambda m: [m["multiplier"].getChannel()],
        )
        multiplier = made["multiplier"]
        assert multiplier.getMultiplier() == 4
        out, laser = tags[multiplier.getChannel()], tags[LASER]
        assert abs(len(out) - 4 * len(laser)) <= 8
        # Each input from the second on is copied; the grid quarters the periods.
        assert np.all(np.isin(laser[1:-1], out))
        assert np.all(np.abs(np.diff(out) - PERIOD // 4) < PERIOD // 20)

    def test_event_generator(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"generator": ct.EventGenerator(t, LASER, pattern=[1000, 3000], trigger_divider=2)},
            lambda m: [m["generator"].getChannel()],
        )
        triggers = tags[LASER][::2]
        expected = np.sort(np.concatenate((triggers + 1000, triggers + 3000)))
        out = tags[made["generator"].getChannel()]
        np.testing.assert_array_equal(out, expected[: len(out)])
        assert len(expected) - len(out) <= 2

    def test_constant_fraction_discriminator(self, tagger):
        made, tags = capture(
            tagger,
            lambda t: {"cfd": ct.ConstantFractionDiscriminator(t, [LASER], search_window=8000)},
            lambda m: m["cfd"].getChannels(),
        )
        (centre_channel,) = made["cfd"].getChannels()
        rising, falling = tags[LASER], tags[-LASER]
        # A pulse: the latest rising edge and the next falling edge less than
        # search_window after it; each rising edge serves one pulse at most.
        leading = np.searchsorted(rising, falling, "right") - 1
        first_use = np.concatenate(([True], leading[1:] != leading[:-1]))
        width = falling - rising[np.maximum(leading, 0)]
        pulse = (leading >= 0) & first_use & (width < 8000)
        r, f = rising[leading[pulse]], falling[pulse]
        # Both edges left as late as the centre, which is their midpoint, rounded up.
        expected = -(-(r + f) // 2)
        centres = tags[centre_channel]
        assert len(centres) > 0.9 * len(rising) and len(expected) - len(centres) <= 1
        np.testing.assert_array_equal(centres, expected[: len(centres)])


class TestChannelArguments:
    def test_coincidences_groups_and_timestamps(self, tagger):
        coincidences = ct.Coincidences(
            tagger, coincidenceGroups=[[CLICKS, ECHO], [LASER, CLICKS]], timestamp=ct.CoincidenceTimestamp.First
        )
        channels = coincidences.getChannels()
        assert len(channels) == 2 and channels[0] != channels[1]
        coincidences.setCoincidenceWindow(window=500)
        assert isinstance(ct.Coincidence(tagger, [CLICKS, ECHO]), ct.Coincidences)

    @pytest.mark.parametrize(
        "make, error, message",
        [
            (lambda t: ct.GatedChannel(t, CLICKS, LASER, LASER), RuntimeError,
             "Gate start and stop channel must not be the same."),
            (lambda t: ct.DelayedChannel(t, [CLICKS, CLICKS], 10), RuntimeError,
             "redundant channels are not permitted"),
            (lambda t: ct.Coincidences(t, []), RuntimeError, "coincidences groups are empty"),
            (lambda t: ct.Coincidence(t, []), RuntimeError, "one of the groups is empty"),
            (lambda t: ct.EventGenerator(t, LASER, [10], trigger_divider=0), RuntimeError,
             "negative or zero trigger dividers are not supported"),
            (lambda t: ct.EventGenerator(t, LASER, [10], trigger_divider=-3), RuntimeError,
             "negative or zero trigger dividers are not supported"),
            (lambda t: ct.EventGenerator(t, LASER, [10], trigger_divider=2, divider_offset=2), RuntimeError,
             "divider_offset must be smaller than trigger_divider"),
            (lambda t: ct.ConstantFractionDiscriminator(t, [LASER], 0), ValueError,
             "search_window must be at least 1 ps"),
        ],
    )
    def test_bad_arguments(self, tagger, make, error, message):
        with pytest.raises(error, match=message):
            make(tagger)

    def test_delay_may_not_turn_negative(self, tagger):
        delayed = ct.DelayedChannel(tagger, CLICKS, 100)
        delayed.setDelay(delay=500)
        with pytest.raises(ValueError, match="changing from a positive delay to a negative delay"):
            delayed.setDelay(-100)
