"""python-can interface "veltrix": can.Bus(interface="veltrix", channel="51000001:0",
bitrate=500000).

The channel names an adapter by its serial number (hex) and a port after a colon (0 when
left out). Received frames are taken from the library's background queue; their times
are the adapter's frame times placed on the host's clock once, at start-up, so intervals
between frames keep the adapter's 100 us resolution.

send_periodic() is python-can's own thread-driven task, not the adapter's schedule tables
(veltrix.schedule): a port holds one table set, so each new task would have to reload and
restart every other task on the port; the timing value of a table entry and the start
options are the firmware's, which the bus cannot promise to mean "period in ms" on every
model; and modify_data() or a duration would each become a reload. Applications that
want the adapter to send without the host use CanSchedule directly.
"""

import collections
import threading
import time

import can

from . import _library
from . import canfd
from .can import READ_CHUNK, TIME_UNIT_S, CanChannel, CanFrame, FilterRule
from .canfd import CanFdChannel, CanFdFrame
from .device import Adapter, parse_handle, scan
from .errors import VeltrixError

# How long recv() sleeps between looks into an empty queue: the library's receive thread
# polls the adapter every 10 ms, so looking much more often only burns CPU.
_IDLE_POLL_S = 0.002
_TIME_WRAP = 1 << 32  # the adapter counter read at start-up is 32 bits wide
_HALF_WRAP = 1 << 31
# An adapter pulled out leaves the receive queue merely empty. After this long without a
# frame recv asks the adapter for its status once, so a reader learns of the loss within
# about a second at the cost of one command per idle second.
_ALIVE_CHECK_S = 1.0


def parse_channel(channel):
    """(handle, port) from "51000001:1", "0x51000001", 0x51000001 or (0x51000001, 1)."""
    if isinstance(channel, (tuple, list)) and len(channel) == 2:
        handle, port = channel
    elif isinstance(channel, int):
        handle, port = channel, 0
    else:
        text = str(channel)
        handle, _, port = text.partition(":")
        port = port or 0
    try:
        port = int(port)
    except ValueError:
        raise ValueError(f"not a CAN port number in channel {channel!r}") from None
    return parse_handle(handle), port


def _operation_error(e):
    return can.CanOperationError(str(e), error_code=getattr(e, "code", None))


class VeltrixBus(can.BusABC):
    """A CAN or CAN FD port of a VELTRIX adapter as a python-can bus."""

    def __init__(self, channel, can_filters=None, bitrate=500000, fd=False,
                 data_bitrate=None, receive_own_messages=False, **kwargs):
        try:
            handle, port = parse_channel(channel)
            if data_bitrate is None:
                data_bitrate = bitrate  # no faster data phase asked for
            for name, rate in (("bitrate", bitrate), ("data_bitrate", data_bitrate)):
                if isinstance(rate, bool) or not isinstance(rate, int) or rate <= 0:
                    raise ValueError(f"{name} must be a positive number of bit/s, not {rate!r}")
            if fd and not canfd.is_fd_model(handle):
                raise ValueError(f"adapter {handle:08X} has no CAN FD ports")
        except ValueError as e:
            raise can.CanInitializationError(str(e)) from None
        self._fd = bool(fd)
        self.channel = f"{handle:08X}:{port}"
        self.channel_info = (f"VELTRIX adapter {handle:08X} port {port}, {bitrate} bit/s"
                             + (f", data phase {data_bitrate} bit/s" if fd else ""))
        self._receive_own = bool(receive_own_messages)
        # The adapter does not hand back what it sent; with receive_own_messages the bus
        # returns each accepted frame itself (appended by send, taken by recv: a deque
        # because the two may run in different threads).
        self._own = collections.deque()
        self._pending = []
        self._hw_filtered = False
        self._shut = threading.Event()
        self._heard = time.monotonic()
        try:
            if self._fd:
                self._port = CanFdChannel(Adapter(handle), port, bitrate, data_bitrate)
                # FD frame times count 10 us units from a clock the adapter's time query
                # does not report: the first frame received anchors them on the host clock.
                self._time_base = None
            else:
                self._port = CanChannel(Adapter(handle), port, bitrate)
                self._time_base = self._read_time_base()
        except _library.LibraryNotFound as e:
            raise can.CanInterfaceNotImplementedError(str(e)) from None
        except (VeltrixError, ValueError) as e:
            if getattr(self, "_port", None) is not None:
                self._port.close()
            raise can.CanInitializationError(str(e), error_code=getattr(e, "code", None)) \
                from None
        try:
            super().__init__(channel=self.channel, can_filters=can_filters, **kwargs)
        except BaseException:
            self._port.close()
            raise

    def _read_time_base(self):
        """(adapter counter, host time) taken together: the anchor for frame times."""
        before = time.time()
        counter = self._port.adapter.timestamp()
        after = time.time()
        return counter, (before + after) / 2

    def _epoch(self, frame_time):
        if self._fd:
            if self._time_base is None:
                self._time_base = frame_time, time.time()
            counter, host = self._time_base
            wrap = 1 << canfd.TIME_BITS
            delta = (frame_time - counter + wrap // 2) % wrap - wrap // 2
            return host + delta * canfd.TIME_UNIT_S
        # Frames may predate the anchor (received between the port's start and the counter
        # read), so the distance is taken as signed: about 2.5 days either way.
        counter, host = self._time_base
        delta = (frame_time - counter + _HALF_WRAP) % _TIME_WRAP - _HALF_WRAP
        return host + delta * TIME_UNIT_S

    def _to_message(self, frame):
        if self._fd:
            return can.Message(timestamp=self._epoch(frame.time), arbitration_id=frame.id,
                               is_extended_id=frame.extended, is_remote_frame=frame.remote,
                               data=frame.data, is_fd=frame.fd, bitrate_switch=frame.brs,
                               error_state_indicator=frame.esi, channel=self.channel,
                               is_rx=not frame.tx)
        return can.Message(timestamp=self._epoch(frame.time), arbitration_id=frame.id,
                           is_extended_id=frame.extended, is_remote_frame=frame.remote,
                           dlc=frame.dlc, data=frame.data, channel=self.channel,
                           is_rx=not frame.tx)

    # ---- filters ------------------------------------------------------------------

    def _apply_filters(self, filters):
        rules = [FilterRule(f["can_id"], f["can_mask"], f.get("extended"))
                 for f in (filters or ())]
        try:
            self._hw_filtered = self._port.set_filters(rules) and bool(rules)
        except VeltrixError as e:
            raise _operation_error(e) from None

    # ---- receiving ----------------------------------------------------------------

    def _recv_internal(self, timeout):
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            if self._shut.is_set():
                raise can.CanOperationError("the bus has been shut down")
            if self._own:
                return self._own.popleft(), False
            if not self._pending:
                try:
                    frames = self._port.receive(READ_CHUNK)
                except VeltrixError as e:
                    if self._shut.is_set():
                        raise can.CanOperationError("the bus has been shut down") from None
                    raise _operation_error(e) from None
                # The queue holds received frames only; a frame marked as sent by this host
                # would be the adapter echoing one back, which the own-message echo covers.
                self._pending = [f for f in frames if not f.tx]
                self._pending.reverse()
            if self._pending:
                self._heard = time.monotonic()
                return self._to_message(self._pending.pop()), self._hw_filtered
            if time.monotonic() - self._heard >= _ALIVE_CHECK_S:
                try:
                    self._port.status()
                except VeltrixError as e:
                    raise _operation_error(e) from None
                self._heard = time.monotonic()
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                return None, False
            self._shut.wait(_IDLE_POLL_S if left is None else min(_IDLE_POLL_S, left))

    # ---- sending ------------------------------------------------------------------

    def _frame(self, msg):
        if msg.is_error_frame:
            raise ValueError("error frames cannot be sent")
        if self._fd:
            if msg.is_remote_frame and msg.dlc:
                # The CAN FD record has no length apart from its data bytes.
                raise ValueError("a remote frame on a CAN FD port asks for no data bytes")
            return CanFdFrame(id=msg.arbitration_id, data=bytes(msg.data),
                              extended=msg.is_extended_id, fd=msg.is_fd,
                              brs=msg.bitrate_switch, esi=msg.error_state_indicator,
                              remote=msg.is_remote_frame)
        if msg.is_fd:
            raise ValueError("this bus was opened without fd=True and sends classic frames only")
        return CanFrame(id=msg.arbitration_id, data=bytes(msg.data), extended=msg.is_extended_id,
                        remote=msg.is_remote_frame, dlc=msg.dlc if msg.is_remote_frame else -1)

    def _own_message(self, frame):
        if self._fd:
            return can.Message(timestamp=time.time(), arbitration_id=frame.id,
                               is_extended_id=frame.extended, is_remote_frame=frame.remote,
                               data=frame.data, is_fd=frame.fd, bitrate_switch=frame.brs,
                               error_state_indicator=frame.esi, channel=self.channel,
                               is_rx=False)
        return can.Message(timestamp=time.time(), arbitration_id=frame.id,
                           is_extended_id=frame.extended, is_remote_frame=frame.remote,
                           dlc=frame.dlc, data=frame.data, channel=self.channel, is_rx=False)

    def send(self, msg, timeout=None):
        try:
            frame = self._frame(msg)
        except ValueError as e:
            raise can.CanOperationError(str(e)) from None
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            if self._shut.is_set():
                raise can.CanOperationError("the bus has been shut down")
            try:
                sent = self._port.send([frame])
                if sent == 1:
                    if self._receive_own:
                        self._own.append(self._own_message(frame))
                    return
            except VeltrixError as e:
                raise _operation_error(e) from None
            if self._fd:
                # A CAN FD send waits until the frame is on the bus; no transmit event
                # means the adapter gave up on it, and sending again could duplicate it.
                raise can.CanOperationError("the adapter did not put the frame on the bus")
            # The adapter took nothing: its transmit buffer is full. Wait for room while
            # the caller's timeout allows.
            if deadline is None or time.monotonic() >= deadline:
                raise can.CanOperationError("the adapter's transmit buffer is full")
            time.sleep(_IDLE_POLL_S)

    # ---- state and shutdown ---------------------------------------------------------

    @property
    def state(self):
        try:
            status = self._port.status()
        except VeltrixError as e:
            raise _operation_error(e) from None
        if status.bus_off:
            return can.BusState.ERROR
        if status.passive:
            return can.BusState.PASSIVE
        return can.BusState.ACTIVE

    @state.setter
    def state(self, new_state):
        raise NotImplementedError("the port's mode is fixed while it runs")

    def flush_tx_buffer(self):
        pass  # the adapter sends what it accepted; there is no host-side transmit queue

    def shutdown(self):
        if self._shut.is_set():
            return
        self._shut.set()
        try:
            super().shutdown()
        finally:
            self._port.close()

    @staticmethod
    def _detect_available_configs():
        try:
            adapters = scan()
        except (OSError, VeltrixError):
            return []
        configs = []
        for a in adapters:
            for port in (0, 1):
                config = {"interface": "veltrix", "channel": f"{a.handle:08X}:{port}"}
                if canfd.is_fd_model(a.handle):
                    config["fd"] = True
                configs.append(config)
        return configs
