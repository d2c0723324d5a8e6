"""Quorvendale: a small persistent key-value store (group -> key -> value).

Pure Python over the client library's C interface (ctypes); the library,
``libQuorvendaleStorageClient.so.1``, does the work::

    import quorvendale

    with quorvendale.local() as store:
        store.write("settings", "theme", "dark")
        print(store.read("settings", "theme"))
        print(store.read("settings", "font", default="serif"))
        settings = store["settings"]          # a MutableMapping
        settings["size"] = "12"
        print(sorted(settings))

Failures: :class:`Error` (every failure, with the store's text), and of it
:class:`NotFound` (a missing key; also a KeyError), :class:`Unreachable` (no
service to talk to), :class:`Refused` (input the store cannot hold, refused
before sending; also a ValueError) and :class:`TooLarge` (a Refused: larger than
the local client carries, 31 MiB a value and 255 bytes a group or key).

The library writes two lines to standard output when the local service cannot
be reached; they are kept out of the program's output and given inside the
Unreachable error's text instead.
"""

from .errors import Error, NotFound, Refused, TooLarge, Unreachable
from .store import Group, Store, local, remote

__all__ = ["Error", "Group", "NotFound", "Refused", "Store", "TooLarge", "Unreachable", "local",
           "remote"]
