"""`vantrace combine` joins what several processes recorded by their clocks."""

import json
import struct
import zlib

import pytest

from conftest import run_python
from trace_rules import check_trace, events_of

RECORD = """
import sys, vantrace
with vantrace.record(sys.argv[1]):
    with vantrace.event(sys.argv[2]):
        pass
"""
PROCESS, HOUR = 1, 3_600_000_000_000


@pytest.fixture(name="traces")
def fixture_traces(tmp_path):
    """Files of two processes, of which the second began when the first had ended."""
    for name in ("early", "late"):
        done = run_python("-c", RECORD, tmp_path / f"{name}.vtrace", name)
        assert done.returncode == 0, done.stderr
    return tmp_path / "early.vtrace", tmp_path / "late.vtrace"


@pytest.fixture(name="starts")
def fixture_starts(tmp_path):
    """Joins files; gives when each event starts, in microseconds."""

    def starts(*files):
        for arguments in (
            ["combine", *files, "-o", "both.vtrace"],
            ["export", "both.vtrace", "-o", "both.json"],
        ):
            done = run_python("-m", "vantrace", *arguments, cwd=tmp_path)
            assert (done.returncode, done.stderr) == (0, "")
        text = (tmp_path / "both.json").read_text()
        assert check_trace(text) == []
        events = [event for event in events_of(text) if event["ph"] == "X"]
        assert len({event["pid"] for event in events}) == len(files)
        return {event["name"]: float(event["ts"]) for event in events}

    return starts


def change_process(file, boot_id, later):
    """Has a file be of another run of the system, with the day's clock ahead by so much."""
    content = bytearray(file.read_bytes())
    head = 16
    _, kind, _, _, size = struct.unpack_from("<IIIIQ", content, head)
    assert kind == PROCESS
    payload = head + 24
    [offset] = struct.unpack_from("<q", content, payload + 32)
    struct.pack_into("<q", content, payload + 32, offset + later)
    struct.pack_into("40s", content, payload + 144, boot_id)
    struct.pack_into("<I", content, head + 12, 0)
    checksum = zlib.crc32(content[head : payload + size])
    struct.pack_into("<I", content, head + 12, checksum)
    file.write_bytes(content)


def test_processes_of_one_boot_share_the_monotonic_clock(traces, starts):
    found = starts(*traces)
    assert 1 <= found["early"] < found["late"]


def test_the_order_of_the_files_does_not_matter(traces, starts):
    forwards, backwards = starts(*traces), starts(*reversed(traces))
    assert forwards == backwards


def test_processes_of_other_boots_are_joined_by_the_day_s_clock(traces, starts):
    together = starts(*traces)
    change_process(traces[1], b"another boot", HOUR)
    apart = starts(*traces)
    moved = (apart["late"] - apart["early"]) - (together["late"] - together["early"])
    # The day's clock may have been adjusted between the two processes.
    assert moved == pytest.approx(HOUR / 1000, abs=1000)


def test_a_damaged_file_is_not_joined(traces, tmp_path):
    content = bytearray(traces[1].read_bytes())
    content[200] ^= 1
    traces[1].write_bytes(content)
    done = run_python("-m", "vantrace", "combine", *traces, "-o", "both.vtrace", cwd=tmp_path)
    assert done.returncode == 2
    assert "damaged" in done.stderr
    assert not (tmp_path / "both.vtrace").exists()


def test_a_joined_file_can_be_joined_again(traces, starts, tmp_path):
    starts(*traces)
    assert json.loads((tmp_path / "both.json").read_text())["metadata"]["origin_utc_ns"] != "0"
    (tmp_path / "both.vtrace").rename(tmp_path / "first.vtrace")
    done = run_python(
        "-m", "vantrace", "combine", "first.vtrace", traces[0], "-o", "all.vtrace", cwd=tmp_path
    )
    assert (done.returncode, done.stderr) == (0, "")
    done = run_python("-m", "vantrace", "table", "all.vtrace", cwd=tmp_path)
    rows = {line.split()[0]: line.split()[1] for line in done.stdout.splitlines()[2:]}
    assert rows == {"early": "2", "late": "1"}
