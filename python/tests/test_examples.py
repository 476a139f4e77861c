"""The example scripts, run against the virtual adapter with traffic from a second bus."""

import importlib.util
import os
import threading

import pytest

can = pytest.importorskip("can")

from conftest import ADAPTER, CORPUS  # noqa: E402

EXAMPLES = os.environ.get("VELTRIX_EXAMPLES_DIR",
                          os.path.join(os.path.dirname(__file__), *[os.pardir] * 2,
                                       "examples", "python"))


def example(name):
    found = importlib.util.spec_from_file_location(name, os.path.join(EXAMPLES, name + ".py"))
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


def run_while_sending(main, argv, frames):
    """Runs an example's main() on port 1 while port 0 sends `frames` once it listens."""
    result = []
    t = threading.Thread(target=lambda: result.append(main(argv)))
    with can.Bus(interface="veltrix", channel=f"{ADAPTER:08X}:0", bitrate=500000) as tx:
        t.start()
        # Frames sent before the example's port runs would not be received.
        assert _listening.wait(10)
        for f in frames:
            tx.send(f)
        t.join(30)
    assert not t.is_alive()
    return result[0]


_listening = threading.Event()


@pytest.fixture(autouse=True)
def _mark_listening(monkeypatch):
    """Sets _listening when the example's bus has been created."""
    real = can.Bus

    def bus(*args, **kwargs):
        b = real(*args, **kwargs)
        if str(kwargs.get("channel", "")).endswith(":1"):
            _listening.set()
        return b

    _listening.clear()
    monkeypatch.setattr(can, "Bus", bus)


def test_can_monitor_prints_each_frame(capsys, sim):
    mon = example("can_monitor")
    frames = [can.Message(arbitration_id=0x123, data=b"\x01\x02", is_extended_id=False),
              can.Message(arbitration_id=0x1ABCDE, data=b"", is_extended_id=True)]
    rc = run_while_sending(mon.main, ["--channel", f"{ADAPTER:08X}:1", "--count", "2",
                                      "--timeout", "5"], frames)
    lines = capsys.readouterr().out.splitlines()
    assert rc == 0
    assert [line.split(None, 1)[1] for line in lines] == [
        f"{ADAPTER:08X}:1  123   [2]  01 02", f"{ADAPTER:08X}:1  001ABCDE   [0]  "]


def test_can_monitor_reports_a_bad_channel(capsys, sim):
    assert example("can_monitor").main(["--channel", "5100ABCD:0", "--timeout", "0"]) == 1
    assert "can_monitor:" in capsys.readouterr().err


def test_dbc_logger_decodes_and_logs(tmp_path, capsys, sim):
    log = example("dbc_logger")
    path = str(tmp_path / "trace.asc")
    frames = [can.Message(arbitration_id=496, data=bytes([0xC0, 0x01, 0x40, 0, 0, 0, 0, 0]),
                          is_extended_id=False),
              can.Message(arbitration_id=0x7FF, data=b"\xaa", is_extended_id=False)]
    rc = run_while_sending(log.main, ["--dbc", os.path.join(CORPUS, "dbc", "motohawk.dbc"),
                                      "--channel", f"{ADAPTER:08X}:1", "--log", path,
                                      "--count", "2", "--timeout", "5"], frames)
    lines = capsys.readouterr().out.splitlines()
    assert rc == 0
    assert [line.split(" ", 1)[1] for line in lines] == [
        "ExampleMessage: Temperature=250.1, AverageRadius=3.2, Enable=1",
        "7FF (not in the database) aa"]
    assert [(m.arbitration_id, bytes(m.data)) for m in can.LogReader(path)] == \
        [(f.arbitration_id, bytes(f.data)) for f in frames]


def test_lin_master_runs_a_schedule(capsys, sim):
    rc = example("lin_master").main([
        "--adapter", f"{ADAPTER:08X}", "--channel", "1",
        "--ldf", os.path.join(CORPUS, "ldf", "lin_diagnostics.ldf"),
        "--schedule", "Normal_Schedule", "--set", "CEM_Frm1.InternalLightsRequest=1"])
    out = capsys.readouterr().out.splitlines()
    assert rc == 0
    assert out[0].endswith("schedule Normal_Schedule: CEM_Frm1 15 ms, LSM_Frm2 15 ms, "
                           "RSM_Frm2 15 ms, Node_Status_Event 10 ms")
    # The master's own frame carries the signal packed with the unused bits set.
    assert out[1].split() == ["rx", "id", "0x01", "[1]", "FD", "checksum", "enhanced"]


def test_lin_master_reports_an_unknown_schedule(capsys, sim):
    rc = example("lin_master").main([
        "--adapter", f"{ADAPTER:08X}", "--ldf", os.path.join(CORPUS, "ldf", "lin_diagnostics.ldf"),
        "--schedule", "NoSuchSchedule"])
    assert rc == 1 and "NoSuchSchedule" in capsys.readouterr().err


@pytest.mark.parametrize("inputs, rows", [
    ("0,2", ["in0,in2", "0,8192", "1,8193", "2,8194", "3,8195", "4,8196"]),
    ("3", ["in3", "12288", "12289", "12290", "12291", "12292"]),
])
def test_adc_stream_writes_one_csv_line_per_instant(capsys, sim, inputs, rows):
    rc = example("adc_stream").main(["--adapter", f"{ADAPTER:08X}", "--inputs", inputs,
                                     "--rate", "2000", "--count", "5", "--frame", "16"])
    assert rc == 0 and capsys.readouterr().out.splitlines() == rows


@pytest.mark.parametrize("argv", [["--inputs", "9"], ["--inputs", "0", "--frame", "0"]])
def test_adc_stream_reports_bad_settings(capsys, sim, argv):
    assert example("adc_stream").main(["--adapter", f"{ADAPTER:08X}"] + argv) == 1
    assert capsys.readouterr().err.startswith("adc_stream:")
