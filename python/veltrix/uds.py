"""Diagnostic requests over CAN: ISO-TP messages of any length, sent and received as bytes
on a classic CAN port that the library receives in the background."""

import ctypes

from . import _library, records
from .can import CanChannel
from .errors import check
from ._closing import Closing

ID_EXTENDED = 0x01
MAX_RESPONSE = 4095  # the longest message with a 12-bit length; pass more to read longer
NEGATIVE = 0x7F
PENDING = 0x78  # negative response code: the answer follows later


class UdsClient(Closing):
    """One diagnostic conversation: requests go out on `request_id`, answers are accepted
    on `response_id`. `address` (an int) turns extended addressing on with that address
    byte. The client opens the port itself (at `bitrate`) unless given a `channel`, an
    open CanChannel of the same adapter, which it then leaves open.

    One transfer at a time per port: the library's ISO-TP queue is shared by everything
    on the port."""

    def __init__(self, adapter, port, request_id, response_id, bitrate=500000,
                 extended=False, address=None, channel=None):
        limit = 0x1FFFFFFF if extended else 0x7FF
        for name, value in (("request_id", request_id), ("response_id", response_id)):
            if not 0 <= value <= limit:
                raise ValueError(f"{name} 0x{value:X} does not fit "
                                 f"{'29' if extended else '11'} bits")
        if address is not None and not 0 <= address <= 0xFF:
            raise ValueError(f"address byte {address} is not 0..255")
        self._lib = _library.load()
        self._own_channel = channel is None
        self.channel = CanChannel(adapter, port, bitrate) if channel is None else channel
        self._addr = records.CAN_UDS_ADDR(
            RequestID=request_id, ResponseID=response_id,
            IdFlags=ID_EXTENDED if extended else 0, ExtAddressing=0 if address is None else 1,
            AddressExtension=0 if address is None else address, FrameLength=8)

    @property
    def _target(self):
        return self.channel.adapter.handle, self.channel.port

    def send(self, data):
        """Sends one message (segmented and paced as the receiver's flow control asks)."""
        data = bytes(data)
        buf = (ctypes.c_ubyte * max(1, len(data))).from_buffer_copy(data.ljust(1, b"\0"))
        check("UDS", "CAN_UDS_Request",
              self._lib.CAN_UDS_Request(*self._target, ctypes.byref(self._addr), buf,
                                        len(data)))

    def receive(self, timeout=1.0, max_length=MAX_RESPONSE):
        """The next complete message from the peer, as bytes. A message longer than
        `max_length` is received to its end and then raises UdsError -108."""
        if max_length < 0:
            raise ValueError("max_length must not be negative")
        buf = (ctypes.c_ubyte * max(1, max_length))()
        n = check("UDS", "CAN_UDS_ResponseWithSize",
                  self._lib.CAN_UDS_ResponseWithSize(*self._target, ctypes.byref(self._addr),
                                                     buf, max_length,
                                                     max(0, int(timeout * 1000))))
        return bytes(buf[:min(n, max_length)])

    def request(self, data, timeout=1.0, pending_timeout=5.0, max_length=MAX_RESPONSE):
        """Sends a request and returns the final answer: response-pending answers
        (7F sid 78) are waited through, each giving the peer `pending_timeout` more. A
        negative response comes back as it is (7F sid code)."""
        data = bytes(data)
        self.send(data)
        answer = self.receive(timeout, max_length)
        while (len(answer) >= 3 and answer[0] == NEGATIVE and answer[2] == PENDING
               and (not data or answer[1] == data[0])):
            answer = self.receive(pending_timeout, max_length)
        return answer

    def close(self):
        if self._own_channel:
            self.channel.close()
