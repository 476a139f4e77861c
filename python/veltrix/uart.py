"""UART channels: line settings, bytes out (waiting for the line, queued, or paced) and the
bytes the channel has received."""

import ctypes

from . import records
from .errors import check
from .serial_bus import _buffer, _Channel

READ_MAX = 4096     # the most one read returns, and so the room every read gets
WRITE_MAX = 65536   # the longest single write the adapter accepts
PARITIES = {"none": 0, "odd": 1, "even": 2}
STOP_BITS = {1: 0, 2: 2}
TX_ENABLE = {None: 0, "high": 1, "low": 2}


class UartChannel(_Channel):
    """UART channel `index` of an adapter, configured on creation.

    `word_length` counts the parity bit when parity is on (8 data bits with even parity
    is word_length=9). `tx_enable` drives an RS-485 transceiver's transmit-enable output:
    None, "high" (active high) or "low". Failures raise UartError with the UART code
    (-4 also when the adapter has no such channel: it leaves the command unanswered)."""

    channels = 256  # the adapter decides which exist

    def __init__(self, adapter, index, baudrate=115200, word_length=8, stop_bits=1,
                 parity="none", tx_enable=None):
        if parity not in PARITIES:
            raise ValueError(f"parity must be one of {sorted(PARITIES)}, not {parity!r}")
        if stop_bits not in STOP_BITS:
            raise ValueError(f"stop_bits must be 1 or 2, not {stop_bits!r}")
        if word_length not in (8, 9):
            raise ValueError(f"word_length must be 8 or 9, not {word_length!r}")
        if tx_enable not in TX_ENABLE:
            raise ValueError(f"tx_enable must be None, 'high' or 'low', not {tx_enable!r}")
        if not 0 < baudrate <= 0xFFFFFFFF:
            raise ValueError(f"baud rate {baudrate} is out of range")
        super().__init__(adapter, index)
        config = records.UART_CONFIG(BaudRate=int(baudrate), WordLength=word_length,
                                     StopBits=STOP_BITS[stop_bits], Parity=PARITIES[parity],
                                     TEPolarity=TX_ENABLE[tx_enable])
        try:
            self._call("UART_Init", ctypes.byref(config))
        except BaseException:
            self.close()
            raise

    def _call(self, name, *args):
        return check("UART", name, getattr(self._lib, name)(self.adapter.handle, self.index,
                                                            *args))

    def write(self, data, wait=True, interval_ms=0):
        """Sends `data`. By default the call returns once the adapter has put the bytes on
        the line; `wait=False` returns as soon as it has queued them; `interval_ms` (1..255)
        pauses that long between bytes."""
        data = bytes(data)
        if len(data) > WRITE_MAX:
            raise ValueError(f"one write carries at most {WRITE_MAX} bytes, not {len(data)}")
        if not 0 <= interval_ms <= 255:
            raise ValueError(f"interval_ms {interval_ms} is not 0..255")
        buf, n = _buffer(data)
        if interval_ms:
            self._call("UART_WriteBytesInterval", buf, n, interval_ms)
        elif wait:
            self._call("UART_WriteBytes", buf, n)
        else:
            self._call("UART_WriteBytesAsync", buf, n)

    def read(self, timeout_ms=0):
        """The bytes received so far (at most 4096), b"" when none came. With `timeout_ms`
        the adapter is asked again every millisecond until something comes or the time is
        up; 0 asks once."""
        buf = (ctypes.c_ubyte * READ_MAX)()
        n = self._call("UART_ReadBytes", buf, max(0, int(timeout_ms)))
        return bytes(buf[:min(n, READ_MAX)])

    def clear(self):
        """Discards what the channel received and nobody read yet."""
        self._call("UART_ClearData")
