#!/usr/bin/env python3
"""Logs the frames a CAN port receives to a file python-can can read back (.log, .asc,
.blf, .csv, ...) and prints each one decoded with a DBC database.

    dbc_logger.py --dbc FILE --channel 51000001:0 --log trace.asc [--count N] [--timeout S]
"""

import argparse
import sys

import can

import veltrix
from veltrix.dbc import Database
from veltrix.interface import parse_channel


def describe(db, msg):
    decoded = db.decode(msg)
    if decoded is None:
        return f"{msg.arbitration_id:X} (not in the database) {msg.data.hex(' ')}"
    name, values = decoded
    return name + ": " + ", ".join(f"{sig}={value:g}" for sig, value in values.items())


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--dbc", required=True)
    ap.add_argument("--channel", required=True, help="SERIAL:PORT")
    ap.add_argument("--bitrate", type=int, default=500000)
    ap.add_argument("--log", help="file to log the raw frames to")
    ap.add_argument("--count", type=int, default=0, help="stop after N frames (0: never)")
    ap.add_argument("--timeout", type=float, default=None,
                    help="stop after S seconds without a frame")
    args = ap.parse_args(argv)

    try:
        handle, _ = parse_channel(args.channel)
        veltrix.scan()  # a database is loaded for an adapter the registry knows
        db = Database(args.dbc, handle)
        bus = can.Bus(interface="veltrix", channel=args.channel, bitrate=args.bitrate)
    except (ValueError, veltrix.VeltrixError, can.CanError) as e:
        print(f"dbc_logger: {e}", file=sys.stderr)
        return 1
    logger = can.Logger(args.log) if args.log else None
    seen = 0
    try:
        with db, bus:
            while args.count == 0 or seen < args.count:
                msg = bus.recv(args.timeout)
                if msg is None:
                    break
                seen += 1
                if logger is not None:
                    logger(msg)
                print(f"{msg.timestamp:.6f} {describe(db, msg)}", flush=True)
    except KeyboardInterrupt:
        pass
    except (veltrix.VeltrixError, can.CanError) as e:
        print(f"dbc_logger: {e}", file=sys.stderr)
        return 1
    finally:
        if logger is not None:
            logger.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
