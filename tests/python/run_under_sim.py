#!/usr/bin/env python3
"""Runs a command under veltrix-sim for CTest, passing its output and exit code through.

On a loaded machine the launcher's USB emulation occasionally fails to start its own
thread before the program runs ("creating thread 'gmain'", SIGTRAP); /bin/true under the
launcher shows the same. Only that start-up failure, with nothing run yet, is retried:
any failure of the program itself is reported as it is.

    run_under_sim.py VELTRIX_SIM [LAUNCHER ARGS...] -- PROGRAM [ARGS...]
"""

import subprocess
import sys

STARTUP_FAILURE = "creating thread 'gmain'"
ATTEMPTS = 3


def main(argv):
    for attempt in range(1, ATTEMPTS + 1):
        run = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = run.stdout.decode(errors="replace"), run.stderr.decode(errors="replace")
        startup = run.returncode != 0 and STARTUP_FAILURE in err and not out.strip()
        if not startup or attempt == ATTEMPTS:
            sys.stdout.write(out)
            sys.stderr.write(err)
            return run.returncode if run.returncode >= 0 else 128 - run.returncode
        sys.stderr.write(f"run_under_sim: the launcher failed to start ({err.strip()}); "
                         f"attempt {attempt + 1} of {ATTEMPTS}\n")
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
