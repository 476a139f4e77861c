"""CAN FD ports of the 40 MHz adapters: frames of up to 64 bytes with the bit rate switch,
on the same receive machinery as the classic ports."""

import ctypes
from dataclasses import dataclass

from . import records
from .can import CanChannel, CanStatus
from .errors import check, error

TIME_UNIT_S = 10e-6  # CAN FD frame times count 10 microsecond units
TIME_BITS = 40
FD_LENGTHS = (0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64)
FLAG_FDF, FLAG_ESI, FLAG_BRS, FLAG_PORT, FLAG_TX = 0x01, 0x02, 0x04, 0x20, 0x80
ID_RTR, ID_IDE = 0x40000000, 0x80000000
# Error counters at which a controller turns error passive.
PASSIVE_LIMIT = 128
WARNING_LIMIT = 96


def is_fd_model(handle):
    """Whether the adapter's model (the handle's top byte) has CAN FD controllers."""
    return handle >> 24 in (0x53, 0x54)


@dataclass(frozen=True)
class CanFdFrame:
    """One frame of a CAN FD port: `fd` False is a classic-format frame (8 bytes at most,
    may be remote); `brs` and `esi` exist only on FD-format frames. `time` is the adapter's
    40-bit frame time in 10 us units; `tx` marks a transmit event of this host."""

    id: int
    data: bytes = b""
    extended: bool = False
    fd: bool = True
    brs: bool = False
    esi: bool = False
    remote: bool = False
    time: int = 0
    port: int = 0
    tx: bool = False

    def __post_init__(self):
        limit = 0x1FFFFFFF if self.extended else 0x7FF
        if not 0 <= self.id <= limit:
            raise ValueError(f"identifier 0x{self.id:X} does not fit "
                             f"{'29' if self.extended else '11'} bits")
        object.__setattr__(self, "data", bytes(self.data))
        if self.fd:
            if len(self.data) not in FD_LENGTHS:
                raise ValueError(f"{len(self.data)} bytes is no CAN FD length {FD_LENGTHS}")
            if self.remote:
                raise ValueError("CAN FD frames have no remote form")
        else:
            if len(self.data) > 8:
                raise ValueError(f"a classic frame carries at most 8 bytes, not {len(self.data)}")
            if self.brs or self.esi:
                raise ValueError("bit rate switch and ESI exist only on CAN FD frames")

    def to_record(self, record=None):
        """The frame as the library's CANFD_MSG (a new one, or `record` filled in place)."""
        rec = records.CANFD_MSG() if record is None else record
        rec.ID = (self.id | (ID_IDE if self.extended else 0) | (ID_RTR if self.remote else 0))
        rec.DLC = len(self.data)
        rec.Flags = ((FLAG_FDF if self.fd else 0) | (FLAG_BRS if self.brs else 0)
                     | (FLAG_ESI if self.esi else 0))
        rec.Reserved = 0
        rec.TimeStamp = 0
        rec.TimeStampHigh = 0
        ctypes.memset(rec.Data, 0, 64)
        ctypes.memmove(rec.Data, self.data, len(self.data))
        return rec

    @classmethod
    def from_record(cls, rec):
        """A frame from a CANFD_MSG. The length from the adapter is cut to what the frame's
        format holds and rounded down to a CAN FD length rather than trusted."""
        fd = bool(rec.Flags & FLAG_FDF)
        extended = bool(rec.ID & ID_IDE)
        remote = not fd and bool(rec.ID & ID_RTR)
        n = min(rec.DLC, 64 if fd else 8)
        n = max(k for k in FD_LENGTHS if k <= n)
        return cls(id=rec.ID & (0x1FFFFFFF if extended else 0x7FF),
                   data=b"" if remote else bytes(rec.Data[:n]), extended=extended, fd=fd,
                   brs=fd and bool(rec.Flags & FLAG_BRS), esi=fd and bool(rec.Flags & FLAG_ESI),
                   remote=remote, time=rec.TimeStampHigh << 32 | rec.TimeStamp,
                   port=1 if rec.Flags & FLAG_PORT else 0, tx=bool(rec.Flags & FLAG_TX))


class CanFdChannel(CanChannel):
    """A CAN FD port at a nominal and a data bit rate, received in the background.

    Acceptance filters are left open (every frame is received); callers filter on the
    host, as the python-can bus does."""

    _START_RX, _STOP_RX, _STOP, _CLEAR = ("CANFD_StartGetMsg", "CANFD_StopGetMsg", "CANFD_Stop",
                                          "CANFD_ClearMsg")
    _RECORD = records.CANFD_MSG

    def __init__(self, adapter, port, bitrate, data_bitrate, receive=True):
        self.data_bitrate = data_bitrate
        super().__init__(adapter, port, bitrate, receive=receive)

    def _configure(self, bitrate):
        config = records.CANFD_CHANNEL_CONFIG()
        rc = self._lib.CANFD_GetCANSpeedArg(self.adapter.handle, ctypes.byref(config),
                                            int(bitrate), int(self.data_bitrate))
        if rc == -4:
            raise error("CAN", "CANFD_GetCANSpeedArg", rc,
                        f"bit rates {bitrate}/{self.data_bitrate} are not in the adapter's "
                        "timing tables")
        check("CAN", "CANFD_GetCANSpeedArg", rc)
        self._call("CANFD_Init", ctypes.byref(config))

    def set_filters(self, rules):
        """Removes every acceptance rule (the port receives everything) and returns False:
        the caller filters on the host."""
        with self._lock:
            self._require_open()
            self._call("CANFD_SetFilter", None, 0)
        return False

    def send(self, frames):
        """Sends frames and waits until they are on the bus; returns how many the adapter
        reported sent. A frame above 8 bytes always goes out with the bit rate switch."""
        frames = list(frames)
        if not frames:
            return 0
        batch = (records.CANFD_MSG * len(frames))()
        for i, f in enumerate(frames):
            f.to_record(batch[i])
        with self._lock:
            self._require_open()
            return self._call("CANFD_SendMsg", batch, len(frames))

    def receive(self, limit=None):
        limit = len(self._rx) if limit is None else max(0, min(int(limit), len(self._rx)))
        with self._lock:
            self._require_open()
            n = self._call("CANFD_GetMsg", self._rx, limit)
            return [CanFdFrame.from_record(self._rx[i]) for i in range(min(n, limit))]

    def status(self):
        raw = records.CANFD_BUS_ERROR()
        with self._lock:
            self._require_open()
            self._call("CANFD_GetBusError", ctypes.byref(raw))
        worst = max(raw.TxErrorCounter, raw.RxErrorCounter)
        # The counters alone cannot tell bus-off (the transmit counter stops at 255).
        return CanStatus(raw.RxErrorCounter, raw.TxErrorCounter, 0, worst >= WARNING_LIMIT,
                         worst >= PASSIVE_LIMIT, False)
