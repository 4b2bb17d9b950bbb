# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The realbluez guest's own work, run by its init: starts the real bluetoothd with two virtual
controllers from btvirt (hci0 the embosser, hci1 a phone), obexd and bluetooth-agent, then plays
the embosser's user interface and the phone through each scenario. It judges nothing: what each
side saw goes to RESULTS/observations.json, for the host's tests.

Usage (in the guest, as root, with the system and session buses up): guest_scenarios.py RESULTS
"""

import json
import os
import signal
import subprocess
import sys
import time
import traceback

import dbus
import dbus.service

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from simenv import (ADAPTER_IFACE, AGENT_IFACE, AGENT_PATH, AGENT_SERVICE,  # noqa: E402
                    DEVICE_IFACE, Client, Reply, pump, unwrap, wait_until)

RESULTS = sys.argv[1] if len(sys.argv) > 1 else "/results"
HERE = os.path.dirname(os.path.abspath(__file__))
RECEIVE, SPOOL = "/var/spool/lp/obex", "/var/spool/lp/www"
BLUEZ = "org.bluez"
EMBOSSER, PHONE = "/org/bluez/hci0", "/org/bluez/hci1"
PHONE_AGENT = "/phone/agent"
PHONE_NAME = "Phone"
OBEX = "org.bluez.obex"


def log(text):
    print(f"[{time.monotonic():8.2f}] {text}", flush=True)


class Processes:
    """The guest's programs, each logging to its own file in RESULTS."""

    COMMANDS = {
        "bluetoothd": ["/usr/libexec/bluetooth/bluetoothd", "-n", "-d"],
        "btvirt": ["btvirt", "-l2"],
        "btvirt-le": ["btvirt", "-L", "-l2"],
        "obexd": ["/usr/libexec/bluetooth/obexd", "-n", "-d", "-a", "-r", RECEIVE],
        "agent": [os.path.join(HERE, "bluetooth-agent")],
    }

    def __init__(self):
        self.procs = {}

    def start(self, name):
        with open(os.path.join(RESULTS, name.split("-")[0] + ".log"), "ab") as out:
            self.procs[name] = subprocess.Popen(self.COMMANDS[name], stdout=out, stderr=out)

    def kill(self, name, sig=signal.SIGTERM):
        proc = self.procs.pop(name)
        proc.send_signal(sig)
        proc.wait(30)


class PhoneAgent(dbus.service.Object):
    """The phone's own pairing agent on hci1: it answers as the scenario says and records what
    bluetoothd asked it."""

    def __init__(self, conn):
        super().__init__(conn, PHONE_AGENT)
        self.answer = True
        self.calls = []
        self.type_passkey = None  # the reply of a pending RequestPasskey

    @dbus.service.method(AGENT_IFACE, in_signature="ou")
    def RequestConfirmation(self, device, passkey):
        self.calls.append(["RequestConfirmation", int(passkey)])
        if not self.answer:
            raise Rejected("the phone's user said no")

    @dbus.service.method(AGENT_IFACE, in_signature="o", out_signature="u",
                         async_callbacks=("ok", "fail"))
    def RequestPasskey(self, device, ok, fail):
        self.calls.append(["RequestPasskey"])
        self.type_passkey = ok

    @dbus.service.method(AGENT_IFACE, in_signature="ouq")
    def DisplayPasskey(self, device, passkey, entered):
        self.calls.append(["DisplayPasskey", int(passkey)])

    @dbus.service.method(AGENT_IFACE, in_signature="o")
    def RequestAuthorization(self, device):
        self.calls.append(["RequestAuthorization"])

    @dbus.service.method(AGENT_IFACE, in_signature="os")
    def AuthorizeService(self, device, uuid):
        self.calls.append(["AuthorizeService", str(uuid)])

    @dbus.service.method(AGENT_IFACE)
    def Cancel(self):
        self.calls.append(["Cancel"])

    @dbus.service.method(AGENT_IFACE)
    def Release(self):
        self.calls.append(["Release"])


class Rejected(dbus.DBusException):
    _dbus_error_name = "org.bluez.Error.Rejected"


class SystemBusAccess:
    def connect(self):
        return dbus.SystemBus()


class Guest:
    def __init__(self):
        self.procs = Processes()
        self.bus = dbus.SystemBus()
        self.session = dbus.SessionBus()
        self.ui = Client(SystemBusAccess())
        self.phone = PhoneAgent(self.bus)
        self.capability = None
        self.le = False
        self.observations = {}

    # --- BlueZ as the phone and the tests see it -------------------------------------------

    def obj(self, path):
        return self.bus.get_object(BLUEZ, path, introspect=False)

    def prop(self, path, interface, name):
        try:
            return unwrap(self.obj(path).Get(interface, name, dbus_interface=dbus.PROPERTIES_IFACE))
        except dbus.DBusException:
            return None

    def set_prop(self, path, interface, name, value):
        self.obj(path).Set(interface, name, value, signature="ssv",
                           dbus_interface=dbus.PROPERTIES_IFACE)

    def try_set(self, path, interface, name, value):
        try:
            self.set_prop(path, interface, name, value)
            return True
        except dbus.DBusException:
            return False

    def objects(self):
        manager = dbus.Interface(self.obj("/"), "org.freedesktop.DBus.ObjectManager")
        return {str(path): unwrap(ifaces) for path, ifaces in manager.GetManagedObjects().items()}

    def address(self, adapter):
        return self.prop(adapter, ADAPTER_IFACE, "Address")

    def device(self, adapter, address):
        return f"{adapter}/dev_{address.replace(':', '_')}"

    def device_state(self, adapter, address):
        path = self.device(adapter, address)
        props = self.objects().get(path, {}).get(DEVICE_IFACE)
        if props is None:
            return None
        return {k: props.get(k) for k in ("Alias", "Paired", "Connected", "Trusted")}

    def wait_for_bluez(self):
        wait_until(lambda: self.prop(EMBOSSER, ADAPTER_IFACE, "Address")
                   and self.prop(PHONE, ADAPTER_IFACE, "Address"), 60, "hci0 and hci1")

    def phone_agent(self, capability):
        """Registers the phone's agent with the capability the scenario gives the phone."""
        manager = dbus.Interface(self.obj("/org/bluez"), "org.bluez.AgentManager1")
        try:
            manager.UnregisterAgent(dbus.ObjectPath(PHONE_AGENT))
        except dbus.DBusException:
            pass  # not registered with this bluetoothd yet
        manager.RegisterAgent(dbus.ObjectPath(PHONE_AGENT), capability)
        self.capability = capability

    def set_up_phone(self, le):
        self.capability = None
        wait_until(lambda: self.prop(PHONE, ADAPTER_IFACE, "Address"), 60, "hci1")
        # A controller that just appeared may still be busy with bluetoothd's own set-up.
        wait_until(lambda: self.try_set(PHONE, ADAPTER_IFACE, "Powered", dbus.Boolean(True)),
                   30, "hci1 powered")
        self.set_prop(PHONE, ADAPTER_IFACE, "Alias", PHONE_NAME)
        self.le = le
        self.phone_agent("DisplayYesNo")

    def discover_embosser(self):
        """The phone searches until it sees the embosser, which the user interface made
        discoverable."""
        self.ui.call("SetDiscoverable", True)
        if self.le:
            subprocess.run(["btmgmt", "--index", "0", "advertising", "on"],
                           capture_output=True, timeout=30)
        target = self.device(PHONE, self.address(EMBOSSER))
        if target in self.objects():
            return target
        adapter = dbus.Interface(self.obj(PHONE), ADAPTER_IFACE)
        adapter.SetDiscoveryFilter(
            dbus.Dictionary({"Transport": "le" if self.le else "bredr"}, signature="sv"))
        adapter.StartDiscovery()
        try:
            wait_until(lambda: target in self.objects(), 60, "the embosser in the phone's search")
        finally:
            adapter.StopDiscovery()
        return target

    def forget_both(self):
        """Both sides forget the pairing: the embosser through the user interface."""
        phone_address, embosser_address = self.address(PHONE), self.address(EMBOSSER)
        if self.device_state(EMBOSSER, phone_address) is not None:
            self.ui.call("forgetDevice", phone_address)
        target = self.device(PHONE, embosser_address)
        if target in self.objects():
            dbus.Interface(self.obj(PHONE), ADAPTER_IFACE).RemoveDevice(dbus.ObjectPath(target))
        wait_until(lambda: self.device_state(EMBOSSER, phone_address) is None
                   and target not in self.objects(), 30, "both sides forgetting")

    # --- scenarios ---------------------------------------------------------------------------

    def pair(self, ui_answer=True, phone_capability="DisplayYesNo", phone_answer=True):
        """The phone pairs with the embosser; the user interface answers ui_answer when asked
        (None: never). Returns what each side saw."""
        if phone_capability != self.capability:
            self.phone_agent(phone_capability)
        self.phone.answer = phone_answer
        self.phone.calls = []
        self.phone.type_passkey = None
        target = self.discover_embosser()
        mark = len(self.ui.signals)
        reply = Reply()
        dbus.Interface(self.obj(target), DEVICE_IFACE).Pair(
            reply_handler=reply.ok, error_handler=reply.fail, timeout=120)
        answered = False
        start = time.monotonic()
        deadline = start + 120
        while not reply.done and time.monotonic() < deadline:
            pump(0.02)
            for member, args in self.ui.signals[mark:]:
                if member == "RequestUserConfirmation" and ui_answer is not None and not answered:
                    self.ui.call_async("userConfirmation", ui_answer)
                    answered = True
                if member == "DisplayUserPasskey" and self.phone.type_passkey:
                    self.phone.type_passkey(dbus.UInt32(args[0]))
                    self.phone.type_passkey = None
        seconds = time.monotonic() - start
        pump(1.0)  # what follows the end of the pairing at once
        return {
            "pair_error": reply.error if reply.done else "no answer in 120 s",
            "seconds": round(seconds, 1),
            "ui": self.ui.signals[mark:],
            "phone_asked": self.phone.calls,
            "embosser_sees_phone": self.device_state(EMBOSSER, self.address(PHONE)),
            "phone_sees_embosser": self.device_state(PHONE, self.address(EMBOSSER)),
        }

    def startup(self):
        self.procs.start("bluetoothd")
        self.procs.start("btvirt")
        self.wait_for_bluez()
        self.procs.start("obexd")
        self.procs.start("agent")
        wait_until(lambda: self.bus.name_has_owner(AGENT_SERVICE), 60, "bluetooth-agent")
        wait_until(lambda: self.prop(EMBOSSER, ADAPTER_IFACE, "Alias") == hostname(), 30,
                   "the embosser named after the host")
        self.set_up_phone(le=False)
        wait_until(lambda: default_agent().endswith(AGENT_PATH), 30, "the default agent")
        return {
            "default_agent": default_agent(),
            "embosser": {k: self.prop(EMBOSSER, ADAPTER_IFACE, k)
                         for k in ("Powered", "Alias", "Pairable")},
            "ui_getPower": self.ui.call("getPower"),
        }

    def unanswered(self):
        """Nobody answers on the embosser: bluetoothd gives up and cancels the question, and a
        late yes from bluetooth-agentctl goes nowhere."""
        seen = self.pair(ui_answer=None)
        wait_until(lambda: self.ui.received("RequestCancelled"), 30, "RequestCancelled")
        late = subprocess.run([os.path.join(HERE, "bluetooth-agentctl"), "confirm", "yes"],
                              capture_output=True, text=True, timeout=60)
        pump(1.0)
        seen.update(late_confirm=[late.returncode, late.stderr],
                    embosser_after_late_yes=self.device_state(EMBOSSER, self.address(PHONE)))
        return seen

    def object_push(self):
        """The paired phone sends a document the embosser prints and a photo it does not."""
        client = dbus.Interface(self.session.get_object(OBEX, "/org/bluez/obex"),
                                "org.bluez.obex.Client1")
        mark = len(self.ui.signals)
        statuses = {}  # transfer path -> its latest Status; obexd drops a finished transfer

        def changed(interface, props, invalidated, path=None):
            if interface == "org.bluez.obex.Transfer1" and "Status" in props:
                statuses[str(path)] = str(props["Status"])

        self.session.add_signal_receiver(changed, "PropertiesChanged", dbus.PROPERTIES_IFACE,
                                         path_keyword="path")
        sent = {}
        for name, data in (("letter.brf", b"braille text\n" * 100), ("photo.jpg", b"\xff\xd8")):
            path = os.path.join("/tmp", name)
            with open(path, "wb") as f:
                f.write(data)
            session = client.CreateSession(self.address(EMBOSSER),
                                           {"Target": "opp", "Source": self.address(PHONE)},
                                           timeout=60)
            push = dbus.Interface(self.session.get_object(OBEX, session),
                                  "org.bluez.obex.ObjectPush1")
            transfer = str(push.SendFile(path)[0])
            wait_until(lambda: statuses.get(transfer) in ("complete", "error"), 60,
                       "the transfer")
            sent[name] = statuses[transfer]
            client.RemoveSession(session)
        wait_until(lambda: self.ui.received("TransferComplete"), 30, "TransferComplete")
        try:
            wait_until(lambda: not os.listdir(RECEIVE), 20, "an empty receive folder")
        except TimeoutError:
            pass  # the test reports what stayed
        return {
            "sent": sent,
            "ui": self.ui.signals[mark:],
            "receive_folder": sorted(os.listdir(RECEIVE)),
            "spool": {n: open(os.path.join(SPOOL, n), "rb").read().decode("latin-1")
                      for n in sorted(os.listdir(SPOOL))},
        }

    def disconnection(self):
        mark = len(self.ui.signals)
        target = self.device(PHONE, self.address(EMBOSSER))
        dbus.Interface(self.obj(target), DEVICE_IFACE).Disconnect(timeout=30)
        wait_until(lambda: not self.device_state(EMBOSSER, self.address(PHONE))["Connected"],
                   30, "the disconnection")
        pump(2.0)
        return {"ui": self.ui.signals[mark:],
                "embosser_sees_phone": self.device_state(EMBOSSER, self.address(PHONE))}

    def devices_and_forgetting(self):
        phone = [self.device_state(EMBOSSER, self.address(PHONE))["Alias"], self.address(PHONE)]
        listed = self.ui.devices()
        mark = len(self.ui.received("BluetoothDevices"))
        self.ui.call("forgetDevice", self.address(PHONE))
        after = self.ui.wait_signal("BluetoothDevices", mark + 1)[-1][0]
        return {"phone": phone, "listed": listed, "after_forget": after,
                "embosser_sees_phone": self.device_state(EMBOSSER, self.address(PHONE))}

    def repairing(self, cycles=5):
        """The same phone paired, disconnected and forgotten again and again."""
        counts = []
        for _ in range(cycles):
            self.forget_both()
            seen = self.pair(ui_answer=True)
            mark = len(self.ui.signals)
            target = self.device(PHONE, self.address(EMBOSSER))
            dbus.Interface(self.obj(target), DEVICE_IFACE).Disconnect(timeout=30)
            pump(2.0)
            statuses = [s for s in seen["ui"] + self.ui.signals[mark:]
                        if s[0] == "ConnectionStatus" and s[1][0] == PHONE_NAME]
            counts.append({"paired": bool(seen["embosser_sees_phone"]
                                          and seen["embosser_sees_phone"]["Paired"]),
                           "ConnectionStatus": len(statuses)})
        return {"cycles": counts}

    def bluetoothd_restart(self):
        self.forget_both()
        lines_before = len(agent_log())
        self.procs.kill("bluetoothd", signal.SIGKILL)
        time.sleep(1)
        self.procs.start("bluetoothd")
        self.wait_for_bluez()
        wait_until(lambda: any("registering the agent" in line
                               for line in agent_log()[lines_before:]), 60,
                   "the agent registered again")
        self.set_up_phone(le=False)
        seen = self.pair(ui_answer=True)
        seen["agent_log"] = agent_log()[lines_before:]
        return seen

    def switch_to_le(self):
        """The controllers go and come back LE-only (a controller reset, seen from the daemon)."""
        self.procs.kill("btvirt")
        wait_until(lambda: EMBOSSER not in self.objects(), 30, "hci0 gone")
        self.procs.start("btvirt-le")
        self.wait_for_bluez()
        self.set_up_phone(le=True)
        return {"embosser": {k: self.prop(EMBOSSER, ADAPTER_IFACE, k)
                             for k in ("Powered", "Alias")}}

    def run(self, name, scenario, *args, **kwargs):
        log(f"scenario {name}")
        try:
            self.observations[name] = scenario(*args, **kwargs)
        except Exception:  # noqa: BLE001 - the host's test reports it
            self.observations[name] = {"failed": traceback.format_exc()}
            log(self.observations[name]["failed"])
        self.save()

    def save(self):
        with open(os.path.join(RESULTS, "observations.json"), "w", encoding="utf-8") as f:
            json.dump(self.observations, f, indent=1, default=str)


def hostname():
    """The first line of /etc/hostname, as the daemon reads it."""
    return read("/etc/hostname").splitlines(keepends=True)[0]


def default_agent():
    """What bluetoothd last logged as its default agent: "NAME PATH"."""
    marker = "Default agent set to "
    lines = [line for line in read(os.path.join(RESULTS, "bluetoothd.log")).splitlines()
             if marker in line]
    return lines[-1].split(marker, 1)[1] if lines else ""


def agent_log():
    return read(os.path.join(RESULTS, "agent.log")).splitlines()


def read(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return f.read()


def main():
    os.makedirs(RESULTS, exist_ok=True)
    for folder in (RECEIVE, SPOOL):
        os.makedirs(folder, exist_ok=True)
    guest = Guest()
    guest.run("startup", guest.startup)
    guest.run("bredr_no", guest.pair, ui_answer=False)
    guest.run("unanswered", guest.unanswered)
    guest.run("bredr_yes", guest.pair, ui_answer=True)
    guest.run("object_push", guest.object_push)
    guest.run("disconnection", guest.disconnection)
    guest.run("devices", guest.devices_and_forgetting)
    guest.run("repairing", guest.repairing)
    guest.run("bluetoothd_restart", guest.bluetoothd_restart)
    guest.run("le_switch", guest.switch_to_le)
    for name, kwargs in (("le_no", {"ui_answer": False}), ("le_yes", {"ui_answer": True}),
                         ("le_keyboard", {"phone_capability": "KeyboardOnly"}),
                         ("le_no_io", {"phone_capability": "NoInputNoOutput"})):
        guest.run(name + "_forget", guest.forget_both)
        guest.run(name, guest.pair, **kwargs)
    guest.procs.kill("agent")
    log("done")


if __name__ == "__main__":
    main()
