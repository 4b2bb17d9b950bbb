"""The one fixture of the black-box tests: a private system bus, the simulated BlueZ with hci0,
and bluetooth-agent in its fixed-path sandbox. The daemon's log is shown when a test fails."""

import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tools"))

import simenv  # noqa: E402


# How AddressSanitizer and UndefinedBehaviorSanitizer begin their reports.
SANITIZER = ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    setattr(item, "failed_" + report.when, report.failed)


@pytest.fixture
def make_world(request):
    """Builds worlds (bus, BlueZ, sandbox) on demand; the daemon is started by the test."""
    worlds = []

    def make(**kwargs):
        world = simenv.World(**kwargs)
        worlds.append(world)
        return world

    yield make
    reports = []
    for world in worlds:
        log = world.agent.log() if world.agent is not None else ""
        if getattr(request.node, "failed_call", True) and world.agent is not None:
            print(f"----- bluetooth-agent log (exit code {world.agent.proc.poll()}) -----")
            print(log)
        world.stop()
        reports += [line for line in log.splitlines() if any(mark in line for mark in SANITIZER)]
    assert not reports, "sanitizer report in the daemon's log:\n" + "\n".join(reports)


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
