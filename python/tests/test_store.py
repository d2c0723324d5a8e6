"""The package against the built library and a real host on a private bus."""

import os
import subprocess
import sys
import threading

import pytest

import quorvendale
from quorvendale.errors import error_of


def test_values_round_trip_and_a_group_is_a_mutable_mapping(store):
    store.write("settings", "theme", "dark")
    store.write("settings", "lines", "one\ntwo\n")
    store.write("settings", "bytes", "grüß €".encode())
    assert store.read("settings", "theme") == "dark"
    assert store.read("settings", "lines") == "one\ntwo\n"
    assert store.read("settings", "bytes") == "grüß €"

    settings = store["settings"]
    settings["size"] = "12"
    assert dict(settings) == {"theme": "dark", "lines": "one\ntwo\n", "bytes": "grüß €", "size": "12"}
    assert len(settings) == 4 and "size" in settings and "font" not in settings
    assert settings.get("font", "serif") == "serif"
    del settings["size"]
    with pytest.raises(KeyError):
        del settings["size"]
    assert sorted(store.keys("settings")) == ["bytes", "lines", "theme"]
    store.remove("settings", "missing")  # no failure


def test_a_missing_key_is_not_found_and_a_key_error(store):
    assert store.read("g", "missing", default=None) is None
    with pytest.raises(quorvendale.NotFound) as missing:
        store.read("g", "missing")
    assert isinstance(missing.value, KeyError) and "is not exist" in str(missing.value)
    with pytest.raises(quorvendale.NotFound):
        store.next("g", "missing")


@pytest.mark.parametrize("group, key, value, reason", [
    ("g", "k", "a\0b", "holds byte 0x00 at offset 1"),
    ("g", "k", "a\x1a", "holds byte 0x1A at offset 1"),
    ("g", "k", b"\xc3(", "the value is not valid UTF-8 at byte offset 0"),
    ("g", "k", "\ud800", "lone surrogate"),
    ("g", "", "v", "the key is empty"),
    ("..", "k", "v", "the group is '..'"),
    ("g", "a/b", "v", "the key holds '/' at offset 1"),
])
def test_what_the_store_cannot_hold_is_refused_before_sending(store, bus, group, key, value, reason):
    with pytest.raises(quorvendale.Refused, match=reason) as refused:
        store.write(group, key, value)
    assert isinstance(refused.value, ValueError)
    assert not [path for path in bus.rglob("*") if path.name in ("g", "k")]  # nothing stored


def test_the_library_texts_are_recognised():
    def kind(text, remote=False):
        return type(error_of(0x80004005, text, remote)).__name__
    report = "Exception:\n\tfile: f\n\tfunction: f\n\tline: 1\n\tmessage: "
    assert kind(report + "Invalid key") == "NotFound"
    assert type(error_of(1, report + "Invalid key", False, asked_key=False)) is quorvendale.Error
    assert kind(report + "AppNotInstalled") == "Unreachable"
    assert kind("response.Status() != TResponseStatus::Success in x") == "Error"
    assert kind("The value is too large: 32505857 bytes, the largest the local client carries "
                "is 32505856 bytes") == "TooLarge"
    assert kind("hostname is invalid or requires DNS lookup", remote=True) == "Unreachable"
    assert kind("Write file error", remote=True) == "Error"


def test_one_store_serves_many_threads(store):
    failures = []

    def work(thread):
        try:
            for round in range(20):
                store.write("threads", str(thread), str(round))
                assert store.read("threads", str(thread)) == str(round)
        except Exception as error:  # noqa: BLE001 - reported below
            failures.append(error)

    threads = [threading.Thread(target=work, args=(t,)) for t in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=60)
    assert not failures and not any(thread.is_alive() for thread in threads)
    assert sorted(store["threads"]) == [str(t) for t in range(8)]


def test_unreachable_service_keeps_the_programs_standard_output(library, tmp_path):
    program = ("import quorvendale\nprint('before')\ntry:\n    quorvendale.local(%r)\n"
               "except quorvendale.Unreachable as error:\n    print('status', error.status)\n"
               "    print(str(error).splitlines()[1])\n" % library)
    environment = dict(os.environ, DBUS_SESSION_BUS_ADDRESS="unix:path=%s" % (tmp_path / "none"))
    run = subprocess.run([sys.executable, "-c", program], env=environment, capture_output=True,
                         text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    assert run.stdout == "before\nstatus AppUnavailable\nError: UwpClient connection failed\n"


def test_closed_and_remote_stores_fail_as_errors(store, library):
    with quorvendale.remote("127.0.0.1:1", library) as far:
        with pytest.raises(quorvendale.Unreachable, match="hostname is invalid"):
            far.read("g", "k")
    store.close()
    with pytest.raises(quorvendale.Error, match="closed"):
        store.read("g", "k")
    with pytest.raises(quorvendale.Refused):
        quorvendale.remote("no-port")
