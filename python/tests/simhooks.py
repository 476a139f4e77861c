"""The virtual adapter's hooks, reached through the symbols veltrix-sim preloads into this
process: the command record of each adapter, unplug and replug, the UART loopback wire."""

import ctypes
import struct


class VirtualAdapters:
    def __init__(self):
        self._c = ctypes.CDLL(None)
        self._commands = self._c.veltrix_sim_commands  # AttributeError outside veltrix-sim
        self._commands.restype = ctypes.c_long
        self._commands.argtypes = [ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p,
                                   ctypes.c_size_t]
        for name in ("veltrix_sim_unplug", "veltrix_sim_replug", "veltrix_sim_clear_record"):
            getattr(self._c, name).argtypes = [ctypes.c_uint32]
        self._c.veltrix_sim_uart_loopback.argtypes = [ctypes.c_uint32, ctypes.c_uint32,
                                                      ctypes.c_int]

    def commands(self, serial, code=0):
        """[(code, payload bytes)] the adapter received, oldest first."""
        need = self._commands(serial, code, None, 0)
        assert need >= 0, f"no virtual adapter {serial:08X}"
        while True:
            buf = ctypes.create_string_buffer(need)
            got = self._commands(serial, code, buf, need)
            if got <= need:
                break
            need = got
        raw, out, pos = buf.raw[:got], [], 0
        while pos < len(raw):
            c, n = struct.unpack_from("<II", raw, pos)
            out.append((c, raw[pos + 8:pos + 8 + n]))
            pos += 8 + n
        return out

    def payloads(self, serial, code):
        return [p for _, p in self.commands(serial, code)]

    def clear(self, serial):
        assert self._c.veltrix_sim_clear_record(serial) == 0

    def unplug(self, serial):
        assert self._c.veltrix_sim_unplug(serial) == 0

    def uart_loopback(self, serial, channel, on=True):
        """Joins the UART channel's transmit line to its receive line."""
        assert self._c.veltrix_sim_uart_loopback(serial, channel, int(on)) == 0

    def replug(self, serial):
        assert self._c.veltrix_sim_replug(serial) == 0
