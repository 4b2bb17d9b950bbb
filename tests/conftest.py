# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The one fixture of the black-box tests: a private system bus, the simulated BlueZ with hci0,
and bluetooth-agent in its fixed-path sandbox. A test fails on any daemon log line it did not
declare with agent.expect(); the daemon's log is shown when a test fails."""

import os
import sys

import dbus
import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tools"))

import simenv  # noqa: E402
from simenv import ADAPTER_IFACE, ADAPTER_PATH, MOCK_IFACE, unwrap  # noqa: E402

# The one line the daemon writes on purpose without being asked: the agent's forward of a shown
# PIN names no method (data/com.quorvane.BluetoothAgent.md).
ALLOWED = ["QMetaObject::invokeMethod: No such method PairingAgent::DisplayPincode",
           "Candidates are:", "DisplayPinCode(QDBusObjectPath,QString,QDBusMessage)"]

# How the pairing agent logs each call of BlueZ's.
LOGGED = "BluetoothPairingAgent: pairing_agent::"

# Where the daemon is its own process (no emulator, no ASan), its memory says what it holds.
NATIVE = "ASAN_OPTIONS" not in os.environ and not os.environ.get("BLUETOOTH_AGENT_LAUNCHER")


def rss_kib(pid, field="VmRSS:", file="status"):
    """A number the kernel keeps for process pid: resident KiB, or another field of file."""
    with open(f"/proc/{pid}/{file}", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith(field)).split()[1])


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_logreport(report):
    """A skipped test guards nothing: a skip fails the run, with its reason."""
    if report.skipped:
        report.outcome = "failed"
    yield


pytest_collectreport = pytest_runtest_logreport


class Bluez(simenv.Bluez):
    """The simulated BlueZ as a test drives it: refusals, signals typed rightly or not, and the
    log of the calls it served."""

    def adapter_property(self, name):
        return unwrap(self.obj(ADAPTER_PATH).Get(ADAPTER_IFACE, name,
                                                 dbus_interface=dbus.PROPERTIES_IFACE))

    def set_adapter_properties(self, **props):
        self.obj(ADAPTER_PATH).UpdateProperties(ADAPTER_IFACE, props, dbus_interface=MOCK_IFACE)

    def emit(self, path, interface, member, signature, args):
        """Sends a signal from BlueZ's own connection, typed as given, rightly or not."""
        self.obj(path).EmitSignal(interface, member, signature, args, dbus_interface=MOCK_IFACE)

    def announce(self, path, interfaces):
        """Announces an object with these interfaces (InterfacesAdded on /)."""
        self.emit("/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded", "oa{sa{sv}}",
                  [dbus.ObjectPath(path), dbus.Dictionary(interfaces, signature="sa{sv}")])

    def emit_changed(self, path, interface, changed):
        """One PropertiesChanged of path holding exactly changed."""
        self.emit(path, dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as",
                  [interface, dbus.Dictionary(changed, signature="sv"),
                   dbus.Array([], signature="s")])

    def fail_method(self, path, interface, method, in_sig, condition="True",
                    fallback="DBusMockObject.{method}(self, *args)"):
        """Makes a BlueZ method answer org.bluez.Error.Failed when condition holds on args."""
        code = (f"if {condition}:\n"
                f"    raise dbus.exceptions.DBusException('refused by the test',"
                f" name='org.bluez.Error.Failed')\n"
                f"{fallback.format(method=method)}\n")
        self.obj(path).AddMethod(interface, method, in_sig, "", code, dbus_interface=MOCK_IFACE)

    def log(self):
        """The calls served so far, oldest first, without their time stamps."""
        with open(self.log_path, encoding="utf-8", errors="replace") as f:
            return [line.split(" ", 1)[1].rstrip("\n") for line in f if " " in line]


def normalized(line):
    return " ".join(line.replace('"', "").split())


class Agent(simenv.Agent):
    """The daemon with the log lines its test expects."""

    def __init__(self, *args):
        super().__init__(*args)
        self.expected = set()

    def lines(self):
        """The log's lines as text and order tell them: runs of spaces and the quotes that the
        log stream puts around strings do not count."""
        return [normalized(line) for line in self.log().splitlines()]

    def expect(self, *lines):
        """Declares the log lines (or their beginnings) that the test expects to see."""
        self.expected.update(normalized(line) for line in lines)
        return self


class World(simenv.World):
    Bluez, Agent = Bluez, Agent


def spooled(sandbox):
    """The print spool as the spooler sees it: visible file name -> content."""
    return {name: open(os.path.join(sandbox.www, name), "rb").read()
            for name in os.listdir(sandbox.www) if not name.startswith(".")}


def ask(ui, method, *args, timeout=30):
    """BlueZ asks; returns the pending reply once the user interface has the question."""
    signal = "RequestUserPin" if method == "RequestPinCode" else "RequestUserConfirmation"
    before = len(ui.received(signal))
    reply = ui.call_async(method, *args, timeout=timeout)
    ui.wait_signal(signal, before + 1)
    assert not reply.done, "BlueZ must wait for the user"
    return reply


@pytest.fixture
def make_world():
    """Builds worlds (bus, BlueZ, sandbox) on demand; the daemon is started by the test."""
    worlds = []

    def make(**kwargs):
        worlds.append(World(**kwargs))
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
            known = tuple(agent.expected) + tuple(ALLOWED)
            unexpected += [line for line in agent.lines() if not line.startswith(known)]
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
