import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))

from simhooks import VirtualAdapters  # noqa: E402

# Placed by the test launcher (tests/python/CMakeLists.txt): ports 0 and 1 of each adapter
# are joined by the virtual cable. UNPLUG is pulled out by the tests that need a dead one.
ADAPTER = 0x51000001
UNPLUG = 0x51000002
CORPUS = os.environ.get("VELTRIX_CORPUS_DIR",
                        os.path.join(os.path.dirname(__file__), *[os.pardir] * 3, "shared",
                                     "corpus"))


@pytest.fixture(scope="session")
def sim():
    try:
        return VirtualAdapters()
    except AttributeError:
        pytest.skip("not running under veltrix-sim")


@pytest.fixture
def can_pair(sim):
    """python-can buses on ports 0 and 1 of ADAPTER, which hear each other."""
    can = pytest.importorskip("can")
    buses = [can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:{p}", bitrate=500000)
             for p in (0, 1)]
    yield buses
    for b in buses:
        b.shutdown()
