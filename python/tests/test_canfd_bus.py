"""The python-can interface with fd=True on ports 0 and 1 of one CAN FD virtual adapter."""

import struct

import pytest

can = pytest.importorskip("can")

from conftest import ADAPTER  # noqa: E402

FD_ADAPTER = 0x53000001
FD_SEND = 0x4002


def fd_msg(id, data=b"", ext=False, fd=True, brs=False, esi=False, remote=False):
    return can.Message(arbitration_id=id, data=data, is_extended_id=ext, is_fd=fd,
                       bitrate_switch=brs, error_state_indicator=esi, is_remote_frame=remote)


def element(id, data, ext=False, fd=True, brs=False, esi=False, remote=False):
    """The adapter's frame element as the send command carries it (frame 0 of a batch)."""
    word = ((id & 0x3FFFF) << 11) | (id >> 18) if ext else id
    codes = {12: 9, 16: 10, 20: 11, 24: 12, 32: 13, 48: 14, 64: 15}
    b4 = codes.get(len(data), len(data)) | (0x10 if ext else 0) | (0x20 if remote else 0) \
        | (0x40 if fd else 0) | (0x80 if brs else 0)
    return struct.pack("<IBBBBI", word, b4, 1 if esi else 0, 0, 0, 0) + data


@pytest.fixture
def fd_pair(sim):
    buses = [can.Bus(interface="veltrix", channel=f"{FD_ADAPTER:08X}:{p}", bitrate=500000,
                     fd=True, data_bitrate=2000000) for p in (0, 1)]
    yield buses
    for b in buses:
        b.shutdown()


def frame_of(m):
    return (m.arbitration_id, bytes(m.data), m.is_extended_id, m.is_fd, m.bitrate_switch,
            m.error_state_indicator, m.is_remote_frame)


@pytest.mark.parametrize("m", [
    fd_msg(0x123, bytes(range(64)), brs=True),
    fd_msg(0x7FF, b"\xaa" * 12, brs=True, esi=True),
    fd_msg(0x18DAF110, bytes(range(20, 68)), ext=True, brs=True),
    fd_msg(0x100, b"\x01\x02\x03", brs=False),  # FD format, no switch
    fd_msg(0x101, b"\x01\x02\x03\x04\x05\x06\x07\x08", brs=True),
    fd_msg(0x321, b"\x09\x08", fd=False),  # classic format on an FD port
    fd_msg(0x1ABCDEF0, b"", ext=True, fd=False),
])
def test_fd_frames_cross_the_cable_and_go_out_as_given(sim, fd_pair, m):
    tx, rx = fd_pair
    sim.clear(FD_ADAPTER)
    tx.send(m, timeout=1.0)
    got = rx.recv(2.0)
    assert got is not None
    assert frame_of(got) == frame_of(m)
    assert got.is_rx and got.channel == f"{FD_ADAPTER:08X}:1"
    assert rx.recv(0.05) is None
    payload = struct.pack("<10xBB", 0, 1) + element(
        m.arbitration_id, bytes(m.data), m.is_extended_id, m.is_fd, m.bitrate_switch,
        m.error_state_indicator)
    assert sim.payloads(FD_ADAPTER, FD_SEND) == [payload]


def test_long_frames_always_switch_the_bit_rate(sim, fd_pair):
    # The adapter's send adds the switch to every frame above 8 bytes.
    tx, rx = fd_pair
    tx.send(fd_msg(0x55, b"\x33" * 16, brs=False))
    got = rx.recv(2.0)
    assert frame_of(got) == (0x55, b"\x33" * 16, False, True, True, False, False)


def test_frame_times_keep_their_order_on_the_epoch_clock(sim, fd_pair):
    import time
    tx, rx = fd_pair
    start = time.time()
    for i in range(3):
        tx.send(fd_msg(0x200 + i, bytes([i]) * 12, brs=True))
    got = [rx.recv(2.0) for _ in range(3)]
    assert [m.arbitration_id for m in got] == [0x200, 0x201, 0x202]
    assert got[0].timestamp <= got[1].timestamp <= got[2].timestamp
    assert abs(got[0].timestamp - start) < 60  # epoch seconds, not adapter ticks


def test_filters_on_an_fd_port_are_applied_on_the_host(sim):
    rx = can.Bus(interface="veltrix", channel=f"{FD_ADAPTER:08X}:1", bitrate=500000, fd=True,
                 data_bitrate=2000000,
                 can_filters=[{"can_id": 0x120, "can_mask": 0x7F0, "extended": False}])
    tx = can.Bus(interface="veltrix", channel=f"{FD_ADAPTER:08X}:0", bitrate=500000, fd=True,
                 data_bitrate=2000000)
    try:
        for id in (0x100, 0x125, 0x130, 0x12F):
            tx.send(fd_msg(id, b"\x01" * 12, brs=True))
        got = []
        while (m := rx.recv(0.5)) is not None:
            got.append(m.arbitration_id)
        assert got == [0x125, 0x12F]
    finally:
        tx.shutdown()
        rx.shutdown()


@pytest.mark.parametrize("m", [
    fd_msg(0x800, b"\x01"),                      # 12 bits in a standard identifier
    fd_msg(0x10, b"\x00" * 13),                  # no CAN FD length
    fd_msg(0x10, b"\x00" * 9, fd=False),         # nine bytes in a classic frame
    fd_msg(0x10, b"\x00", fd=False, brs=True),   # switch on a classic frame
])
def test_impossible_fd_frames_raise_before_anything_is_sent(sim, fd_pair, m):
    tx, _ = fd_pair
    sim.clear(FD_ADAPTER)
    with pytest.raises(can.CanOperationError):
        tx.send(m)
    assert sim.payloads(FD_ADAPTER, FD_SEND) == []


@pytest.mark.parametrize("kwargs, code", [
    (dict(channel=f"{ADAPTER:08X}:0", fd=True, data_bitrate=2000000), None),  # classic model
    (dict(channel=f"{FD_ADAPTER:08X}:0", fd=True, data_bitrate=2500000), -4),  # not in table
    (dict(channel=f"{FD_ADAPTER:08X}:2", fd=True, data_bitrate=2000000), None),  # no port 2
])
def test_fd_buses_that_cannot_open_say_so(sim, kwargs, code):
    with pytest.raises(can.CanInitializationError) as info:
        can.Bus(interface="veltrix", bitrate=500000, **kwargs)
    assert info.value.error_code == code


def test_an_fd_bus_reports_its_state_and_lists_as_fd(sim, fd_pair):
    assert fd_pair[0].state == can.BusState.ACTIVE
    found = {c["channel"]: c for c in can.detect_available_configs("veltrix")}
    assert found[f"{FD_ADAPTER:08X}:1"].get("fd") is True
    assert "fd" not in found[f"{ADAPTER:08X}:0"]
