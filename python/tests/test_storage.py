"""Recording, reading back and raw tag access from Python."""

import gc
import pathlib

import numpy as np
import pytest

import chronotick as ct

from conftest import PERIOD as LASER_PERIOD, wait_stopped


def record(tagger, path, duration=2_000_000_000):
    """Records channels 1 and 2 and streams the same tags, both started together."""
    group = ct.SynchronizedMeasurements(tagger)
    writer = ct.FileWriter(group.getTagger(), str(path), [1, 2])
    stream = ct.TimeTagStream(group.getTagger(), n_max_events=10_000_000, channels=[1, 2])
    group.startFor(duration)
    wait_stopped(group)
    buffer = stream.getData()
    total = writer.getTotalEvents()
    del writer  # closes the last part
    gc.collect()
    return buffer, total


@pytest.fixture(scope="module")
def recording(tagger, tmp_path_factory):
    path = tmp_path_factory.mktemp("rec") / "run"
    buffer, total = record(tagger, path)
    return path, buffer, total


class TestTimeTagStreamBuffer:
    def test_columns(self, recording):
        _, buffer, _ = recording
        n = buffer.size
        assert n > 1000 and len(buffer) == n
        dtypes = {"getChannels": np.int32, "getTimestamps": np.int64, "getEventTypes": np.uint8,
                  "getMissedEvents": np.uint16, "getOverflows": np.uint8}
        for getter, dtype in dtypes.items():
            column = getattr(buffer, getter)()
            assert column.dtype == dtype and column.shape == (n,), getter
        columns = buffer.columns
        assert set(columns) == {"channels", "timestamps", "event_types", "missed_events"}
        np.testing.assert_array_equal(columns["timestamps"], buffer.getTimestamps())
        assert set(np.unique(columns["channels"])) == {1, 2}
        laser = columns["timestamps"][columns["channels"] == 1]
        assert np.median(np.diff(laser)) == pytest.approx(LASER_PERIOD, rel=1e-2)
        np.testing.assert_array_equal(buffer.getOverflows(), columns["event_types"] != 0)
        assert columns["timestamps"][-1] <= buffer.t_get_data

    def test_columns_are_written_in_place(self, recording):
        _, buffer, _ = recording
        first = buffer.getTimestamps()
        # The library filled the array's own memory: no wrapper around a C++ copy.
        assert first.flags.owndata and first.base is None
        assert first.flags.c_contiguous and first.flags.writeable
        first[:] = 0
        assert buffer.getTimestamps()[-1] != 0, "each call returns a new array"

    def test_empty_read(self, tagger):
        stream = ct.TimeTagStream(tagger, 10, channels=[17])
        stream.getData()
        empty = stream.getData()
        assert empty.size == 0 and not empty.has_overflows
        assert empty.getTimestamps().shape == (0,) and empty.getChannels().dtype == np.int32


class TestRecording:
    def test_round_trip_equals_the_stream(self, recording):
        path, buffer, total = recording
        reader = ct.FileReader(str(path))
        read = reader.getData(n_events=10 * buffer.size)
        assert read.size == buffer.size == total
        for name, column in buffer.columns.items():
            np.testing.assert_array_equal(read.columns[name], column, err_msg=name)
        assert read.size == 0 or reader.getData().size == 0
        assert not reader.hasData()

    def test_reader_takes_paths_lists_and_small_reads(self, recording):
        path, buffer, _ = recording
        reader = ct.FileReader([pathlib.Path(str(path) + ".ctbin")])
        chunk = reader.getData(1000)
        assert chunk.size == 1000 and reader.getConfiguration()
        np.testing.assert_array_equal(chunk.getTimestamps(), buffer.getTimestamps()[:1000])

    def test_raw_blocks(self, recording):
        path, buffer, _ = recording
        reader = ct.FileReader(filename=str(path))
        blocks = []
        while reader.hasData():
            blocks.append(reader.getDataRaw())
        assert blocks[0].dtype.itemsize == 16
        tags = np.concatenate(blocks)
        np.testing.assert_array_equal(tags["time"], buffer.getTimestamps())
        np.testing.assert_array_equal(tags["channel"], buffer.getChannels())
        np.testing.assert_array_equal(tags["type"], buffer.getEventTypes())

    def test_reader_errors_carry_the_library_text(self, tmp_path):
        missing = tmp_path / "missing"
        with pytest.raises(RuntimeError, match=f"^FileReader could not open file '{missing}.ctbin'.$"):
            ct.FileReader(missing)
        with pytest.raises(RuntimeError, match="^no file provided$"):
            ct.FileReader([])

    def test_writer_arguments(self, tagger, tmp_path):
        with pytest.raises(RuntimeError, match="^FileWriter is called without any channels"):
            ct.FileWriter(tagger, str(tmp_path / "a"), [])
        with pytest.raises(RuntimeError, match="^Too many channels"):
            ct.FileWriter(tagger, str(tmp_path / "b"), list(range(251)))
        writer = ct.FileWriter(tagger=tagger, filename=tmp_path / "c", channels=[1])
        writer.setMaxFileSize(max_file_size=-1)
        assert writer.getMaxFileSize() == -1
        writer.split()
        writer.split(new_filename=tmp_path / "d")
        writer.stop()
        assert (tmp_path / "d.ctbin").exists() and (tmp_path / "d.1.ctbin").exists()

    def test_dump_writes_raw_records(self, tagger, tmp_path):
        path = tmp_path / "dump.bin"
        dump = ct.Dump(tagger, path, max_tags=100, channels=[1])
        wait_stopped(dump)
        tags = np.fromfile(path, dtype=np.dtype([("type", "u1"), ("pad", "V3"), ("channel", "i4"), ("time", "i8")]))
        assert tags.size == 100 and np.all(tags["channel"] == 1) and np.all(np.diff(tags["time"]) > 0)


class TestRawAccess:
    def test_iterator_hands_out_one_channel(self, tagger):
        iterator = ct.Iterator(tagger, channel=1)
        times = [iterator.next() for _ in range(20)]
        assert np.all(np.diff(times) > 0)
        assert np.median(np.diff(times)) == pytest.approx(LASER_PERIOD, rel=1e-2)
        iterator.stop()
        iterator.clear()
        assert iterator.size() == 0 and len(iterator) == 0


class TestSynchronizedMeasurements:
    def test_registered_measurement_is_stopped_by_the_group(self, tagger):
        group = ct.SynchronizedMeasurements(tagger)
        outside = ct.TimeTagStream(tagger, 10)
        group.registerMeasurement(outside)
        assert group.isRunning()
        group.stop()
        assert not outside.isRunning()
        group.unregisterMeasurement(outside)

    def test_proxy_keeps_the_group_alive(self, tagger):
        proxy = ct.SynchronizedMeasurements(tagger).getTagger()
        gc.collect()
        stream = ct.TimeTagStream(proxy, 10, [1])
        assert not stream.isRunning()
        del proxy
        gc.collect()
        stream.start()
        assert stream.isRunning()
