"""Virtual channels from Python: their tags reach streams and measurements,
list arguments and errors cross the binding."""

import numpy as np
import pytest

import chronotick as ct
from conftest import CLICKS, ECHO, LASER, capture

DURATION = 5_000_000_000  # ps of stream per capture: 5 ms


def all_pairs(starts, clicks, low, high):
    """click - start for every pair with low <= click - start <= high."""
    first = np.searchsorted(starts, clicks - high, "left")
    last = np.searchsorted(starts, clicks - low, "right")
    reps = last - first
    idx = np.repeat(last - reps.cumsum(), reps) + np.arange(reps.sum())
    return np.repeat(clicks, reps) - starts[idx]


def test_virtual_channels_reach_python_and_measurements(tagger):
    def build(t):
        delayed = ct.DelayedChannel(t, input_channel=CLICKS, delay=5000)
        return {
            "delayed": delayed,
            "pair": ct.DelayedChannel(t, input_channels=[CLICKS, ECHO], delay=-2000),
            "combiner": ct.Combiner(t, [CLICKS, ECHO]),
            "cfd": ct.ConstantFractionDiscriminator(t, [LASER], search_window=8000),
            "histogram": ct.Histogram(t, delayed.getChannel(), CLICKS, binwidth=100, n_bins=100),
        }

    def channels(m):
        return [LASER, CLICKS, ECHO, m["delayed"].getChannel(), *m["pair"].getChannels(), m["combiner"].getChannel(),
                *m["cfd"].getChannels()]

    made, buffer = capture(tagger, build, channels, DURATION)
    column, times = buffer.getChannels(), buffer.getTimestamps()
    tags = {c: times[column == c] for c in channels(made)}
    clicks = tags[CLICKS]
    copies = tags[made["delayed"].getChannel()]
    np.testing.assert_array_equal(copies, clicks[: len(copies)] + 5000)
    expected = np.bincount(all_pairs(clicks, copies, 0, 100 * 100 - 1) // 100, minlength=100)
    np.testing.assert_array_equal(made["histogram"].getData(), expected)
    assert expected[50] >= len(copies)
    pair = made["pair"]
    assert pair.getChannel() == pair.getChannels()[0]
    for source, copy in zip((CLICKS, ECHO), pair.getChannels()):
        np.testing.assert_array_equal(tags[copy][: len(tags[source])], tags[source] - 2000)
    counts = made["combiner"].getData()
    assert counts.dtype == np.int64
    np.testing.assert_array_equal(counts, [len(clicks), len(tags[ECHO])])
    merged = np.sort(np.concatenate((clicks, tags[ECHO])))
    np.testing.assert_array_equal(tags[made["combiner"].getChannel()], merged)
    (centres,) = made["cfd"].getChannels()
    assert len(tags[centres]) > 0.9 * len(tags[LASER])


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
