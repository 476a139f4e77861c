"""Diagnostic requests to the virtual LIN slave (NAD 0x02), frame tables the adapter sends by
itself on its CAN ports, and the relay settings, asserting what reached the adapter."""

import struct
import time

import pytest

import veltrix
from veltrix.can import CanChannel, CanFrame
from veltrix.canfd import CanFdChannel, CanFdFrame
from veltrix.lin import LinChannel
from veltrix.lin_uds import LinUdsClient
from veltrix.schedule import (CanSchedule, RelayRules, ScheduleTable, relay_rules, set_relay,
                              store_relay_rules)

from conftest import ADAPTER, UNPLUG  # noqa: E402

FD_ADAPTER = 0x53000001
LIN_SYNC = 0x0F07
SCH_LOAD, SCH_START, SCH_STOP, RELAY = 0x0C08, 0x0C05, 0x0C06, 0x0C07
FD_SCH_LOAD = 0x400B
SLAVE_ID = b"VLTX0000000000017"
LIN_WRITE, LIN_READ = 1, 2


def lin_records(sim):
    """(kind, id, data) of every frame the adapter was asked to run, in order."""
    out = []
    for p in sim.payloads(ADAPTER, LIN_SYNC):
        for at in range(1, len(p) - 19, 20):
            kind, pid, data = p[at + 4], p[at + 8], p[at + 9:at + 17]
            out.append((kind, pid & 0x3F, data))
    return out


@pytest.fixture
def node(sim):
    veltrix.scan()
    with LinUdsClient(ADAPTER, 0, nad=0x02) as client:
        sim.clear(ADAPTER)
        yield client


# ---- UDS over LIN ------------------------------------------------------------------

@pytest.mark.parametrize("request_bytes, answer, request_frames", [
    (b"\x22\xF1\x90", b"\x62\xF1\x90" + SLAVE_ID,
     [b"\x02\x03\x22\xF1\x90\xFF\xFF\xFF"]),
    (b"\x3E\x00", b"\x7E\x00", [b"\x02\x02\x3E\x00\xFF\xFF\xFF\xFF"]),
    # Ten bytes: a first frame with the 12-bit length, then consecutive frame 1.
    (b"\x2E\xF1\x90ABCDEFG", b"\x6E\xF1\x90ABCDEFG",
     [b"\x02\x10\x0A\x2E\xF1\x90AB", b"\x02\x21CDEFG\xFF"]),
])
def test_requests_get_the_nodes_answer(sim, node, request_bytes, answer, request_frames):
    assert node.request(request_bytes) == answer
    records = lin_records(sim)
    sent = [data for kind, ident, data in records if kind == LIN_WRITE]
    assert sent == request_frames
    assert {ident for kind, ident, _ in records if kind == LIN_WRITE} == {0x3C}
    assert {ident for kind, ident, _ in records if kind == LIN_READ} == {0x3D}
    # The exchanged frames are kept for the application, the request's first.
    kept = node.frames()
    assert kept and kept[0].id == 0x3C and kept[0].data == request_frames[0]


@pytest.mark.parametrize("nad, lin_master, code", [
    (0x05, True, -101),   # nobody has that address: polls never bring an answer
    (0x02, False, -99),   # a slave channel does not echo the master's request frame
])
def test_diagnostic_failures_raise_with_their_code(sim, nad, lin_master, code):
    veltrix.scan()
    with LinChannel(ADAPTER, 1, master=lin_master) as lin:
        with pytest.raises(veltrix.LinUdsError) as info:
            LinUdsClient(ADAPTER, 1, nad, lin=lin).request(b"\x3E\x00", timeout=0.3)
    assert info.value.code == code


# ---- CAN schedules -----------------------------------------------------------------

def wait_for(port, ident, seconds=10.0):
    """The first frame with `ident` the port receives (None if none came)."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        for f in port.receive():
            if f.id == ident:
                return f
        time.sleep(0.02)
    return None


def test_a_classic_table_runs_on_the_adapter_and_is_heard_on_the_other_port(sim):
    veltrix.scan()
    with CanChannel(ADAPTER, 0, 500000, receive=False), \
            CanChannel(ADAPTER, 1, 500000) as listener:
        sim.clear(ADAPTER)
        with CanSchedule(ADAPTER, 0) as sch:
            sch.load([ScheduleTable([(CanFrame(0x123, b"\x01\x02"), 10)], params=b"\x07\x08")])
            sch.start(0, 1, 2)
            heard = wait_for(listener, 0x123)
        assert heard is not None and heard.data == b"\x01\x02"
    # Port, table count, frame counts, parameter pairs, then the frames whose time field
    # carries the timing value.
    assert sim.payloads(ADAPTER, SCH_LOAD) == [
        b"\x00\x01\x01\x07\x08" + struct.pack("<IIBBB8sB", 0x123, 10, 0, 0, 2, b"\x01\x02", 0)]
    assert sim.payloads(ADAPTER, SCH_START) == [b"\x00\x00\x01\x02"]
    assert sim.payloads(ADAPTER, SCH_STOP) == [b"\x00"]  # stopped on leaving the block


def test_a_set_too_long_for_one_command_goes_to_the_schedule_flash(sim):
    veltrix.scan()
    tables = [ScheduleTable([(CanFrame(0x200 + t, bytes([t, i & 0xFF])), 1000)
                             for i in range(255)]) for t in range(3)]
    with CanChannel(ADAPTER, 1, 500000, receive=False), \
            CanChannel(ADAPTER, 0, 500000) as listener:
        sim.clear(ADAPTER)
        with CanSchedule(ADAPTER, 1) as sch:
            sch.load(tables)  # 765 frames: 15311 bytes as a command
            assert sim.payloads(ADAPTER, SCH_LOAD) == []
            sch.start(2)
            heard = wait_for(listener, 0x202)
    assert heard is not None and heard.data == b"\x02\x00"


def test_a_can_fd_table_goes_out_as_frame_elements(sim):
    veltrix.scan()
    with CanFdChannel(FD_ADAPTER, 0, 500000, 2000000, receive=False), \
            CanFdChannel(FD_ADAPTER, 1, 500000, 2000000) as listener:
        sim.clear(FD_ADAPTER)
        with CanSchedule(FD_ADAPTER, 0) as sch:
            sch.load([ScheduleTable([(CanFdFrame(0x456, bytes(range(12)), brs=True), 5)])])
            sch.start(0)
            heard = wait_for(listener, 0x456)
    assert heard is not None and heard.data == bytes(range(12)) and heard.fd
    [load] = sim.payloads(FD_ADAPTER, FD_SCH_LOAD)
    assert load[:5] == b"\x00\x01\x01\x00\x00" and load.endswith(bytes(range(12)))


def test_a_start_the_adapter_refuses_raises(sim):
    veltrix.scan()
    with CanSchedule(ADAPTER, 0) as sch:
        sch.load([ScheduleTable([(CanFrame(0x1, b""), 100)])])
        with pytest.raises(veltrix.CanError) as info:
            sch.start(5)  # there is no table 5
    assert info.value.code == -4 and info.value.function == "CAN_StartSchedule"


# ---- Relay -------------------------------------------------------------------------

def test_relay_mode_and_rules_round_trip(sim):
    veltrix.scan()
    sim.clear(ADAPTER)
    set_relay(ADAPTER, 3)
    assert sim.payloads(ADAPTER, RELAY) == [b"\x03"]
    assert relay_rules(ADAPTER) is None  # nothing stored yet
    rules = RelayRules(tuple(range(100, 111)), [bytes([i]) * 168 for i in (1, 2, 3)])
    store_relay_rules(ADAPTER, rules)
    assert relay_rules(ADAPTER) == rules
    store_relay_rules(ADAPTER, RelayRules())
    assert relay_rules(ADAPTER) is None  # a set without rules reads as no set


# ---- An adapter that goes away -----------------------------------------------------

@pytest.mark.parametrize("family, code, make, use", [
    (veltrix.LinUdsError, -98, lambda: LinUdsClient(UNPLUG, 0, nad=2),
     lambda c: c.request(b"\x3E\x00", timeout=0.3)),
    (veltrix.CanError, -2, lambda: CanSchedule(UNPLUG, 0), lambda c: c.start(0)),
])
def test_calls_on_an_unplugged_adapter_raise(sim, family, code, make, use):
    veltrix.scan()
    user = make()
    sim.unplug(UNPLUG)
    try:
        with pytest.raises(family) as info:
            use(user)
        assert info.value.code == code
    finally:
        user.close()
        sim.replug(UNPLUG)
