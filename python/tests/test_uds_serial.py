"""UDS requests to the virtual diagnostic ECU, and I2C / SPI transfers to the parts on the
virtual adapter's buses, asserting what reached the adapter."""

import struct

import pytest

import veltrix
from veltrix.serial_bus import I2cChannel, SpiChannel
from veltrix.uds import UdsClient

from conftest import ADAPTER  # noqa: E402

CAN_SEND = 0x0C02
I2C_WRITE, SPI_WRITE, SPI_WRITE_READ = 0x701, 0x201, 0x204
VIN = b"VLTX0SIMULATED001"


@pytest.fixture
def ecu(sim):
    veltrix.scan()
    with UdsClient(ADAPTER, 0, 0x7E0, 0x7E8) as client:
        yield client


@pytest.mark.parametrize("request_bytes, answer", [
    (b"\x22\xF1\x90", b"\x62\xF1\x90" + VIN),      # multi-frame answer
    (b"\x22\x12\x34", b"\x7F\x22\x31"),             # negative response comes back as it is
    (b"\x31\x01\xFF\x00", b"\x71\x01\xFF\x00\x00"),  # response pending is waited through
    (b"\x3E\x00", b"\x7E\x00"),
])
def test_requests_get_the_ecus_answer(ecu, request_bytes, answer):
    assert ecu.request(request_bytes) == answer


def test_a_long_answer_is_read_whole_and_its_first_frame_is_exact(sim, ecu):
    sim.clear(ADAPTER)
    answer = ecu.request(b"\x22\x40\x95")
    assert len(answer) == 4095 and answer[:3] == b"\x62\x40\x95"
    # The request's single frame, padded, then our flow control: the classic send record
    # carries id, time, flags, ext, length and 8 data bytes.
    frames = [struct.unpack_from("<IIBBB8sB", p, at) for p in sim.payloads(ADAPTER, CAN_SEND)
              for at in range(1, len(p), 20)]
    assert (frames[0][0], frames[0][5]) == (0x7E0, b"\x03\x22\x40\x95\x55\x55\x55\x55")
    assert (frames[1][0], frames[1][5]) == (0x7E0, b"\x30\x00\x00\x55\x55\x55\x55\x55")


def test_an_answer_longer_than_the_room_raises_with_its_code(ecu):
    with pytest.raises(veltrix.UdsError) as info:
        ecu.request(b"\x22\x40\x95", max_length=100)
    assert info.value.code == -108 and info.value.function == "CAN_UDS_ResponseWithSize"
    assert ecu.request(b"\x22\xF1\x90") == b"\x62\xF1\x90" + VIN  # the port is still usable


def test_nobody_answering_times_out(sim):
    veltrix.scan()
    with UdsClient(ADAPTER, 0, 0x7E1, 0x7E9) as client:
        with pytest.raises(veltrix.UdsError) as info:
            client.request(b"\x22\xF1\x90", timeout=0.2)
    assert info.value.code == -101


@pytest.mark.parametrize("kwargs", [
    dict(request_id=0x800, response_id=0x7E8),
    dict(request_id=0x7E0, response_id=0x20000000, extended=True),
    dict(request_id=0x7E0, response_id=0x7E8, address=256),
])
def test_impossible_addressing_is_refused(kwargs):
    with pytest.raises(ValueError):
        UdsClient(ADAPTER, 0, **kwargs)


@pytest.fixture
def i2c(sim):
    veltrix.scan()
    with I2cChannel(ADAPTER, 0) as ch:
        yield ch


def test_the_scan_finds_the_eeprom_and_the_sensor(i2c):
    assert i2c.scan() == [0x48, 0x50]


def test_eeprom_bytes_round_trip_and_the_write_is_exact(sim, i2c):
    import time
    sim.clear(ADAPTER)
    i2c.write(0x50, b"\x01\x20" + b"hello")
    assert sim.payloads(ADAPTER, I2C_WRITE) == [
        struct.pack(">BHIB", 0, 0x50, 100, 0) + b"\x01\x20hello"]
    time.sleep(0.01)  # the part programs for 5 ms and ignores its address meanwhile
    assert i2c.write_read(0x50, b"\x01\x20", 5) == b"hello"
    i2c.write(0x50, b"\x01\x22")
    assert i2c.read(0x50, 3) == b"llo"


@pytest.mark.parametrize("call, code", [
    (lambda ch: ch.write(0x33, b"\x00"), 1),
    (lambda ch: ch.read(0x33, 2), 1),
])
def test_an_absent_part_raises_the_adapters_status(i2c, call, code):
    with pytest.raises(veltrix.I2cError) as info:
        call(i2c)
    assert info.value.code == code and "acknowledged" in info.value.meaning


@pytest.mark.parametrize("call", [
    lambda ch: ch.write(0x80, b""), lambda ch: ch.read(0x50, -1),
])
def test_bad_i2c_arguments_raise_before_anything_is_sent(sim, i2c, call):
    sim.clear(ADAPTER)
    with pytest.raises(ValueError):
        call(i2c)
    assert sim.commands(ADAPTER) == []


@pytest.fixture
def spi(sim):
    veltrix.scan()
    with SpiChannel(ADAPTER, 0, clock_hz=1000000) as ch:
        yield ch


def test_spi_writes_go_out_exactly(sim, spi):
    sim.clear(ADAPTER)
    data = bytearray(b"\x06")
    spi.write(data)
    spi.write_read(b"\x9F", 3, interval_us=7)
    assert sim.payloads(ADAPTER, SPI_WRITE) == [b"\x00\x06"]
    assert sim.payloads(ADAPTER, SPI_WRITE_READ) == [struct.pack(">BII", 0, 3, 7) + b"\x9F"]
    assert data == bytearray(b"\x06")


def test_the_flash_on_the_bus_answers_its_id_with_three_bytes(spi):
    first = spi.write_read(b"\x9F", 3)
    assert len(first) == 3 and first == spi.write_read(b"\x9F", 3)
    assert first != b"\x00\x00\x00"


@pytest.mark.parametrize("make", [
    lambda: SpiChannel(ADAPTER, 2), lambda: SpiChannel(ADAPTER, 0, mode=4),
    lambda: I2cChannel(ADAPTER, 12),
])
def test_channels_that_do_not_exist_are_refused(sim, make):
    veltrix.scan()
    with pytest.raises(ValueError):
        make()
