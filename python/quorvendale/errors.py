"""The failures of the store, told apart by what a program may do about them.

Every failure is an :class:`Error` carrying the store's text; the library's
texts are recognised here, in one place.
"""

from __future__ import annotations


class Error(Exception):
    """A failure of the store or of the library; ``str()`` is the store's text.

    ``code`` is the library's result code (0 where the failure was found on
    this side) and ``report`` the library's full text, which for a failed
    operation of the local client holds where it was raised.
    """

    def __init__(self, message: str, code: int = 0, report: str = "") -> None:
        super().__init__(message)
        self.code = code
        self.report = report or message


class NotFound(Error, KeyError):
    """The key does not exist (also a :class:`KeyError`)."""

    def __str__(self) -> str:  # KeyError would quote the text
        return Error.__str__(self)


class Unreachable(Error):
    """The store could not be reached.

    For the local service: no session bus, the service not installed, failed
    to start, or the connection refused; ``status`` is the connection's status
    name and the message ends with the lines the library wrote about it.
    """

    def __init__(self, message: str, code: int = 0, report: str = "", status: str = "") -> None:
        super().__init__(message, code, report)
        self.status = status


class Refused(Error, ValueError):
    """Input the store cannot hold as given, refused before anything is sent
    (also a :class:`ValueError`)."""


class TooLarge(Refused):
    """A value, group or key larger than the local client carries."""


_REPORT_FIELD = "\n\tmessage: "
_STORE_TEXTS = ("Read file error: ", "Write file error", "Remove file error", "Invalid key",
                "Failed to open folder: ", "Unknown exception", "Unknown command")
_CONNECTION_STATUSES = {"AppNotInstalled", "AppUnavailable", "AppServiceUnavailable", "Unknown",
                        "NotAuthorized", "UnknownAppServiceConnectionStatus"}
_TOO_LARGE = ("The value is too large: ", "The group is too long: ", "The key is too long: ")


def message_of(report: str) -> str:
    """The store's own text: the last field of the library's error report."""
    at = report.rfind(_REPORT_FIELD)
    if not report.startswith("Exception:\n") or at < 0:
        return report
    return report[at + len(_REPORT_FIELD):]


def _is_missing_key(message: str) -> bool:
    return message == "Invalid key" or (
        message.startswith("Read file error: file ") and message.endswith(" is not exist"))


def error_of(code: int, report: str, remote: bool, asked_key: bool = True) -> Error:
    """The exception for an operation that failed with `code` and `report`.

    Only an operation that asked for a key (read, next) can miss it: a write
    of the alias "default" that names no key fails with the same text, a
    failure of the store."""
    message = message_of(report) or "failed with result 0x%08X and no message" % code
    if asked_key and _is_missing_key(message):
        return NotFound(message, code, report)
    if message.startswith(_TOO_LARGE):
        return TooLarge(message, code, report)
    unreachable = (not message.startswith(_STORE_TEXTS) if remote else
                   message in _CONNECTION_STATUSES or
                   message.startswith("UwpLocalStorageClient::sendMessage: no connection"))
    if unreachable:
        kind = "server" if remote else "service"
        return Unreachable("the storage %s cannot be reached: %s" % (kind, message), code, report,
                           "" if remote else message)
    return Error(message, code, report)


_EXPLANATIONS = {
    "AppNotInstalled": "it is not installed: no D-Bus service file provides it",
    "AppServiceUnavailable": "its host does not offer the storage app service",
    "AppUnavailable": "no session bus answered, or the service failed to start",
}


def unreachable_local(library_lines: str) -> Unreachable:
    """The failure of a local client that did not connect, from the lines
    the library wrote about it."""
    lines = library_lines.rstrip("\n").split("\n")
    last = lines[-1] if lines else ""
    status = last[len("\tmessage: "):] if last.startswith("\tmessage: ") else ""
    why = _EXPLANATIONS.get(status, "the connection failed")
    text = "the storage service cannot be reached: %s%s" % (why, " (%s)" % status if status else "")
    if library_lines:
        text += "\n" + library_lines.rstrip("\n")
    return Unreachable(text, 0, library_lines, status)
