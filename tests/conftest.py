# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The one fixture of the black-box tests: a private system bus, the simulated BlueZ with hci0,
and bluetooth-agent in its fixed-path sandbox. A test fails on any daemon log line it did not
declare with agent.expect(); the daemon's log is shown when a test fails."""

import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tools"))

import simenv  # noqa: E402

# The one line the daemon writes on purpose without being asked: the agent's forward of a shown
# PIN names no method (data/com.quorvane.BluetoothAgent.md).
ALLOWED = ["QMetaObject::invokeMethod: No such method PairingAgent::DisplayPincode",
           "Candidates are:", "DisplayPinCode(QDBusObjectPath,QString,QDBusMessage)"]


# A skipped test guards nothing: any skip fails the run.
skips = []

# Where the daemon is its own process (no emulator, no ASan), its memory says what it holds.
NATIVE = "ASAN_OPTIONS" not in os.environ and not os.environ.get("BLUETOOTH_AGENT_LAUNCHER")


def rss_kib(pid, field="VmRSS:"):
    with open(f"/proc/{pid}/status", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith(field)).split()[1])


def note_skip(report):
    if report.skipped:
        reason = report.longrepr[2] if isinstance(report.longrepr, tuple) else str(report.longrepr)
        skips.append(f"{report.nodeid}: {reason}")


pytest_runtest_logreport = note_skip
pytest_collectreport = note_skip


def pytest_sessionfinish(session, exitstatus):
    if skips:
        print("\nskipped:\n  " + "\n  ".join(skips))
        session.exitstatus = pytest.ExitCode.TESTS_FAILED


@pytest.fixture
def make_world():
    """Builds worlds (bus, BlueZ, sandbox) on demand; the daemon is started by the test."""
    worlds = []

    def make(**kwargs):
        worlds.append(simenv.World(**kwargs))
        return worlds[-1]

    yield make
    unexpected = []
    for world in worlds:
        agent = world.agent
        if agent is not None:
            agent.stop()
            # pytest shows it only when the test fails.
            print(f"----- bluetooth-agent log (exit code {agent.proc.poll()}) -----")
            print(agent.log())
            unexpected += agent.unexpected(ALLOWED)
        world.stop()
    assert not unexpected, "unexpected lines in the daemon's log:\n" + "\n".join(unexpected)


@pytest.fixture
def world(make_world):
    """The simulated default: BlueZ with hci0 and the daemon running and registered."""
    world = make_world()
    world.start_agent()
    return world


@pytest.fixture
def paired_world(make_world):
    """The simulated default with two phones that were paired before the daemon started."""
    world = make_world()
    world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Tablet", paired=True)
    world.start_agent()
    return world


@pytest.fixture
def ui(world):
    """A user interface (or BlueZ) talking to the running daemon."""
    return world.client()
