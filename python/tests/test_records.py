"""Host-side pieces: record layouts against the headers, frame records byte for byte,
result codes to exceptions, channel names."""

import os
import re
import shutil
import struct

import pytest

import veltrix
from veltrix import errors, records
from veltrix.can import CanFrame, FilterRule, filters_fit_banks
from veltrix.lin import LinFrame

INCLUDE = veltrix.INCLUDE_DIR


def test_every_asserted_record_matches_the_headers():
    assert INCLUDE is not None, "the source tree's headers were not found"
    asserted = {rec for _, rec, _, _ in records.header_assertions(INCLUDE)}
    # Every record a header asserts on is mirrored here, and every assertion holds.
    assert asserted <= set(records.RECORDS), asserted - set(records.RECORDS)
    assert records.check_layouts(INCLUDE) == len(records.header_assertions(INCLUDE))


@pytest.mark.parametrize("header, before, after, reported", [
    ("can.h", "sizeof(CAN_MSG) == 20", "sizeof(CAN_MSG) == 24", "sizeof(CAN_MSG) is 20"),
    ("lin.h", "offsetof(LIN_EX_MSG, Data) == 9", "offsetof(LIN_EX_MSG, Data) == 10",
     "LIN_EX_MSG.Data offset is 9"),
    ("ldf.h", "offsetof(LDF_CODING, Schs) == 72", "offsetof(LDF_CODING, Schs) == 80",
     "LDF_CODING.Schs offset is 72"),
    ("spi.h", "offsetof(SPI_CONFIG, ClockSpeedHz) == 8", "offsetof(SPI_CONFIG, ClockSpeedHz) == 12",
     "SPI_CONFIG.ClockSpeedHz offset is 8"),
    ("canfd.h", "sizeof(CANFD_TX_INFO) == 4", "sizeof(CANFD_TX_INFO) == 8",
     "sizeof(CANFD_TX_INFO) is 4"),
])
def test_a_header_that_moved_a_field_stops_the_check(tmp_path, header, before, after, reported):
    shutil.copytree(os.path.join(INCLUDE, "veltrix"), tmp_path / "veltrix")
    path = tmp_path / "veltrix" / header
    text = path.read_text()
    assert before in text
    path.write_text(text.replace(before, after))
    with pytest.raises(records.LayoutMismatch, match=re.escape(reported)):
        records.check_layouts(str(tmp_path))


@pytest.mark.parametrize("frame, wire", [
    (CanFrame(0x123, b"\x01\x02\x03"),
     struct.pack("<IIBBB8sB", 0x123, 0, 0, 0, 3, b"\x01\x02\x03", 0)),
    (CanFrame(0x1ABCDEF0, b"\xff" * 8, extended=True),
     struct.pack("<IIBBB8sB", 0x1ABCDEF0, 0, 0, 1, 8, b"\xff" * 8, 0)),
    (CanFrame(0x7FF, remote=True, dlc=4),
     struct.pack("<IIBBB8sB", 0x7FF, 0, 1, 0, 4, b"", 0)),
])
def test_frames_become_the_libraries_record(frame, wire):
    rec = frame.to_record()
    assert bytes(rec) == wire
    back = CanFrame.from_record(rec)
    assert (back.id, back.data, back.extended, back.remote, back.dlc) == \
        (frame.id, frame.data, frame.extended, frame.remote, frame.dlc)


def test_a_hostile_record_is_cut_to_what_a_frame_holds():
    rec = records.CAN_MSG.from_buffer_copy(
        struct.pack("<IIBBB8sB", 0xFFFFFFFF, 0x10, 0xE0, 0, 200, b"ABCDEFGH", 0x01))
    f = CanFrame.from_record(rec)
    assert (f.id, f.data, f.dlc, f.port, f.tx, f.time) == (0x7FF, b"ABCDEFGH", 8, 3, True,
                                                           (1 << 32) | 0x10)


@pytest.mark.parametrize("kwargs", [
    dict(id=0x800), dict(id=0x20000000, extended=True), dict(id=-1),
    dict(id=1, data=b"123456789"), dict(id=1, data=b"12", dlc=1), dict(id=1, dlc=9),
])
def test_impossible_frames_are_refused(kwargs):
    with pytest.raises(ValueError):
        CanFrame(**kwargs)


@pytest.mark.parametrize("kwargs", [
    dict(id=0x40), dict(id=1, data=b"123456789"), dict(id=1, checksum="parity"),
    dict(id=1, checksum=4), dict(id=1, slot_ms=-1), dict(id=1, break_bits=256),
])
def test_impossible_lin_frames_are_refused(kwargs):
    with pytest.raises(ValueError):
        LinFrame(**kwargs)


def test_lin_frames_become_the_libraries_record():
    rec = LinFrame(0x10, b"\xaa\xbb", checksum="classic", slot_ms=20).to_record(
        records.LIN_EX_MSG())
    assert bytes(rec) == struct.pack("<IBBBBB8sBBB", 20, 1, 0, 2, 0, 0x10, b"\xaa\xbb", 0, 13,
                                     0)


@pytest.mark.parametrize("family, code, cls, words", [
    ("CAN", -1, veltrix.CanError, "NULL"),
    ("CAN", -2, veltrix.CanError, "could not be written"),
    ("CAN", -4, veltrix.CanError, "no valid reply"),
    ("LIN", -5, veltrix.LinError, "never initialised"),
    ("LIN", -7, veltrix.LinError, "bad argument"),
    ("DBC", -5, veltrix.DbcError, "no such message"),
    ("DBC", -6, veltrix.DbcError, "multiplexed"),
    ("LDF", -6, veltrix.LdfError, "no frame or signal"),
    ("UDS", -108, veltrix.UdsError, "longer than the room"),
    ("UDS", -103, veltrix.UdsError, "out of sequence"),
    ("SPI", -6, veltrix.SpiError, "event did not come"),
    ("CAN", -99, veltrix.CanError, "unexpected result code"),
])
def test_negative_results_raise_the_familys_error(family, code, cls, words):
    with pytest.raises(cls) as info:
        errors.check(family, "X_Call", code)
    assert info.value.code == code
    assert words in info.value.meaning
    assert "X_Call: " in str(info.value) and f"code {code}" in str(info.value)
    assert isinstance(info.value, veltrix.VeltrixError)


@pytest.mark.parametrize("rules, exact", [
    ([], True),
    ([FilterRule(0x100, 0x7F0, False)] * 14, True),
    ([FilterRule(0x100, 0x7F0, False)] * 15, False),
    ([FilterRule(0x100, 0x7F0)], False),  # either identifier kind: host only
])
def test_filter_sets_go_to_the_banks_only_when_exact(rules, exact):
    assert filters_fit_banks(rules) is exact


@pytest.mark.parametrize("text, expected", [
    ("51000001:1", (0x51000001, 1)), ("51000001", (0x51000001, 0)),
    ("0x53000002:0", (0x53000002, 0)), (0x51000001, (0x51000001, 0)),
    ((0x51000001, 1), (0x51000001, 1)),
])
def test_channel_names(text, expected):
    pytest.importorskip("can")
    from veltrix.interface import parse_channel
    assert parse_channel(text) == expected


@pytest.mark.parametrize("text", ["zz:0", "51000001:x", "1FFFFFFFF"])
def test_bad_channel_names(text):
    pytest.importorskip("can")
    from veltrix.interface import parse_channel
    with pytest.raises(ValueError):
        parse_channel(text)
