"""DBC databases: messages and signals by name, and frames to signal values and back."""

import ctypes
import os

from . import _library, records
from .can import CanFrame
from .device import parse_handle
from .errors import DbcError, check
from ._closing import Closing

_MUX_INACTIVE = -6


def _name(text):
    return text.encode("utf-8") if isinstance(text, str) else bytes(text)


class Database(Closing):
    """A DBC file loaded for an adapter (one the last scan registered). The library keeps
    per-message signal values, so `encode` and `decode` work on that shared state: use
    one Database from one thread at a time."""

    def __init__(self, path, adapter):
        self._lib = _library.load()
        self._handle = 0
        path = os.fspath(path)
        # Names and value texts are copied into caller buffers without a size argument;
        # nothing the library copies out of a file can be longer than the file itself, plus
        # the digits of a printed double.
        try:
            self._text_room = os.path.getsize(path) + 400
        except OSError as e:
            raise DbcError("DBC_ParserFile", 0, f"cannot read {path}: {e.strerror}") from None
        handle = parse_handle(getattr(adapter, "handle", adapter))
        self._handle = self._lib.DBC_ParserFile(ctypes.c_int(handle & 0xFFFFFFFF).value,
                                                _name(path))
        if self._handle == 0:
            raise DbcError("DBC_ParserFile", 0,
                           f"{path} could not be loaded (unreadable or malformed file, "
                           f"or adapter {handle:08X} not registered by a scan)")
        self.path = path
        self._ids = None

    def _live(self):
        if not self._handle:
            raise DbcError("Database", -4, "the database has been released")
        return self._handle

    def _text(self, fn_name, *args):
        out = ctypes.create_string_buffer(self._text_room)
        check("DBC", fn_name, getattr(self._lib, fn_name)(self._live(), *args, out))
        return out.value.decode("utf-8", "replace")

    # ---- names ------------------------------------------------------------------------

    @property
    def messages(self):
        n = check("DBC", "DBC_GetMsgQuantity", self._lib.DBC_GetMsgQuantity(self._live()))
        return [self._text("DBC_GetMsgName", i) for i in range(n)]

    def signals(self, message):
        n = check("DBC", "DBC_GetMsgSignalQuantity",
                  self._lib.DBC_GetMsgSignalQuantity(self._live(), _name(message)))
        return [self._text("DBC_GetMsgSignalName", _name(message), i) for i in range(n)]

    def publisher(self, message):
        return self._text("DBC_GetMsgPublisher", _name(message))

    # ---- values -----------------------------------------------------------------------

    def set(self, message, signal, value):
        check("DBC", "DBC_SetSignalValue",
              self._lib.DBC_SetSignalValue(self._live(), _name(message), _name(signal),
                                           float(value)))

    def get(self, message, signal):
        value = ctypes.c_double()
        check("DBC", "DBC_GetSignalValue",
              self._lib.DBC_GetSignalValue(self._live(), _name(message), _name(signal),
                                           ctypes.byref(value)))
        return value.value

    def text(self, message, signal):
        """The value as the file would show it: its value-table text, or value and unit."""
        return self._text("DBC_GetSignalValueStr", _name(message), _name(signal))

    def values(self, message):
        """{signal: value} of a message; multiplexed signals the multiplexer does not
        select are left out."""
        out = {}
        for sig in self.signals(message):
            try:
                out[sig] = self.get(message, sig)
            except DbcError as e:
                if e.code != _MUX_INACTIVE:
                    raise
        return out

    # ---- frames -----------------------------------------------------------------------

    def encode(self, message, values=None, **more):
        """Sets the given signals and returns the message's frame with every signal's
        current value."""
        for sig, value in {**(values or {}), **more}.items():
            self.set(message, sig, value)
        rec = records.CAN_MSG()
        check("DBC", "DBC_SyncValueToCANMsg",
              self._lib.DBC_SyncValueToCANMsg(self._live(), _name(message), ctypes.byref(rec)))
        return CanFrame.from_record(rec)

    def message_for(self, frame_id, extended):
        """The first message of the file with this identifier, or None."""
        if self._ids is None:
            ids = {}
            rec = records.CAN_MSG()
            for name in self.messages:
                if self._lib.DBC_SyncValueToCANMsg(self._live(), _name(name),
                                                   ctypes.byref(rec)) == 0:
                    ids.setdefault((rec.ID, bool(rec.ExtFlag & 1)), name)
            self._ids = ids
        return self._ids.get((frame_id, bool(extended)))

    def decode(self, frame):
        """(message name, {signal: value}) for a received frame, or None when the file
        has no message with its identifier. Accepts a CanFrame or anything with the
        arbitration_id / is_extended_id / data of a python-can Message."""
        if not isinstance(frame, CanFrame):
            frame = CanFrame(id=frame.arbitration_id, data=bytes(frame.data)[:8],
                             extended=frame.is_extended_id)
        name = self.message_for(frame.id, frame.extended)
        if name is None:
            return None
        rec = frame.to_record()
        check("DBC", "DBC_SyncCANMsgToValue",
              self._lib.DBC_SyncCANMsgToValue(self._live(), ctypes.byref(rec), 1))
        return name, self.values(name)

    def close(self):
        if self._handle:
            self._lib.DBC_Release(self._handle)
            self._handle = 0

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass
