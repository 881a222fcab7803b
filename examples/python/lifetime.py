"""Fluorescence lifetime: a histogram of photon arrival times after each laser pulse.

A simulated "CT-Ultra" sees the sync of a 10 MHz pulsed laser on input 1 and a
detector on input 2 that clicks after 2 % of the pulses, with an exponential
delay of mean 3 ns. The script fits the decay and plots it, with the fitted
and the simulated lifetime side by side.

    python3 lifetime.py [output directory]
"""

import pathlib
import sys
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import chronotick as ct  # noqa: E402

LASER_PERIOD = 100_000  # ps
LIFETIME = 3_000  # ps, the simulated truth
BINWIDTH = 20  # ps
N_BINS = 2_500  # 50 ns after each sync


def measure():
    sim = ct.simulation
    serial = sim.addBoard(sim.BoardSpec(model="CT-Ultra"))
    sim.setSignal(serial, 0, sim.Signal.periodic(LASER_PERIOD, 3))
    sim.setSignal(serial, 1, sim.Signal.fluorescence(0, 0.02, LIFETIME, 5_000))
    tagger = ct.createChronotick(serial)
    try:
        histogram = ct.Histogram(tagger, click_channel=2, start_channel=1, binwidth=BINWIDTH, n_bins=N_BINS)
        histogram.startFor(int(1e12))  # one second of stream time
        while histogram.isRunning():
            time.sleep(0.05)
        return histogram.getIndex(), histogram.getData()
    finally:
        ct.freeChronotick(tagger)
        sim.removeBoard(serial)


def fit_decay(t, counts):
    """Fits a exp(-t / tau) to the tail after the peak: a straight line through
    log(counts), weighted by sqrt(counts) since the variance of log(n) is 1/n."""
    start = np.argmax(counts) + 10
    tail = slice(start, start + 5 * LIFETIME // BINWIDTH)
    t, n = t[tail], counts[tail]
    keep = n > 0
    slope, intercept = np.polyfit(t[keep], np.log(n[keep]), 1, w=np.sqrt(n[keep]))
    return -1 / slope, t, np.exp(intercept + slope * t)


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    index, counts = measure()
    tau, t_fit, n_fit = fit_decay(index, counts)
    print(f"Lifetime: fitted {tau / 1e3:.3f} ns, simulated {LIFETIME / 1e3:.3f} ns")

    fig, ax = plt.subplots(figsize=(7, 4.5))
    ax.semilogy(index / 1e3, np.maximum(counts, 0.5), drawstyle="steps-post", lw=0.8, label="measured")
    ax.semilogy(t_fit / 1e3, n_fit, "r", lw=2, label=f"fit: τ = {tau / 1e3:.3f} ns")
    ax.plot([], [], " ", label=f"simulated: τ = {LIFETIME / 1e3:.3f} ns")
    ax.set_xlabel("delay after laser sync (ns)")
    ax.set_ylabel(f"counts per {BINWIDTH} ps bin")
    ax.set_ylim(bottom=0.5)
    ax.set_title("Fluorescence decay, 1 s on a simulated CT-Ultra")
    ax.legend()
    fig.tight_layout()
    fig.savefig(out / "lifetime.png", dpi=120)
    print(f"Wrote {out / 'lifetime.png'}")


if __name__ == "__main__":
    main()
