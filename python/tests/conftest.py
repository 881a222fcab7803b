"""Shared fixtures: simulated boards, taggers that are freed afterwards, a
tagger with known signals, and a short recording."""

import os
import subprocess
import sys
import textwrap
import time

import pytest

import chronotick
from chronotick import simulation as sim


@pytest.fixture
def board():
    """Serial of a fresh simulated "CT-20", unplugged after the test."""
    serial = sim.addBoard(sim.BoardSpec(model="CT-20"))
    yield serial
    sim.removeBoard(serial)


@pytest.fixture
def hardware(board):
    """The hardware tagger on `board`."""
    with chronotick.createChronotick(board) as tagger:
        yield tagger


@pytest.fixture
def virtual():
    """A replay tagger."""
    with chronotick.createChronotickVirtual() as tagger:
        yield tagger


LASER, CLICKS, ECHO = 1, 2, 3
PERIOD = 100_000  # ps between laser pulses, each 3 ns wide
DELAY = 20_000  # ps from each click to its echo


@pytest.fixture(scope="module")
def tagger():
    """Per module (freeAllChronotick frees every tagger), a tagger with a laser on channel 1, Poisson clicks (1 MHz) on 2 and
    their echoes on 3."""
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra", seed=7))
    laser = sim.Signal.periodic(PERIOD, 3)
    laser.width = 3_000
    sim.setSignal(serial, LASER - 1, laser)
    sim.setSignal(serial, CLICKS - 1, sim.Signal.poisson(1e6))
    sim.setSignal(serial, ECHO - 1, sim.Signal.copy(CLICKS - 1, DELAY, 5))
    with chronotick.createChronotick(serial) as t:
        yield t
    sim.removeBoard(serial)


def wait_stopped(measurement, timeout=30.0):
    deadline = time.monotonic() + timeout
    while measurement.isRunning():
        assert time.monotonic() < deadline, "capture did not end"
        time.sleep(0.01)


def capture(tagger, build, channels, duration):
    """Runs what build(tagger) makes together with a raw stream of `channels`
    (or of channels(made), if callable); returns what was made and the stream's buffer."""
    group = chronotick.SynchronizedMeasurements(tagger)
    made = build(group.getTagger())
    stream = chronotick.TimeTagStream(group.getTagger(), n_max_events=10_000_000,
                                      channels=channels(made) if callable(channels) else channels)
    group.startFor(duration)
    wait_stopped(group)
    buffer = stream.getData()
    assert not buffer.has_overflows
    return made, buffer


@pytest.fixture(scope="session")
def recording(tmp_path_factory):
    """A recording of about 0.5 s: channels 1 and 2 of a simulated board's
    test signal (about 55 kHz each)."""
    name = str(tmp_path_factory.mktemp("recording") / "test_signal.ctbin")
    serial = sim.addBoard(sim.BoardSpec(model="CT-20", seed=7))
    try:
        with chronotick.createChronotick(serial) as tagger:
            tagger.setTestSignalDivider(1000)
            tagger.setTestSignal([1, 2], True)
            tagger.sync()
            writer = chronotick.FileWriter(tagger, name, [1, 2])
            writer.startFor(500_000_000_000)
            while writer.isRunning():
                tagger.waitForFence(tagger.getFence(), 200)
            writer.stop()
            del writer
    finally:
        sim.removeBoard(serial)
    return name


def run_python(code, **kwargs):
    """Runs `code` in a fresh interpreter with this package importable."""
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], env=env,
                          capture_output=True, text=True, timeout=120, **kwargs)
