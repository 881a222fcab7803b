"""Record a measurement to disk, then replay the file into a new measurement.

A simulated "CT-Ultra" sees a 10 MHz laser sync (input 1) and a fluorescence
detector (input 2). FileWriter records both channels for half a second while
a Histogram watches live; then a replay tagger plays the recording as fast as
it can into a fresh Histogram. Both histograms come out the same, which the
plot shows, because the replay sees exactly the recorded tags.

    python3 record_replay.py [output directory]
"""

import pathlib
import sys
import tempfile
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import chronotick as ct  # noqa: E402

BINWIDTH = 50  # ps
N_BINS = 400  # 20 ns after each sync


def lifetime_histogram(tagger):
    return ct.Histogram(tagger, click_channel=2, start_channel=1, binwidth=BINWIDTH, n_bins=N_BINS)


def record(path):
    """Half a second of tags into the recording at `path`; returns the live histogram."""
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra"))
    sim.setSignal(serial, 0, sim.Signal.periodic(100_000, 3))
    sim.setSignal(serial, 1, sim.Signal.fluorescence(0, 0.05, 2_000, 3_000))
    tagger = ct.createChronotick(serial)
    try:
        # The group starts both at the same point of the stream, so that the
        # file holds exactly the tags the live histogram saw.
        group = ct.SynchronizedMeasurements(tagger)
        live = lifetime_histogram(group.getTagger())
        writer = ct.FileWriter(group.getTagger(), path, channels=[1, 2])
        group.startFor(int(0.5e12))
        while group.isRunning():
            time.sleep(0.05)
        print(f"Recorded {writer.getTotalEvents()} tags, {writer.getTotalSize() / 1e6:.1f} MB")
        del writer  # closes the recording
        return live.getIndex(), live.getData()
    finally:
        ct.freeChronotick(tagger)
        sim.removeBoard(serial)


def replay(path):
    tagger = ct.createChronotickVirtual()
    try:
        histogram = lifetime_histogram(tagger)
        tagger.setReplaySpeed(-1)  # as fast as possible
        start = time.perf_counter()
        tagger.replay(str(path))
        tagger.waitForCompletion()
        tagger.sync()  # every replayed tag has reached the histogram
        print(f"Replayed in {time.perf_counter() - start:.2f} s")
        return histogram.getData()
    finally:
        ct.freeChronotick(tagger)


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    with tempfile.TemporaryDirectory() as tmp:
        path = pathlib.Path(tmp) / "decay"
        index, live = record(path)
        replayed = replay(path)
    print("Live and replayed histograms agree:", np.array_equal(live, replayed))

    fig, ax = plt.subplots(figsize=(7, 4.5))
    ax.semilogy(index / 1e3, np.maximum(live, 0.5), drawstyle="steps-post", lw=3, alpha=0.4, label="live")
    ax.semilogy(index / 1e3, np.maximum(replayed, 0.5), drawstyle="steps-post", lw=0.8, color="k",
                label="replayed from the file")
    ax.set_xlabel("delay after laser sync (ns)")
    ax.set_ylabel(f"counts per {BINWIDTH} ps bin")
    ax.set_ylim(bottom=0.5)
    ax.set_title("Lifetime histogram: live and from the recording")
    ax.legend()
    fig.tight_layout()
    fig.savefig(out / "record_replay.png", dpi=120)
    print(f"Wrote {out / 'record_replay.png'}")


if __name__ == "__main__":
    main()
