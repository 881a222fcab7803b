"""Costs of the Python bindings, run by hand; prints figures.

    PYTHONPATH=<build>/python /usr/bin/python3 bench/python_bindings.py

1. One call of a cheap getter (getOverflows): the fixed cost of a binding call.
2. TimeTagStream.getData of 10 M tags into numpy columns, in GB/s, beside a
   numpy copy of the same number of bytes.
3. A recording replayed as fast as possible into a Correlation, driven from
   Python: wall time and tags per second.
"""

import pathlib
import tempfile
import time
import timeit

import numpy as np

import chronotick as ct

N_TAGS = 10_000_000
TAG_BYTES = 4 + 8 + 1 + 2  # channel, time, type, missed events


def best_of(repeat, function):
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        function()
        times.append(time.perf_counter() - start)
    return min(times)


def simulated_board(real_time):
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra"))
    sim.setSignal(serial, 0, sim.Signal.periodic(100_000, 3))
    sim.setSignal(serial, 1, sim.Signal.fluorescence(0, 0.05, 3_000, 5_000))
    sim.setSignal(serial, 2, sim.Signal.fluorescence(0, 0.05, 3_000, 5_000))
    sim.setRealTime(serial, real_time)
    return serial, ct.createChronotick(serial)


def close(serial, tagger):
    ct.freeChronotick(tagger)
    ct.simulation.removeBoard(serial)


def getter_call(tagger):
    n = 200_000
    per_call = min(timeit.repeat(tagger.getOverflows, number=n, repeat=5)) / n
    print(f"getOverflows: {per_call * 1e9:.0f} ns per call")


def stream_columns(tagger):
    stream = ct.TimeTagStream(tagger, n_max_events=N_TAGS, channels=[1, 2, 3])

    def fill():
        stream.clear()
        stream.start()
        deadline = time.monotonic() + 120
        while stream.getCounts() < N_TAGS:
            assert time.monotonic() < deadline, "the board delivered too few tags"
            time.sleep(0.05)
        stream.stop()

    def read():
        buffer = stream.getData()
        return (buffer.getChannels(), buffer.getTimestamps(), buffer.getEventTypes(), buffer.getMissedEvents())

    # The first read also pays for the first touch of fresh pages; the second
    # shows the steady state, where the allocator reuses memory.
    for run in ("first read", "next read"):
        fill()
        start = time.perf_counter()
        columns = read()
        elapsed = time.perf_counter() - start
        assert len(columns[0]) == N_TAGS
        del columns
        size = N_TAGS * TAG_BYTES
        print(f"TimeTagStream.getData of {N_TAGS / 1e6:.0f} M tags into numpy, {run}: {elapsed * 1e3:.1f} ms, "
              f"{size / elapsed / 1e9:.2f} GB/s")
    source = np.ones(size, dtype=np.uint8)
    target = np.empty_like(source)
    into = best_of(5, lambda: np.copyto(target, source))
    fresh = best_of(5, source.copy)
    print(f"  numpy copy of the same {size / 1e6:.0f} MB: {size / into / 1e9:.2f} GB/s into an existing array, "
          f"{size / fresh / 1e9:.2f} GB/s into a new one")


def replay_into_correlation(directory):
    serial, tagger = simulated_board(real_time=True)
    path = pathlib.Path(directory) / "bench"
    writer = ct.FileWriter(tagger, path, [1, 2, 3])
    time.sleep(2)
    writer.stop()
    recorded = writer.getTotalEvents()
    del writer
    close(serial, tagger)

    replayer = ct.createChronotickVirtual()
    correlation = ct.Correlation(replayer, channel_1=2, channel_2=3, binwidth=100, n_bins=2000)
    replayer.setReplaySpeed(-1)
    start = time.perf_counter()
    replayer.replay(str(path))
    replayer.waitForCompletion()
    replayer.sync()
    elapsed = time.perf_counter() - start
    pairs = int(correlation.getData().sum())
    ct.freeChronotick(replayer)
    print(f"Replay into Correlation: {recorded / 1e6:.1f} M tags in {elapsed:.2f} s, "
          f"{recorded / elapsed / 1e6:.1f} M tags/s ({pairs} pairs)")


def main():
    print(f"Chronotick {ct.getVersion()}")
    serial, tagger = simulated_board(real_time=False)
    try:
        getter_call(tagger)
        stream_columns(tagger)
    finally:
        close(serial, tagger)
    with tempfile.TemporaryDirectory() as directory:
        replay_into_correlation(directory)


if __name__ == "__main__":
    main()
