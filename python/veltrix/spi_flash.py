"""SPI NOR flash on an SPI channel: identification, reads, page programming and erases,
driven by the chip's table of command bytes."""

import ctypes

from . import records
from .errors import check
from .serial_bus import _buffer, _Channel, SPI_CHANNELS

SECTOR = 4096
MAX_TRANSFER = 16 * 1024 * 1024 - 64

# Positions of the command table and the bytes most 25-series chips use.
COMMANDS = {
    "write_enable": (0, 0x06), "write_disable": (1, 0x04), "read": (2, 0x03),
    "fast_read": (3, 0x0B), "page_program": (4, 0x02), "sector_erase": (5, 0x20),
    "block_erase": (6, 0xD8), "chip_erase": (7, 0xC7), "read_id": (8, 0x9F),
    "read_status": (13, 0x05), "write_status": (14, 0x01),
}


class SpiFlash(_Channel):
    """A NOR flash on SPI channel `index` at `clock_hz`. `commands` overrides entries of
    COMMANDS by name; `id_length` is the number of ID bytes the chip answers with;
    `param64` (8 bytes) and `param32` (4 bytes) describe the chip to the adapter's
    firmware and are passed on as they are. Failures raise SpiError (-6: the flash
    stayed busy past the time-out)."""

    channels = SPI_CHANNELS

    def __init__(self, adapter, index, clock_hz=10000000, commands=None, id_length=3,
                 param64=bytes(8), param32=bytes(4)):
        config = records.SPI_FLASH_CONFIG()
        table = {name: code for name, (_, code) in COMMANDS.items()}
        for name, code in (commands or {}).items():
            if name not in COMMANDS:
                raise ValueError(f"unknown flash command {name!r}")
            table[name] = code
        for name, code in table.items():
            if not 0 <= code <= 0xFF:
                raise ValueError(f"flash command {name} 0x{code:X} is not a byte")
            config.Cmd[COMMANDS[name][0]] = code
        if not 1 <= id_length <= 255:
            raise ValueError(f"id_length {id_length} is not 1..255")
        config.IDLength = id_length
        for field, value, size in (("Param64", param64, 8), ("Param32", param32, 4)):
            value = bytes(value)
            if len(value) != size:
                raise ValueError(f"{field.lower()} must be {size} bytes, not {len(value)}")
            ctypes.memmove(getattr(config, field), value, size)
        super().__init__(adapter, index)
        self.id_length = id_length
        try:
            self._call("SPI_FlashInit", int(clock_hz), ctypes.byref(config))
        except BaseException:
            self.close()
            raise

    def _call(self, name, *args):
        return check("SPI", name, getattr(self._lib, name)(self.adapter.handle, self.index,
                                                           *args))

    @staticmethod
    def _span(address, length):
        if not 0 <= address <= 0xFFFFFFFF:
            raise ValueError(f"address 0x{address:X} does not fit 32 bits")
        if not 0 <= length <= MAX_TRANSFER:
            raise ValueError(f"length {length} is out of range 0..{MAX_TRANSFER}")

    def read_id(self):
        buf = (ctypes.c_ubyte * self.id_length)()
        self._call("SPI_FlashReadID", buf)
        return bytes(buf)

    def read(self, address, length, fast=False):
        self._span(address, length)
        buf = (ctypes.c_ubyte * max(1, length))()
        self._call("SPI_FlashReadFast" if fast else "SPI_FlashRead", address, buf, length)
        return bytes(buf[:length])

    def write(self, address, data):
        """Programs `data` at `address` (erased bytes only turn bits from 1 to 0)."""
        buf, n = _buffer(data)
        self._span(address, n)
        self._call("SPI_FlashWrite", address, buf, n)

    def erase_sector(self, address, count=1, timeout_ms=3000):
        """Erases `count` 4 KiB sectors from `address`."""
        self._span(address, 0)
        if not 1 <= count <= 0x7FFFFFFF:
            raise ValueError(f"sector count {count} is out of range")
        self._call("SPI_FlashEraseSector", address, count, int(timeout_ms))

    def erase_chip(self, timeout_ms=60000):
        self._call("SPI_FlashEraseChip", int(timeout_ms))

    def erase(self, address, command, address_bytes=3, timeout_ms=3000):
        """Any erase the chip offers: `command` followed by `address_bytes` (0..4) bytes of
        the address, most significant first, between the write-enable and busy waits."""
        self._span(address, 0)
        if not 0 <= address_bytes <= 4 or not 0 <= command <= 0xFF:
            raise ValueError("address_bytes must be 0..4 and command a byte")
        self._call("SPI_FlashErase", address, address_bytes, command, int(timeout_ms))
