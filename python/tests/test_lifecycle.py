"""Who lives how long: taggers, measurements, collected objects, interpreter
exit, and waits that let other threads and Ctrl-C through."""

import gc
import os
import signal
import subprocess
import sys
import textwrap
import threading
import time

import pytest

import chronotick
from conftest import run_python



def alive(serial):
    """Whether the board still has a tagger: opening it anew would load the
    firmware, which a missing custom bit file makes fail."""
    chronotick.setCustomBitFileName("/nonexistent/firmware.bit")
    try:
        chronotick.createChronotick(serial).free()
        return True
    except RuntimeError:
        return False
    finally:
        chronotick.setCustomBitFileName("")


class TestOwnership:
    def test_measurement_outlives_its_tagger(self, board):
        tagger = chronotick.createChronotick(board)
        tagger.setTestSignal([1], True)
        rate = chronotick.Countrate(tagger, [1])
        rate.startFor(20_000_000_000)
        while rate.isRunning():
            tagger.waitForFence(tagger.getFence(), 100)
        counted = rate.getCountsTotal()
        assert counted[0] > 0
        assert chronotick.freeChronotick(tagger)
        assert not rate.isRunning()
        assert (rate.getCountsTotal() == counted).all()
        rate.clear()
        rate.start()
        del tagger
        gc.collect()
        assert rate.getCountsTotal()[0] == 0

    def test_collected_object_gives_its_reference_back(self, board):
        first = chronotick.createChronotick(board)
        second = chronotick.createChronotick(board)
        del first
        gc.collect()
        assert alive(board)
        assert second.getSerial() == board
        del second
        gc.collect()
        assert not alive(board)

    @pytest.mark.parametrize("order", [("tagger", "rate"), ("rate", "tagger")])
    def test_collection_in_any_order(self, board, order):
        objects = {"tagger": chronotick.createChronotick(board)}
        objects["rate"] = chronotick.Countrate(objects["tagger"], [1, 2])
        for name in order:
            del objects[name]
            gc.collect()
        assert not alive(board)

    def test_measurement_keeps_its_tagger_object(self, board):
        rate = chronotick.Countrate(chronotick.createChronotick(board), [1])
        gc.collect()
        assert alive(board)
        assert rate.isRunning()
        del rate
        gc.collect()
        assert not alive(board)

    def test_exit_with_taggers_alive(self, recording):
        result = run_python(f"""
            import chronotick
            from chronotick import simulation as sim
            serial = sim.addBoard(sim.BoardSpec(model="CT-20"))
            hardware = chronotick.createChronotick(serial)
            hardware.setTestSignal([1, 2], True)
            replay = chronotick.createChronotickVirtual()
            replay.setReplaySpeed(1.0)
            replay.replay({recording!r})
            measurements = [chronotick.Countrate(t, [1, 2]) for t in (hardware, replay)]
            shared = chronotick.createChronotick(serial)
            cycle = [hardware, measurements]
            cycle.append(cycle)
            print("running", flush=True)
        """)
        assert result.returncode == 0, result.stderr
        assert result.stdout == "running\n"


def counting_thread():
    """A Python thread that counts while it runs, and a way to stop it."""
    count = [0]
    stop = threading.Event()

    def run():
        while not stop.is_set():
            count[0] += 1
            time.sleep(0.001)

    thread = threading.Thread(target=run)
    thread.start()

    def finish():
        stop.set()
        thread.join()
        return count[0]

    return finish


class TestWaits:
    def test_wait_for_fence_releases_the_gil(self, virtual):
        finish = counting_thread()
        assert virtual.waitForFence(virtual.getFence(False) + 1000, timeout=300) is False
        assert finish() > 10

    def test_sync_releases_the_gil(self, hardware):
        hardware.setStreamBlockSize(max_events=32 * 2**20, max_latency=500)
        hardware.sync()
        finish = counting_thread()
        started = time.monotonic()
        hardware.sync()
        waited = time.monotonic() - started
        count = finish()
        assert waited > 0.1 and count > 10

    def test_wait_for_completion_releases_the_gil(self, virtual, recording):
        virtual.setReplaySpeed(1.0)
        virtual.replay(recording, begin=-300_000_000_000)  # 0.3 s of silence first
        finish = counting_thread()
        assert virtual.waitForCompletion(timeout=-1) is True
        assert finish() > 10

    def test_free_from_another_thread_ends_a_wait(self, virtual):
        threading.Timer(0.2, virtual.free).start()
        with pytest.raises(RuntimeError, match="^This tagger was freed.$"):
            virtual.waitForFence(virtual.getFence(False) + 1000)

    @pytest.mark.parametrize("wait", ["tagger.waitForFence(tagger.getFence(False) + 1000)",
                                      "tagger.waitForCompletion(tagger.replay(sys.argv[1], begin=-10**15))"])
    def test_ctrl_c_ends_a_wait(self, wait, request):
        recording = request.getfixturevalue("recording") if "replay" in wait else ""
        code = textwrap.dedent(f"""
            import sys, chronotick
            tagger = chronotick.createChronotickVirtual()
            tagger.setReplaySpeed(1.0)
            print("waiting", flush=True)
            {wait}
        """)
        env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
        child = subprocess.Popen([sys.executable, "-c", code, recording], env=env,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            assert child.stdout.readline() == "waiting\n"
            time.sleep(0.3)
            child.send_signal(signal.SIGINT)
            _, err = child.communicate(timeout=30)
        finally:
            child.kill()
        assert child.returncode != 0
        assert "KeyboardInterrupt" in err
