"""The python-can interface on ports 0 and 1 of one virtual adapter, joined by its cable."""

import statistics
import struct
import threading
import time

import pytest

can = pytest.importorskip("can")

from conftest import ADAPTER, UNPLUG  # noqa: E402

SEND, FILTER, STATUS = 0x0C02, 0x0C01, 0x0C04


def msg(id, data=b"", ext=False, remote=False, dlc=None):
    return can.Message(arbitration_id=id, data=data, is_extended_id=ext, is_remote_frame=remote,
                       dlc=len(data) if dlc is None else dlc)


def same_frame(a, b):
    return (a.arbitration_id, bytes(a.data), a.is_extended_id, a.is_remote_frame, a.dlc) == \
        (b.arbitration_id, bytes(b.data), b.is_extended_id, b.is_remote_frame, b.dlc)


def test_the_interface_is_found_through_its_entry_point():
    assert "veltrix" in can.interfaces.VALID_INTERFACES


def test_detect_available_configs_lists_both_ports_of_every_adapter(sim):
    found = {c["channel"] for c in can.detect_available_configs("veltrix")}
    assert {f"{ADAPTER:08X}:0", f"{ADAPTER:08X}:1", f"{UNPLUG:08X}:0"} <= found


@pytest.mark.parametrize("m", [
    msg(0x123, b"\x01\x02\x03"),
    msg(0x000),
    msg(0x7FF, b"\x11" * 8),
    msg(0x18DAF110, b"\xde\xad\xbe\xef", ext=True),
    msg(0x321, remote=True, dlc=2),
])
def test_frames_cross_the_cable(sim, can_pair, m):
    tx, rx = can_pair
    sim.clear(ADAPTER)
    before = time.time()
    tx.send(m)
    got = rx.recv(2.0)
    assert got is not None and same_frame(got, m)
    assert got.is_rx and got.channel == f"{ADAPTER:08X}:1"
    # Epoch seconds: between this test's start and now, give or take the anchor's error.
    assert before - 1.0 < got.timestamp < time.time() + 1.0
    # The adapter got exactly one batch for port 0 holding this one record; the time
    # fields are the library's stamp and are left out.
    [payload] = sim.payloads(ADAPTER, SEND)
    assert len(payload) == 21 and payload[0] == 0
    rid, _, flags, ext, dlc, data, _ = struct.unpack("<IIBBB8sB", payload[1:])
    assert (rid, flags, ext, dlc) == (m.arbitration_id, int(m.is_remote_frame),
                                      int(m.is_extended_id), m.dlc)
    assert data == bytes(m.data).ljust(8, b"\0")


@pytest.mark.parametrize("own", [True, False])
def test_own_messages_come_back_only_when_asked_for(sim, own):
    with can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:0", bitrate=500000,
                 receive_own_messages=own) as tx, \
            can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:1", bitrate=500000) as rx:
        tx.send(msg(0x42, b"\x01"))
        echo = tx.recv(0.3)
        assert same_frame(rx.recv(1.0), msg(0x42, b"\x01"))
    if own:
        assert echo is not None and same_frame(echo, msg(0x42, b"\x01")) and not echo.is_rx
    else:
        assert echo is None


def test_a_port_serves_one_bus_at_a_time(can_pair):
    with pytest.raises(can.CanInitializationError, match="already in use"):
        can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:1", bitrate=500000)
    can_pair[1].shutdown()
    can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:1", bitrate=500000).shutdown()


def test_receive_times_keep_the_adapters_order(can_pair):
    tx, rx = can_pair
    for i in range(5):
        tx.send(msg(0x100 + i, bytes([i])))
    got = [rx.recv(2.0) for _ in range(5)]
    assert [g.arbitration_id for g in got] == [0x100 + i for i in range(5)]
    assert all(a.timestamp <= b.timestamp for a, b in zip(got, got[1:]))


@pytest.mark.parametrize("frame_time, seconds", [
    (1000, 0.0), (1010, 0.001), (990, -0.001),          # a frame older than the anchor
    ((1 << 32) + 1000, 0.0), ((5 << 32) | 0xFFFFFFFF, -1001e-4),  # 40-bit frame times
])
def test_frame_times_are_placed_around_the_anchor(can_pair, frame_time, seconds):
    bus = can_pair[1]
    bus._time_base = (1000, 1700000000.0)
    assert bus._epoch(frame_time) == pytest.approx(1700000000.0 + seconds, abs=1e-9)


def bank_payload(port, bank, idh, idl, mh, ml):
    return struct.pack(">BBBBHHHHBB", port, bank + 14 * port, 0, 1, idh, idl, mh, ml, 0, 1)


@pytest.mark.parametrize("filters, wire, passing, blocked", [
    ([{"can_id": 0x120, "can_mask": 0x7F0, "extended": False}],
     [bank_payload(1, 0, 0x120 << 5, 0, 0x7F0 << 5, 4)],
     [msg(0x123, b"\x01")], [msg(0x133, b"\x02"), msg(0x123, b"\x03", ext=True)]),
    ([{"can_id": 0x18DAF110, "can_mask": 0x1FFFFFFF, "extended": True},
      {"can_id": 0x7DF, "can_mask": 0x7FF, "extended": False}],
     [bank_payload(1, 0, 0xC6D7, 0x8884 | 0, 0xFFFF, 0xFFFC),
      bank_payload(1, 1, 0x7DF << 5, 0, 0x7FF << 5, 4)],
     [msg(0x18DAF110, b"\x04", ext=True), msg(0x7DF, b"\x05")],
     [msg(0x18DAF111, b"\x06", ext=True), msg(0x7DF, b"\x07", ext=True)]),
    # No identifier kind given: the banks cannot say "either", so the host filters.
    ([{"can_id": 0x456, "can_mask": 0x7FF}], [],
     [msg(0x456, b"\x08"), msg(0x456, b"\x09", ext=True)], [msg(0x457, b"\x0a")]),
])
def test_filters(sim, can_pair, filters, wire, passing, blocked):
    tx, rx = can_pair
    sim.clear(ADAPTER)
    rx.set_filters(filters)
    assert sim.payloads(ADAPTER, FILTER) == wire
    for m in blocked + passing:
        tx.send(m)
    got = []
    while (g := rx.recv(0.5)) is not None:
        got.append(g)
    assert len(got) == len(passing)
    assert all(same_frame(g, p) for g, p in zip(got, passing))


def test_clearing_filters_switches_the_used_banks_off(sim, can_pair):
    _, rx = can_pair
    rx.set_filters([{"can_id": 1, "can_mask": 0x7FF, "extended": False},
                    {"can_id": 2, "can_mask": 0x7FF, "extended": False}])
    sim.clear(ADAPTER)
    rx.set_filters(None)
    assert [p[1] for p in sim.payloads(ADAPTER, FILTER)] == [14, 15]
    assert all(p[-1] == 0 for p in sim.payloads(ADAPTER, FILTER))


def test_notifier_feeds_a_buffered_reader(can_pair):
    tx, rx = can_pair
    reader = can.BufferedReader()
    notifier = can.Notifier(rx, [reader], timeout=0.05)
    try:
        sent = [msg(0x200 + i, bytes([i, i])) for i in range(20)]
        for m in sent:
            tx.send(m)
        got = []
        deadline = time.monotonic() + 5
        while len(got) < 20 and time.monotonic() < deadline:
            m = reader.get_message(0.2)
            if m is not None:
                got.append(m)
    finally:
        notifier.stop()
    assert len(got) == 20 and all(same_frame(g, s) for g, s in zip(got, sent))


@pytest.mark.parametrize("suffix, time_tolerance", [(".log", 1e-6), (".asc", 1e-4),
                                                    (".blf", 1e-3)])
def test_a_logger_file_reads_back_identically(tmp_path, can_pair, suffix, time_tolerance):
    tx, rx = can_pair
    sent = [msg(0x100, b"\x01"), msg(0x1FFFFFFF, b"\x01\x02\x03\x04\x05\x06\x07\x08", ext=True),
            msg(0x7FF), msg(0x55, remote=True)]  # candump text has no length for remote frames
    for m in sent:
        tx.send(m)
    received = [rx.recv(2.0) for _ in sent]
    assert None not in received
    path = str(tmp_path / f"trace{suffix}")
    with can.Logger(path) as log:
        for m in received:
            log(m)
    back = list(can.LogReader(path))
    assert len(back) == len(received)
    assert all(same_frame(b, r) for b, r in zip(back, received))
    # Files that store relative times keep the gaps between frames.
    gaps = [b.timestamp - back[0].timestamp for b in back]
    want = [r.timestamp - received[0].timestamp for r in received]
    assert gaps == pytest.approx(want, abs=time_tolerance)


def test_printer_writes_each_frame(tmp_path, can_pair):
    tx, rx = can_pair
    tx.send(msg(0x321, b"\xca\xfe"))
    path = tmp_path / "out.txt"
    with can.Printer(str(path)) as printer:
        printer(rx.recv(2.0))
    assert "0321" in path.read_text() and "ca fe" in path.read_text()


def test_periodic_send_every_10ms_arrives_in_full(can_pair):
    tx, rx = can_pair
    task = tx.send_periodic(msg(0x10, b"\x42"), 0.010, duration=0.5)
    got = []
    while (m := rx.recv(1.0)) is not None:
        got.append(m)
    task.stop()
    assert len(got) >= 10 and all(same_frame(g, msg(0x10, b"\x42")) for g in got)
    gaps = [b.timestamp - a.timestamp for a, b in zip(got, got[1:])]
    median = statistics.median(gaps)
    # The software task waits its period after each send, so the adapter's times can only
    # be stretched by a busy machine, never squeezed: the median gap is a lower bound.
    print(f"periodic 10 ms: {len(got)} frames, median gap {median * 1e3:.2f} ms")
    assert median >= 0.009


def test_shutdown_ends_a_thread_that_is_still_reading(can_pair):
    tx, rx = can_pair
    outcome = []

    def reader():
        try:
            while True:
                rx.recv(0.05)
        except can.CanOperationError as e:
            outcome.append(e)

    t = threading.Thread(target=reader)
    t.start()
    time.sleep(0.2)
    rx.shutdown()
    t.join(5)
    assert not t.is_alive() and len(outcome) == 1
    with pytest.raises(can.CanOperationError):
        rx.send(msg(1))


def test_state_follows_the_error_counters(can_pair):
    tx, rx = can_pair
    assert tx.state == can.BusState.ACTIVE
    rx.shutdown()  # nobody left to acknowledge
    for i in range(16):
        tx.send(msg(0x80 + i))
    assert tx.state == can.BusState.PASSIVE


@pytest.mark.parametrize("kwargs, code", [
    (dict(channel=f"{ADAPTER:08X}:0", bitrate=123456), -4),
    (dict(channel=f"{ADAPTER:08X}:2", bitrate=500000), None),
    (dict(channel="nonsense", bitrate=500000), None),
    (dict(channel="5100ABCD:0", bitrate=500000), 0),
])
def test_bad_configuration_is_an_initialisation_error(sim, kwargs, code):
    with pytest.raises(can.CanInitializationError) as info:
        can.Bus(interface="veltrix", **kwargs)
    assert info.value.error_code == code


def test_an_unplugged_adapter_gives_errors_not_a_hang(sim):
    bus = can.Bus(interface="veltrix", channel=f"{UNPLUG:08X}:0", bitrate=500000)
    sim.unplug(UNPLUG)
    errors = []

    def use():
        # recv looks at the adapter after a second without frames.
        for action in (lambda: bus.send(msg(0x1, b"\x01")), lambda: bus.state,
                       lambda: bus.recv(3.0)):
            try:
                action()
            except can.CanOperationError as e:
                errors.append(e)
        bus.shutdown()

    t = threading.Thread(target=use)
    t.start()
    t.join(30)
    assert not t.is_alive(), "a call on the unplugged adapter hung"
    assert [e.error_code for e in errors] == [-2, -2, -2]
