"""SMBus protocols on an I2C channel, named as the usual Linux SMBus tools name them.

The adapter computes and checks the packet error code when `pec` is on. Words travel
high byte first, both ways. A transfer the bus refused raises SmbusError with the
adapter's status as its code (1: address not acknowledged, 2: data refused, 3: PEC
mismatch, 4: time-out); library failures raise it with the negative code."""

import ctypes

from .errors import check_status
from .serial_bus import _buffer, _Channel, I2C_CHANNELS, I2C_PULLUP

BLOCK_MAX = 20480  # the room every block read gets


class SmbusChannel(_Channel):
    """I2C channel `index` of an adapter as a 7-bit SMBus master."""

    channels = I2C_CHANNELS

    def __init__(self, adapter, index, clock_hz=100000, pullup=False, pec=False):
        super().__init__(adapter, index)
        self.pec = pec
        try:
            self._call("SMBUS_Init", int(clock_hz), I2C_PULLUP if pullup else 0)
        except BaseException:
            self.close()
            raise

    def _call(self, name, *args):
        return check_status("SMBUS", name,
                            getattr(self._lib, name)(self.adapter.handle, self.index, *args))

    @staticmethod
    def _address(address):
        if not 0 <= address <= 0x7F:
            raise ValueError(f"address 0x{address:X} does not fit 7 bits")
        return address

    @staticmethod
    def _byte(name, value, top=0xFF):
        if not 0 <= value <= top:
            raise ValueError(f"{name} {value} is out of range 0..{top}")
        return value

    def _pec(self, pec):
        return int(self.pec if pec is None else pec)

    def quick(self, address, write=True):
        """A quick command: the address alone, with the R/W bit of `write`."""
        self._call("SMBUS_QuickCommand", self._address(address), 1 if write else 0)

    def write_byte(self, address, value, pec=None):
        self._call("SMBUS_WriteByte", self._address(address), self._byte("value", value),
                   self._pec(pec))

    def read_byte(self, address, pec=None):
        out = ctypes.c_ubyte()
        self._call("SMBUS_ReadByte", self._address(address), ctypes.byref(out), self._pec(pec))
        return out.value

    def write_byte_data(self, address, command, value, pec=None):
        self._call("SMBUS_WriteByteProtocol", self._address(address),
                   self._byte("command", command), self._byte("value", value), self._pec(pec))

    def read_byte_data(self, address, command, pec=None):
        out = ctypes.c_ubyte()
        self._call("SMBUS_ReadByteProtocol", self._address(address),
                   self._byte("command", command), ctypes.byref(out), self._pec(pec))
        return out.value

    def write_word_data(self, address, command, value, pec=None):
        self._call("SMBUS_WriteWordProtocol", self._address(address),
                   self._byte("command", command), self._byte("value", value, 0xFFFF),
                   self._pec(pec))

    def read_word_data(self, address, command, pec=None):
        out = ctypes.c_ushort()
        self._call("SMBUS_ReadWordProtocol", self._address(address),
                   self._byte("command", command), ctypes.byref(out), self._pec(pec))
        return out.value

    def process_call(self, address, command, value, pec=None):
        """Writes a word and returns the word the device answers with."""
        out = ctypes.c_ushort()
        self._call("SMBUS_ProcessCall", self._address(address), self._byte("command", command),
                   self._byte("value", value, 0xFFFF), ctypes.byref(out), self._pec(pec))
        return out.value

    def block_write(self, address, command, data, pec=None):
        buf, n = _buffer(data)
        self._call("SMBUS_BlockWrite", self._address(address), self._byte("command", command),
                   buf, n, self._pec(pec))

    def block_read(self, address, command, pec=None):
        buf = (ctypes.c_ubyte * BLOCK_MAX)()
        n = ctypes.c_int(0)
        self._call("SMBUS_BlockRead", self._address(address), self._byte("command", command),
                   buf, ctypes.byref(n), self._pec(pec))
        return bytes(buf[:max(0, min(n.value, BLOCK_MAX))])

    def block_process_call(self, address, command, data, pec=None):
        """Writes a block and returns the block the device answers with."""
        wbuf, wn = _buffer(data)
        rbuf = (ctypes.c_ubyte * BLOCK_MAX)()
        n = ctypes.c_int(0)
        self._call("SMBUS_BlockProcessCall", self._address(address),
                   self._byte("command", command), wbuf, wn, rbuf, ctypes.byref(n),
                   self._pec(pec))
        return bytes(rbuf[:max(0, min(n.value, BLOCK_MAX))])
