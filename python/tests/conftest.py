"""A private session bus whose service folder holds the build tree's service
file, and a fresh data home for the hosts it starts; the bus, and every host
it started, end with the script's process group when the fixture ends."""

import os
import shutil
import signal
import subprocess

import pytest

import quorvendale


def _setting(name: str) -> str:
    value = os.environ.get(name)
    if not value:
        pytest.exit("%s is not set: run these tests with ctest (the PythonPackage test)" % name, 2)
    return value


@pytest.fixture(scope="session")
def library() -> str:
    return _setting("QV_LIBRARY")


@pytest.fixture
def bus(tmp_path, monkeypatch):
    services = tmp_path / "services"
    services.mkdir()
    shutil.copy(_setting("QV_SERVICE_FILE"), services)
    monkeypatch.setenv("XDG_DATA_HOME", str(tmp_path / "data"))
    script = subprocess.Popen(
        [_setting("QV_PRIVATE_BUS"), "--services", str(services), "--", "/bin/sh", "-c",
         'echo "$DBUS_SESSION_BUS_ADDRESS"; exec cat >/dev/null'],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True, text=True)
    try:
        address = script.stdout.readline().strip()
        assert address, "the private bus did not start"
        monkeypatch.setenv("DBUS_SESSION_BUS_ADDRESS", address)
        yield tmp_path / "data"
    finally:
        script.stdin.close()  # the command ends, and the script kills the bus's group
        try:
            script.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.killpg(script.pid, signal.SIGTERM)  # its trap still kills the bus
            try:
                script.wait(timeout=20)
            except subprocess.TimeoutExpired:
                os.killpg(script.pid, signal.SIGKILL)
                script.wait()
        script.stdout.close()


@pytest.fixture
def store(bus, library):
    with quorvendale.local(library) as opened:
        yield opened
