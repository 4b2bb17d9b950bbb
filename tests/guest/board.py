# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""What the guest's scenarios share: the embosser's Bluetooth (the real bluetoothd with two virtual
controllers from btvirt, hci0 the embosser and hci1 a phone), the user interface, the phone (its
pairing agent and OBEX client) and the results for the host."""

import glob
import hashlib
import json
import os
import subprocess
import time
import traceback
import types
from contextlib import suppress

import dbus
import dbus.service

from simenv import (ADAPTER_IFACE, AGENT_IFACE, DEVICE_IFACE, Client, Reply, pump, unwrap,
                    wait_until)

RESULTS, RECEIVE, SPOOL = "/run/results", "/var/spool/lp/obex", "/var/spool/lp/www"
EMBOSSER, PHONE = "/org/bluez/hci0", "/org/bluez/hci1"
OBEX, OBEXD = "org.bluez.obex", "/usr/libexec/bluetooth/obexd"
OBJECT_PUSH = "00001105-0000-1000-8000-00805f9b34fb"
COMMANDS = {"bluetoothd": ["/usr/libexec/bluetooth/bluetoothd", "-n", "-d"],
            "btvirt": ["btvirt", "-l2"], "btvirt-le": ["btvirt", "-L", "-l2"]}


def document(key, size):
    """size bytes derived from key: whoever knows both knows the checksum."""
    line = f"{key}\n".encode()
    return (line * (size // len(line) + 1))[:size]


def checksum(data):
    return [len(data), hashlib.sha256(data).hexdigest()]


def listing(folder):
    """Every file below folder, hidden ones included: relative path -> [size, sha256]."""
    return {os.path.relpath(f"{top}/{name}", folder): checksum(open(f"{top}/{name}", "rb").read())
            for top, _, names in os.walk(folder) for name in sorted(names)}


def run(*command, user="root"):
    done = subprocess.run(["runuser", "-u", user, "--", *command], capture_output=True, text=True)
    return [done.returncode, (done.stdout + done.stderr).strip()]


class PhoneAgent(dbus.service.Object):
    """The phone's pairing agent: its user says yes, and it records what it was asked."""

    @dbus.service.method(AGENT_IFACE, in_signature="ou")
    def RequestConfirmation(self, device, passkey):
        self.calls.append(["RequestConfirmation", int(passkey)])

    @dbus.service.method(AGENT_IFACE, in_signature="o", out_signature="u",
                         async_callbacks=("ok", "fail"))
    def RequestPasskey(self, device, ok, fail):
        self.calls.append(["RequestPasskey"])
        self.type_passkey = ok  # answered with the number the embosser shows


class Board:
    def __init__(self):
        self.procs, self.observations = {}, {}
        self.bus = dbus.SystemBus()
        self.ui = Client(types.SimpleNamespace(connect=dbus.SystemBus))
        self.phone = PhoneAgent(self.bus, "/phone/agent")

    def start(self, name):
        with open(f"{RESULTS}/{name.split('-')[0]}.log", "ab") as log:
            self.procs[name] = subprocess.Popen(COMMANDS[name], stdout=log, stderr=log)

    def kill(self, name):
        self.procs[name].terminate()
        self.procs.pop(name).wait(30)

    def start_bluez(self, controllers="btvirt"):
        """The controllers, made again when the kernel gave up on one (a reset timed out)."""
        for _ in range(3):
            self.start(controllers)
            with suppress(TimeoutError):
                return wait_until(lambda: self.address(EMBOSSER) and self.address(PHONE), 60)
            self.kill(controllers)
        raise TimeoutError("hci0 and hci1 never came up")

    def obj(self, path):
        return self.bus.get_object("org.bluez", path, introspect=False)

    def prop(self, path, name):
        with suppress(dbus.DBusException):  # None: not there
            return unwrap(self.obj(path).Get(ADAPTER_IFACE, name,
                                             dbus_interface=dbus.PROPERTIES_IFACE))

    def address(self, adapter):
        return self.prop(adapter, "Address")

    def objects(self):
        return unwrap(self.obj("/").GetManagedObjects(
            dbus_interface="org.freedesktop.DBus.ObjectManager"))

    def device(self, adapter, other):
        return f"{adapter}/dev_{self.address(other).replace(':', '_')}"

    def sees(self, adapter, other):
        """How adapter sees the other controller (None: not at all)."""
        props = self.objects().get(self.device(adapter, other), {}).get(DEVICE_IFACE)
        return props and {k: props.get(k) for k in ("Alias", "Paired", "Connected", "Trusted")}

    def set_up_phone(self):
        def set_up():  # fails while bluetoothd still sets up a controller that just appeared
            with suppress(dbus.DBusException):
                for name, value in ("Powered", dbus.Boolean(True)), ("Alias", "Phone"):
                    self.obj(PHONE).Set(ADAPTER_IFACE, name, value, signature="ssv",
                                        dbus_interface=dbus.PROPERTIES_IFACE)
                return True
        wait_until(set_up, 30, "hci1 powered and named")

    def discover_embosser(self):
        """The phone searches until it sees the embosser, which the user interface shows; over LE
        the embosser advertises anew each time (a connection may have ended its advertising)."""
        target, le = self.device(PHONE, EMBOSSER), "btvirt-le" in self.procs
        adapter = dbus.Interface(self.obj(PHONE), ADAPTER_IFACE)
        adapter.SetDiscoveryFilter({"Transport": "le" if le else "bredr"}, signature="a{sv}")
        for _ in range(3):
            self.ui.call("SetDiscoverable", True)
            for state in ("off", "on") if le else ():
                subprocess.run(["btmgmt", "--index", "0", "advertising", state],
                               capture_output=True, timeout=30)
            if target not in self.objects():
                adapter.StartDiscovery()
                with suppress(TimeoutError):
                    wait_until(lambda: target in self.objects(), 30)
                adapter.StopDiscovery()
            if target in self.objects():
                return target
        raise TimeoutError("the embosser never showed in the phone's search")

    def pair(self, ui_answer=True, phone_capability="DisplayYesNo", forget=False):
        """The phone pairs with the embosser; the user interface answers ui_answer when asked, with
        bluetooth-agentctl as a user of its group; with forget, both sides forget the last pairing
        first, the embosser through the user interface. Returns what each side saw."""
        if forget:
            if self.sees(EMBOSSER, PHONE):
                self.ui.call("forgetDevice", self.address(PHONE))
            if self.sees(PHONE, EMBOSSER):
                self.obj(PHONE).RemoveDevice(self.device(PHONE, EMBOSSER), signature="o",
                                             dbus_interface=ADAPTER_IFACE)
            wait_until(lambda: not self.sees(EMBOSSER, PHONE) and not self.sees(PHONE, EMBOSSER),
                       30, "both sides forgetting")
        manager = dbus.Interface(self.obj("/org/bluez"), "org.bluez.AgentManager1")
        with suppress(dbus.DBusException):  # not registered with this bluetoothd yet
            manager.UnregisterAgent("/phone/agent", signature="o")
        manager.RegisterAgent("/phone/agent", phone_capability, signature="os")
        self.phone.calls, self.phone.type_passkey = [], None
        mark, reply = len(self.ui.signals), Reply()
        self.obj(self.discover_embosser()).Pair(dbus_interface=DEVICE_IFACE, timeout=120,
                                                   reply_handler=reply.ok, error_handler=reply.fail)
        answered = []

        def answer():
            for member, args in self.ui.signals[mark:]:
                if member == "RequestUserConfirmation" and not answered:
                    answered.append(run("bluetooth-agentctl", "confirm", ["no", "yes"][ui_answer],
                                        user="embosser-ui"))
                if member == "DisplayUserPasskey" and self.phone.type_passkey:
                    self.phone.type_passkey, typed = None, self.phone.type_passkey
                    typed(dbus.UInt32(args[0]))  # the number the embosser shows
            return reply.done

        wait_until(answer, 130, "the pairing")
        pump(1.0)  # what follows the end of the pairing at once
        return {"pair_error": reply.error, "phone_asked": self.phone.calls, "answered": answered,
                "ui": self.ui.signals[mark:], "embosser_sees_phone": self.sees(EMBOSSER, PHONE),
                "phone_sees_embosser": self.sees(PHONE, EMBOSSER)}

    def push(self, name, size, drop_at=None, cancel=False):
        """The phone sends document(name, size), from an obexd of its own (one crashed on a second
        cancel). Once the receiver has the share drop_at, the phone walks away (its obexd killed),
        or with cancel its user cancels and ends the session. Returns the last status."""
        with open(f"/tmp/{name}", "wb") as f:
            f.write(document(name, size))
        # The phone's obexd offers Object Push too: the receiver's must be registered first.
        wait_until(lambda: OBJECT_PUSH in (self.prop(EMBOSSER, "UUIDs") or []), 60,
                   "the receiver's Object Push")
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
            client = conn.get_object(OBEX, "/org/bluez/obex")

            def connect():
                try:
                    return client.CreateSession(
                        self.address(EMBOSSER), {"Target": "opp", "Source": self.address(PHONE)},
                        dbus_interface="org.bluez.obex.Client1", timeout=60)
                except dbus.DBusException as e:  # a link just dropped: the phone tries again
                    if "Connection refused" not in str(e):
                        raise
            session = wait_until(connect, 60, "the OBEX session")
            transfer = conn.get_object(OBEX, session).SendFile(
                f"/tmp/{name}", dbus_interface="org.bluez.obex.ObjectPush1")[0]
            # The receiver stages the push under a name of its own; one push at a time here.
            wait_until(lambda: status.get(transfer) in ("complete", "error") or drop_at is not None
                       and max(map(os.path.getsize, glob.glob(f"{RECEIVE}/.incoming/*")),
                               default=-1) >= drop_at * size, 300, name)
            if cancel and status.get(transfer) is None:
                conn.get_object(OBEX, transfer).Cancel(dbus_interface="org.bluez.obex.Transfer1")
                client.RemoveSession(session, dbus_interface="org.bluez.obex.Client1")
                pump(2.0)  # for the disconnect to reach the embosser before the link drops
            return str(status.get(transfer))
        finally:
            conn.close()
            for proc in (obexd, bus):
                proc.kill()
                proc.wait()

    def pushes(self, *pushes):
        """The paired phone sends each push in turn. Returns each one's name, how it ended and what
        it sent, what the user interface heard and both folders, once the spool has the last."""
        mark, before = len(self.ui.signals), listing(SPOOL)
        sent = [[push[0], self.push(*push), checksum(document(*push[:2]))] for push in pushes]
        wait_until(lambda: [pushes[-1][0]] in self.ui.received("TransferComplete"), 60,
                   "the spool taking the last push")
        return {"sent": sent, "receive_folder": listing(RECEIVE),
                "announced": [a[0] for m, a in self.ui.signals[mark:] if m == "TransferComplete"],
                "spooled": {n: v for n, v in listing(SPOOL).items() if n not in before}}

    def play(self, name, scenario, *args, **kwargs):
        print(f"[{time.monotonic():8.2f}] scenario {name}", flush=True)
        try:
            self.observations[name] = scenario(*args, **kwargs)
        except Exception:  # noqa: BLE001 - the host's test reports it
            self.observations[name] = {"failed": traceback.format_exc()}
            print(self.observations[name]["failed"], flush=True)
        with open(f"{RESULTS}/observations.json", "w", encoding="utf-8") as f:
            json.dump(self.observations, f, indent=1, default=str)
