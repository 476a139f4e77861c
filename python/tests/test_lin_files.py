"""LIN channels, DBC and LDF databases through the bindings, on the virtual adapter."""

import os
import struct

import pytest

import veltrix
from veltrix.can import CanFrame
from veltrix.dbc import Database
from veltrix.ldf import Description
from veltrix.lin import READ, WRITE, LinFrame

from conftest import ADAPTER, CORPUS

LIN_INIT, LIN_SYNC, LIN_START_SCH = 0x0F06, 0x0F07, 0x0F0C
MOTOHAWK = os.path.join(CORPUS, "dbc", "motohawk.dbc")
LIN_DIAG = os.path.join(CORPUS, "ldf", "lin_diagnostics.ldf")


def pid(ident):
    """Protected identifier, computed bit by bit from its definition."""
    b = [(ident >> i) & 1 for i in range(6)]
    p0 = b[0] ^ b[1] ^ b[2] ^ b[4]
    p1 = 1 - (b[1] ^ b[3] ^ b[4] ^ b[5])
    return ident | p0 << 6 | p1 << 7


def checksum(data, start=0):
    total = start
    for byte in data:
        total += byte
        if total > 0xFF:
            total -= 0xFF
    return ~total & 0xFF


def record(slot, kind, check_type, data, ident, check):
    padded = data + (bytes([check]) if len(data) < 8 else b"")
    return struct.pack("<IBBBBB8sBBB", slot, kind, check_type, len(data), 0x55, pid(ident),
                       padded.ljust(8, b"\0"), check, 13, 0)


@pytest.fixture
def adapter(sim):
    veltrix.scan()
    with veltrix.Adapter(ADAPTER) as a:
        yield a


@pytest.mark.parametrize("ident, data, mode, check_type, check", [
    (0x10, b"\x01\x02", "enhanced", 1, checksum(b"\x01\x02", pid(0x10))),
    (0x3C, b"\x11" * 8, "classic", 0, checksum(b"\x11" * 8)),
    (0x22, b"\xff", "classic", 0, checksum(b"\xff")),
])
def test_master_write_puts_one_checked_record_on_the_wire(sim, adapter, ident, data, mode,
                                                          check_type, check):
    with adapter.lin(1, 19200) as lin:
        assert sim.payloads(ADAPTER, LIN_INIT)[-1] == b"\x01" + struct.pack(">I", 19200) + b"\x01"
        sim.clear(ADAPTER)
        lin.write(ident, data, mode)
    assert sim.payloads(ADAPTER, LIN_SYNC) == [
        bytes([1]) + record(1, WRITE, check_type, data, ident, check)]


def test_schedule_and_power_commands(sim, adapter):
    with adapter.lin(2, 19200) as lin:
        sim.clear(ADAPTER)
        lin.start_schedule([LinFrame(0x10, b"\x01", slot_ms=20),
                            LinFrame(0x21, kind=READ, slot_ms=1)], runs=3)
        lin.power(True)
        lin.stop_schedule()
    # A slot shorter than the frame takes on the bus is raised to it: a header and response
    # of 13 + 47 bit times at 19200 bit/s need 4 ms.
    assert sim.commands(ADAPTER) == [
        (0x0F10, b"\x02" + struct.pack(">I", 3)),
        (0x0F0C, b"\x02" + record(20, WRITE, 1, b"\x01", 0x10, checksum(b"\x01", pid(0x10)))
         + record(4, READ, 1, b"", 0x21, 0)),
        (0x0F0A, b"\x01\x02"),
        (0x0F0D, b"\x02"),
    ]


@pytest.mark.parametrize("frames, exc, code", [
    ([LinFrame(1)] * 65, ValueError, None),  # refused before anything is sent
    ([], veltrix.LinError, -7),               # the library's count check
])
def test_tables_the_adapter_cannot_hold_are_refused(sim, adapter, frames, exc, code):
    with adapter.lin(0) as lin:
        sim.clear(ADAPTER)
        with pytest.raises(exc) as info:
            lin.start_schedule(frames)
    assert getattr(info.value, "code", None) == code
    assert sim.payloads(ADAPTER, 0x0F0C) == []


def test_a_read_nobody_answers_gives_no_bytes(adapter):
    with adapter.lin(0) as lin:
        assert lin.read(0x21) == b""


@pytest.mark.parametrize("channel, baud, exc", [(4, 19200, ValueError), (0, 100, None)])
def test_bad_lin_use_is_an_error(adapter, channel, baud, exc):
    if exc is not None:
        with pytest.raises(exc):
            adapter.lin(channel, baud)
        return
    # A channel configured at 100 baud accepts set-up but runs no frames.
    with adapter.lin(channel, baud) as lin:
        with pytest.raises(veltrix.LinError) as info:
            lin.write(0x10, b"\x01")
    assert info.value.code == -7


def test_an_adapter_that_is_not_attached_cannot_be_opened(sim):
    veltrix.scan()
    with pytest.raises(veltrix.DeviceError) as info:
        veltrix.Adapter(0x5100ABCD).lin(0)
    assert info.value.function == "USB_OpenDevice" and "5100ABCD" in str(info.value)


def test_dbc_decodes_frames_received_over_the_cable(sim):
    can = pytest.importorskip("can")
    veltrix.scan()
    with Database(MOTOHAWK, ADAPTER) as db, \
            can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:0", bitrate=500000) as tx, \
            can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:1", bitrate=500000) as rx:
        assert db.messages == ["ExampleMessage"]
        assert db.signals("ExampleMessage") == ["Temperature", "AverageRadius", "Enable"]
        frame = db.encode("ExampleMessage", Temperature=250.1, AverageRadius=3.2, Enable=1)
        # Big-endian signals, raw values Enable 1, AverageRadius 32, Temperature 10:
        #   byte 0: E A A A A A A T   (Enable bit 7, AverageRadius bits 6..1, Temperature
        #   byte 1: T T T T T T T T    bit 11 in bit 0, bits 10..3 in byte 1, bits 2..0
        #   byte 2: T T T - - - - -    in bits 7..5 of byte 2)
        assert (frame.id, frame.data) == (496, bytes([0xC0, 0x01, 0x40, 0, 0, 0, 0, 0]))
        tx.send(can.Message(arbitration_id=frame.id, data=frame.data, is_extended_id=False))
        received = rx.recv(2.0)
        name, values = db.decode(received)
    assert name == "ExampleMessage"
    assert values == pytest.approx({"Temperature": 250.1, "AverageRadius": 3.2, "Enable": 1})


@pytest.mark.parametrize("call, code", [
    (lambda db: db.signals("NoSuchMessage"), -5),
    (lambda db: db.get("ExampleMessage", "NoSuchSignal"), -5),
    (lambda db: db.set("NoSuchMessage", "Enable", 1), -5),
])
def test_dbc_lookups_that_fail_raise_with_the_code(adapter, call, code):
    with Database(MOTOHAWK, ADAPTER) as db:
        with pytest.raises(veltrix.DbcError) as info:
            call(db)
    assert info.value.code == code


def test_a_released_database_refuses_use(adapter):
    db = Database(MOTOHAWK, ADAPTER)
    db.close()
    with pytest.raises(veltrix.DbcError) as info:
        db.messages
    assert info.value.code == -4


@pytest.mark.parametrize("text", [None, "BO_ 100 NoSender: 8\n"])
def test_unreadable_or_malformed_files_are_dbc_errors(tmp_path, adapter, text):
    path = tmp_path / "bad.dbc"
    if text is not None:
        path.write_text('VERSION ""\n\n' + text)
    with pytest.raises(veltrix.DbcError) as info:
        Database(path, ADAPTER)
    assert info.value.function == "DBC_ParserFile"


def test_an_unframed_decode_is_skipped(adapter):
    with Database(MOTOHAWK, ADAPTER) as db:
        assert db.decode(CanFrame(0x7FF, b"\x00")) is None


def test_ldf_frame_goes_on_the_bus_with_its_packed_signal(sim, adapter):
    with Description(LIN_DIAG, ADAPTER, channel=2, master=True) as ldf:
        assert ldf.speed == 19200
        assert "CEM_Frm1" in ldf.frames and ldf.frame_id("CEM_Frm1") == 1
        assert ldf.signals("CEM_Frm1") == ["InternalLightsRequest"]
        ldf.set("CEM_Frm1", "InternalLightsRequest", 2)
        assert ldf.get("CEM_Frm1", "InternalLightsRequest") == 2
        raw = ldf.raw("CEM_Frm1")
        sim.clear(ADAPTER)
        ldf.run_frame("CEM_Frm1")
        [payload] = sim.payloads(ADAPTER, LIN_SYNC)
        assert payload[0] == 2
        kind, _, length, sync, p = struct.unpack_from("<BBBBB", payload, 5)
        assert (kind, length, sync, p, payload[10:10 + length]) == (WRITE, 1, 0x55, pid(1), raw)
        sent = ldf.bus_frames()
    assert [f.id for f in sent][-1] == 1


def test_an_ldf_schedule_loads_into_the_adapter_as_master_records(sim, adapter):
    with Description(LIN_DIAG, ADAPTER, channel=1, master=True) as ldf:
        raw = ldf.raw("CEM_Frm1")
        sim.clear(ADAPTER)
        ldf.load_schedule("Normal_Schedule")
    # The event-triggered entry is no plain frame and is left out; the master's own frame
    # is written with its packed signal, the slaves' frames are read, each in its slot.
    assert sim.payloads(ADAPTER, LIN_START_SCH) == [
        b"\x01" + record(15, WRITE, 1, raw, 1, checksum(raw, pid(1)))
        + record(15, READ, 1, b"", 3, 0) + record(15, READ, 1, b"", 5, 0)]


@pytest.mark.parametrize("call, code", [
    (lambda ldf: ldf.run_frame("NoSuchFrame"), -5),
    (lambda ldf: ldf.get("CEM_Frm1", "NoSuchSignal"), -6),
    (lambda ldf: ldf.set("CEM_Frm1", "InternalLightsRequest", float("nan")), -7),
])
def test_ldf_failures_raise_with_the_code(adapter, call, code):
    with Description(LIN_DIAG, ADAPTER, channel=3) as ldf:
        with pytest.raises(veltrix.LdfError) as info:
            call(ldf)
    assert info.value.code == code
