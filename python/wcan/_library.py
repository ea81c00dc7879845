# SPDX-License-Identifier: MIT
"""Loading libwcan.so and declaring its 30 functions.

libwcan.so does not link libusb: it resolves its libusb symbols from what the
process has already loaded. So the real ``libusb-1.0.so.0`` (or, when
``WCAN_SIM`` is set, the simulated adapters of ``libwcan-sim.so``) is loaded
first with RTLD_GLOBAL, then the library itself.
"""

import ctypes
import os
import threading
from ctypes import POINTER, c_char_p, c_int, c_ubyte, c_uint, c_ushort

from ._records import (
    WCAN_BOARD_INFO,
    WCAN_CAN_OBJ,
    WCAN_CANFD_OBJ,
    WCAN_FLITER_CONFIG,
    WCAN_FLITER_INFO,
    WCAN_INIT_CONFIG,
    WCAN_INITFD_CONFIG,
    WCAN_RECORD_CONFIG,
)

try:
    from . import _build
except ImportError:  # a copy of the sources that no build has staged
    _build = None

_u = c_uint
_pu8 = POINTER(c_ubyte)

# Argument types of every exported function, in the header's order. Every
# function returns int except WCAN_GetLastErrorStr.
PROTOTYPES = {
    "WCAN_OpenDevice": (_u, _u),
    "WCAN_CloseDevice": (_u, _u),
    "WCAN_BoardInfoGet": (_u, _u, POINTER(WCAN_BOARD_INFO)),
    "WCAN_ClearBuffer": (_u, _u, _u),
    "WCAN_DataDirectTransfer": (_u, _u, _pu8, c_int),
    "WCAN_SetFliter": (_u, _u, _u, POINTER(WCAN_FLITER_CONFIG)),
    "WCAN_GetReceiveNum": (_u, _u, _u, c_ubyte),
    "WCAN_InitCAN": (_u, _u, _u, POINTER(WCAN_INIT_CONFIG)),
    "WCAN_InitCANFD": (_u, _u, _u, POINTER(WCAN_INITFD_CONFIG)),
    "WCAN_Start": (_u, _u, _u),
    "WCAN_Stop": (_u, _u, _u),
    "WCAN_Receive": (_u, _u, _u, POINTER(WCAN_CAN_OBJ), _u, c_int),
    "WCAN_ReceiveFD": (_u, _u, _u, POINTER(WCAN_CANFD_OBJ), _u, c_int),
    "WCAN_Transmit": (_u, _u, _u, POINTER(WCAN_CAN_OBJ), _u),
    "WCAN_TransmitFD": (_u, _u, _u, POINTER(WCAN_CANFD_OBJ), _u),
    "WCAN_RecordSettingSet": (_u, _u, _u, POINTER(WCAN_RECORD_CONFIG)),
    "WCAN_RecordSettingGet": (_u, _u, _u, POINTER(WCAN_RECORD_CONFIG)),
    "WCAN_RecordCmdExecute": (
        _u,
        _u,
        _u,
        _u,
        POINTER(WCAN_FLITER_INFO),
        POINTER(WCAN_FLITER_CONFIG),
    ),
    "WCAN_RecordFliterClr": (_u, _u, _u),
    "WCAN_RecordFliterAdd": (_u, _u, _u, POINTER(WCAN_FLITER_CONFIG)),
    "WCAN_RecordFliterEnable": (_u, _u, _u),
    "WCAN_RecordFliterDisable": (_u, _u, _u),
    "WCAN_RecordFliterInfoGet": (_u, _u, _u, POINTER(WCAN_FLITER_INFO)),
    "WCAN_RecordFliterSettingGet": (_u, _u, _u, c_ushort, POINTER(WCAN_FLITER_CONFIG)),
    "WCAN_DevRelayStatusSet": (_u, _u, c_ubyte, c_ubyte),
    "WCAN_DevRelayStatusGet": (_u, _u, _pu8, _pu8),
    "WCAN_DevBaudParaGet": (_u, _u, _u, _pu8, _pu8),
    "WCAN_DevChStateGet": (_u, _u, _u, _pu8, _pu8, _pu8),
    "WCAN_GetLastError": (),
    "WCAN_GetLastErrorStr": (),
    # Extension: a descriptor readable while a channel's queues hold frames.
    "WCAN_GetReceiveEvent": (_u, _u, _u),
}


class Error(Exception):
    """A library call failed; carries the library's last-error code and message.

    ``what`` says what was attempted ("opening adapter 41/0"), ``code`` and
    ``message`` are WCAN_GetLastError() and WCAN_GetLastErrorStr() read right
    after the failure.
    """

    def __init__(self, what, code, message):
        self.what = what
        self.code = code
        self.message = message
        super().__init__(f"{what}: {self.reason}")

    @property
    def reason(self):
        # Some refusals leave the process-wide last error as it was.
        return f"{self.message} (error {self.code})" if self.code else "the library gave no reason"


class LoadError(OSError):
    """The libraries could not be loaded; the message says which and why."""


class Simulation:
    """Control of the simulated adapters (only when WCAN_SIM is set).

    Adapters are numbered in the order they were plugged in, from 0; inside
    an adapter channel 2k is cabled to channel 2k+1.
    """

    def __init__(self, layer):
        self._plug_in = layer.wcan_sim_plug_in
        self._plug_in.argtypes = (c_uint,)
        self._plug_in.restype = c_int
        self._reset = layer.wcan_sim_reset
        self._reset.argtypes = ()
        self._reset.restype = None
        self._unplug = layer.wcan_sim_unplug
        self._unplug.argtypes = (c_int,)
        self._unplug.restype = None
        self._replug = layer.wcan_sim_replug
        self._replug.argtypes = (c_int,)
        self._replug.restype = None

    def plug_in(self, dev_type):
        """Attaches an adapter of a device type; returns its number."""
        adapter = self._plug_in(dev_type)
        if adapter < 0:
            raise ValueError(f"the simulation has no adapter of type {dev_type}")
        return adapter

    def reset(self):
        """Removes every adapter; only while none is open."""
        self._reset()

    def unplug(self, adapter):
        self._unplug(adapter)

    def replug(self, adapter):
        self._replug(adapter)


class Library:
    """libwcan.so with every function declared, and what was loaded under it.

    The 30 functions are attributes under their C names and return what the C
    function returns; nothing here raises for a result of 0.
    """

    def __init__(self, usb, wcan, usb_path, wcan_path):
        self.usb = usb
        self.usb_path = usb_path
        self.path = wcan_path
        self._wcan = wcan
        self.simulation = Simulation(usb) if hasattr(usb, "wcan_sim_plug_in") else None
        for name, argtypes in PROTOTYPES.items():
            try:
                function = getattr(wcan, name)
            except AttributeError:
                raise LoadError(f"{wcan_path} has no function {name}") from None
            function.argtypes = argtypes
            function.restype = c_char_p if name == "WCAN_GetLastErrorStr" else c_int
            setattr(self, name, function)

    def error(self, what):
        """An Error for `what` with the library's current last error."""
        text = self.WCAN_GetLastErrorStr()
        return Error(what, self.WCAN_GetLastError(), text.decode(errors="replace") if text else "?")


def _library_dir():
    directory = getattr(_build, "LIBRARY_DIR", None)
    return directory if directory and os.path.isdir(directory) else None


def _candidates(file_names, soname):
    """This build's (or installation's) copy first, else the dynamic loader's search."""
    directory = _library_dir()
    if directory:
        for file_name in file_names:
            path = os.path.join(directory, file_name)
            if os.path.exists(path):
                return path
    return soname


def _open(path, mode):
    try:
        return ctypes.CDLL(path, mode=mode)
    except OSError as error:
        raise LoadError(f"cannot load {path}: {error}") from None


def _load():
    # The library prints its log lines on standard output unless told
    # otherwise; a Python program's standard output is its own.
    os.environ.setdefault("WCAN_LOG_CONSOLE", "stderr")
    if "WCAN_SIM" in os.environ:
        usb_path = _candidates(["libwcan-sim.so"], "libwcan-sim.so")
    else:
        usb_path = "libusb-1.0.so.0"
    usb = _open(usb_path, ctypes.RTLD_GLOBAL | os.RTLD_NOW)
    wcan_path = _candidates(["libwcan.so.1", "libwcan.so"], "libwcan.so.1")
    wcan = _open(wcan_path, ctypes.RTLD_LOCAL | os.RTLD_NOW)
    return Library(usb, wcan, usb_path, wcan_path)


_lock = threading.Lock()
_library = None


def library():
    """The process's Library, loaded on first use (raises LoadError)."""
    global _library
    with _lock:
        if _library is None:
            _library = _load()
        return _library
