# SPDX-License-Identifier: MIT
"""The adapters attached to the host, found by walking the USB device list.

An adapter's index is its position among the devices with the same USB ids,
which is how the library numbers them.
"""

import collections
import ctypes
from ctypes import POINTER, byref, c_int, c_ssize_t, c_uint8, c_uint16, c_void_p

from . import _adapters


class _DeviceDescriptor(ctypes.Structure):
    _fields_ = [
        ("bLength", c_uint8),
        ("bDescriptorType", c_uint8),
        ("bcdUSB", c_uint16),
        ("bDeviceClass", c_uint8),
        ("bDeviceSubClass", c_uint8),
        ("bDeviceProtocol", c_uint8),
        ("bMaxPacketSize0", c_uint8),
        ("idVendor", c_uint16),
        ("idProduct", c_uint16),
        ("bcdDevice", c_uint16),
        ("iManufacturer", c_uint8),
        ("iProduct", c_uint8),
        ("iSerialNumber", c_uint8),
        ("bNumConfigurations", c_uint8),
    ]


def _usb_functions(usb):
    init = usb.libusb_init
    init.argtypes, init.restype = (POINTER(c_void_p),), c_int
    get_list = usb.libusb_get_device_list
    get_list.argtypes, get_list.restype = (c_void_p, POINTER(POINTER(c_void_p))), c_ssize_t
    describe = usb.libusb_get_device_descriptor
    describe.argtypes, describe.restype = (c_void_p, POINTER(_DeviceDescriptor)), c_int
    free_list = usb.libusb_free_device_list
    free_list.argtypes, free_list.restype = (POINTER(c_void_p), c_int), None
    leave = usb.libusb_exit
    leave.argtypes, leave.restype = (c_void_p,), None
    return init, get_list, describe, free_list, leave


def attached_adapters(usb):
    """(DeviceType, index) of every attached adapter, in USB list order.

    Types that share USB ids are reported as the first of them.
    """
    init, get_list, describe, free_list, leave = _usb_functions(usb)
    context = c_void_p()
    if init(byref(context)) != 0:
        return []
    found = []
    try:
        devices = POINTER(c_void_p)()
        count = get_list(context, byref(devices))
        if count < 0:
            return []
        try:
            seen = collections.Counter()
            for position in range(count):
                descriptor = _DeviceDescriptor()
                if describe(devices[position], byref(descriptor)) != 0:
                    continue
                usb_id = (descriptor.idVendor, descriptor.idProduct)
                kind = _adapters.first_type_for_usb_id(*usb_id)
                if kind is not None:
                    found.append((kind, seen[usb_id]))
                    seen[usb_id] += 1
        finally:
            free_list(devices, 1)
    finally:
        leave(context)
    return found
