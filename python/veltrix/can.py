"""Classic CAN ports: frames as plain Python values, configuration, sending and the
background reception the library runs for each adapter."""

import ctypes
import threading
from dataclasses import dataclass

from . import _library, records
from .device import Adapter
from .errors import check, error
from ._closing import Closing

FILTER_BANKS = 14     # per port
READ_CHUNK = 1000     # frames taken from the library's queue per call
TIME_UNIT_S = 100e-6  # frame and adapter times count 100 microsecond units
FLAG_RTR = 0x01
FLAG_PORT_MASK = 0x60
FLAG_TX = 0x80


@dataclass(frozen=True)
class CanFrame:
    """One classic frame. `time` is the adapter's 40-bit frame time (100 us units); `tx` is
    set on frames this host sent."""

    id: int
    data: bytes = b""
    extended: bool = False
    remote: bool = False
    time: int = 0
    port: int = 0
    tx: bool = False
    dlc: int = -1  # -1: len(data); a remote frame may ask for more bytes than it carries

    def __post_init__(self):
        limit = 0x1FFFFFFF if self.extended else 0x7FF
        if not 0 <= self.id <= limit:
            raise ValueError(f"identifier 0x{self.id:X} does not fit "
                             f"{'29' if self.extended else '11'} bits")
        object.__setattr__(self, "data", bytes(self.data))
        if len(self.data) > 8:
            raise ValueError(f"a classic frame carries at most 8 bytes, not {len(self.data)}")
        if self.dlc == -1:
            object.__setattr__(self, "dlc", len(self.data))
        if not len(self.data) <= self.dlc <= 8:
            raise ValueError(f"length {self.dlc} does not fit {len(self.data)} data bytes")

    def to_record(self, record=None):
        """The frame as the library's CAN_MSG (a new one, or `record` filled in place)."""
        rec = records.CAN_MSG() if record is None else record
        rec.ID = self.id
        rec.TimeStamp = 0
        rec.TimeStampHigh = 0
        rec.FrameFlags = FLAG_RTR if self.remote else 0
        rec.ExtFlag = 1 if self.extended else 0
        rec.DataLen = self.dlc
        ctypes.memset(rec.Data, 0, 8)
        ctypes.memmove(rec.Data, self.data, len(self.data))
        return rec

    @classmethod
    def from_record(cls, rec):
        """A frame from a CAN_MSG; lengths and identifiers the adapter got wrong are cut to
        what a classic frame can hold rather than trusted."""
        extended = bool(rec.ExtFlag & 1)
        dlc = min(rec.DataLen, 8)
        remote = bool(rec.FrameFlags & FLAG_RTR)
        return cls(id=rec.ID & (0x1FFFFFFF if extended else 0x7FF),
                   data=b"" if remote else bytes(rec.Data[:dlc]), extended=extended,
                   remote=remote, time=rec.TimeStampHigh << 32 | rec.TimeStamp,
                   port=(rec.FrameFlags & FLAG_PORT_MASK) >> 5,
                   tx=bool(rec.FrameFlags & FLAG_TX), dlc=dlc)


@dataclass(frozen=True)
class CanStatus:
    rx_errors: int
    tx_errors: int
    last_error: int
    warning: bool
    passive: bool
    bus_off: bool


@dataclass(frozen=True)
class FilterRule:
    """Accepts frames whose identifier matches `id` in the bits set in `mask`; `extended`
    None matches both identifier kinds (which the banks cannot express exactly)."""

    id: int
    mask: int
    extended: bool = None

    def matches(self, frame):
        if self.extended is not None and self.extended != frame.extended:
            return False
        return (frame.id ^ self.id) & self.mask == 0

    def to_record(self, bank):
        rec = records.CAN_FILTER_RULE()
        rec.Enable = 1
        rec.FilterIndex = bank
        rec.FilterMode = 0  # identifier and mask
        rec.ExtFrame = 1 if self.extended else 0
        limit = 0x1FFFFFFF if self.extended else 0x7FF
        rec.ID = self.id & limit
        rec.MaskID = self.mask & limit
        rec.IDE = 1 if self.extended else 0
        rec.MaskIDE = 1
        return rec


def filters_fit_banks(rules):
    """Whether the banks can hold `rules` exactly (else they are applied on the host)."""
    return len(rules) <= FILTER_BANKS and all(r.extended is not None for r in rules)


_ports_lock = threading.Lock()
_ports_in_use = set()  # (handle, port): the library has one receive queue per port


class CanChannel(Closing):
    """One port of an adapter, configured at `bitrate` and, with `receive`, received in
    the background into the library's queue."""

    # The calls that start, stop and empty a port; the CAN FD port has its own.
    _START_RX, _STOP_RX, _STOP, _CLEAR = ("CAN_StartGetMsg", "CAN_StopGetMsg", "CAN_Stop",
                                          "CAN_ClearMsg")
    _RECORD = records.CAN_MSG

    def __init__(self, adapter, port, bitrate, receive=True, filters=()):
        if not 0 <= port <= 1:
            raise ValueError(f"CAN port {port} does not exist (0 or 1)")
        self._lib = _library.load()
        # A private Adapter object: the channel's open and close count as one user of the
        # adapter, whatever the caller does with its own object.
        self.adapter = Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)
        key = (self.adapter.handle, port)
        with _ports_lock:
            if key in _ports_in_use:
                raise error("CAN", "CanChannel", -1,
                            f"port {port} of adapter {key[0]:08X} is already in use in this "
                            "process (two users would take each other's frames)")
            _ports_in_use.add(key)
        self._key = key
        self.port = port
        self.bitrate = bitrate
        self._rx = (self._RECORD * READ_CHUNK)()
        # Banks a previous user of the port left enabled are unknown: the first filter set
        # switches every bank it does not use off.
        self._banks_used = FILTER_BANKS
        self._receiving = False
        self._closed = False
        # Serialises this port's calls with close(), so a reader in another thread never
        # calls into a port that is being stopped.
        self._lock = threading.Lock()
        try:
            self.adapter.open()
            self._configure(bitrate)
            self.set_filters(filters)
            if receive:
                self._call(self._START_RX)
                self._receiving = True
        except BaseException:
            self.close()
            raise

    def _call(self, name, *args):
        return check("CAN", name, getattr(self._lib, name)(self.adapter.handle, self.port, *args))

    def _configure(self, bitrate):
        config = records.CAN_CHANNEL_CONFIG()
        rc = self._lib.CAN_GetCANSpeedArg(self.adapter.handle, ctypes.byref(config), int(bitrate))
        if rc == -4:
            raise error("CAN", "CAN_GetCANSpeedArg", rc,
                        f"bit rate {bitrate} is not in the adapter's timing table")
        check("CAN", "CAN_GetCANSpeedArg", rc)
        self._call("CAN_Init", ctypes.byref(config))

    def set_filters(self, rules):
        """Programs `rules` into the port's banks when they fit exactly and returns True;
        otherwise opens the banks and returns False (the caller filters on the host)."""
        rules = list(rules or ())
        exact = filters_fit_banks(rules)
        wanted = rules if exact else []
        with self._lock:
            self._require_open()
            for bank, rule in enumerate(wanted):
                self._call("CAN_Filter_Init", ctypes.byref(rule.to_record(bank)))
            # Banks the previous set used and this one does not are switched off.
            for bank in range(len(wanted), self._banks_used):
                off = records.CAN_FILTER_RULE(Enable=0, FilterIndex=bank)
                self._call("CAN_Filter_Init", ctypes.byref(off))
            self._banks_used = len(wanted)
        return exact

    def _require_open(self):
        if self._closed:
            raise error("CAN", "CanChannel", -2, "the port has been closed")

    def send(self, frames):
        """Hands frames to the adapter; returns how many it accepted."""
        frames = list(frames)
        if not frames:
            return 0
        batch = (records.CAN_MSG * len(frames))()
        for i, f in enumerate(frames):
            f.to_record(batch[i])
        with self._lock:
            self._require_open()
            return self._call("CAN_SendMsg", batch, len(frames))

    def receive(self, limit=READ_CHUNK):
        """Frames received since the last call, oldest first (at most `limit`)."""
        limit = max(0, min(int(limit), READ_CHUNK))
        with self._lock:
            self._require_open()
            n = self._call("CAN_GetMsgWithSize", self._rx, limit)
            return [CanFrame.from_record(self._rx[i]) for i in range(min(n, limit))]

    def status(self):
        raw = records.CAN_BUS_STATUS()
        with self._lock:
            self._require_open()
            self._call("CAN_GetStatus", ctypes.byref(raw))
        return CanStatus(raw.RxErrorCounter, raw.TxErrorCounter, raw.LastErrorCode,
                         bool(raw.ErrorFlags & 1), bool(raw.ErrorFlags & 2),
                         bool(raw.ErrorFlags & 4))

    def clear(self):
        with self._lock:
            self._require_open()
            self._call(self._CLEAR)

    def close(self):
        """Stops reception and the port and lets go of the adapter. Never raises: closing
        after an unplug must still release everything on the host."""
        with self._lock:
            if self._closed:
                return
            self._closed = True
            if self._receiving:
                getattr(self._lib, self._STOP_RX)(self.adapter.handle, self.port)
                self._receiving = False
            if self.adapter.is_open:
                getattr(self._lib, self._STOP)(self.adapter.handle, self.port)
        self.adapter.close()
        with _ports_lock:
            _ports_in_use.discard(self._key)

    @property
    def closed(self):
        return self._closed
