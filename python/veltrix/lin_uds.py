"""Diagnostic requests over LIN: messages of up to 4095 bytes to one node, sent on the
master request frame and polled on the slave response frame of a master channel."""

import ctypes

from . import _library, records
from .errors import check
from .lin import LinChannel, LinFrame
from ._closing import Closing

MAX_LENGTH = 4095
BUFFER_RECORDS = 1000
NEGATIVE = 0x7F
PENDING = 0x78
CHECKSUMS = {"classic": 0, "enhanced": 1}


class LinUdsClient(Closing):
    """A conversation with node `nad` on LIN channel `channel` of an adapter. The client
    opens the channel as master at `baudrate` unless given `lin`, an open master
    LinChannel, which it then leaves open. `stmin_ms` is the slot of each frame and the
    pause between polls. Failures raise LinUdsError with the code (-99 no frame, -101
    time-out, -103 sequence, -105 frame type)."""

    def __init__(self, adapter, channel, nad, baudrate=19200, request_id=0x3C,
                 response_id=0x3D, checksum="classic", stmin_ms=0, lin=None):
        for name, value, top in (("nad", nad, 0xFF), ("request_id", request_id, 0x3F),
                                 ("response_id", response_id, 0x3F),
                                 ("stmin_ms", stmin_ms, 0xFF)):
            if not 0 <= value <= top:
                raise ValueError(f"{name} {value} is out of range 0..{top}")
        if checksum not in CHECKSUMS:
            raise ValueError(f"checksum must be 'classic' or 'enhanced', not {checksum!r}")
        self._lib = _library.load()
        self._own = lin is None
        self.lin = LinChannel(adapter, channel, baudrate, master=True) if lin is None else lin
        self._addr = records.LIN_UDS_ADDR(ReqID=request_id, ResID=response_id, NAD=nad,
                                          CheckType=CHECKSUMS[checksum], STmin=stmin_ms)

    @property
    def _target(self):
        return self.lin.adapter.handle, self.lin.channel

    def send(self, data):
        """Sends one request (a single frame, or first and consecutive frames)."""
        data = bytes(data)
        if len(data) > MAX_LENGTH:
            raise ValueError(f"a request carries at most {MAX_LENGTH} bytes, not {len(data)}")
        buf = (ctypes.c_ubyte * max(1, len(data))).from_buffer_copy(data.ljust(1, b"\0"))
        with self.lin._lock:
            check("LIN_UDS", "LIN_UDS_Request",
                  self._lib.LIN_UDS_Request(*self._target, ctypes.byref(self._addr), buf,
                                            len(data)))

    def receive(self, timeout=1.0):
        """The next complete response (a response-pending answer counts as one)."""
        buf = (ctypes.c_ubyte * MAX_LENGTH)()
        with self.lin._lock:
            n = check("LIN_UDS", "LIN_UDS_Response",
                      self._lib.LIN_UDS_Response(*self._target, ctypes.byref(self._addr), buf,
                                                 max(0, int(timeout * 1000))))
        return bytes(buf[:min(n, MAX_LENGTH)])

    def request(self, data, timeout=1.0, pending_timeout=5.0):
        """Sends a request and returns the final answer, waiting through response-pending
        answers (7F sid 78). A negative response comes back as it is."""
        data = bytes(data)
        self.send(data)
        answer = self.receive(timeout)
        while (len(answer) >= 3 and answer[0] == NEGATIVE and answer[2] == PENDING
               and (not data or answer[1] == data[0])):
            answer = self.receive(pending_timeout)
        return answer

    def frames(self):
        """The LIN frames of the exchanges since the last request, oldest first."""
        out = (records.LIN_EX_MSG * BUFFER_RECORDS)()
        n = check("LIN_UDS", "LIN_UDS_GetMsgFromUDSBuffer",
                  self._lib.LIN_UDS_GetMsgFromUDSBuffer(*self._target, out, BUFFER_RECORDS))
        return [LinFrame.from_record(out[i]) for i in range(min(n, BUFFER_RECORDS))]

    def close(self):
        if self._own:
            self.lin.close()
