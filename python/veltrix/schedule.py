"""Frame tables the adapter transmits by itself, the relay between its two CAN ports, and
the relay rule set it keeps in its user-data area.

A table entry pairs a frame with its timing value, which the adapter's firmware
interprets (the library passes it on unchanged in the frame's time field); the table
parameters, start options, relay configuration words and rules are the firmware's too
and travel as opaque bytes."""

import ctypes
from dataclasses import dataclass, field

from . import _library, records
from .can import CanFrame
from .canfd import CanFdFrame
from .device import Adapter
from .errors import check
from ._closing import Closing

MAX_TABLES = 255
MAX_TABLE_FRAMES = 255
RELAY_WORDS = 11
RELAY_RULE_BYTES = 168
RELAY_RULES_MAX = 64
_NO_RULE_SET = 0xFFFFFFFF  # a rule count no stored set can have


@dataclass(frozen=True)
class ScheduleTable:
    """One table: `entries` of (frame, timing value), and its two parameter bytes."""

    entries: tuple
    params: bytes = b"\0\0"

    def __post_init__(self):
        object.__setattr__(self, "entries", tuple(self.entries))
        object.__setattr__(self, "params", bytes(self.params))
        if len(self.params) != 2:
            raise ValueError(f"a table has two parameter bytes, not {len(self.params)}")
        if len(self.entries) > MAX_TABLE_FRAMES:
            raise ValueError(f"a table holds at most {MAX_TABLE_FRAMES} frames")
        for frame, timing in self.entries:
            if not isinstance(frame, (CanFrame, CanFdFrame)):
                raise TypeError(f"a table entry's frame must be a CanFrame or CanFdFrame, "
                                f"not {type(frame).__name__}")
            if not 0 <= timing <= 0xFFFFFFFF:
                raise ValueError(f"timing value {timing} does not fit 32 bits")


@dataclass(frozen=True)
class RelayRules:
    """The relay rule set: eleven configuration words and up to 64 rules of 168 bytes."""

    words: tuple = (0,) * RELAY_WORDS
    rules: tuple = field(default_factory=tuple)

    def __post_init__(self):
        object.__setattr__(self, "words", tuple(self.words))
        object.__setattr__(self, "rules", tuple(bytes(r) for r in self.rules))
        if len(self.words) != RELAY_WORDS or not all(0 <= w <= 0xFFFFFFFF for w in self.words):
            raise ValueError(f"the relay configuration is {RELAY_WORDS} 32-bit words")
        if len(self.rules) > RELAY_RULES_MAX:
            raise ValueError(f"at most {RELAY_RULES_MAX} relay rules fit, not {len(self.rules)}")
        if any(len(r) != RELAY_RULE_BYTES for r in self.rules):
            raise ValueError(f"every relay rule is {RELAY_RULE_BYTES} bytes")


def _adapter(adapter):
    return Adapter(adapter.handle if isinstance(adapter, Adapter) else adapter)


class CanSchedule(Closing):
    """The schedule tables of CAN port `port` (0 or 1). A table set with CAN FD frames
    needs a CAN FD adapter; classic frames work on both models. Used as a context manager
    the tables are stopped on the way out. Failures raise CanError (-4: the adapter
    refused or did not answer)."""

    def __init__(self, adapter, port):
        if port not in (0, 1):
            raise ValueError(f"CAN port {port} does not exist (0 or 1)")
        self._lib = _library.load()
        self.adapter = _adapter(adapter)
        self.port = port
        self._started = False
        self.adapter.open()

    def _call(self, name, *args):
        return check("CAN", name, getattr(self._lib, name)(self.adapter.handle, self.port, *args))

    def load(self, tables):
        """Replaces the port's tables with `tables` (ScheduleTable objects). Large sets go
        to the adapter's schedule flash, which the library erases first."""
        tables = list(tables)
        if len(tables) > MAX_TABLES:
            raise ValueError(f"at most {MAX_TABLES} tables fit, not {len(tables)}")
        entries = [e for t in tables for e in t.entries]
        fd = any(isinstance(f, CanFdFrame) for f, _ in entries)
        record = records.CANFD_MSG if fd else records.CAN_MSG
        frames = (record * max(1, len(entries)))()
        for i, (frame, timing) in enumerate(entries):
            if fd and isinstance(frame, CanFrame):
                frame = CanFdFrame(frame.id, frame.data, frame.extended, fd=False,
                                   remote=frame.remote)
            frame.to_record(frames[i])
            frames[i].TimeStamp = timing
        counts = (ctypes.c_ubyte * max(1, len(tables)))(*[len(t.entries) for t in tables])
        params = (ctypes.c_ubyte * max(2, 2 * len(tables)))(*b"".join(t.params for t in tables))
        self._call("CANFD_SetSchedule" if fd else "CAN_SetSchedule", frames, counts, params,
                   len(tables))

    def start(self, option1=0, option2=0, option3=0):
        """Starts the stored tables; the three option bytes mean what the firmware says."""
        for v in (option1, option2, option3):
            if not 0 <= v <= 0xFF:
                raise ValueError(f"start option {v} is not a byte")
        self._call("CAN_StartSchedule", option1, option2, option3)
        self._started = True

    def stop(self):
        self._call("CAN_StopSchedule")
        self._started = False

    def close(self):
        """Stops started tables (ignoring an adapter that is gone) and lets go of it."""
        if self._started:
            self._started = False
            self._lib.CAN_StopSchedule(self.adapter.handle, self.port)
        self.adapter.close()


def set_relay(adapter, mode):
    """Sets the relay mode between the two ports (the adapter must echo it)."""
    if not 0 <= mode <= 0xFF:
        raise ValueError(f"relay mode {mode} is not a byte")
    with _adapter(adapter) as a:
        check("CAN", "CAN_SetRelay", _library.load().CAN_SetRelay(a.handle, mode))


def store_relay_rules(adapter, rule_set):
    """Writes `rule_set` (RelayRules) to the adapter's user-data area and verifies it."""
    config = records.CAN_RELAY_CONFIG()
    for i, w in enumerate(rule_set.words):
        config.Words[i] = w
    config.RuleCount = len(rule_set.rules)
    rules = (records.CAN_RELAY_RULE * max(1, len(rule_set.rules)))()
    for i, r in enumerate(rule_set.rules):
        ctypes.memmove(rules[i].Data, r, RELAY_RULE_BYTES)
    with _adapter(adapter) as a:
        check("CAN", "CAN_SetRelayData", _library.load().CAN_SetRelayData(
            a.handle, ctypes.byref(config), rules))


def relay_rules(adapter):
    """The stored relay rule set, or None when the adapter holds none."""
    config = records.CAN_RELAY_CONFIG(RuleCount=_NO_RULE_SET)
    rules = (records.CAN_RELAY_RULE * RELAY_RULES_MAX)()
    with _adapter(adapter) as a:
        check("CAN", "CAN_GetRelayData", _library.load().CAN_GetRelayData(
            a.handle, ctypes.byref(config), rules))
    if config.RuleCount == _NO_RULE_SET:
        return None
    count = min(config.RuleCount, RELAY_RULES_MAX)
    return RelayRules(tuple(config.Words), tuple(bytes(rules[i].Data) for i in range(count)))
