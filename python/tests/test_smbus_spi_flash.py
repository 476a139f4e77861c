"""SMBus to the virtual sensor (address 0x48), the NOR flash on the virtual SPI bus, and an
SPI channel as slave, asserting what reached the adapter."""

import struct

import pytest

import veltrix
from veltrix.smbus import SmbusChannel
from veltrix.spi_flash import COMMANDS, SpiFlash
from veltrix.spi_slave import SpiSlave

from conftest import ADAPTER, UNPLUG  # noqa: E402

SENSOR = 0x48
I2C_WRITE, I2C_WRITE_READ, SMB_BLOCK_WRITE = 0x701, 0x703, 0x707
FLASH_INIT, FLASH_WRITE, FLASH_READ, FLASH_FAST, FLASH_ERASE = 0x207, 0x209, 0x20A, 0x20C, 0x20B
SLAVE_INIT, SLAVE_WRITE, SLAVE_EXCHANGE = 0x200, 0x205, 0x222
SMB_TIMEOUT = 10  # ms the library gives every SMBus transfer


@pytest.fixture
def smbus(sim):
    veltrix.scan()
    with SmbusChannel(ADAPTER, 0) as ch:
        sim.clear(ADAPTER)
        yield ch


def smb_write(data, pec=0):
    return struct.pack(">BHIB", 0, SENSOR, SMB_TIMEOUT, pec) + data


# ---- SMBus -------------------------------------------------------------------------

@pytest.mark.parametrize("write, read, value, wire", [
    # Words travel high byte first, in both directions.
    (lambda s: s.write_word_data(SENSOR, 0x01, 0xBEEF),
     lambda s: s.read_word_data(SENSOR, 0x01), 0xBEEF, smb_write(b"\x01\xBE\xEF")),
    (lambda s: s.write_word_data(SENSOR, 0x02, 0x1234, pec=True),
     lambda s: s.read_word_data(SENSOR, 0x02, pec=True), 0x1234,
     smb_write(b"\x02\x12\x34", pec=1)),
    (lambda s: s.write_byte_data(SENSOR, 0x10, 0xA5),
     lambda s: s.read_byte_data(SENSOR, 0x10), 0xA5, smb_write(b"\x10\xA5")),
])
def test_smbus_registers_round_trip(sim, smbus, write, read, value, wire):
    write(smbus)
    assert sim.payloads(ADAPTER, I2C_WRITE) == [wire]
    assert read(smbus) == value


def test_a_word_read_asks_for_two_bytes_after_the_command(sim, smbus):
    assert smbus.read_word_data(SENSOR, 0x00, pec=True) == 0x1234
    assert sim.payloads(ADAPTER, I2C_WRITE_READ) == [
        struct.pack(">BHIIB", 0, SENSOR, SMB_TIMEOUT, 2, 1) + b"\x00"]


def test_smbus_blocks_and_process_calls(sim, smbus):
    assert smbus.block_read(SENSOR, 0x20) == b"\x01\x02\x03\x04\x05"
    smbus.block_write(SENSOR, 0x21, bytearray(b"xyz"))
    assert sim.payloads(ADAPTER, SMB_BLOCK_WRITE) == [
        struct.pack(">BHIBB", 0, SENSOR, SMB_TIMEOUT, 0x21, 0) + b"xyz"]
    assert smbus.block_read(SENSOR, 0x21) == b"xyz"
    # The sensor answers a process call with the word's bytes inverted, a block process
    # call with the block reversed.
    assert smbus.process_call(SENSOR, 0x80, 0x1234) == 0xEDCB
    assert smbus.block_process_call(SENSOR, 0x81, b"abc") == b"cba"
    smbus.quick(SENSOR)


@pytest.mark.parametrize("call", [
    lambda s: s.read_byte(0x33), lambda s: s.write_byte(0x33, 1), lambda s: s.quick(0x33),
    lambda s: s.block_read(0x33, 0x20),
])
def test_an_absent_smbus_device_raises_the_adapters_status(smbus, call):
    with pytest.raises(veltrix.SmbusError) as info:
        call(smbus)
    assert info.value.code == 1 and "acknowledged" in info.value.meaning


# ---- SPI flash ---------------------------------------------------------------------

def test_the_flash_set_up_carries_the_command_table(sim):
    veltrix.scan()
    sim.clear(ADAPTER)
    with SpiFlash(ADAPTER, 0, clock_hz=10000000, param64=bytes(range(8)),
                  param32=b"\xAA\xBB\xCC\xDD") as flash:
        assert flash.read_id() == b"\xA5\x40\x14"
    table = bytearray(31)
    for position, code in COMMANDS.values():
        table[position] = code
    assert table[:9] == b"\x06\x04\x03\x0B\x02\x20\xD8\xC7\x9F"
    assert sim.payloads(ADAPTER, FLASH_INIT) == [
        b"\x00" + struct.pack(">I", 10000000) + bytes(table) + b"\x03" + bytes(range(8))
        + b"\xAA\xBB\xCC\xDD"]


@pytest.mark.parametrize("address, data", [
    (0x1000, b"hello"), (0x20FE, bytes(range(256)) * 2),  # across page boundaries
])
def test_flash_bytes_round_trip_after_an_erase(sim, address, data):
    veltrix.scan()
    with SpiFlash(ADAPTER, 0) as flash:
        flash.erase_sector(address & ~0xFFF, count=2)
        assert flash.read(address, len(data)) == b"\xFF" * len(data)
        sim.clear(ADAPTER)
        flash.write(address, data)
        assert flash.read(address, len(data)) == data
        assert flash.read(address, len(data), fast=True) == data
    assert sim.payloads(ADAPTER, FLASH_WRITE) == [b"\x00" + struct.pack(">I", address) + data]
    assert sim.payloads(ADAPTER, FLASH_READ) == [b"\x00" + struct.pack(">II", address,
                                                                       len(data))]
    assert sim.payloads(ADAPTER, FLASH_FAST) == sim.payloads(ADAPTER, FLASH_READ)


def test_erase_sector_names_its_start_and_count(sim):
    veltrix.scan()
    with SpiFlash(ADAPTER, 0) as flash:
        sim.clear(ADAPTER)
        flash.erase_sector(0x3000, count=3)
    assert sim.payloads(ADAPTER, FLASH_ERASE) == [b"\x00" + struct.pack(">II", 0x3000, 3)]


def test_chip_and_command_erases_leave_the_flash_blank(sim):
    veltrix.scan()
    with SpiFlash(ADAPTER, 1) as flash:
        flash.write(0x10, b"\x00\x00")
        flash.erase(0x0, command=0x20, address_bytes=3)
        assert flash.read(0x10, 2) == b"\xFF\xFF"
        flash.write(0x10, b"\x12")
        flash.erase_chip()
        assert flash.read(0x10, 1) == b"\xFF"


# ---- SPI slave ---------------------------------------------------------------------

def test_the_slave_offers_bytes_and_reports_what_it_collected(sim):
    veltrix.scan()
    sim.clear(ADAPTER)
    with SpiSlave(ADAPTER, 1, mode=3) as slave:
        assert slave.write(b"abc", timeout_ms=50) == 3
        # Nobody clocks the bus: the master takes what was offered, nothing comes in.
        assert slave.exchange(b"xy", 16, timeout_ms=50) == (2, b"")
        assert slave.read_buffer() == b""
        slave.start_collecting()
        assert slave.take() == b""
        slave.stop_collecting()
    assert sim.payloads(ADAPTER, SLAVE_INIT) == [b"\x01\x00\x00\x01\x01\x00\x00" + bytes(4)]
    assert sim.payloads(ADAPTER, SLAVE_WRITE) == [b"\x01" + struct.pack(">I", 50) + b"abc"]
    assert sim.payloads(ADAPTER, SLAVE_EXCHANGE) == [b"\x01" + struct.pack(">II", 50, 16)
                                                     + b"xy"]


# ---- An adapter that goes away -----------------------------------------------------

@pytest.mark.parametrize("family, make, use", [
    (veltrix.SmbusError, lambda: SmbusChannel(UNPLUG, 0), lambda c: c.read_byte(SENSOR)),
    (veltrix.SpiError, lambda: SpiFlash(UNPLUG, 0), lambda c: c.read(0, 4)),
    (veltrix.SpiError, lambda: SpiSlave(UNPLUG, 0), lambda c: c.write(b"x")),
])
def test_calls_on_an_unplugged_adapter_raise(sim, family, make, use):
    veltrix.scan()
    channel = make()
    sim.unplug(UNPLUG)
    try:
        with pytest.raises(family) as info:
            use(channel)
        assert info.value.code == -2
    finally:
        channel.close()
        sim.replug(UNPLUG)
