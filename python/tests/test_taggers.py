"""Taggers, the entry functions, the simulated boards, Tag and logging as
Python sees them."""

import logging

import numpy as np
import pytest

import chronotick
from chronotick import simulation as sim


class TestCore:
    def test_tag_fields_and_types(self):
        tag = chronotick.Tag(type=chronotick.Tag.Type.MissedEvents, missed_events=7, channel=-3, time=2**62)
        assert (tag.type, tag.missed_events, tag.channel, tag.time) == (chronotick.Tag.Type.MissedEvents, 7, -3,
                                                                        2**62)
        assert [int(t) for t in chronotick.Tag.Type.__members__.values()] == [0, 1, 2, 3, 4]
        assert tag == chronotick.Tag(chronotick.Tag.Type.MissedEvents, 7, -3, 2**62)
        with pytest.raises(TypeError):
            tag.missed_events = 70000  # a 16-bit field

    def test_constants_and_scheme(self):
        assert chronotick.CHANNEL_UNUSED == -134217728
        assert chronotick.getVersion() == chronotick.__version__ == "2.7.0"
        before = chronotick.getChronotickChannelNumberScheme()
        try:
            chronotick.setChronotickChannelNumberScheme(scheme=chronotick.CT_CHANNEL_NUMBER_SCHEME_ONE)
            assert chronotick.getChronotickChannelNumberScheme() == chronotick.CT_CHANNEL_NUMBER_SCHEME_ONE
        finally:
            chronotick.setChronotickChannelNumberScheme(before)


class TestHardwareTagger:
    def test_identity(self, board, hardware):
        assert board in chronotick.scanChronotick()
        assert hardware.getSerial() == board
        assert hardware.getModel() == chronotick.getChronotickModel(board) == "CT-20"
        assert hardware.getChannelList() == list(range(1, 9))
        assert hardware.getDacRange() == [0.0, 2.5]
        assert "FPGA temperature" in hardware.getSensorData()

    def test_settings_round_trip(self, hardware):
        # Keyword names and list arguments as in C++; values reach the tagger.
        hardware.setTriggerLevel(channel=2, voltage=0.8)
        assert hardware.getTriggerLevel(2) == pytest.approx(0.8, abs=0.01)
        hardware.setInputDelay(2, 1234)
        assert hardware.getInputDelay(channel=2) == 1234
        assert hardware.setDeadtime(2, 20000) == hardware.getDeadtime(2) > 0
        hardware.setTestSignal([1, 3], True)
        hardware.setTestSignal(channel=4, enable=True)
        assert [hardware.getTestSignal(c) for c in (1, 2, 3, 4)] == [True, False, True, True]
        hardware.setStreamBlockSize(max_events=1024, max_latency=5)
        assert (hardware.getStreamBlockSizeEvents(), hardware.getStreamBlockSizeLatency()) == (1024, 5)
        hardware.setConditionalFilter(trigger=[1], filtered=[2])
        assert (hardware.getConditionalFilterTrigger(), hardware.getConditionalFilterFiltered()) == ([1], [2])
        hardware.reset()
        assert hardware.getInputDelay(2) == 0 and hardware.getConditionalFilterFiltered() == []

    def test_bad_arguments_raise(self, hardware):
        with pytest.raises(ValueError):
            hardware.setConditionalFilter([1], [99])
        with pytest.raises(TypeError):
            hardware.setInputDelay(channel="one", delay=0)
        with pytest.raises(RuntimeError):
            chronotick.createChronotick("no such board")

    def test_calibration_results_are_numpy(self, hardware):
        rms = hardware.autoCalibration()
        assert rms.dtype == np.float64 and rms.shape == (8,)
        assert np.all((rms > 0) & (rms < 37.5))
        counts = hardware.getDistributionCount()
        starts = hardware.getDistributionPSecs()
        assert counts.dtype == starts.dtype == np.int64
        assert counts.shape == starts.shape == (8, 160)
        assert np.all(np.diff(starts, axis=1) >= 0)

    def test_shared_board_lives_until_every_object_is_freed(self, board, hardware):
        second = chronotick.createChronotick(board)
        assert chronotick.freeChronotick(second) is False
        assert hardware.getSerial() == board
        with pytest.raises(RuntimeError, match="^This tagger was freed.$"):
            second.getSerial()
        assert hardware.free() is True
        assert hardware.free() is False


class TestReplayTagger:
    def test_waits_and_exceptions(self, virtual, tmp_path):
        virtual.setReplaySpeed(speed=0.1)
        assert virtual.getReplaySpeed() == 0.1
        assert virtual.waitForCompletion() is True  # nothing queued
        assert virtual.waitForFence(virtual.getFence(), timeout=5000) is True
        missing = str(tmp_path / "missing.ctbin")
        with pytest.raises(RuntimeError, match=f"^File '{missing}' could not be opened.$"):
            virtual.replay(missing)
        with pytest.raises(RuntimeError, match="^Slow replay speed between 0.0 and 0.1 is not supported.$"):
            virtual.setReplaySpeed(0.05)

    def test_replays_a_recording(self, virtual, recording):
        virtual.setReplaySpeed(-1.0)
        counts = chronotick.Countrate(virtual, [1, 2])
        replay_id = virtual.replay(file=recording, begin=0, duration=-1, queue=True)
        assert virtual.waitForCompletion(id=replay_id, timeout=30000)
        assert '"' in virtual.getConfiguration()
        assert np.all(counts.getCountsTotal() > 10000)

    def test_freed_tagger_raises(self):
        with chronotick.createChronotickVirtual() as tagger:
            pass
        assert repr(tagger) == "<chronotick.ChronotickVirtual (freed)>"
        for call in (tagger.sync, lambda: tagger.replay("x"), tagger.waitForCompletion):
            with pytest.raises(RuntimeError, match="^This tagger was freed.$"):
                call()
        assert chronotick.freeChronotick(tagger) is False

    def test_free_all_marks_every_object(self, board):
        taggers = [chronotick.createChronotickVirtual(), chronotick.createChronotick(board),
                   chronotick.createChronotick(board)]
        chronotick.freeAllChronotick()
        for tagger in taggers:
            with pytest.raises(RuntimeError, match="freed"):
                tagger.getOverflows()
        assert chronotick.createChronotick(board).free() is True  # the board was given back


class TestSimulation:
    def test_boards(self):
        serial = sim.addBoard(spec=sim.BoardSpec(model="CT-Ultra", serial="sim-1", seed=3))
        try:
            assert serial == "sim-1" and serial in sim.listBoards()
            with pytest.raises(ValueError):
                sim.addBoard(sim.BoardSpec(serial="sim-1"))
            with pytest.raises(ValueError):
                sim.setSignal(serial, 18, sim.Signal.poisson(1000))
            truth = sim.getTruth(serial)
            assert (truth.model, truth.inputs, truth.clock_period, truth.bin_count) == ("CT-Ultra", 18, 2000, 200)
            assert truth.bin_widths.shape == (18, 200)
            np.testing.assert_allclose(truth.bin_widths.sum(axis=1), 2000)
            assert truth.quantization_rms.shape == (18,)
            sim.setSignal(serial, 0, sim.Signal.periodic(period_ps=12500, jitter_ps=5))
            sim.setRealTime(serial, False)
            sim.setBandwidth(serial, words_per_second=1e6)
            with pytest.raises(ValueError):
                sim.setBandwidth(serial, 0)
            sim.injectFault(serial, sim.Fault.NoFirmware)
            with pytest.raises(RuntimeError):
                chronotick.createChronotick(serial)
            sim.clearFaults(serial)
        finally:
            sim.removeBoard(serial)
        assert serial not in sim.listBoards()


class TestLogging:
    def test_messages_reach_logging(self, hardware, caplog):
        with caplog.at_level(logging.INFO, logger="chronotick"):
            assert hardware.getInputDelay(99) == 0
            chronotick.flush_log()
        assert any(r.name == "chronotick" and r.levelno == logging.WARNING
                   and r.getMessage().endswith("Tried to get the input delay of an unknown channel")
                   for r in caplog.records)

    def test_error_level_and_a_user_sink(self, caplog):
        received = []
        before = chronotick.getChronotickChannelNumberScheme()
        chronotick.setChronotickChannelNumberScheme(chronotick.CT_CHANNEL_NUMBER_SCHEME_ZERO)
        try:
            with chronotick.createChronotickVirtual() as tagger:
                assert chronotick.setLogger(lambda level, message: received.append((level, message))) is None
                tagger.getInvertedChannel(1)
                chronotick.flush_log()
                assert chronotick.setLogger(None) is not None
                with caplog.at_level(logging.ERROR, logger="chronotick"):
                    tagger.getInvertedChannel(2)
                    chronotick.flush_log()
        finally:
            chronotick.setChronotickChannelNumberScheme(before)
        assert len(received) == 1 and received[0][0] == chronotick.LOGGER_ERROR
        assert "getInvertedChannel(1) called prior to replaying a file" in received[0][1]
        assert [r.levelno for r in caplog.records if "getInvertedChannel(2)" in r.getMessage()] == [logging.ERROR]

    def test_a_failing_sink_does_not_stop_logging(self, hardware, capsys):
        def broken(level, message):
            raise ValueError("sink broke")

        chronotick.setLogger(broken)
        try:
            hardware.getDeadtime(99)
            chronotick.flush_log()
        finally:
            chronotick.setLogger(None)
        err = capsys.readouterr().err
        assert "sink broke" in err and "Tried to query the deadtime for an unknown channel" in err
