"""An SPI channel as slave: bytes offered to the remote master, bytes it clocked in, and
continuous collection by the library's reader thread into the channel's FIFO."""

import ctypes

from . import records
from .errors import check
from .serial_bus import _buffer, _Channel, SPI_CHANNELS

WRITE_MAX = 20480        # data of one exchange
READ_BUFFER_MAX = 61440  # the room a buffer fetch gets
TAKE_CHUNK = 65536       # bytes taken from the FIFO per call


class SpiSlave(_Channel):
    """SPI channel `index` configured as slave in `mode` (0..3). Failures raise SpiError.
    Used as a context manager it stops continuous collection on the way out."""

    channels = SPI_CHANNELS

    def __init__(self, adapter, index, mode=0, lsb_first=False, cs_active_high=False):
        if mode not in (0, 1, 2, 3):
            raise ValueError(f"SPI mode {mode} is not 0..3")
        super().__init__(adapter, index)
        self._collecting = False
        config = records.SPI_CONFIG(Mode=0, Master=0, CPOL=mode >> 1, CPHA=mode & 1,
                                    LSBFirst=int(lsb_first), SelPolarity=int(cs_active_high))
        try:
            self._call("SPI_Init", ctypes.byref(config))
        except BaseException:
            super().close()
            raise

    def _call(self, name, *args):
        return check("SPI", name, getattr(self._lib, name)(self.adapter.handle, self.index,
                                                           *args))

    def write(self, data, timeout_ms=1000):
        """Offers `data` to the master; returns how many bytes the adapter reports taken."""
        buf, n = _buffer(data)
        return self._call("SPI_SlaveWriteBytes", buf, n, int(timeout_ms))

    def exchange(self, data, read_length, timeout_ms=1000):
        """Offers `data` (at most 20480 bytes) and collects up to `read_length` bytes the
        master clocks in. Returns (bytes taken by the master, bytes received)."""
        data = bytes(data)
        if len(data) > WRITE_MAX:
            raise ValueError(f"one exchange offers at most {WRITE_MAX} bytes, not {len(data)}")
        if not 0 <= read_length <= 0xFFFF:
            raise ValueError(f"read_length {read_length} is not 0..65535")
        wbuf, n = _buffer(data)
        rbuf = (ctypes.c_ubyte * max(1, read_length))()
        got = self._call("SPI_SlaveWriteReadBytes", wbuf, n, rbuf, read_length, int(timeout_ms))
        written, read = got >> 16, min(got & 0xFFFF, read_length)
        return written, bytes(rbuf[:read])

    def read_buffer(self, timeout_ms=100):
        """What the slave collected so far (one fetch, at most 61440 bytes)."""
        buf = (ctypes.c_ubyte * READ_BUFFER_MAX)()
        n = self._call("SPI_SlaveReadBytesFromBuffer", buf, int(timeout_ms))
        return bytes(buf[:min(n, READ_BUFFER_MAX)])

    def read(self, length, timeout_ms=1000):
        """Collects until `length` bytes came or `timeout_ms` is spent (0: no limit) and
        returns them; anything beyond `length` stays in the FIFO for take()."""
        if not 0 <= length <= 0x7FFFFFFF:
            raise ValueError(f"length {length} is out of range")
        buf = (ctypes.c_ubyte * max(1, length))()
        n = self._call("SPI_SlaveReadBytes", buf, length, int(timeout_ms))
        return bytes(buf[:min(n, length)])

    def start_collecting(self):
        """Starts continuous collection into the channel's FIFO (emptied first), which
        keeps the newest 2 MiB."""
        self._call("SPI_SlaveContinueRead", None)
        self._collecting = True

    def stop_collecting(self):
        """Stops collection; the FIFO keeps its bytes for take()."""
        self._collecting = False
        self._call("SPI_SlaveContinueReadStop")

    def take(self, limit=None):
        """Bytes from the front of the FIFO, all of them or at most `limit`."""
        out = bytearray()
        chunk = (ctypes.c_ubyte * TAKE_CHUNK)()
        while limit is None or len(out) < limit:
            want = TAKE_CHUNK if limit is None else min(TAKE_CHUNK, limit - len(out))
            n = self._call("SPI_SlaveGetBytes", chunk, want)
            out += bytes(chunk[:min(n, want)])
            if n < want:
                break
        return bytes(out)

    def offer(self, data):
        """Queues `data` for the master to read continuously."""
        buf, n = _buffer(data)
        self._call("SPI_SlaveContinueWrite", buf, n)

    def close(self):
        """Stops collection (ignoring an adapter that is gone) and lets go of the adapter."""
        if self._collecting:
            self._collecting = False
            self._lib.SPI_SlaveContinueReadStop(self.adapter.handle, self.index)
        super().close()

