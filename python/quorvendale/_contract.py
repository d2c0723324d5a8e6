"""The library's binary interface, as ctypes sees it.

An interface pointer points at an object whose first word points at its table
of functions; every call returns a 32-bit result code, 0 for success. The
failure's text is kept per thread by the library and read through
IExceptionData right after the failing call, on the same thread.
"""

from __future__ import annotations

import ctypes
from ctypes import POINTER, Structure, c_char_p, c_uint8, c_uint16, c_uint32, c_void_p
from typing import Optional

SONAME = "libQuorvendaleStorageClient.so.1"
S_OK = 0

ResultCode = c_uint32
ArrayOutAllocate = ctypes.CFUNCTYPE(c_void_p, c_void_p, c_uint32)


class InterfaceId(Structure):
    _fields_ = [("data1", c_uint32), ("data2", c_uint16), ("data3", c_uint16),
                ("data4", c_uint8 * 8)]


IID_IExceptionData = InterfaceId(0x97122FF5, 0xCEAA, 0x4C40,
                                 (c_uint8 * 8)(0x96, 0x27, 0x12, 0xAA, 0xB7, 0x4A, 0x5D, 0xAF))


def _interface(name: str, slots: list) -> type:
    """An interface: a structure holding a pointer to its table of `slots`."""
    interface = type(name, (Structure,), {})
    this = POINTER(interface)
    table = type(name + "Table", (Structure,), {
        "_fields_": [(slot, ctypes.CFUNCTYPE(result, this, *arguments))
                     for slot, result, arguments in slots]})
    interface._fields_ = [("table", POINTER(table))]
    return interface


_counted = [
    ("queryInterface", ResultCode, [POINTER(InterfaceId), POINTER(c_void_p)]),
    ("addRef", c_uint32, []),
    ("release", c_uint32, []),
]

IExceptionData = _interface("IExceptionData", [
    ("queryInterface", ResultCode, [POINTER(InterfaceId), POINTER(c_void_p)]),
    ("getMessage", ResultCode, [c_void_p, ArrayOutAllocate]),
    ("setMessage", ResultCode, [c_char_p, c_uint32]),
])

_names = [c_char_p, c_uint32, c_char_p, c_uint32]
IStorage = _interface("IStorage", _counted + [
    ("read", ResultCode, _names + [c_void_p, ArrayOutAllocate]),
    ("write", ResultCode, _names + [c_char_p, c_uint32]),
    ("remove", ResultCode, _names),
    ("next", ResultCode, _names + [c_void_p, ArrayOutAllocate]),
    ("exists", ResultCode, [POINTER(c_uint32)]),
])

ILibrary = _interface("ILibrary", _counted + [
    ("createRemoteStorageClient", ResultCode,
     [c_char_p, c_uint32, c_uint32, POINTER(POINTER(IStorage))]),
    ("createUwpLocalStorageClient", ResultCode, [POINTER(POINTER(IStorage))]),
])


class _Buffer:
    """Where an array-out lands: the library asks for `length` bytes once."""

    def __init__(self) -> None:
        self.bytes: Optional[ctypes.Array] = None
        self.length = 0
        self.exhausted = False


@ArrayOutAllocate
def _allocate(context: int, length: int) -> Optional[int]:
    # Runs inside the library's frames: nothing may escape. A failed
    # allocation hands back NULL, and the caller raises MemoryError.
    buffer = ctypes.cast(context, POINTER(ctypes.py_object)).contents.value
    try:
        buffer.bytes = ctypes.create_string_buffer(max(length, 1))
        buffer.length = length
        return ctypes.addressof(buffer.bytes)
    except MemoryError:
        buffer.exhausted = True
        return None


def call_with_output(function, *arguments) -> tuple[int, bytes]:
    """Calls an operation whose last two arguments are an array-out."""
    buffer = _Buffer()
    holder = ctypes.py_object(buffer)
    code = function(*arguments, ctypes.cast(ctypes.pointer(holder), c_void_p), _allocate)
    if buffer.exhausted:
        raise MemoryError("no memory for the library's answer")
    if code != S_OK or buffer.bytes is None:
        return code, b""
    return code, buffer.bytes.raw[:buffer.length]


def failure_text(interface) -> str:
    """The calling thread's last failure text, through IExceptionData."""
    found = c_void_p()
    if interface.contents.table.contents.queryInterface(
            interface, ctypes.byref(IID_IExceptionData), ctypes.byref(found)) != S_OK \
            or not found.value:
        return ""
    data = ctypes.cast(found, POINTER(IExceptionData))
    code, text = call_with_output(data.contents.table.contents.getMessage, data)
    return text.decode("utf-8", "replace") if code == S_OK else ""


def load(path: Optional[str]):
    """The library at `path` (by its SONAME when None) and its ILibrary."""
    module = ctypes.CDLL(path or SONAME)
    entry = module.getLibraryInterface
    entry.restype = ResultCode
    entry.argtypes = [c_void_p, POINTER(POINTER(ILibrary))]
    library = POINTER(ILibrary)()
    code = entry(None, ctypes.byref(library))
    return module, code, library
