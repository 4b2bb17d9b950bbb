# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The realbluez guest's scenarios: the embosser's user interface and a phone on hci1 against the
real bluetoothd and bluetooth-agent. It judges nothing: what each side saw goes to
observations.json, for ../test_realbluez.py."""

from board import EMBOSSER, PHONE, Board
from simenv import DEVICE_IFACE, pump, wait_until


class Guest(Board):
    def startup(self):
        self.start_bluez()
        self.start_agent()
        wait_until(lambda: self.prop(EMBOSSER, "Alias") == "embosser\n", 30, "the host's name")
        self.set_up_phone(le=False)
        return {"ui_getPower": self.ui.call("getPower"),
                "embosser": {k: self.prop(EMBOSSER, k) for k in ("Powered", "Alias", "Pairable")}}

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

    def switch_to_le(self):
        """The controllers go and come back LE-only (a controller reset, seen from the daemon)."""
        self.kill("btvirt")
        wait_until(lambda: EMBOSSER not in self.objects(), 30, "hci0 gone")
        self.start_bluez("btvirt-le")
        self.set_up_phone(le=True)


def main():
    guest = Guest()
    guest.run("startup", guest.startup)
    guest.run("bredr_no", guest.pair, ui_answer=False)
    guest.run("bredr_yes", guest.pair)
    guest.run("disconnection", guest.disconnection)
    guest.run("devices", guest.devices_and_forgetting)
    guest.run("le_switch", guest.switch_to_le)
    guest.run("le_no", guest.pair, ui_answer=False, forget=True)
    guest.run("le_yes", guest.pair, forget=True)
    guest.run("le_keyboard", guest.pair, phone_capability="KeyboardOnly", forget=True)
    guest.run("le_no_io", guest.pair, phone_capability="NoInputNoOutput", forget=True)
    guest.kill("agent")


if __name__ == "__main__":
    main()
