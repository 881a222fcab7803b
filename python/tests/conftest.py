"""Shared fixtures: simulated boards, taggers that are freed afterwards, and a
short recording."""

import os
import subprocess
import sys
import textwrap

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


@pytest.fixture(scope="session")
def recording(tmp_path_factory):
    """A recording of about 0.5 s: channels 1 and 2 of a simulated board's
    test signal (about 55 kHz each)."""
    if not hasattr(chronotick, "FileWriter"):
        pytest.skip("chronotick.FileWriter is not available in this build")
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
