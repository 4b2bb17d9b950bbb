# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""What the guest's scenarios share: the embosser's programs (the real bluetoothd with two virtual
controllers from btvirt, hci0 the embosser and hci1 a phone; the receiver's obexd;
bluetooth-agent), the user interface, the phone's OBEX client and the results for the host."""

import hashlib
import json
import os
import signal
import subprocess
import sys
import time
import traceback
import types

import dbus

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from simenv import ADAPTER_IFACE, Client, unwrap, wait_until, watching  # noqa: E402

RESULTS, RECEIVE, SPOOL = "/run/results", "/var/spool/lp/obex", "/var/spool/lp/www"
EMBOSSER, PHONE = "/org/bluez/hci0", "/org/bluez/hci1"
OBEX, OBEXD = "org.bluez.obex", "/usr/libexec/bluetooth/obexd"
COMMANDS = {"bluetoothd": ["/usr/libexec/bluetooth/bluetoothd", "-n", "-d"],
            "btvirt": ["btvirt", "-l2"], "btvirt-le": ["btvirt", "-L", "-l2"],
            "obexd": [OBEXD, "-n", "-d", "-a", "-r", RECEIVE], "agent": ["/guest/bluetooth-agent"]}


def document(key, size):
    """size bytes derived from key: whoever knows both knows the checksum."""
    line = f"{key}\n".encode()
    return (line * (size // len(line) + 1))[:size]


def checksum(data):
    return [len(data), hashlib.sha256(data).hexdigest()]


def listing(folder):
    """Every file of folder, hidden ones included: name -> [size, sha256]."""
    return {name: checksum(open(f"{folder}/{name}", "rb").read())
            for name in sorted(os.listdir(folder))}


def size(path):
    try:
        return os.stat(path).st_size
    except FileNotFoundError:  # not there yet, or removed
        return -1


class Board:
    """The embosser's programs, each logging to its own file in RESULTS unless told otherwise,
    the user interface (a client of the daemon) and what the guest saw, scenario by scenario."""

    def __init__(self):
        self.procs, self.observations = {}, {}
        self.bus = dbus.SystemBus()
        self.ui = Client(types.SimpleNamespace(connect=dbus.SystemBus))

    def start(self, name, out=None, env=()):
        with open(f"{RESULTS}/{name.split('-')[0]}.log", "ab") as log_file:
            self.procs[name] = subprocess.Popen(COMMANDS[name], stdout=out or log_file,
                                                stderr=subprocess.STDOUT,
                                                env=dict(os.environ, **dict(env)))

    def kill(self, name, sig=signal.SIGTERM):
        self.procs[name].send_signal(sig)
        self.procs.pop(name).wait(30)

    def start_bluez(self, controllers="btvirt"):
        if "bluetoothd" not in self.procs:
            self.start("bluetoothd")
        self.start(controllers)
        wait_until(lambda: self.address(EMBOSSER) and self.address(PHONE), 60, "hci0 and hci1")

    def start_agent(self, **how):
        self.start("agent", **how)
        # Ready once its start-up ended with the watch on the receive folder.
        wait_until(lambda: watching(self.procs["agent"].pid), 60, "bluetooth-agent")

    def obj(self, path):
        return self.bus.get_object("org.bluez", path, introspect=False)

    def prop(self, path, name, interface=ADAPTER_IFACE):
        try:
            return unwrap(self.obj(path).Get(interface, name,
                                             dbus_interface=dbus.PROPERTIES_IFACE))
        except dbus.DBusException:
            return None

    def address(self, adapter):
        return self.prop(adapter, "Address")

    def push(self, name, data, drop_at=None):
        """The phone sends data as name, from an obexd of its own started for this push (obexd's
        client once crashed on a second cancel in one process). With drop_at, the phone walks
        away (its obexd killed: the link drops) once the receiver has written that share of the
        data. Returns the transfer's last status: complete, error, or still under way."""
        with open(f"/tmp/{name}", "wb") as f:
            f.write(data)
        # obexd 5.66 itself sometimes dies of a dropped link; on a board its unit restarts it.
        if self.procs["obexd"].poll() is not None:
            self.observations.setdefault("receiver_restarts", []).append(name)
            self.start("obexd")
            time.sleep(2)  # its profile registered before the phone's obexd offers one too
        bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--print-address=1"],
                               stdout=subprocess.PIPE, text=True)
        address = bus.stdout.readline().strip()
        with open(f"{RESULTS}/phone-obexd.log", "ab") as out:
            obexd = subprocess.Popen([OBEXD, "-n", "-d"], stdout=out, stderr=out,
                                     env=dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address))
        conn, status = dbus.bus.BusConnection(address), {}
        conn.add_signal_receiver(lambda _, props, __, path: status.update(
            {path: props["Status"]} if "Status" in props else {}), "PropertiesChanged",
            path_keyword="path")
        try:
            wait_until(lambda: conn.name_has_owner(OBEX), 30, "the phone's obexd")
            session = conn.get_object(OBEX, "/org/bluez/obex").CreateSession(
                self.address(EMBOSSER), {"Target": "opp", "Source": self.address(PHONE)},
                dbus_interface="org.bluez.obex.Client1", timeout=60)
            transfer = conn.get_object(OBEX, session).SendFile(
                f"/tmp/{name}", dbus_interface="org.bluez.obex.ObjectPush1")[0]
            wait_until(lambda: status.get(transfer) in ("complete", "error") or (
                drop_at is not None and size(f"{RECEIVE}/{name}") >= drop_at * len(data)),
                300, name)
            return str(status.get(transfer))
        finally:
            conn.close()
            for proc in (obexd, bus):
                proc.kill()
                proc.wait()

    def run(self, name, scenario, *args, **kwargs):
        """Runs one scenario and keeps what it returns, or how it failed, for the host."""
        print(f"[{time.monotonic():8.2f}] scenario {name}", flush=True)
        try:
            self.observations[name] = scenario(*args, **kwargs)
        except Exception:  # noqa: BLE001 - the host's test reports it
            self.observations[name] = {"failed": traceback.format_exc()}
            print(self.observations[name]["failed"], flush=True)
        with open(f"{RESULTS}/observations.json", "w", encoding="utf-8") as f:
            json.dump(self.observations, f, indent=1, default=str)
