#!/usr/bin/env python3
"""Prints every frame a VELTRIX adapter's CAN port receives, candump style.

    can_monitor.py --channel 51000001:0 --bitrate 500000 [--count N] [--timeout S]
"""

import argparse
import sys

import can


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--channel", default=None, help="SERIAL:PORT (default: the first found)")
    ap.add_argument("--bitrate", type=int, default=500000)
    ap.add_argument("--count", type=int, default=0, help="stop after N frames (0: never)")
    ap.add_argument("--timeout", type=float, default=None,
                    help="stop after S seconds without a frame")
    args = ap.parse_args(argv)

    channel = args.channel
    if channel is None:
        found = can.detect_available_configs("veltrix")
        if not found:
            print("no VELTRIX adapter found", file=sys.stderr)
            return 1
        channel = found[0]["channel"]
    try:
        bus = can.Bus(interface="veltrix", channel=channel, bitrate=args.bitrate)
    except can.CanError as e:
        print(f"can_monitor: {e}", file=sys.stderr)
        return 1
    seen = 0
    with bus:
        try:
            while args.count == 0 or seen < args.count:
                msg = bus.recv(args.timeout)
                if msg is None:
                    break
                seen += 1
                ident = f"{msg.arbitration_id:08X}" if msg.is_extended_id else \
                    f"{msg.arbitration_id:03X}"
                body = "remote request" if msg.is_remote_frame else msg.data.hex(" ").upper()
                print(f"({msg.timestamp:.6f})  {channel}  {ident}   [{msg.dlc}]  {body}",
                      flush=True)
        except KeyboardInterrupt:
            pass
        except can.CanError as e:
            print(f"can_monitor: {e}", file=sys.stderr)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
