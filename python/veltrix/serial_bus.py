"""I2C and SPI master channels: bytes in, bytes out, one adapter command per transfer."""

import ctypes

from . import _library, records
from .device import Adapter
from .errors import check, check_status
from ._closing import Closing

I2C_CHANNELS = 12
SPI_CHANNELS = 2
I2C_SCAN_MAX = 1024
I2C_PULLUP = 0x01


def _buffer(data):
    """A C copy of `data` (never the caller's object), at least one byte long."""
    data = bytes(data)
    return (ctypes.c_ubyte * max(1, len(data))).from_buffer_copy(data.ljust(1, b"\0")), len(data)


class _Channel(Closing):
    """A numbered channel of one adapter, holding the adapter open while it lives."""

    channels = 0

    def __init__(self, adapter, index):
        if not 0 <= index < self.channels:
            raise ValueError(f"channel {index} does not exist (0 to {self.channels - 1})")
        self._lib = _library.load()
        self.adapter = Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)
        self.index = index
        self.adapter.open()

    def close(self):
        self.adapter.close()


class I2cChannel(_Channel):
    """An I2C channel as bus master. Addresses are 7-bit (or 10-bit with ten_bit), without
    the R/W bit. A transfer the bus refused raises I2cError with the adapter's status as
    its code (1: address not acknowledged, 2: data refused, 4: time-out)."""

    channels = I2C_CHANNELS

    def __init__(self, adapter, index, clock_hz=100000, pullup=False, ten_bit=False,
                 timeout_ms=100):
        super().__init__(adapter, index)
        self.ten_bit = ten_bit
        self.timeout_ms = timeout_ms
        config = records.IIC_CONFIG(ClockSpeedHz=clock_hz, Master=1,
                                    AddrBits=10 if ten_bit else 7)
        config.Options[0] = I2C_PULLUP if pullup else 0
        try:
            check("I2C", "IIC_Init", self._lib.IIC_Init(self.adapter.handle, index,
                                                        ctypes.byref(config)))
        except BaseException:
            self.close()
            raise

    def _address(self, address):
        if not 0 <= address <= (0x3FF if self.ten_bit else 0x7F):
            raise ValueError(f"address 0x{address:X} does not fit "
                             f"{'10' if self.ten_bit else '7'} bits")
        return address

    def write(self, address, data):
        buf, n = _buffer(data)
        check_status("I2C", "IIC_WriteBytes", self._lib.IIC_WriteBytes(
            self.adapter.handle, self.index, self._address(address), buf, n, self.timeout_ms))

    def read(self, address, length):
        if length < 0:
            raise ValueError("length must not be negative")
        buf = (ctypes.c_ubyte * max(1, length))()
        check_status("I2C", "IIC_ReadBytes", self._lib.IIC_ReadBytes(
            self.adapter.handle, self.index, self._address(address), buf, length,
            self.timeout_ms))
        return bytes(buf[:length])

    def write_read(self, address, data, length):
        """Writes `data`, then reads `length` bytes after a repeated start."""
        if length < 0:
            raise ValueError("length must not be negative")
        wbuf, n = _buffer(data)
        rbuf = (ctypes.c_ubyte * max(1, length))()
        check_status("I2C", "IIC_WriteReadBytes", self._lib.IIC_WriteReadBytes(
            self.adapter.handle, self.index, self._address(address), wbuf, n, rbuf, length,
            self.timeout_ms))
        return bytes(rbuf[:length])

    def scan(self):
        """The addresses that acknowledged an empty write, ascending."""
        found = (ctypes.c_short * I2C_SCAN_MAX)()
        n = check("I2C", "IIC_GetSlaveAddr",
                  self._lib.IIC_GetSlaveAddr(self.adapter.handle, self.index, found))
        return [found[i] for i in range(min(n, I2C_SCAN_MAX))]


class SpiChannel(_Channel):
    """An SPI channel as bus master (hardware controller). `mode` is the usual 0..3
    (CPOL, CPHA); each call is one chip-select frame."""

    channels = SPI_CHANNELS

    def __init__(self, adapter, index, clock_hz=1000000, mode=0, lsb_first=False,
                 cs_active_high=False):
        if mode not in (0, 1, 2, 3):
            raise ValueError(f"SPI mode {mode} is not 0..3")
        super().__init__(adapter, index)
        config = records.SPI_CONFIG(Mode=0, Master=1, CPOL=mode >> 1, CPHA=mode & 1,
                                    LSBFirst=int(lsb_first), SelPolarity=int(cs_active_high),
                                    ClockSpeedHz=clock_hz)
        try:
            check("SPI", "SPI_Init", self._lib.SPI_Init(self.adapter.handle, index,
                                                        ctypes.byref(config)))
        except BaseException:
            self.close()
            raise

    def write(self, data):
        buf, n = _buffer(data)
        check("SPI", "SPI_WriteBytes",
              self._lib.SPI_WriteBytes(self.adapter.handle, self.index, buf, n))

    def read(self, length):
        if length < 0:
            raise ValueError("length must not be negative")
        buf = (ctypes.c_ubyte * max(1, length))()
        check("SPI", "SPI_ReadBytes",
              self._lib.SPI_ReadBytes(self.adapter.handle, self.index, buf, length))
        return bytes(buf[:length])

    def write_read(self, data, length, interval_us=0):
        """Writes `data`, waits `interval_us`, reads `length` bytes, in one frame."""
        if length < 0:
            raise ValueError("length must not be negative")
        wbuf, n = _buffer(data)
        rbuf = (ctypes.c_ubyte * max(1, length))()
        check("SPI", "SPI_WriteReadBytes", self._lib.SPI_WriteReadBytes(
            self.adapter.handle, self.index, wbuf, n, rbuf, length, interval_us))
        return bytes(rbuf[:length])
