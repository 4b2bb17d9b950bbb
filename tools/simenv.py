# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The simulated world of bluetooth-agent: a private system bus, a simulated BlueZ, the daemon in
its fixed-path sandbox, and a client that plays the user interface (or BlueZ calling the agent).

Shared by the black-box tests, the simulation of the README and the benchmarks. Needs root
(mount namespaces) and Debian's python3-dbusmock; run it with /usr/bin/python3.
"""

import glob
import os
import shutil
import signal
import subprocess
import tempfile
import time

import dbus
import dbus.mainloop.glib
from gi.repository import GLib

dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)

TOOLS = os.path.dirname(os.path.abspath(__file__))
SANDBOX_RUN = os.path.join(TOOLS, "sandbox-run")
DEBIAN_PYTHON = "/usr/bin/python3"

AGENT_SERVICE = "com.quorvane.BluetoothAgent"
AGENT_PATH = "/BluetoothAgent"
AGENT_IFACE = "org.bluez.Agent1"
ADAPTER_PATH = "/org/bluez/hci0"
ADAPTER_IFACE = "org.bluez.Adapter1"
DEVICE_IFACE = "org.bluez.Device1"
MOCK_IFACE = "org.freedesktop.DBus.Mock"
BLUEZ_MOCK_IFACE = "org.bluez.Mock"

BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:tmpdir={tmpdir}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


def pump(seconds=0.0):
    """Runs the GLib main loop for a while, so that replies and signals are delivered."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + seconds
    while True:
        while context.pending():
            context.iteration(False)
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            return
        time.sleep(min(remaining, 0.005))


def wait_until(predicate, timeout=10.0, what="condition"):
    """Runs the GLib main loop until predicate() is true; fails with `what` after timeout seconds.
    Wakes for every message, and at least every 50 ms for conditions on files."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + timeout
    while True:
        pump()
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f"timed out after {timeout} s waiting for {what}")
        fired = []
        tick = GLib.timeout_add(50, lambda: fired.append(True) and False)
        context.iteration(True)
        if not fired:
            GLib.source_remove(tick)


def watching(pid):
    """Whether process pid holds an inotify watch (seen in its descriptors' fdinfo)."""
    for info in glob.glob(f"/proc/{pid}/fdinfo/*"):
        try:
            with open(info, encoding="ascii", errors="replace") as f:
                if "inotify wd:" in f.read():
                    return True
        except OSError:
            pass  # a descriptor closed meanwhile
    return False


def stop_process(proc, grace=5.0):
    """Ends a child and, if it leads a process group, everything in it; leaves nothing behind."""
    if proc is None or proc.poll() is not None:
        return

    def send(sig):
        try:
            os.killpg(proc.pid, sig)
        except ProcessLookupError:  # not a group leader: the child alone
            proc.send_signal(sig)

    send(signal.SIGTERM)
    try:
        proc.wait(grace)
    except subprocess.TimeoutExpired:
        send(signal.SIGKILL)
        proc.wait()


class SystemBus:
    """A private dbus-daemon of type system, with a permissive policy."""

    def __init__(self, workdir, config=None, launcher=()):
        """config: the bus configuration (default: permissive); launcher: a command prefix."""
        self.workdir = workdir
        config_path = os.path.join(workdir, "bus.conf")
        with open(config_path, "w", encoding="utf-8") as f:
            f.write(config or BUS_CONFIG.format(tmpdir=workdir))
        with open(os.path.join(workdir, "bus.log"), "ab") as log:
            self.proc = subprocess.Popen(
                [*launcher, "dbus-daemon", "--config-file", config_path, "--nofork",
                 "--print-address=1"],
                stdout=subprocess.PIPE, stderr=log, start_new_session=True, text=True)
        self.address = self.proc.stdout.readline().strip()
        if not self.address:
            raise RuntimeError("dbus-daemon did not start")
        self.env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.address)

    def connect(self):
        return dbus.bus.BusConnection(self.address)

    def stop(self):
        stop_process(self.proc)


class Bluez:
    """python-dbusmock's bluez5 template with the adapter hci0."""

    def __init__(self, bus, adapter=True):
        # The mock logs every call it serves, in order, to its standard output.
        self.log_path = os.path.join(bus.workdir, "bluez.log")
        with open(self.log_path, "ab") as log:
            self.proc = subprocess.Popen(
                [DEBIAN_PYTHON, "-m", "dbusmock", "--system", "-t", "bluez5"],
                env=bus.env, stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
        self.conn = bus.connect()
        wait_until(lambda: self.proc.poll() is not None or self.conn.name_has_owner("org.bluez"),
                   what="org.bluez on the bus")
        if self.proc.poll() is not None:
            raise RuntimeError("the simulated BlueZ did not start")
        self.root = self.obj("/")
        if adapter:
            self.add_adapter()

    def add_adapter(self):
        self.root.AddAdapter("hci0", "simulated-adapter", dbus_interface=BLUEZ_MOCK_IFACE)

    def obj(self, path):
        return self.conn.get_object("org.bluez", path)

    def add_device(self, address, alias, paired=False):
        """Adds a phone (announced with InterfacesAdded); returns its object path."""
        path = self.root.AddDevice("hci0", address, alias, dbus_interface=BLUEZ_MOCK_IFACE)
        if paired:
            self.root.PairDevice("hci0", address, 5898764, dbus_interface=BLUEZ_MOCK_IFACE)
        return str(path)

    def update_device(self, path, interface=DEVICE_IFACE, **props):
        """Changes device properties and emits one PropertiesChanged holding exactly them."""
        self.obj(path).UpdateProperties(interface, props, dbus_interface=MOCK_IFACE)

    def calls(self, path, method):
        """The arguments of every call of method on path, in order."""
        return [list(args) for _, args in
                self.obj(path).GetMethodCalls(method, dbus_interface=MOCK_IFACE)]

    def stop(self):
        stop_process(self.proc)


class Sandbox:
    """The daemon's fixed paths as test files: a host-name file and the spool folders."""

    def __init__(self, workdir, hostname=b"embosser\n", spool_size=None):
        self.workdir = workdir
        self.spool_size = spool_size
        self.spool = os.path.join(workdir, "spool")
        self.obex = os.path.join(self.spool, "lp", "obex")
        self.www = os.path.join(self.spool, "lp", "www")
        os.makedirs(self.obex)
        os.makedirs(self.www)
        self.hostname_file = os.path.join(workdir, "hostname")
        self.hostname_missing = hostname is None
        with open(self.hostname_file, "wb") as f:
            f.write(hostname or b"")

    def drop(self, name, data=b""):
        """Delivers a received file as the OBEX receiver does: create, write, close."""
        path = os.path.join(os.fsencode(self.obex), os.fsencode(name))
        with open(path, "wb") as f:
            f.write(data)
        return path

    def received(self):
        """Names still in the receive folder."""
        return sorted(os.listdir(self.obex))

    def wrap(self, command):
        """The command line that runs command inside the sandbox."""
        if self.hostname_missing:
            scratch = tempfile.mkdtemp(prefix="etc-", dir=self.workdir)
            where = ["--no-hostname", scratch]
        else:
            where = ["--hostname", self.hostname_file]
        if self.spool_size:
            where += ["--spool-size", str(self.spool_size)]
        return [SANDBOX_RUN, "--spool", self.spool, *where, "--", *command]


def program(variable):
    """How to start one of the project's programs: the path in $variable, behind
    $BLUETOOTH_AGENT_LAUNCHER (an emulator) if that is set."""
    binary = os.environ.get(variable)
    if not binary:
        raise RuntimeError(f"set {variable} to the program's path")
    return os.environ.get("BLUETOOTH_AGENT_LAUNCHER", "").split() + [binary]


def agent_command():
    return program("BLUETOOTH_AGENT")


def ctl_command():
    return program("BLUETOOTH_AGENTCTL")


class Agent:
    """bluetooth-agent running in the sandbox on the private bus; its log goes to a file."""

    def __init__(self, bus, sandbox, env=None, command=None):
        """command: another of the project's programs to run in the sandbox instead."""
        self.log_path = os.path.join(sandbox.workdir, "bluetooth-agent.log")
        self.log_file = open(self.log_path, "ab")
        self.proc = subprocess.Popen(
            sandbox.wrap(command or agent_command()), env=dict(bus.env, **(env or {})),
            stdin=subprocess.DEVNULL, stdout=self.log_file, stderr=subprocess.STDOUT,
            start_new_session=True)
        self.pid = self.proc.pid

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode("utf-8", "replace")

    def wait_ready(self, timeout=30.0):
        """Waits until start-up is complete: its last step, the file monitor's watch, is in
        place, or the monitor has logged why it cannot watch."""
        wait_until(lambda: self.proc.poll() is not None or watching(self.pid)
                   or "BluetoothFileMonitor: m" in self.log(), timeout, "the daemon's start-up")
        if self.proc.poll() is not None:
            raise RuntimeError(f"bluetooth-agent exited with {self.proc.returncode}")
        return self

    def stop(self):
        stop_process(self.proc)
        self.log_file.close()


class Client:
    """A client of the daemon's D-Bus interface: plays the user interface, or BlueZ calling the
    agent. Records every signal of the daemon as (member, args)."""

    def __init__(self, bus):
        self.conn = bus.connect()
        self.signals = []
        self.conn.add_signal_receiver(
            self._on_signal, dbus_interface=AGENT_IFACE, path=AGENT_PATH,
            member_keyword="member")
        self.agent = self.conn.get_object(AGENT_SERVICE, AGENT_PATH, introspect=False,
                                          follow_name_owner_changes=True)

    def _on_signal(self, *args, member=None):
        self.signals.append((member, [unwrap(a) for a in args]))

    def call(self, method, *args, timeout=30):
        """A blocking call of the daemon; returns the unwrapped reply."""
        return unwrap(self.agent.get_dbus_method(method, AGENT_IFACE)(*args, timeout=timeout))

    def call_async(self, method, *args, timeout=30):
        """Starts a call and returns a Reply that fills in when the answer arrives."""
        reply = Reply()
        self.agent.get_dbus_method(method, AGENT_IFACE)(
            *args, reply_handler=reply.ok, error_handler=reply.fail, timeout=timeout)
        return reply

    def devices(self):
        """Asks for the paired-device list; returns the list that BluetoothDevices brings."""
        before = len(self.received("BluetoothDevices"))
        self.call("getDevices")
        return self.wait_signal("BluetoothDevices", before + 1)[-1][0]

    def received(self, member):
        return [args for name, args in self.signals if name == member]

    def wait_signal(self, member, count=1, timeout=10.0):
        """Waits until member was received count times; returns the args of all of them."""
        wait_until(lambda: len(self.received(member)) >= count, timeout,
                   f"{count} x {member}")
        return self.received(member)


class Reply:
    """The outcome of an asynchronous call: a value list or a D-Bus error name."""

    def __init__(self):
        self.done = False
        self.values = None
        self.error = None
        self.message = None

    def ok(self, *values):
        self.done, self.values = True, [unwrap(v) for v in values]

    def fail(self, error):
        self.done, self.error, self.message = True, error.get_dbus_name(), error.get_dbus_message()

    def wait(self, timeout=10.0):
        wait_until(lambda: self.done, timeout, "a reply")
        return self


def unwrap(value):
    """dbus-python values as plain Python values."""
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath)):
        return str(value)
    if isinstance(value, (dbus.Int16, dbus.Int32, dbus.Int64, dbus.UInt16, dbus.UInt32,
                          dbus.UInt64, dbus.Byte)):
        return int(value)
    if isinstance(value, dict):
        return {unwrap(k): unwrap(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [unwrap(v) for v in value]
    return value


class World:
    """Bus, BlueZ (optional), sandbox and daemon together, torn down in reverse order. A world
    for tests makes its BlueZ and daemon of classes that do more."""

    Bluez, Agent = Bluez, Agent

    def __init__(self, hostname=b"embosser\n", with_bluez=True, bus_config=None, bus_launcher=(),
                 spool_size=None):
        self.workdir = tempfile.mkdtemp(prefix="bluetooth-agent-")
        self.bus = self.bluez = self.agent = None
        try:
            self.bus = SystemBus(self.workdir, bus_config and bus_config(self.workdir),
                                 bus_launcher)
            self.bluez = self.Bluez(self.bus) if with_bluez else None
            self.sandbox = Sandbox(self.workdir, hostname, spool_size)
        except BaseException:
            self.stop()
            raise

    def start_agent(self, wait=True, env=None, command=None):
        self.agent = self.Agent(self.bus, self.sandbox, env, command)
        if wait:
            self.agent.wait_ready()
        return self.agent

    def client(self):
        return Client(self.bus)

    def stop(self):
        for part in (self.agent, self.bluez, self.bus):
            if part is not None:
                part.stop()
        shutil.rmtree(self.workdir, ignore_errors=True)
