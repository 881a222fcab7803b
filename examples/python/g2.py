"""Second-order correlation g2(τ) of two detectors, normalized.

A simulated "CT-Ultra" sees two detectors (inputs 2 and 3) behind a 10 MHz
pulsed source: each clicks after 2 % of the pulses, 3 ns after them on average.
Correlation histograms the delays between the two detectors' clicks; divided
by what independent detectors would give, it is g2: 1 for independent
clicks, here a peak at every multiple of the laser period (the clicks share
the laser pulses) and nothing between the pulses.

    python3 g2.py [output directory]
"""

import pathlib
import sys
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

import chronotick as ct  # noqa: E402

LASER_PERIOD = 100_000  # ps
BINWIDTH = 200  # ps
N_BINS = 2_500  # delays of ±250 ns


def measure():
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra"))
    sim.setSignal(serial, 0, sim.Signal.periodic(LASER_PERIOD, 3))
    sim.setSignal(serial, 1, sim.Signal.fluorescence(0, 0.02, 3_000, 5_000))
    sim.setSignal(serial, 2, sim.Signal.fluorescence(0, 0.02, 3_000, 5_000))
    tagger = ct.createChronotick(serial)
    try:
        g2 = ct.Correlation(tagger, channel_1=2, channel_2=3, binwidth=BINWIDTH, n_bins=N_BINS)
        g2.startFor(int(2e12))  # two seconds of stream time
        while g2.isRunning():
            time.sleep(0.05)
        return g2.getIndex(), g2.getDataNormalized()
    finally:
        ct.freeChronotick(tagger)
        sim.removeBoard(serial)


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    delay, g2 = measure()
    print(f"g2 at zero delay {g2[len(g2) // 2]:.1f}, peak {g2.max():.1f}")

    fig, ax = plt.subplots(figsize=(7, 4.5))
    ax.plot((delay + BINWIDTH / 2) / 1e3, g2, lw=0.8)
    ax.axhline(1, color="gray", ls="--", lw=0.8, label="independent detectors")
    ax.set_xlabel("τ = t(detector 1) − t(detector 2) (ns)")
    ax.set_ylabel("g2(τ)")
    ax.set_title(f"Two detectors behind a pulsed source ({1e12 / LASER_PERIOD / 1e6:.0f} MHz), 2 s")
    ax.legend(loc="upper right")
    fig.tight_layout()
    fig.savefig(out / "g2.png", dpi=120)
    print(f"Wrote {out / 'g2.png'}")


if __name__ == "__main__":
    main()
