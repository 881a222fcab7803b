"""Count rates over time with Counter, while a source is switched.

A simulated "CT-Ultra" sees three detectors with random (Poisson) clicks.
Counter keeps a rolling trace of the clicks per 10 ms bin; halfway through,
the script triples the rate of the second detector and switches the third off.

    python3 count_rates.py [output directory]
"""

import pathlib
import sys
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import chronotick as ct  # noqa: E402

BINWIDTH = 10_000_000_000  # ps: 10 ms
N_VALUES = 200  # the last 2 s
RATES = [50e3, 20e3, 80e3]  # clicks per second on inputs 1, 2, 3


def measure():
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra"))
    for input, rate in enumerate(RATES):
        sim.setSignal(serial, input, sim.Signal.poisson(rate))
    tagger = ct.createChronotick(serial)
    try:
        counter = ct.Counter(tagger, channels=[1, 2, 3], binwidth=BINWIDTH, n_values=N_VALUES)
        time.sleep(1.0)
        sim.setSignal(serial, 1, sim.Signal.poisson(3 * RATES[1]))
        sim.setSignal(serial, 2, sim.Signal.off())
        time.sleep(1.1)  # the trace keeps the last N_VALUES bins
        return counter.getIndex(), counter.getData()
    finally:
        ct.freeChronotick(tagger)
        sim.removeBoard(serial)


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    index, counts = measure()
    first = np.argmax(counts.sum(axis=0) > 0)  # bins not reached yet are 0
    index, rates = index[first:], counts[:, first:] / (BINWIDTH * 1e-12)  # clicks per second

    fig, ax = plt.subplots(figsize=(7, 4.5))
    for channel, row in zip([1, 2, 3], rates):
        ax.plot(index / 1e12, row / 1e3, drawstyle="steps-post", label=f"channel {channel}")
    ax.set_xlabel("time (s)")
    ax.set_ylabel(f"count rate (kHz, {BINWIDTH / 1e9:.0f} ms bins)")
    ax.set_ylim(bottom=0)
    ax.set_title("Count rates on a simulated CT-Ultra")
    ax.legend()
    fig.tight_layout()
    fig.savefig(out / "count_rates.png", dpi=120)
    print(f"Wrote {out / 'count_rates.png'}")


if __name__ == "__main__":
    main()
