"""LDF descriptions: frames, signals and schedule tables of a LIN cluster, driven on an
adapter's LIN channel."""

import ctypes
import os

from . import _library, records
from .device import parse_handle
from .errors import LdfError, check
from .lin import LinFrame
from ._closing import Closing

_RAW_CHUNK = 256


def _name(text):
    return text.encode("utf-8") if isinstance(text, str) else bytes(text)


def _str(ptr):
    return ptr.decode("utf-8", "replace") if ptr else None


class Description(Closing):
    """An LDF file loaded for channel `channel` of an adapter, which it also initialises at
    the file's speed as master (the adapter plays the master node) or as slave."""

    def __init__(self, path, adapter, channel=0, master=True):
        self._lib = _library.load()
        self._pldf = None
        path = os.fspath(path)
        try:
            # Value texts are copied out without a size argument: bounded by the file's
            # own length plus the digits of a printed double.
            self._text_room = os.path.getsize(path) + 400
        except OSError as e:
            raise LdfError("LDF_ParserFile", -1, f"cannot read {path}: {e.strerror}") from None
        handle = parse_handle(getattr(adapter, "handle", adapter))
        pldf = self._lib.LDF_ParserFile(ctypes.c_int(handle & 0xFFFFFFFF).value, channel,
                                        1 if master else 0, _name(path))
        if not pldf:
            raise LdfError("LDF_ParserFile", 0,
                           f"{path} could not be loaded (unreadable or malformed file, adapter "
                           f"{handle:08X} not registered, or LIN channel {channel} failed)")
        self._pldf = pldf
        self.path = path

    def _live(self):
        if not self._pldf:
            raise LdfError("Description", -4, "the description has been released")
        return self._pldf

    @property
    def protocol_version(self):
        """LIN protocol version x 100 (200 for J2602 files)."""
        return check("LDF", "LDF_GetProtocolVersion",
                     self._lib.LDF_GetProtocolVersion(self._live()))

    @property
    def speed(self):
        return check("LDF", "LDF_GetLINSpeed", self._lib.LDF_GetLINSpeed(self._live()))

    # The names come straight from the decoded record: its counts and arrays belong to the
    # handle and stay valid until release.
    def _frames(self):
        c = self._live().contents
        return [c.Frames[i] for i in range(max(c.FrameNum, 0))]

    @property
    def frames(self):
        return [_str(f.Name) for f in self._frames()]

    def frame_id(self, frame):
        for f in self._frames():
            if _str(f.Name) == frame:
                return f.ID
        raise LdfError("Description", -5, f"no frame called {frame!r}")

    def signals(self, frame):
        for f in self._frames():
            if _str(f.Name) == frame:
                return [_str(f.Signals[i].Name) for i in range(max(f.SignalNum, 0))]
        raise LdfError("Description", -5, f"no frame called {frame!r}")

    @property
    def schedules(self):
        c = self._live().contents
        return [_str(c.Schs[i].Name) for i in range(max(c.SchNum, 0))]

    def schedule_entries(self, schedule):
        """[(frame name, delay in ms)] of a schedule table."""
        c = self._live().contents
        for i in range(max(c.SchNum, 0)):
            s = c.Schs[i]
            if _str(s.Name) == schedule:
                return [(_str(s.Frames[k].Frame.Name), s.Frames[k].Delay)
                        for k in range(max(s.FrameNum, 0))]
        raise LdfError("Description", -5, f"no schedule table called {schedule!r}")

    # ---- values -----------------------------------------------------------------------

    def set(self, frame, signal, value):
        check("LDF", "LDF_SetSignalValue",
              self._lib.LDF_SetSignalValue(self._live(), _name(frame), _name(signal),
                                           float(value)))

    def get(self, frame, signal):
        value = ctypes.c_double()
        check("LDF", "LDF_GetSignalValue",
              self._lib.LDF_GetSignalValue(self._live(), _name(frame), _name(signal),
                                           ctypes.byref(value)))
        return value.value

    def text(self, frame, signal):
        out = ctypes.create_string_buffer(self._text_room)
        check("LDF", "LDF_GetSignalValueStr",
              self._lib.LDF_GetSignalValueStr(self._live(), _name(frame), _name(signal), out))
        return out.value.decode("utf-8", "replace")

    def raw(self, frame):
        """The frame's data bytes packed from its signals (uncovered bits are ones)."""
        out = (ctypes.c_ubyte * 8)()
        check("LDF", "LDF_GetFrameRawValue",
              self._lib.LDF_GetFrameRawValue(self._live(), _name(frame), out))
        size = next((f.Size for f in self._frames() if _str(f.Name) == frame), 8)
        return bytes(out[:max(0, min(size, 8))])

    def set_raw(self, frame, data):
        data = bytes(data)
        if len(data) > 8:
            raise ValueError(f"a LIN frame carries at most 8 bytes, not {len(data)}")
        buf = (ctypes.c_ubyte * 8).from_buffer_copy(data.ljust(8, b"\0"))
        check("LDF", "LDF_SetFrameRawValue", self._lib.LDF_SetFrameRawValue(self._live(),
                                                                            _name(frame), buf))

    # ---- bus --------------------------------------------------------------------------

    def run_frame(self, frame, fill=1):
        """One frame on the bus now (written or read according to its publisher)."""
        check("LDF", "LDF_ExeFrameToBus",
              self._lib.LDF_ExeFrameToBus(self._live(), _name(frame), fill))

    def run_schedule(self, schedule, fill=1):
        """A schedule table once, entry by entry, from the host."""
        check("LDF", "LDF_ExeSchToBus",
              self._lib.LDF_ExeSchToBus(self._live(), _name(schedule), fill))

    def load_schedule(self, schedule, fill=1):
        """A schedule table loaded into the adapter, which runs it by itself."""
        check("LDF", "LDF_SetSchToTable",
              self._lib.LDF_SetSchToTable(self._live(), _name(schedule), fill))

    def bus_frames(self):
        """Frames exchanged on the bus since the last call, oldest first."""
        out = (records.LIN_EX_MSG * _RAW_CHUNK)()
        frames = []
        while True:
            n = check("LDF", "LDF_GetRawMsg", self._lib.LDF_GetRawMsg(self._live(), out,
                                                                      _RAW_CHUNK))
            frames += [LinFrame.from_record(out[i]) for i in range(min(n, _RAW_CHUNK))]
            if n < _RAW_CHUNK:
                return frames

    def close(self):
        if self._pldf:
            self._lib.LDF_Release(self._pldf)
            self._pldf = None
