"""What Python reads is what the library stored, what it writes is durable or raises, and views outlive their owners."""

import dataclasses
import gc
import os
import pathlib
import re
import shutil
import subprocess
import sys
import threading

import numpy as np
import pytest

import tslb
from tslb import _sidecar

IMAGES = pathlib.Path(os.environ["TSLB_IMAGES"])
READING = np.dtype([("gatekeeper", "<u4"), ("place", "S12"), ("celsius", "<f4"), ("name", "<u4")])
PAIR = np.dtype([("a", "<u8"), ("b", "<f4", (2,))])
ARRAYS = [
    tslb.Declaration("readings", tslb.Kind.SLOTS, 1, READING, n_direct=4, has_inactive=True),
    tslb.Declaration("pairs", tslb.Kind.RECORDS, 2, PAIR, n_direct=100),
    tslb.Declaration("names", tslb.Kind.BIT_VECTOR, 3, record_bytes=256, n_direct=0),
    tslb.Declaration("bytes", tslb.Kind.BIG_BUFFER, 4, record_bytes=64, has_headers=False, frees_slots=False),
]


def reading(place, celsius, name=0):
    return (0, place, celsius, name)


@pytest.fixture
def folder(tmp_path):
    return tmp_path / "store"


@pytest.fixture
def filled(folder):
    """A store with 30 readings, of which two are free and two inactive, and with chunks."""
    with tslb.open_store(folder, create=ARRAYS, shadow=True) as store, store.batch() as batch:
        for i in range(30):
            address = batch.put_chunk("names", f"place {i}".encode(), (1, i, 20))
            assert batch.add("readings", reading(b"hill", i, address)) == i
            batch.add("pairs", (i, (i, -i)))
        batch.free("readings", 7)
        batch.free("readings", 3)
        batch.inactivate("readings", 9, 100)
        batch.inactivate("readings", 5, 200)
        batch.delete_chunk("names", int(store["readings"].records()["name"][7]))
        batch.set_payload(b"thirty")
    return folder


def test_what_was_written_is_read(filled):
    with tslb.open_store(filled, dtypes={"readings": READING, "pairs": PAIR}) as store:
        assert list(store) == ["readings", "pairs", "names", "bytes"] and store.payload == b"thirty"
        readings = store["readings"]
        assert (len(readings), readings.record_bytes, readings.tbl_id) == (30, READING.itemsize, 1)
        assert (readings.free(), readings.inactive()) == ([7, 3], [9, 5])
        assert list(readings.active()) == [i for i in range(30) if i not in (3, 5, 7, 9)]
        assert readings.status[3] == tslb.Status.FREE and readings.times()[9] == 100
        # The first word is not the record's, and a freed slot keeps the rest.
        records = readings.records()
        assert (records["celsius"] == np.arange(30)).all() and (records["gatekeeper"] == 0xFFFFFFFF).all()
        assert (store["pairs"].records()["b"][29] == [29, -29]).all()
        assert not records.flags.writeable and not store["pairs"].records().flags.writeable
        for address in (int(records["name"][29]), records["name"][29].tobytes()):
            assert bytes(store["names"].chunk(address)) == b"place 29".ljust(8, b"\0")
        chunks = list(store["names"].chunks())
        assert [c.idx for c in chunks] == list(range(30)) and [c.idx for c in chunks if c.is_deleted] == [7]
        assert bytes(chunks[12].data).rstrip(b"\0") == b"place 12" and chunks[12].offset == 20
        used = store["names"].occupancy()
        assert used["bytes_used"].sum() == sum(16 + len(c.data) for c in chunks)
        assert used["bytes_deleted"].sum() == 16 + len(chunks[7].data)


def test_views_outlive_the_store(filled):
    store = tslb.open_store(filled, dtypes={"pairs": PAIR})
    pairs = store["pairs"].records()  # in block 0: not copied
    chunk = store["names"].chunk(0)
    assert np.shares_memory(pairs, store["pairs"].records())
    store.close()
    del store
    gc.collect()
    junk = [bytes(4096) for _ in range(2000)]
    assert pairs["a"].sum() == sum(range(30)) and bytes(chunk) == b"place 0\0" and junk
    with pytest.raises(ValueError, match="closed"):
        with tslb.open_store(filled, write=True) as closed:
            readings = closed["readings"]
        readings.records()


def test_images_while_another_thread_adds_records(folder):
    """An image has the slots that the array had when the image was begun, and its header says so."""
    with tslb.open_store(folder, create=ARRAYS) as store:
        def add():
            for _ in range(40):
                with store.batch() as batch:
                    batch.add_many("pairs", np.ones(5000, PAIR))
        thread = threading.Thread(target=add)
        thread.start()
        n_images = 0
        while thread.is_alive():
            image = store["pairs"].image
            n_used = int.from_bytes(image[12:16], "little")
            assert len(image) == 24 + n_used * PAIR.itemsize
            n_written = (np.frombuffer(image, PAIR, offset=24)["a"] == 1).sum()
            assert n_written >= n_used - 5000  # of one batch the other thread may be writing the records
            n_images += 0 < n_used < 200_000
        thread.join()
        assert n_images != 0
        assert (store["pairs"].records()["a"] == 1).sum() == 200_000


@pytest.mark.parametrize("name, daflag", [("names", 2), ("names", 3), ("readings", 3)])
def test_flags_that_a_declaration_has_no_field_for(folder, name, daflag):
    declared = next(array for array in ARRAYS if array.name == name)
    other = dataclasses.replace(declared, _described=(declared.kind, declared.has_inactive, declared.frees_slots, daflag))
    tslb.open_store(folder, create=[other]).close()
    assert len(tslb.open_store(folder)[name]) == 0
    described = tslb.describe(folder)
    tslb.open_store(folder, create=[dataclasses.replace(described[0], description="as it was")]).close()
    described[0].has_inactive = not described[0].has_inactive
    described[0].frees_slots = not described[0].frees_slots
    with pytest.raises(tslb.MismatchError, match="daflag"):
        tslb.open_store(folder, create=described)


def test_exception_in_a_batch_changes_nothing(filled):
    with tslb.open_store(filled, write=True, dtypes={"readings": READING}) as store:
        with pytest.raises(KeyError, match="halfway"):
            with store.batch() as batch:
                batch.add("readings", reading(b"roof", 1))
                batch.write("readings", 0, reading(b"roof", 99))
                raise KeyError("halfway")
        assert store["readings"].records()["celsius"][0] == 0 and store["readings"].free() == [7, 3]
        with store.batch() as batch:
            assert batch.add("readings", reading(b"roof", 1)) == 7
        with pytest.raises(ValueError, match="ended"):
            batch.free("readings", 0)
    assert tslb.open_store(filled)["readings"].records(READING)["place"][7] == b"roof"


@pytest.mark.parametrize("change, error", [
    (lambda batch: batch.free("readings", 3), "slot 3 has the status 1"),
    (lambda batch: batch.activate("readings", 0), "slot 0 has the status 2"),
    (lambda batch: batch.free("pairs", 0), "no such list"),
    (lambda batch: batch.write("readings", 30, bytes(24)), "slot 30 of 30"),
    (lambda batch: batch.write("readings", 0, bytes(23)), "24 bytes, not 23"),
    (lambda batch: batch.put_chunk("names", bytes(300)), "320 bytes in slots of 256"),
    (lambda batch: batch.put_chunk("readings", b"1"), "not a pool"),
    (lambda batch: batch.delete_chunk("bytes", 0), "cannot be deleted"),
    (lambda batch: batch.delete_chunk("names", 0xFFFFFFFF), "slot 2047 of"),
    (lambda batch: batch.set_payload(bytes(70000)), "70000"),
])
def test_mistakes_raise_before_anything_changes(filled, change, error):
    with tslb.open_store(filled, write=True) as store:
        before = {name: bytes(array.image) for name, array in store.items()}
        with store.batch() as batch:
            with pytest.raises((ValueError, IndexError, tslb.Error), match=error):
                change(batch)
        assert {name: bytes(array.image) for name, array in store.items()} == before


def test_full_pool_and_other_thread(folder):
    small = [tslb.Declaration("few", tslb.Kind.BIG_BUFFER, 1, record_bytes=64, n_direct=1, max_slots=17)]
    with tslb.open_store(folder, create=small) as store, store.batch() as batch:
        with pytest.raises(tslb.FullError):
            for _ in range(100):
                batch.put_chunk("few", bytes(40))
        caught = []
        def use():
            try:
                batch.put_chunk("few", b"1")
            except ValueError as why:
                caught.append(str(why))
        thread = threading.Thread(target=use)
        thread.start()
        thread.join()
        assert caught == ["the batch is of another thread"]


def test_errors_have_class_file_and_byte(filled, tmp_path):
    with pytest.raises(tslb.NoStoreError) as no_store:
        tslb.open_store(tmp_path / "none")
    assert str(tmp_path / "none") in str(no_store.value)
    with tslb.open_store(filled, write=True) as store:
        with pytest.raises(tslb.LockedError):
            tslb.open_store(filled, write=True)
        with store.batch():
            with pytest.raises(tslb.Error):  # a batch is open
                store.close()
        assert store.warning == ""
    assert [(d.name, d.kind, d.record_bytes) for d in tslb.describe(filled)] == [
        (d.name, d.kind, d.record_bytes) for d in ARRAYS]
    with pytest.raises(tslb.MismatchError, match="pairs"):
        tslb.open_store(filled, create=ARRAYS[:1])
    with pytest.raises(ValueError, match="24 bytes, but the dtype 16"):
        tslb.open_store(filled)["readings"].records(PAIR)
    stream = next((filled).glob("generation.*/names.stream"))
    damaged = bytearray(stream.read_bytes())
    damaged[-1] ^= 1
    stream.write_bytes(damaged)
    with pytest.raises(tslb.DamagedError) as damage:
        tslb.open_store(filled)
    assert damage.value.file.endswith("names.stream")
    with pytest.raises(tslb.Error) as missing:
        tslb.open_stream(tmp_path / "none.stream")
    assert missing.value.errno == 2 and missing.value.file == str(tmp_path / "none.stream")


@pytest.mark.parametrize("name", ["plain", "free_list", "both_lists", "bigbuffer_compat", "bitvector_cut"])
def test_streams_of_the_library(name, tmp_path):
    path = IMAGES / "golden" / f"{name}.stream"
    array = tslb.open_stream(path)
    image = bytes(array.image)
    assert image.startswith(path.read_bytes())  # the rest of a cut slot is zero
    assert len(array.records()) == len(array)
    if array.has_lists:
        free, inactive = array.free(), array.inactive()
        assert sorted(free) == list(np.flatnonzero(array.status == tslb.Status.FREE))
        assert sorted(inactive) == list(np.flatnonzero(array.status == tslb.Status.INACTIVE))
    damaged = tmp_path / "damaged.stream"
    damaged.write_bytes(path.read_bytes() + b"more")
    with pytest.raises(tslb.DamagedError) as damage:
        tslb.open_stream(damaged)
    assert damage.value.byte >= len(path.read_bytes()) and damage.value.file == str(damaged)


def documented(name):
    """A block of docs/formats.md."""
    text = (IMAGES.parent / "docs" / "formats.md").read_text()
    return re.search(rf"```{name}\n(.*?)```", text, re.S).group(1)


def test_dtype_of_the_sidecar(tmp_path):
    path, sidecar = tmp_path / "readings", tmp_path / "readings.tslb"
    dump = [line[4:].split(";")[0] for line in documented("dump readings").splitlines()]
    path.write_bytes(bytes.fromhex("".join(dump)))
    sealed = documented("sidecar").encode()
    sidecar.write_bytes(sealed)
    records = tslb.open_stream(path).records()
    assert records.dtype == np.dtype([("gatekeeper", "<u4"), ("celsius", "<f4")])
    assert list(records["celsius"]) == [20.0, 21.5, 22.0, 23.5]
    assert tslb.open_stream(path, "V8").records().dtype == np.dtype("V8")
    shutil.copy(IMAGES / "golden" / "free_list.stream", tmp_path / "other")
    (tmp_path / "other.tslb").write_bytes(sealed)
    for broken in (b"", sealed[:100], sealed.replace(b"f32", b"f64"), sealed.replace(b"sidecar 1", b"sidecar 2")):
        sidecar.write_bytes(broken)
        with pytest.raises(tslb.DamagedError) as damage:
            tslb.open_stream(path)
        assert damage.value.file == str(sidecar)
    with pytest.raises(tslb.DamagedError, match="another size"):
        tslb.open_stream(tmp_path / "other")


def test_dtype_of_every_type(tmp_path):
    fields = [("a", 0, "u8:0-2"), ("a2", 0, "u8"), ("b", 1, "i16[2]"), ("c", 5, "f64"), ("d", 13, "char[3]"),
              ("e[1].f", 16, "bytes[4]")]
    lines = "tslb-sidecar 1\ngeometry header_bytes 84 daflag 2 record_bytes 20 slot_bytes 36 direct 1 slots 2\n"
    lines += "".join(f"field {name} {offset} {kind}\n" for name, offset, kind in fields)
    path = tmp_path / "a.tslb"
    path.write_text(lines + f"crc32c {_sidecar._crc32c(lines.encode()):08x}\n")
    dtype = _sidecar.described_dtype(path, 20, 2)
    assert dtype.names == ("a:0-2", "a2", "b", "c", "d", "e[1].f") and dtype.itemsize == 20
    assert [dtype.fields[name][1] for name in dtype.names] == [0, 0, 1, 5, 13, 16]
    assert [dtype[name].str for name in ("c", "d", "e[1].f")] == ["<f8", "|S3", "|V4"] and dtype["b"].shape == (2,)


def test_block_files_of_the_library(tmp_path):
    shutil.copytree(IMAGES / "golden" / "block_files", tmp_path / "files")
    with pytest.raises(tslb.Error) as missing:
        tslb.open_block_files(tmp_path / "files", "metrics", 13)
    assert missing.value.errno == 2 and not isinstance(missing.value, tslb.DamagedError)
    array = tslb.open_block_files(tmp_path / "files", "metrics", 12)
    first = (tmp_path / "files" / "metrics" / "12.0.darr").read_bytes()
    assert bytes(array.image).startswith(first) and len(array) > 16
    with open(tmp_path / "files" / "metrics" / "12.1.darr", "ab") as file:
        file.write(b"more")
    with pytest.raises(tslb.DamagedError) as damage:
        tslb.open_block_files(tmp_path / "files", "metrics", 12)
    assert damage.value.file.endswith("12.1.darr")


def test_data_frames(filled):
    pytest.importorskip("pandas")
    store = tslb.open_store(filled)
    frame = tslb.to_pandas(store["readings"], READING)
    assert list(frame.index) == list(store["readings"].active()) and frame.celsius[29] == 29
    assert list(tslb.to_pandas(store["pairs"], PAIR).columns) == ["a", "b.0", "b.1"]
    assert list(tslb.to_pandas(store["readings"], READING, tslb.Status.INACTIVE).index) == [5, 9]


def test_the_document_runs(tmp_path, monkeypatch, capsys):
    pytest.importorskip("pandas")
    monkeypatch.chdir(tmp_path)
    text = (IMAGES.parent / "docs" / "python.md").read_text()
    names = {}
    for block in re.findall(r"^```python\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        exec(compile(block, "docs/python.md", "exec"), names)
    printed = capsys.readouterr().out
    assert printed.startswith("21.5\n2 [1] []\nb'under the tree\\x00\\x00'\n0 0 16 False\n")
    assert "/nowhere" in printed and len(names["frame"]) == 0  # the batch is in the journal
    assert names["text"] == "it is windy" and names["referrers"] == [(1, 0, 12)] and len(names["indices"]) == 100
    assert len(tslb.open_stream("events.stream", tslb.read_layout("event.layout")).records()) == 101


@pytest.mark.skipif("METRICDB" not in os.environ, reason="metricdb is not built")
def test_example_draws_a_series_and_its_pools(tmp_path):
    pytest.importorskip("matplotlib")
    lines = "".join(f"weather,place=hill celsius={i % 20}.5 17000000{i:02}000000000\n" for i in range(60))
    (tmp_path / "weather.lp").write_text(lines)
    metricdb = os.environ["METRICDB"]
    subprocess.run([metricdb, "load", tmp_path / "weather.lp", "--db", tmp_path / "db"], check=True,
                   capture_output=True)
    example = pathlib.Path(__file__).parent.parent / "examples" / "plot_metricdb.py"
    picture = tmp_path / "plot.png"
    done = subprocess.run([sys.executable, example, tmp_path / "db", "weather,place=hill celsius", picture,
                           "--metricdb", metricdb], check=False, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert "60 points" in done.stdout
    assert picture.read_bytes().startswith(b"\x89PNG")
