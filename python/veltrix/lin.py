"""LIN channels: master exchanges, schedule tables the adapter runs, the slave's response
table and capture, power output and battery voltage."""

import ctypes
import threading
from dataclasses import dataclass

from . import _library, records
from .device import Adapter
from .errors import check
from ._closing import Closing

MAX_SCHEDULE = 64    # records the adapter keeps in one table
MAX_SLAVE = 64
MAX_CAPTURE = 1024

# Frame kinds (MsgType) and checksum choices (CheckType).
WRITE, READ, SLAVE, SLAVE_ALT, BREAK = 1, 2, 3, 4, 5
CHECKSUMS = {"classic": 0, "enhanced": 1, "given": 2, "none": 3}
VERDICTS = {0: "classic", 1: "enhanced", 2: "not tested", 3: "not tested", 4: "error"}


def _checksum_code(checksum):
    if isinstance(checksum, int) and 0 <= checksum <= 3:
        return checksum
    try:
        return CHECKSUMS[checksum]
    except KeyError:
        raise ValueError(f"checksum must be one of {sorted(CHECKSUMS)}, not {checksum!r}") \
            from None


@dataclass(frozen=True)
class LinFrame:
    """One LIN frame. Out: `kind` (WRITE, READ, ...), `slot_ms` the time slot, `checksum`
    the type to compute. Back: `checksum` holds the verdict ("classic", "enhanced", "not
    tested", "error") and `check` the checksum byte; `time` the adapter's stamp."""

    id: int
    data: bytes = b""
    kind: int = WRITE
    checksum: object = "enhanced"
    slot_ms: int = 0
    check: int = 0
    break_bits: int = 13
    time: int = 0

    def __post_init__(self):
        object.__setattr__(self, "data", bytes(self.data))
        if not 0 <= self.id <= 0x3F:
            raise ValueError(f"LIN identifier 0x{self.id:X} is not in 0..0x3F")
        if len(self.data) > 8:
            raise ValueError(f"a LIN frame carries at most 8 bytes, not {len(self.data)}")
        # A frame read back carries the adapter's verdict instead of a checksum choice.
        if self.checksum not in VERDICTS.values():
            _checksum_code(self.checksum)
        for name, value, top in (("kind", self.kind, 0xFF), ("slot_ms", self.slot_ms, 0xFFFFFFFF),
                                 ("check", self.check, 0xFF),
                                 ("break_bits", self.break_bits, 0xFF)):
            if not 0 <= value <= top:
                raise ValueError(f"{name} {value} is out of range 0..{top}")

    def to_record(self, rec):
        rec.Timestamp = self.slot_ms
        rec.MsgType = self.kind
        rec.CheckType = _checksum_code(self.checksum)
        rec.DataLen = len(self.data)
        rec.PID = self.id
        ctypes.memset(rec.Data, 0, 8)
        ctypes.memmove(rec.Data, self.data, len(self.data))
        rec.Check = self.check
        rec.BreakBits = self.break_bits
        return rec

    @classmethod
    def from_record(cls, rec):
        n = min(rec.DataLen, 8)
        return cls(id=rec.PID & 0x3F, data=bytes(rec.Data[:n]), kind=rec.MsgType,
                   checksum=VERDICTS.get(rec.CheckType, "error"), check=rec.Check,
                   break_bits=rec.BreakBits, time=rec.Timestamp)


def _records(frames, limit=None):
    frames = list(frames)
    if limit is not None and len(frames) > limit:
        raise ValueError(f"at most {limit} frames fit one table, not {len(frames)}")
    array = (records.LIN_EX_MSG * max(1, len(frames)))()
    for i, f in enumerate(frames):
        f.to_record(array[i])
    return array, len(frames)


class LinChannel(Closing):
    """Channel `channel` (0..3) of an adapter, initialised as master or slave."""

    def __init__(self, adapter, channel, baudrate=19200, master=True):
        if not 0 <= channel <= 3:
            raise ValueError(f"LIN channel {channel} does not exist (0..3)")
        self.adapter = Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)
        self.channel = channel
        self.baudrate = baudrate
        self.master = master
        self._lib = _library.load()
        self._lock = threading.Lock()
        self._closed = False
        self.adapter.open()
        try:
            self._call("LIN_EX_Init", int(baudrate), 1 if master else 0)
        except BaseException:
            self.close()
            raise

    def _call(self, name, *args):
        fn = getattr(self._lib, name)
        return check("LIN", name, fn(self.adapter.handle, self.channel, *args))

    def sync(self, frames):
        """Runs `frames` on the bus in one exchange; returns what came back."""
        array, n = _records(frames)
        if n == 0:
            return []
        out = (records.LIN_EX_MSG * n)()
        with self._lock:
            got = self._call("LIN_EX_MasterSync", array, out, n)
        return [LinFrame.from_record(out[i]) for i in range(min(got, n))]

    def write(self, id, data, checksum="enhanced"):
        data = bytes(data)
        if len(data) > 8:
            raise ValueError(f"a LIN frame carries at most 8 bytes, not {len(data)}")
        raw = (ctypes.c_ubyte * 8).from_buffer_copy(data.ljust(8, b"\0"))
        with self._lock:
            self._call("LIN_EX_MasterWrite", id, raw, len(data), _checksum_code(checksum))

    def read(self, id):
        """The data a slave answered with (b"" when none answered or the checksum failed)."""
        raw = (ctypes.c_ubyte * 8)()
        with self._lock:
            n = self._call("LIN_EX_MasterRead", id, raw)
        return bytes(raw[:min(n, 8)])

    def send_break(self):
        with self._lock:
            self._call("LIN_EX_MasterBreak")

    def start_schedule(self, frames, runs=None):
        """Loads a table the adapter runs by itself (`runs` times when given)."""
        array, n = _records(frames, MAX_SCHEDULE)
        with self._lock:
            if runs is not None:
                self._call("LIN_EX_MasterSetSchRunTimes", int(runs))
            self._call("LIN_EX_MasterStartSch", array, n)

    def stop_schedule(self):
        with self._lock:
            self._call("LIN_EX_MasterStopSch")

    def schedule(self):
        out = (records.LIN_EX_MSG * MAX_SCHEDULE)()
        with self._lock:
            n = self._call("LIN_EX_MasterGetSch", out)
        return [LinFrame.from_record(out[i]) for i in range(min(n, MAX_SCHEDULE))]

    def set_responses(self, frames):
        """The slave's response table."""
        array, n = _records(frames, MAX_SLAVE)
        with self._lock:
            self._call("LIN_EX_SlaveSetIDMode", array, n)

    def captured(self):
        """Frames the slave channel saw since the last call."""
        out = (records.LIN_EX_MSG * MAX_CAPTURE)()
        with self._lock:
            n = self._call("LIN_EX_SlaveGetData", out)
        return [LinFrame.from_record(out[i]) for i in range(min(n, MAX_CAPTURE))]

    def power(self, on):
        with self._lock:
            self._call("LIN_EX_CtrlPowerOut", 1 if on else 0)

    def battery(self):
        """The supply voltage as the adapter measures it, in the adapter's unit."""
        value = ctypes.c_ushort()
        with self._lock:
            check("LIN", "LIN_EX_GetVbatValue",
                  self._lib.LIN_EX_GetVbatValue(self.adapter.handle, ctypes.byref(value)))
        return value.value

    def close(self):
        """Lets go of the adapter (a LIN channel has no stop command)."""
        if not self._closed:
            self._closed = True
            self.adapter.close()
