"""Store and Group: the library's storage clients, the Python way."""

from __future__ import annotations

import ctypes
import os
import sys
import tempfile
import threading
from collections.abc import Iterator, MutableMapping
from typing import Optional, Union

from . import _contract
from .errors import Error, NotFound, Refused, error_of, unreachable_local

Text = Union[str, bytes]
_MISSING = object()


def _utf8(what: str, text: Text) -> bytes:
    """`text` as the UTF-8 bytes the library takes."""
    if isinstance(text, bytes):
        try:
            text.decode("utf-8")
        except UnicodeDecodeError as error:
            raise Refused("%s is not valid UTF-8 at byte offset %d" % (what, error.start)) from None
        return text
    if not isinstance(text, str):
        raise TypeError("%s must be str or bytes, not %s" % (what, type(text).__name__))
    try:
        return text.encode("utf-8")
    except UnicodeEncodeError as error:
        raise Refused("%s holds a lone surrogate at offset %d" % (what, error.start)) from None


def _check_text(what: str, data: bytes) -> None:
    # The local service carries text: it would cut a value at NUL, and end
    # one read back at 0x1A.
    for byte, why in ((b"\0", "NUL: the service would cut it there"),
                      (b"\x1a", "end of text: it would be read back cut there")):
        at = data.find(byte)
        if at >= 0:
            raise Refused("%s holds byte 0x%02X at offset %d (%s)" % (what, byte[0], at, why))


def _local_name(what: str, name: Text) -> bytes:
    data = _utf8(what, name)
    if data in (b"", b".", b".."):
        raise Refused("%s is %s: it must be one file name in the store"
                      % (what, "empty" if not data else "'%s'" % data.decode()))
    if b"/" in data:
        raise Refused("%s holds '/' at offset %d: it must be one file name in the store"
                      % (what, data.index(b"/")))
    _check_text(what, data)
    return data


class _LibraryOutputAside:
    """Keeps the library's lines about a failed connection off standard output.

    While the local client connects, descriptor 1 is a temporary file; the
    library's lines are taken out of it and anything else written there
    meanwhile is passed on. Connecting is serialised, descriptor 1 being one
    for the whole process.
    """

    _lock = threading.Lock()
    _libc = ctypes.CDLL(None)

    def __enter__(self) -> "_LibraryOutputAside":
        self._lock.acquire()
        sys.stdout.flush()
        self._file = tempfile.TemporaryFile()
        self._saved = os.dup(1)
        os.dup2(self._file.fileno(), 1)
        self.lines = ""
        return self

    def __exit__(self, *exception) -> None:
        try:
            self._libc.fflush(None)
            os.dup2(self._saved, 1)
            os.close(self._saved)
            self._file.seek(0)
            text = self._file.read().decode("utf-8", "replace")
            self._file.close()
            begin = text.find("Error: UwpClient connection failed")
            if begin >= 0:
                end = text.find("\n", begin)
                if end >= 0 and text.startswith("Exception:\n", end + 1):
                    field = text.find("\tmessage: ", end)
                    end = text.find("\n", field) if field >= 0 else -1
                end = len(text) if end < 0 else end + 1
                self.lines, text = text[begin:end], text[:begin] + text[end:]
            if text:
                os.write(1, text.encode())
        finally:
            self._lock.release()


class Store:
    """One client of the store: the local service (:func:`local`) or a storage
    server (:func:`remote`).

    Groups and keys are ``str`` (or UTF-8 ``bytes``); values are ``str``, and
    ``bytes`` are taken when they are valid UTF-8. Input the local service
    cannot hold is refused with :class:`Refused` before anything is sent.
    ``store[group]`` is a mutable mapping of the group's keys to values.
    One store may be shared by threads. Use it as a context manager, or call
    :meth:`close`, to let the client go at a known point.
    """

    def __init__(self, library: "_Library", client, remote: bool) -> None:
        self._library = library
        self._client = client
        self._remote = remote

    # The client's table, or Error once closed.
    def _table(self):
        if self._client is None:
            raise Error("the store is closed")
        return self._client.contents.table.contents

    def _names(self, group: Text, key: Text) -> tuple[bytes, bytes]:
        if self._remote:
            return _utf8("the group", group), _utf8("the key", key)
        return _local_name("the group", group), _local_name("the key", key)

    def _check(self, code: int, asked_key: bool = False) -> None:
        if code != _contract.S_OK:
            raise error_of(code, _contract.failure_text(self._client), self._remote, asked_key)

    def read(self, group: Text, key: Text, default=_MISSING) -> str:
        """The value under `key` in `group`; `default` if given and the key is
        missing, else :class:`NotFound`."""
        g, k = self._names(group, key)
        code, value = _contract.call_with_output(self._table().read, self._client,
                                                 g, len(g), k, len(k))
        if code != _contract.S_OK:
            error = error_of(code, _contract.failure_text(self._client), self._remote)
            if isinstance(error, NotFound) and default is not _MISSING:
                return default
            raise error
        return value.decode("utf-8", "replace")

    def write(self, group: Text, key: Text, value: Text) -> None:
        """Stores `value` under `key` in `group`, replacing what was there."""
        g, k = self._names(group, key)
        data = _utf8("the value", value)
        if not self._remote:
            _check_text("the value", data)
        self._check(self._table().write(self._client, g, len(g), k, len(k), data, len(data)))

    def remove(self, group: Text, key: Text) -> None:
        """Deletes the value under `key` in `group`; a missing key is no failure."""
        g, k = self._names(group, key)
        self._check(self._table().remove(self._client, g, len(g), k, len(k)))

    def next(self, group: Text, key: Text = "") -> str:
        """The key after `key` in the store's own order ("" for the first);
        "" after the last."""
        g = self._names(group, "-")[0]
        k = self._names(group, key)[1] if key else b""
        code, following = _contract.call_with_output(self._table().next, self._client,
                                                     g, len(g), k, len(k))
        self._check(code, asked_key=True)
        return following.decode("utf-8", "replace")

    def keys(self, group: Text) -> Iterator[str]:
        """The keys of `group`, in the store's own order (walked with next)."""
        seen: set[str] = set()
        key = self.next(group)
        while key:
            if key in seen:
                raise Error("the store gave the key %r a second time" % key)
            seen.add(key)
            yield key
            key = self.next(group, key)

    def __getitem__(self, group: str) -> "Group":
        return Group(self, group)

    def close(self) -> None:
        """Lets the client go; later operations fail with :class:`Error`."""
        client, self._client = self._client, None
        if client is not None:
            client.contents.table.contents.release(client)

    def __enter__(self) -> "Store":
        return self

    def __exit__(self, *exception) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()


class Group(MutableMapping):
    """The keys of one group and their values, as a mutable mapping."""

    def __init__(self, store: Store, name: str) -> None:
        self.store = store
        self.name = name

    def __getitem__(self, key: str) -> str:
        return self.store.read(self.name, key)

    def __setitem__(self, key: str, value: Text) -> None:
        self.store.write(self.name, key, value)

    def __delitem__(self, key: str) -> None:
        self.store.read(self.name, key)  # NotFound, a KeyError, for a missing key
        self.store.remove(self.name, key)

    def __iter__(self) -> Iterator[str]:
        return self.store.keys(self.name)

    def __len__(self) -> int:
        return sum(1 for _ in self)

    def __repr__(self) -> str:
        return "<quorvendale.Group %r>" % self.name


class _Library:
    """The loaded library and its ILibrary object."""

    def __init__(self, path: Optional[str]) -> None:
        name = path or _contract.SONAME
        try:
            self._module, code, self._library = _contract.load(path)
        except (OSError, AttributeError) as error:
            raise Error("cannot load %s: %s" % (name, error)) from None
        if code != _contract.S_OK or not self._library:
            raise Error("getLibraryInterface of %s failed with result 0x%08X" % (name, code), code)

    def _table(self):
        return self._library.contents.table.contents

    def local(self) -> Store:
        client = ctypes.POINTER(_contract.IStorage)()
        with _LibraryOutputAside() as output:
            code = self._table().createUwpLocalStorageClient(self._library, ctypes.byref(client))
        if code != _contract.S_OK:
            raise error_of(code, _contract.failure_text(self._library), False)
        if not client:
            raise unreachable_local(output.lines)
        return Store(self, client, remote=False)

    def remote(self, host: str, port: int) -> Store:
        address = _utf8("the address", host)
        client = ctypes.POINTER(_contract.IStorage)()
        code = self._table().createRemoteStorageClient(self._library, address, len(address), port,
                                                       ctypes.byref(client))
        if code != _contract.S_OK:
            raise error_of(code, _contract.failure_text(self._library), True)
        return Store(self, client, remote=True)

    def __del__(self) -> None:
        library = getattr(self, "_library", None)
        if library:
            library.contents.table.contents.release(library)


def local(library: Optional[str] = None) -> Store:
    """A client of the local storage service, connected.

    `library` is the client library's path; by default its SONAME, where the
    loader finds the system's libraries (or ``LD_LIBRARY_PATH``). Raises
    :class:`Unreachable` when the service cannot be reached.
    """
    return _Library(library).local()


def remote(address: str, library: Optional[str] = None) -> Store:
    """A client of the storage server at ``"host:port"``; it connects when
    first used."""
    host, colon, port = address.rpartition(":")
    if not colon or not host or not port.isdigit() or not 0 < int(port) < 65536:
        raise Refused("bad address %r: expected HOST:PORT with PORT from 1 to 65535" % address)
    return _Library(library).remote(host, int(port))
