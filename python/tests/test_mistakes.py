"""What cannot be stored as it is given is refused with the name of the array and the field, and nothing is changed."""

import gc
import os
import pathlib
import shutil
import subprocess

import numpy as np
import pytest

import tslb

EVENT = np.dtype([("gatekeeper", "<u4"), ("source", "<u2"), ("level", "u1"), ("host", "S4"), ("at", "<M8[ns]"),
                  ("load", "<f4"), ("parts", "<i2", (2,)), ("text", "<u4"), ("wide", "<u8")])
GOOD = {"gatekeeper": 0, "source": 7, "level": 1, "host": b"web", "at": 5, "load": 0.5, "parts": (1, -1), "text": 0,
        "wide": 0}
STREAM = pathlib.Path(os.environ["TSLB_IMAGES"]) / "golden" / "free_list.stream"


def event(**fields):
    return tuple((GOOD | fields).values())


@pytest.fixture
def store(tmp_path):
    arrays = [tslb.Declaration("events", tslb.Kind.SLOTS, 1, EVENT),
              tslb.Declaration("plain", tslb.Kind.RECORDS, 2, "<u2"),
              tslb.Declaration("texts", tslb.Kind.BIG_BUFFER, 3, record_bytes=4096)]
    with tslb.open_store(tmp_path / "db", create=arrays) as opened:
        yield opened


@pytest.mark.parametrize("dtype", [
    "<u8", "S8", [("id", "<u8")], [("a", "<u2"), ("b", "<u2"), ("c", "<u4")], [("temperature", "<f4"), ("x", "<u4")],
    {"names": ["id"], "formats": ["<u4"], "offsets": [2], "itemsize": 8}, [("pair", "<u4", (2,))],
])
def test_fields_in_the_first_word_of_a_slot(store, tmp_path, dtype):
    refused = 'events: the first 4 bytes .* begin the dtype with \\("gatekeeper", "<u4"\\), or use Kind.RECORDS'
    with pytest.raises(ValueError, match=refused):
        tslb.Declaration("events", tslb.Kind.SLOTS, 1, dtype)
    with pytest.raises(ValueError, match=refused):
        tslb.open_store(tmp_path / "db", dtypes={"events": dtype})
    assert tslb.Declaration("events", tslb.Kind.RECORDS, 1, dtype).record_bytes == 8
    tslb.Declaration("events", tslb.Kind.SLOTS, 1, [("head", [("gatekeeper", "<u4"), ("x", "<u4")]), ("y", "u1")])


@pytest.mark.parametrize("give", [
    lambda dtype, _: tslb.Declaration("events", tslb.Kind.RECORDS, 1, dtype),
    lambda dtype, folder: tslb.open_store(folder, dtypes={"plain": dtype}),
    lambda dtype, _: tslb.open_stream(STREAM, dtype),
    lambda dtype, _: tslb.open_stream(STREAM).records(dtype),
    lambda dtype, _: tslb.write_layout(dtype, "objects", os.devnull),
])
def test_python_objects_are_not_stored(store, tmp_path, give):
    with pytest.raises(ValueError, match="Python objects"):
        give(np.dtype([("gatekeeper", "<u4"), ("name", object)]), tmp_path / "db")


@pytest.mark.parametrize("field, value, text", [
    ("source", 70000, "70000 does not fit <u2"), ("level", -1, "-1 does not fit u1"),
    ("level", 1.5, "1.5 does not fit u1"),
    ("level", np.int64(256), "256 does not fit u1"), ("source", float("nan"), "nan does not fit <u2"),
    ("wide", 1 << 64, "18446744073709551616 does not fit <u8"), ("wide", 2.0 ** 64, ".* does not fit <u8"),
    ("source", "7", "'7' is no <u2"),
    ("source", None, "None is no <u2"), ("host", "abcdefgh", "'abcdefgh' does not fit S4"),
    ("host", b"abcde", "b'abcde' does not fit S4"), ("host", "é", "'é' is no S4"), ("host", 12345, "12345 is no S4"),
    ("load", 1e300, r"1e\+300 does not fit <f4"), ("at", "3000-01-01", "'3000-01-01' does not fit <M8"),
    ("parts", (1, 40000), "40000 does not fit <i2"), ("parts", (1, 2, 3), r"\(1, 2, 3\) is no <i2"),
])
def test_values_that_do_not_fit(store, field, value, text):
    with store.batch() as batch:
        for change in (lambda: batch.add("events", event(**{field: value})),
                       lambda: batch.add_many("events", [event(), event(**{field: value})])):
            with pytest.raises(ValueError, match=rf"^events(\[1\])?\.{field}(\[1\])?: {text}"):
                change()
        with pytest.raises(ValueError, match=r"^plain\[1\]: 70000 does not fit <u2"):
            batch.add_many("plain", np.array([1, 70000]))
        with pytest.raises(ValueError, match="^events: has the shape"):
            batch.add("events", np.zeros(3, EVENT))
    assert len(store["events"]) == 0 and len(store["plain"]) == 0


def test_dtypes_that_are_set_later(store):
    for dtype in ("<u8", [("gatekeeper", "<u4"), ("name", object)]):
        with pytest.raises(ValueError, match="^events: "):
            store["events"].dtype = dtype
    assert store["events"].dtype == EVENT


def test_values_at_the_limits_are_stored(store):
    limits = event(source=65535, level=255, host="abcd", at=np.datetime64("2026-01-02T03:04:05.000000006"),
                   load=float("inf"), parts=(-32768, 32767), wide=(1 << 64) - 1)
    other = np.zeros(2, [(name, "<i8") for name in ("gatekeeper", "source")] + EVENT.descr[2:])
    other["source"] = 9, 65535
    with store.batch() as batch:
        assert batch.add("events", limits) == 0 and list(batch.add_many("events", other)) == [1, 2]
        assert list(batch.add_many("plain", range(3))) == [0, 1, 2]
    records = store["events"].records()
    assert records[0].tobytes()[4:] == np.array(limits, EVENT).tobytes()[4:]
    assert list(records["source"][1:]) == [9, 65535] and list(store["plain"].records()) == [0, 1, 2]


def test_chunks_of_records(store):
    with store.batch() as batch:
        batch.add("plain", 1)
        idx = batch.add("events", event())
        address = batch.put_text("texts", "grüße", of=("events", idx, "text"))
        batch.put_chunk("texts", b"far", of=("events", idx, "wide"))
        for of, text in ((("events", idx, "none"), "no field 'none'"), (("events", idx, "source"), "an address is <u4"),
                         (("events", idx, "gatekeeper"), "library's"), (("plain", 0, "x"), "no field 'x'")):
            with pytest.raises(ValueError, match=text):
                batch.put_chunk("texts", b"lost", of=of)
    record = store["events"].records()[idx]
    assert record["text"] == address and bytes(store["texts"].chunk(record["text"])).decode() == "grüße"
    assert bytes(store["texts"].chunk(record["wide"], wide=True)) == b"far"
    assert [(c.tbl_id, c.idx, c.offset) for c in store["texts"].chunks()] == [
        (1, idx, EVENT.fields[name][1]) for name in ("text", "wide")]


@pytest.mark.parametrize("address, error, text", [
    (1 << 40, IndexError, "no address of 32 bits"), (-1, IndexError, "no address"), ("1", TypeError, "not '1'"),
    (1.0, TypeError, "not 1.0"), (None, TypeError, "not None"), (b"abc", ValueError, "4 or 8 bytes, not 3"),
])
def test_addresses(store, address, error, text):
    with store.batch() as batch:
        batch.put_chunk("texts", b"first")
        for use in (store["texts"].chunk, lambda address: batch.delete_chunk("texts", address)):
            with pytest.raises(error, match=text):
                use(address)
    assert [chunk.is_deleted for chunk in store["texts"].chunks()] == [False]


def test_a_dropped_store_is_closed(tmp_path, store):
    with pytest.raises(tslb.LockedError, match="another writer has the store: this process, or a child of it"):
        tslb.open_store(tmp_path / "db", write=True)
    store.close()
    gc.disable()
    try:
        dropped = tslb.open_store(tmp_path / "db", write=True)
        del dropped
        events = tslb.open_store(tmp_path / "db", write=True)["events"]  # of a store that its array keeps
        assert len(events) == 0
        del events
        tslb.open_store(tmp_path / "db", write=True).close()
    finally:
        gc.enable()


@pytest.mark.parametrize("fields, text", [
    ({"name": "two words"}, "^name: 'two words'"), ({"name": "n" * 32}, "^name: "),
    ({"kind": "slots"}, "^a: kind: 'slots'"),
    ({"dtype": "nonsense"}, "^a: data type 'nonsense'"), ({"dtype": None}, "^a: dtype: is missing"),
    ({"tbl_id": 1 << 31}, "^a: tbl_id: 2147483648"), ({"n_direct": -1}, "^a: n_direct: -1"),
    ({"max_slots": 100000}, "^a: max_slots: 100000"), ({"rec_version": "1"}, "^a: rec_version: '1'"),
    ({"description": "d" * 256}, "^a: description"), ({"kind": tslb.Kind.BIT_VECTOR}, "^a: dtype: a pool"),
    ({"max_slots": 1}, '^array "a": .*max_slots'),
])
def test_declarations(tmp_path, fields, text):
    with pytest.raises(ValueError, match=text):
        tslb.open_store(tmp_path / "db", create=[
            tslb.Declaration(**({"name": "a", "kind": tslb.Kind.RECORDS, "dtype": "<u4"} | fields))])
    assert not (tmp_path / "db" / "store").exists()


@pytest.mark.parametrize("opens, error, text", [
    (lambda at: tslb.open_store(at / "db", dtypes={"event": EVENT}), ValueError,
     "no array 'event'; it has events, plain"),
    (lambda at: tslb.open_store(at / "db", dtypes={"plain": "<u4"}), ValueError, "plain: a record has 2 bytes"),
    (lambda at: tslb.open_store(at / "db", dtypes={"texts": "<u4"}), ValueError, "texts is a pool"),
    (lambda at: tslb.open_store(at / "db")["event"], KeyError, "no array 'event'"),
    (lambda at: tslb.open_store(at / "none"), tslb.NoStoreError, "none: does not exist$"),
    (lambda at: tslb.open_store(at), tslb.NoStoreError, "is not a store$"),
    (lambda at: tslb.open_store(at / "db").batch().__enter__(), ValueError, "opened to read"),
    (lambda at: tslb.open_stream(at), tslb.Error, "is a folder"),
    (lambda at: tslb.open_stream(at / "packed"), tslb.Error, "is compressed; zstd -d makes a stream of it"),
    (lambda at: tslb.open_stream(STREAM, "V1").records(), ValueError, "^free_list.stream: a record has"),
    (lambda at: tslb.open_stream(STREAM, verify=True), tslb.Error, "there is no sidecar to verify with"),
])
def test_openings(store, tmp_path, opens, error, text):
    (tmp_path / "packed").write_bytes(b"\x28\xb5\x2f\xfd" + bytes(100))
    with pytest.raises(error, match=text) as raised:
        opens(tmp_path)
    assert raised.type.__module__ in ("tslb", "builtins")


@pytest.mark.skipif("TSLB_INSPECT" not in os.environ, reason="tslb-inspect is not built")
def test_sealed_block_files_of_a_long_name(tmp_path):
    for file in STREAM.with_name("block_files").glob("metrics/*"):
        folder = tmp_path / ("c" * (40 if ".0." in file.name else 32))
        folder.mkdir(exist_ok=True)
        shutil.copy(file, folder)
    subprocess.run([os.environ["TSLB_INSPECT"], "--seal", "12.0.darr"], cwd=tmp_path / ("c" * 40), check=True,
                   capture_output=True)
    assert len(tslb.open_block_files(tmp_path, "c" * 40, 12, verify=True)) > 16


@pytest.mark.skipif("TSLB_INSPECT" not in os.environ, reason="tslb-inspect is not built")
def test_sealed_streams_and_layouts(tmp_path):
    fields = np.dtype([("gatekeeper", "<u4"), ("flags:0-2", "u1"), ("flags:3-7", "<u2"), ("at", "<M8[ns]"),
                       ("places", [("name", "S3"), ("x", "<f4", (2,))], (2,)), ("rest", "V5")])
    fields = np.dtype({"names": fields.names, "formats": [fields[n] for n in fields.names],
                       "offsets": [0, 4, 4, 6, 14, 36], "itemsize": 48})
    tslb.write_layout(fields, "mine", tmp_path / "mine.layout")
    read = tslb.read_layout(tmp_path / "mine.layout")
    assert read.names == ("gatekeeper", "flags:0-2", "flags:3-7", "at", "places[0].name", "places[0].x",
                          "places[1].name", "places[1].x", "rest")
    assert read.itemsize == 48 and read["at"].str == "<i8" and read.fields["places[1].x"][1] == 28
    array = tslb.open_stream(STREAM)
    stream = tmp_path / "array.stream"
    stream.write_bytes(STREAM.read_bytes())
    tslb.write_layout([("word", "<u4"), ("rest", f"V{array.record_bytes - 4}")], "array", tmp_path / "array.layout")
    subprocess.run([os.environ["TSLB_INSPECT"], "--seal", "--layout", tmp_path / "array.layout", stream], check=True,
                   capture_output=True)
    assert tslb.open_stream(stream, verify=True).dtype.names == ("word", "rest")
    changed = bytearray(stream.read_bytes())
    changed[-1] ^= 1
    stream.write_bytes(changed)
    opened = tslb.open_stream(stream)
    os.replace(shutil.copy(STREAM.with_name("plain.stream"), tmp_path / "next"), stream)
    assert len(opened) == len(opened.records()) == len(array) and bytes(opened.image) == changed
    stream.write_bytes(changed)
    with pytest.raises(tslb.DamagedError, match="not those that were sealed"):
        tslb.open_stream(stream, verify=True)
    for text, fault in (("field a 0 u32\n", "line 1: expected"),
                        ("layout x bytes 4\nfield a 0 u33\n", "line 2: unknown"),
                        ("layout x bytes 4\nfield a 2 u32\n", "x.layout: "), ("# no\n", "no fields")):
        (tmp_path / "x.layout").write_text(text)
        with pytest.raises(ValueError, match=fault):
            tslb.read_layout(tmp_path / "x.layout")
