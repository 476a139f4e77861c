#!/usr/bin/env python3
"""Plays the master node of a LIN cluster described by an LDF file: sets signals, runs a
schedule table once and prints every frame exchanged on the bus.

    lin_master.py --adapter 51000001 --channel 0 --ldf FILE --schedule NAME
                  [--set FRAME.SIGNAL=VALUE ...]
"""

import argparse
import sys

import veltrix
from veltrix.ldf import Description

KINDS = {1: "write", 2: "read", 5: "break", 8: "rx", 9: "rx"}


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--adapter", required=True, help="serial number (hex)")
    ap.add_argument("--channel", type=int, default=0)
    ap.add_argument("--ldf", required=True)
    ap.add_argument("--schedule", required=True)
    ap.add_argument("--set", action="append", default=[], metavar="FRAME.SIGNAL=VALUE")
    args = ap.parse_args(argv)

    try:
        veltrix.scan()
        with veltrix.Adapter(args.adapter) as adapter, \
                Description(args.ldf, adapter, args.channel, master=True) as ldf:
            for item in args.set:
                target, _, value = item.partition("=")
                frame, _, signal = target.partition(".")
                ldf.set(frame, signal, float(value))
            print(f"{args.ldf}: LIN {ldf.protocol_version / 100:.1f}, {ldf.speed} bit/s, "
                  f"schedule {args.schedule}: "
                  + ", ".join(f"{f} {d:g} ms" for f, d in ldf.schedule_entries(args.schedule)))
            ldf.run_schedule(args.schedule)
            for f in ldf.bus_frames():
                print(f"  {KINDS.get(f.kind, f.kind):>5}  id 0x{f.id:02X}  [{len(f.data)}]  "
                      f"{f.data.hex(' ').upper()}  checksum {f.checksum}")
    except (ValueError, veltrix.VeltrixError) as e:
        print(f"lin_master: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
