#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The image guest, which systemd runs at every boot: the package installed with apt, the board's
first boot, the board rebooted; the user interface and a phone on hci1 against the real bluetoothd,
over BR/EDR, then LE. What each boot saw stays on the disk for ../test_image.py, which judges."""

import json
import os
from functools import partialmethod

from board import EMBOSSER, OBEXD, PHONE, RECEIVE, RESULTS, SPOOL, Board, run
from simenv import DEVICE_IFACE, pump, wait_until, watching

KEPT, UNITS = "/var/lib/guest-results", ["bluetooth-agent.service", "bluetooth-agent-obex.service"]
BOOTS = {"install": ["install"],
         "boot": ["boot", "bredr_no", "pairing", "documents", "routine", "anew"],
         "rebooted": ["rebooted", "devices", "le_switch", "le_no", "le_yes", "le_keyboard",
                      "le_no_io", "routine_rebooted"]}


def show(prop):
    return run("systemctl", "show", "-P", prop, UNITS[0])[1]


def journal(*after):
    """The two units' entries after the cursor given, which must be one of theirs."""
    return [json.loads(entry) for entry in run("journalctl", "-o", "json", *(f"_SYSTEMD_UNIT={u}"
            for u in UNITS), *(["--after-cursor", *after] if after else []))[1].splitlines()]


class Image(Board):
    def registered(self, old="0"):
        """The pid of a daemon other than old, once it has started (registered, watching)."""
        return wait_until(lambda: (pid := show("MainPID")) not in ("0", old) and watching(pid)
                          and pid, 180, "the daemon registered")

    def install(self):
        return run("sh", "-c", "echo embosser >/etc/hostname && "
                   "apt-get install -y --no-install-recommends "
                   "/guest/bluetooth-agent.deb && useradd -r -G bluetooth embosser-ui")

    def boot(self):
        """bluetoothd, and with it the daemon and the receiver, before the controllers; then
        bluetoothd restarted, stopped and started, and the daemon crashing."""
        run("modprobe", "hci_vhci")
        run("systemctl", "start", "bluetooth.service")
        wait_until(lambda: int(show("NRestarts")), 120, "a failed start-up tried again")
        self.start_bluez()
        pids = [self.registered()]
        for action in ("restart", "stop", "start"):
            run("systemctl", action, "bluetooth.service")
            if action == "stop":
                stopped = run("systemctl", "is-active", *UNITS)[1].split()
            else:
                pids.append(self.registered(pids[-1]))
        run("systemctl", "kill", "--kill-who=main", "--signal=SEGV", UNITS[0])
        pids.append(self.registered(pids[-1]))
        self.set_up_phone()
        self.cursor = journal()[-1]["__CURSOR"]
        return {"pids": pids, "stopped": stopped, "ui_getPower": self.ui.call("getPower"),
                "embosser": {k: self.prop(EMBOSSER, k) for k in ("Powered", "Alias", "Pairable")},
                "run": run("nsenter", "-t", pids[-1], "-m", "touch", "/run/a-file")}

    def pairing(self):
        paired = dict(self.pair(), outsider=run("bluetooth-agentctl", "power", user="nobody"))
        mark = len(self.ui.signals)
        self.obj(self.device(PHONE, EMBOSSER)).Disconnect(dbus_interface=DEVICE_IFACE, timeout=30)
        wait_until(lambda: not self.sees(EMBOSSER, PHONE)["Connected"], 30, "the disconnection")
        pump(2.0)
        return dict(paired, dropped={"ui": self.ui.signals[mark:],
                                     "embosser_sees_phone": self.sees(EMBOSSER, PHONE)})

    def documents(self):
        """A file of a type not printed, by hand; whole pushes around pushes cancelled, and the
        phone walking away during small and multi-MiB pushes at several points."""
        run("sh", "-c", f"echo refused >{RECEIVE}/refused.exe")
        drops = [(128 << 10, 0), (128 << 10, 0.5), (512 << 10, 0.5)] + [
            (3 << 20, share) for share in (0, 0.05, 0.2, 0.4, 0.6, 0.8, 0.95)]
        cancels = [(f"cancelled{share}.brf", 3 << 20, share, True) for share in (0.2, 0.7)]
        return self.pushes(("letter.brf", 3000), *cancels, *[
            (f"dropped{i}.brf", *drop) for i, drop in enumerate(drops)], ("big.brf", 3 << 20))

    def routine(self):
        """What the daemon and the receiver's agent (not obexd) logged since the start-up (before
        anew: folders gone for a moment are worth a line); how often obexd crashed (dmesg)."""
        return {"lines": [[e["_SYSTEMD_UNIT"], int(e["PRIORITY"]), e["MESSAGE"]] for e in journal(
            self.cursor) if e.get("_EXE") != OBEXD], "obexd_crashes": sum(
            "obexd[" in line and "segfault" in line for line in run("dmesg")[1].splitlines())}

    routine_rebooted = routine
    bredr_no = partialmethod(Board.pair, ui_answer=False)
    le_no = partialmethod(Board.pair, ui_answer=False, forget=True)
    le_yes = partialmethod(Board.pair, forget=True)
    le_keyboard = partialmethod(Board.pair, phone_capability="KeyboardOnly", forget=True)
    le_no_io = partialmethod(Board.pair, phone_capability="NoInputNoOutput", forget=True)

    def anew(self):
        made = run("sh", "-c", f"rm -r {RECEIVE} {SPOOL} && systemd-tmpfiles --create")
        return dict(self.pushes(("anew.brf", 5000)), tmpfiles=made, modes=run(
            "stat", "-c", "%n %a %U", RECEIVE, f"{RECEIVE}/.incoming", SPOOL)[1].splitlines())

    def rebooted(self):
        """The controllers come after the boot, and udev starts bluetoothd for them."""
        run("modprobe", "hci_vhci")
        self.start_bluez()
        self.registered()
        self.cursor = journal()[-1]["__CURSOR"]
        self.set_up_phone()
        return self.pushes(("again.brf", 5000))

    def devices(self):
        listed, mark = self.ui.devices(), len(self.ui.received("BluetoothDevices"))
        self.ui.call("forgetDevice", self.address(PHONE))
        return {"phone": self.address(PHONE), "listed": listed,
                "after_forget": self.ui.wait_signal("BluetoothDevices", mark + 1)[-1][0],
                "embosser_sees_phone": self.sees(EMBOSSER, PHONE)}

    def le_switch(self):
        """The controllers go and come back LE-only (a controller reset, seen from the daemon)."""
        self.kill("btvirt")
        wait_until(lambda: EMBOSSER not in self.objects(), 30, "hci0 gone")
        self.start_bluez("btvirt-le")
        self.set_up_phone()


def main():
    os.makedirs(KEPT, exist_ok=True)
    os.symlink(KEPT, RESULTS)  # /run is new at every boot; what the boots saw stays on the disk
    board = Image()
    if os.path.exists(f"{KEPT}/observations.json"):
        with open(f"{KEPT}/observations.json", encoding="utf-8") as f:
            board.observations = json.load(f)
    boot = next(b for b in BOOTS if b not in board.observations)
    try:
        for scenario in BOOTS[boot]:
            board.play(scenario, getattr(board, scenario))
        board.play(f"failed_{boot}", run, "systemctl", "--failed", "--no-legend")
    finally:
        run("sh", "-c", f"journalctl -b >{KEPT}/journal-{boot}.log; tar -C {KEPT} -cf /dev/vdc .; "
            f"systemctl {'poweroff' if boot == 'rebooted' else 'reboot'}")


if __name__ == "__main__":
    main()
