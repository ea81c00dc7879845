# SPDX-License-Identifier: MIT
"""The ctypes layer, the library's loading, and the package from the build and installed."""

import ctypes
import os
import re
import subprocess
import sys

import pytest

import wcan
from wcan import _records

HEADER = os.path.join(os.path.dirname(__file__), "..", "..", "include", "wcan.h")


def test_layout_check_reports_every_drift_from_the_header():
    class WCAN_CAN_OBJ(ctypes.Structure):  # dataLen one byte early, data missing
        _fields_ = [(name, kind) for name, kind in _records.WCAN_CAN_OBJ._fields_[:6]]
        _fields_ += [("dataLen", ctypes.c_ushort), ("reserved", ctypes.c_ubyte * 3)]

    problems = _records.layout_mismatches([WCAN_CAN_OBJ], wcan._header.RECORDS)
    assert "WCAN_CAN_OBJ.data is missing" in problems
    assert "WCAN_CAN_OBJ.reserved is at offset 14, wcan.h says 13" in problems
    assert "WCAN_CANFD_OBJ is in wcan.h but has no ctypes record" in problems
    assert _records.layout_mismatches(_records.RECORDS, wcan._header.RECORDS) == []


def test_every_function_of_the_header_is_declared_with_its_arguments():
    with open(HEADER) as f:
        declarations = re.findall(r"\b(WCAN_\w+)\(([^)]*)\);", f.read())
    arity = {name: 0 if args.strip() == "void" else args.count(",") + 1
             for name, args in declarations}
    assert {name: len(args) for name, args in wcan.PROTOTYPES.items()} == arity
    assert len(arity) == 31


def test_a_failed_call_reads_the_library_code_and_message():
    lib = wcan.library()
    assert lib.WCAN_OpenDevice(41, 7) == 0
    error = lib.error("opening adapter 41/7")
    assert (error.code, error.message) == (wcan.WCAN_ERR_DEVICE_NOT_EXIST, "Device Not Exist!")
    assert str(error) == "opening adapter 41/7: Device Not Exist! (error 1)"


def test_a_bus_opens_from_the_build_tree_with_the_log_on_standard_error():
    env = {k: v for k, v in os.environ.items() if k != "WCAN_LOG_CONSOLE"}
    env["WCAN_SIM"] = "41"
    script = 'import can; can.Bus(interface="wcan", channel="wcan41-0-0")'
    result = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True, text=True,
                            timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stdout == ""
    assert "DRV Tip" in result.stderr


def cache_value(build, name):
    with open(os.path.join(build, "CMakeCache.txt")) as f:
        return re.search(rf"^{name}:\w+=(.*)$", f.read(), re.M).group(1)


def test_install_puts_the_package_and_its_entry_point_on_pythons_path(tmp_path):
    build = os.environ.get("WCAN_BUILD_DIR")
    if not build:
        pytest.skip("not run from a build tree")
    prefix = cache_value(build, "CMAKE_INSTALL_PREFIX")
    python_dir = cache_value(build, "WCAN_PYTHON_INSTALL_DIR")
    if prefix in ("/usr", "/usr/local"):
        assert os.path.join(prefix, python_dir) in sys.path
    subprocess.run(["cmake", "--install", build, "--component", "python",
                    "--prefix", str(tmp_path)], check=True, capture_output=True)
    script = (
        "import importlib.metadata as m, wcan, wcan._build as b; "
        "print([e.value for e in m.entry_points(group='can.interface') if e.name == 'wcan']); "
        "print(wcan.__file__); print(b.LIBRARY_DIR)"
    )
    env = dict(os.environ, PYTHONPATH=str(tmp_path / python_dir))
    lines = subprocess.run([sys.executable, "-c", script], env=env, cwd=tmp_path, check=True,
                           capture_output=True, text=True).stdout.splitlines()
    libdir = cache_value(build, "CMAKE_INSTALL_LIBDIR")
    assert lines == ["['wcan.bus:WcanBus']", str(tmp_path / python_dir / "wcan" / "__init__.py"),
                     os.path.join(prefix, libdir)]
