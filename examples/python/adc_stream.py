#!/usr/bin/env python3
"""Streams analog inputs of an adapter as CSV: one line per sampling instant, one column per
input, until --count instants have been written (or Ctrl-C).

    adc_stream.py --adapter 51000001 --inputs 0,2 --rate 1000 [--count N] [--frame 256]
"""

import argparse
import sys

import veltrix
from veltrix.adc import Adc


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--adapter", required=True, help="serial number (hex)")
    ap.add_argument("--inputs", default="0", help="comma-separated input numbers 0..7")
    ap.add_argument("--rate", type=int, default=1000, help="samples per second per input")
    ap.add_argument("--count", type=int, default=0, help="instants to write (0: until ^C)")
    ap.add_argument("--frame", type=int, default=256, help="samples per stream frame")
    args = ap.parse_args(argv)

    try:
        inputs = [int(i) for i in args.inputs.split(",")]
        veltrix.scan()
        with Adc(args.adapter, inputs, args.rate) as adc, adc.stream(args.frame) as stream:
            print(",".join(f"in{i}" for i in adc.inputs))
            written, row = 0, []
            for frame in stream:
                for sample in frame:
                    row.append(sample)
                    if len(row) == len(inputs):
                        print(",".join(map(str, row)))
                        row = []
                        written += 1
                        if written == args.count:
                            return 0
    except KeyboardInterrupt:
        return 0
    except (veltrix.VeltrixError, ValueError) as e:
        print(f"adc_stream: {e}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
