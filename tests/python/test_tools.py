# SPDX-License-Identifier: MIT
"""python-can's Notifier, logger and player on wcan buses, and wcan dump logs replayed."""

import json
import os
import subprocess
import sys

import can
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from companion import FRAMES, as_list  # noqa: E402


def by_kind(frames):
    """Classic frames, then CAN FD frames, each kind in its order: the library
    queues the two kinds apart, so only the order within a kind holds."""
    return sorted((as_list(m) if isinstance(m, can.Message) else m for m in frames),
                  key=lambda frame: frame[5])


def companion(*arguments):
    command = [sys.executable, os.path.join(HERE, "companion.py"), *arguments]
    result = subprocess.run(command, capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    return result


def replay(log_file, count, tmp_path):
    """What a bus on wcan41-0-1 receives while can.player replays the file on wcan41-0-0."""
    out = tmp_path / "received.jsonl"
    companion("collect", str(count), str(out), "--", "-m", "can.player", "-i", "wcan",
              "-c", "wcan41-0-0", str(log_file))
    return [json.loads(line) for line in out.read_text().splitlines()]


@pytest.mark.parametrize("suffix", [".log", ".asc"])
def test_logger_writes_what_arrives_and_player_replays_it(tmp_path, suffix):
    log_file = tmp_path / f"traffic{suffix}"
    result = companion("feed", "--", "-m", "can.logger", "-i", "wcan", "-c", "wcan41-0-1",
                       "-f", str(log_file))
    assert "wcan41-0-1" in result.stdout and "DRV Tip" not in result.stdout
    with can.LogReader(str(log_file)) as reader:
        logged = list(reader)
    assert by_kind(logged) == by_kind(FRAMES)
    assert by_kind(replay(log_file, len(FRAMES), tmp_path)) == by_kind(FRAMES)


def test_a_wcan_dump_log_replays_with_can_player(tmp_path):
    tool = os.environ.get("WCAN_TOOL")
    if not tool or not os.path.exists(tool):
        pytest.skip("the wcan tool was not built")
    log_file = tmp_path / "dump.log"
    frames = ["123#DEADBEEF", "12345678#0102", "321#R", "456##1001122334455667788990011"]
    sends = [argument for f in frames for argument in ("--tx", f"0:{f}")]
    subprocess.run([tool, "--sim", "41", "dump", "41", "0", "1", "--fd", "--timeout", "2000",
                    "--count", str(len(frames)), "--log", str(log_file), *sends],
                   check=True, capture_output=True, timeout=60)
    with can.CanutilsLogReader(str(log_file)) as reader:
        dumped = list(reader)
    assert [m.channel for m in dumped] == ["wcan41-0-1"] * len(frames)
    assert by_kind(replay(log_file, len(frames), tmp_path)) == by_kind(dumped)
