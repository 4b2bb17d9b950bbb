# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The realbluez guest's scenarios: the embosser's user interface and a phone on hci1 against the
real bluetoothd, obexd and bluetooth-agent. It judges nothing: what each side saw goes to
observations.json, for ../test_realbluez.py."""

import signal
import subprocess
import time

import dbus
import dbus.service

from board import EMBOSSER, PHONE, RECEIVE, SPOOL, Board, checksum, document, listing
from simenv import (ADAPTER_IFACE, AGENT_IFACE, AGENT_PATH, DEVICE_IFACE, Reply, pump, unwrap,
                    wait_until)


class PhoneAgent(dbus.service.Object):
    """The phone's pairing agent: answers as the scenario says and records what it was asked (what
    else bluetoothd may ask it is BlueZ's business, not the embosser's)."""

    def __init__(self, conn):
        super().__init__(conn, "/phone/agent")
        self.answer, self.calls, self.type_passkey = True, [], None

    @dbus.service.method(AGENT_IFACE, in_signature="ou")
    def RequestConfirmation(self, device, passkey):
        self.calls.append(["RequestConfirmation", int(passkey)])
        if not self.answer:
            raise dbus.DBusException("the phone's user said no", name="org.bluez.Error.Rejected")

    @dbus.service.method(AGENT_IFACE, in_signature="o", out_signature="u",
                         async_callbacks=("ok", "fail"))
    def RequestPasskey(self, device, ok, fail):
        self.calls.append(["RequestPasskey"])
        self.type_passkey = ok  # answered with the number the embosser shows


class Guest(Board):
    def __init__(self):
        super().__init__()
        self.phone, self.le = PhoneAgent(self.bus), False

    def objects(self):
        return unwrap(self.obj("/").GetManagedObjects(
            dbus_interface="org.freedesktop.DBus.ObjectManager"))

    def device(self, adapter, other):
        return f"{adapter}/dev_{self.address(other).replace(':', '_')}"

    def sees(self, adapter, other):
        """How adapter sees the other controller (None: not at all)."""
        props = self.objects().get(self.device(adapter, other), {}).get(DEVICE_IFACE)
        return props and {k: props.get(k) for k in ("Alias", "Paired", "Connected", "Trusted")}

    def set(self, name, value):
        """Sets a property of the phone's controller; False while it is busy."""
        try:
            self.obj(PHONE).Set(ADAPTER_IFACE, name, value, signature="ssv",
                                dbus_interface=dbus.PROPERTIES_IFACE)
            return True
        except dbus.DBusException:
            return False

    def set_up_phone(self, le):
        # A controller that just appeared may still be busy with bluetoothd's own set-up.
        wait_until(lambda: self.set("Powered", dbus.Boolean(True)), 30, "hci1 powered")
        self.set("Alias", "Phone")
        self.le = le

    def discover_embosser(self):
        """The phone searches until it sees the embosser, which the user interface shows."""
        self.ui.call("SetDiscoverable", True)
        if self.le:
            subprocess.run(["btmgmt", "--index", "0", "advertising", "on"], capture_output=True,
                           timeout=30)
        target = self.device(PHONE, EMBOSSER)
        if target not in self.objects():
            adapter = dbus.Interface(self.obj(PHONE), ADAPTER_IFACE)
            adapter.SetDiscoveryFilter({"Transport": "le" if self.le else "bredr"},
                                       signature="a{sv}")
            adapter.StartDiscovery()
            try:
                wait_until(lambda: target in self.objects(), 60, "the embosser in the search")
            finally:
                adapter.StopDiscovery()
        return target

    def forget_both(self):
        """Both sides forget the pairing: the embosser through the user interface."""
        if self.sees(EMBOSSER, PHONE):
            self.ui.call("forgetDevice", self.address(PHONE))
        if self.sees(PHONE, EMBOSSER):
            self.obj(PHONE).RemoveDevice(self.device(PHONE, EMBOSSER), signature="o",
                                         dbus_interface=ADAPTER_IFACE)
        wait_until(lambda: not self.sees(EMBOSSER, PHONE) and not self.sees(PHONE, EMBOSSER), 30,
                   "both sides forgetting")

    def pair(self, ui_answer=True, phone_capability="DisplayYesNo", phone_answer=True,
             forget=False):
        """The phone pairs with the embosser; the user interface answers ui_answer when asked
        (None: never). Returns what each side saw."""
        if forget:
            self.forget_both()
        manager = dbus.Interface(self.obj("/org/bluez"), "org.bluez.AgentManager1")
        try:
            manager.UnregisterAgent("/phone/agent", signature="o")
        except dbus.DBusException:
            pass  # not registered with this bluetoothd yet
        manager.RegisterAgent("/phone/agent", phone_capability, signature="os")
        self.phone.answer, self.phone.calls, self.phone.type_passkey = phone_answer, [], None
        mark, reply, start = len(self.ui.signals), Reply(), time.monotonic()
        self.obj(self.discover_embosser()).Pair(dbus_interface=DEVICE_IFACE, timeout=120,
                                                   reply_handler=reply.ok,
                                                   error_handler=reply.fail)
        answered = ui_answer is None

        def answer():
            nonlocal answered
            for member, args in self.ui.signals[mark:]:
                if member == "RequestUserConfirmation" and not answered:
                    answered = self.ui.call_async("userConfirmation", ui_answer)
                if member == "DisplayUserPasskey" and self.phone.type_passkey:
                    self.phone.type_passkey, typed = None, self.phone.type_passkey
                    typed(dbus.UInt32(args[0]))  # the number the embosser shows
            return reply.done

        wait_until(answer, 130, "the pairing")
        seconds = time.monotonic() - start
        pump(1.0)  # what follows the end of the pairing at once
        return {"pair_error": reply.error, "seconds": round(seconds, 1), "phone_asked":
                self.phone.calls, "ui": self.ui.signals[mark:], "embosser_sees_phone":
                self.sees(EMBOSSER, PHONE), "phone_sees_embosser": self.sees(PHONE, EMBOSSER)}

    def startup(self):
        self.start_bluez()
        self.start("obexd")
        self.start_agent()
        wait_until(lambda: self.prop(EMBOSSER, "Alias") == "embosser\n", 30, "the host's name")
        self.set_up_phone(le=False)
        wait_until(lambda: default_agent().endswith(AGENT_PATH), 30, "the default agent")
        return {"default_agent": default_agent(), "ui_getPower": self.ui.call("getPower"),
                "embosser": {k: self.prop(EMBOSSER, k) for k in ("Powered", "Alias", "Pairable")}}

    def unanswered(self):
        """Nobody answers on the embosser: bluetoothd gives up and cancels the question, and a
        late yes from bluetooth-agentctl goes nowhere."""
        seen = self.pair(ui_answer=None)
        wait_until(lambda: self.ui.received("RequestCancelled"), 30, "RequestCancelled")
        late = subprocess.run(["/guest/bluetooth-agentctl", "confirm", "yes"],
                              capture_output=True, text=True, timeout=60)
        pump(1.0)
        return dict(seen, late_confirm=[late.returncode, late.stderr],
                    embosser_after_late_yes=self.sees(EMBOSSER, PHONE))

    def pushes(self, *pushes):
        """The paired phone sends each (name, data, drop_at) in turn. Returns how each transfer
        ended, then what the user interface was told and the two folders, once the spool has
        taken the last one."""
        mark, before = len(self.ui.signals), listing(SPOOL)
        sent = [[self.push(*push), checksum(push[1])] for push in pushes]
        wait_until(lambda: [pushes[-1][0]] in self.ui.received("TransferComplete"), 60,
                   "the spool taking the last push")
        return {"sent": sent, "receive_folder": listing(RECEIVE),
                "announced": [a[0] for m, a in self.ui.signals[mark:] if m == "TransferComplete"],
                "spooled": {n: v for n, v in listing(SPOOL).items() if n not in before}}

    def disconnection(self):
        mark = len(self.ui.signals)
        self.obj(self.device(PHONE, EMBOSSER)).Disconnect(dbus_interface=DEVICE_IFACE, timeout=30)
        wait_until(lambda: not self.sees(EMBOSSER, PHONE)["Connected"], 30, "the disconnection")
        pump(2.0)
        return {"ui": self.ui.signals[mark:], "embosser_sees_phone": self.sees(EMBOSSER, PHONE)}

    def devices_and_forgetting(self):
        phone = [self.sees(EMBOSSER, PHONE)["Alias"], self.address(PHONE)]
        listed, mark = self.ui.devices(), len(self.ui.received("BluetoothDevices"))
        self.ui.call("forgetDevice", self.address(PHONE))
        return {"phone": phone, "listed": listed,
                "after_forget": self.ui.wait_signal("BluetoothDevices", mark + 1)[-1][0],
                "embosser_sees_phone": self.sees(EMBOSSER, PHONE)}

    def repairing(self, cycles=5):
        """The same phone paired, disconnected and forgotten again and again."""
        counts = []
        for _ in range(cycles):
            seen, dropped = self.pair(forget=True), self.disconnection()
            counts.append({"paired": (seen["embosser_sees_phone"] or {}).get("Paired"),
                           "ConnectionStatus": sum(m == "ConnectionStatus" and a[0] == "Phone"
                                                   for m, a in seen["ui"] + dropped["ui"])})
        return {"cycles": counts}

    def bluetoothd_restart(self):
        self.forget_both()
        lines_before = len(read("agent"))
        self.kill("bluetoothd", signal.SIGKILL)
        time.sleep(1)
        self.start("bluetoothd")
        wait_until(lambda: self.address(EMBOSSER) and self.address(PHONE), 60, "hci0 and hci1")
        wait_until(lambda: any("registering the agent" in line
                               for line in read("agent")[lines_before:]), 60, "the agent again")
        self.set_up_phone(le=False)
        return dict(self.pair(), agent_log=read("agent")[lines_before:])

    def switch_to_le(self):
        """The controllers go and come back LE-only (a controller reset, seen from the daemon)."""
        self.kill("btvirt")
        wait_until(lambda: EMBOSSER not in self.objects(), 30, "hci0 gone")
        self.start_bluez("btvirt-le")
        self.set_up_phone(le=True)


def default_agent():
    """What bluetoothd last logged as its default agent: "NAME PATH"."""
    lines = [line for line in read("bluetoothd") if "Default agent set to " in line]
    return lines[-1].split("Default agent set to ", 1)[1] if lines else ""


def read(program):
    with open(f"/run/results/{program}.log", encoding="utf-8", errors="replace") as f:
        return f.read().splitlines()


def main():
    guest = Guest()
    guest.run("startup", guest.startup)
    guest.run("bredr_no", guest.pair, ui_answer=False)
    guest.run("unanswered", guest.unanswered)
    guest.run("bredr_yes", guest.pair)
    guest.run("object_push", guest.pushes, ("photo.jpg", b"\xff\xd8"),
              ("letter.brf", b"braille text\n" * 100))
    # The phone walks away during pushes of small and multi-MiB documents, at several points.
    drops = [(128 << 10, 0), (128 << 10, 0.25), (512 << 10, 0.5)] + [
        (3 << 20, share) for share in (0, 0.05, 0.2, 0.4, 0.6, 0.8, 0.95)]
    guest.run("dropped_pushes", guest.pushes, *[
        (f"dropped{i}.brf", document(i, size), share) for i, (size, share) in enumerate(drops)],
        ("whole.brf", document("whole", 3 << 20)))
    guest.run("disconnection", guest.disconnection)
    guest.run("devices", guest.devices_and_forgetting)
    guest.run("repairing", guest.repairing)
    guest.run("bluetoothd_restart", guest.bluetoothd_restart)
    guest.run("le_switch", guest.switch_to_le)
    guest.run("le_no", guest.pair, ui_answer=False, forget=True)
    guest.run("le_yes", guest.pair, forget=True)
    guest.run("le_keyboard", guest.pair, phone_capability="KeyboardOnly", forget=True)
    guest.run("le_no_io", guest.pair, phone_capability="NoInputNoOutput", forget=True)
    guest.kill("agent")


if __name__ == "__main__":
    main()
