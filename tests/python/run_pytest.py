#!/usr/bin/env python3
"""Runs one pytest file under veltrix-sim for CTest.

    run_pytest.py VELTRIX_SIM [LAUNCHER ARGS...] -- PYTHON -m pytest [ARGS...] FILE

Exit codes as CTest should read them:
  - pytest's 5 ("no tests collected") with its tests skipped (python-can absent) becomes
    77, which the test's SKIP_RETURN_CODE reports as skipped; a file that collects
    nothing at all keeps 5 and fails.
  - On a loaded machine the launcher's USB emulation occasionally fails to start its own
    thread before the program runs ("creating thread 'gmain'", SIGTRAP; /bin/true under
    the launcher shows the same). Only that start-up failure, with nothing run yet, is
    retried; any failure of the program itself is reported as it is.
"""

import re
import subprocess
import sys

STARTUP_FAILURE = "creating thread 'gmain'"
ATTEMPTS = 3
NO_TESTS = 5
SKIPPED = 77


def run(argv):
    for attempt in range(1, ATTEMPTS + 1):
        done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, err = done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")
        startup = done.returncode != 0 and STARTUP_FAILURE in err and not out.strip()
        if not startup or attempt == ATTEMPTS:
            return done.returncode, out, err
        sys.stderr.write(f"run_pytest: the launcher failed to start ({err.strip()}); "
                         f"attempt {attempt + 1} of {ATTEMPTS}\n")


def main(argv):
    code, out, err = run(argv)
    sys.stdout.write(out)
    sys.stderr.write(err)
    if code < 0:
        return 128 - code
    summary = out.strip().splitlines()[-1] if out.strip() else ""
    if code == NO_TESTS and re.search(r"\d+ skipped", summary):
        return SKIPPED
    return code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
