# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The package on a board: built from the tree (lintian included), installed with apt in a Debian
12 guest under qemu whose systemd starts bluetoothd, the daemon and the receiver; guest/image.py
plays it. Only "Phone" counts: the one bluetoothd also tells of the embosser the phone sees."""

import json
import os
import subprocess
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "guest"))

import guest as qemu  # noqa: E402


@pytest.fixture(scope="module")
def observed(tmp_path_factory):
    workdir = tmp_path_factory.mktemp("image")
    built = subprocess.run([f"{qemu.TOP}/scripts/build-package"], capture_output=True, text=True,
                           env=dict(os.environ, PACKAGE_DIR=str(workdir / "package")))
    assert built.returncode == 0, built.stderr
    results = qemu.Guest(workdir).boot({
        "init": f"{qemu.HERE}/image.py", "board.py": f"{qemu.HERE}/board.py", "simenv.py":
        f"{qemu.TOP}/tools/simenv.py", "bluetooth-agent.deb": built.stdout.split()[-1]}, init=None)
    assert "observations.json" in results, f"the guest reported nothing: {workdir}"
    seen = json.loads(results["observations.json"])

    def scenario(name):  # what the guest saw in it; fails as it failed
        found = seen.get(name, {"failed": f"the guest never ran {name}"})
        assert "failed" not in found, found["failed"]
        return found
    return scenario


def test_the_package_installs_and_its_units_follow_bluetoothd_and_their_failures(observed):
    assert observed("install")[0] == 0, observed("install")[1]
    assert [observed(f"failed_{b}") for b in ("install", "boot", "rebooted")] == [[0, ""]] * 3
    # Started before hci0 was there, it failed and was tried again (the guest waited for that);
    # then bluetoothd restarted, stopped (the daemon and the receiver with it) and started, and a
    # crash: each time a new daemon ran and registered. /run is read-only to it.
    seen = observed("boot")
    assert len(set(seen["pids"])) == 4 and seen["stopped"] == ["inactive", "inactive"]
    assert seen["run"][0] == 1 and "Read-only file system" in seen["run"][1]
    # Powered and named after the first line of /etc/hostname (line feed included).
    assert seen["embosser"] == {"Powered": True, "Alias": "embosser\n", "Pairable": True}
    assert seen["ui_getPower"] is True
    # The folders removed, systemd-tmpfiles makes them anew as the package says, without a word.
    anew = observed("anew")
    assert anew["tmpfiles"] == [0, ""] and anew["modes"] == [
        "/var/spool/lp/obex 750 obex", "/var/spool/lp/obex/.incoming 700 obex",
        "/var/spool/lp/www 755 root"]


@pytest.mark.parametrize("name, shown, answer", [
    ("bredr_no", "RequestUserConfirmation", False), ("pairing", "RequestUserConfirmation", True),
    ("le_no", "RequestUserConfirmation", False), ("le_yes", "RequestUserConfirmation", True),
    ("le_keyboard", "DisplayUserPasskey", True), ("le_no_io", None, True)])
def test_pairing_questions_reach_the_user_interface_group(observed, name, shown, answer):
    # Numeric comparison: the user interface and the phone see the same number, once. A
    # keyboard-only phone's user types the number the user interface shows. A phone with neither
    # input nor output pairs without a question (security notes).
    seen = observed(name)
    asked = [(m, args) for m, args in seen["ui"] if m.startswith(("Request", "DisplayUser"))]
    assert [m for m, _ in asked] == ([shown] if shown else [])
    numbers = [args[0] for _, args in asked]
    if shown == "RequestUserConfirmation":
        assert seen["phone_asked"] == [["RequestConfirmation", *numbers]]
        assert (numbers[0] != 0) == name.startswith("le")  # btvirt's BR/EDR always 000000
    else:
        assert seen["phone_asked"] == ([["RequestPasskey"]] if shown else [])
        assert all(0 <= n <= 999999 for n in numbers)
    assert seen["pair_error"] == (None if answer else "org.bluez.Error.AuthenticationFailed")
    assert [(seen[side] or {}).get("Paired") for side in ("embosser_sees_phone",
                                                          "phone_sees_embosser")] == [answer] * 2
    if name == "pairing":  # its bluetooth-agentctl answered; an outsider's is refused
        assert seen["answered"] == [[0, ""]] and seen["outsider"][0] == 4


def test_connection_status_and_devices(observed):
    paired, dropped = observed("pairing"), observed("pairing")["dropped"]
    connected, disconnected = ([a[1] for m, a in seen["ui"] if m == "ConnectionStatus"
                                and a[0] == "Phone"] for seen in (paired, dropped))
    assert True in connected and paired["embosser_sees_phone"]["Connected"] is True
    assert disconnected[-1:] == [False]
    assert dropped["embosser_sees_phone"] == dict(paired["embosser_sees_phone"], Connected=False)
    # After the reboot: listed under its alias, Phone, and forgotten through the user interface.
    seen = observed("devices")
    assert seen["listed"].get("Phone") == seen["phone"]
    assert "Phone" not in seen["after_forget"] and seen["embosser_sees_phone"] is None


@pytest.mark.parametrize("name, whole, broken_off", [
    ("documents", ["letter.brf", "big.brf"], 8), ("anew", ["anew.brf"], 0),
    ("rebooted", ["again.brf"], 0)])
def test_whole_documents_print_and_broken_off_ones_never(observed, name, whole, broken_off):
    # A push the phone cancelled or walked away from prints only when it was through before that
    # (a small one may be), whole: never a part of one.
    seen = observed(name)
    sent = {push: sha for push, _, sha in seen["sent"]}
    through = [push for push, status, _ in seen["sent"] if status == "complete"]
    assert seen["announced"] == [push for push in sent if push in seen["announced"]]
    assert set(whole) <= set(through) <= set(seen["announced"])
    assert sorted(seen["spooled"].values()) == sorted(sent[push] for push in seen["announced"])
    assert seen["receive_folder"] == {} and len(sent) - len(seen["announced"]) >= broken_off


def test_pairing_and_pushes_log_only_routine_lines(observed):
    # The daemon's questions at info, the file refused at err, and nothing else; the receiver's
    # agent's account of each push at info. obexd 5.66 itself sometimes crashes when a phone walks
    # away (the kernel logs it): the agent says so, and the unit starts both again.
    for boot, questions, pushes in ("routine", 2, "documents"), ("routine_rebooted", 4, "rebooted"):
        seen, pushed = observed(boot), observed(pushes)
        sent, printed, lines = len(pushed["sent"]), len(pushed["announced"]), seen["lines"]
        daemon, receiver = ([line[1:] for line in lines if line[0] == unit]
                            for unit in ("bluetooth-agent.service", "bluetooth-agent-obex.service"))
        asked = [[6, text] for _, text in daemon
                 if text.startswith("BluetoothPairingAgent: pairing_agent::")]
        refused = [[3, 'BluetoothAgentDaemon: uploadError: "wrong file type"']][:boot == "routine"]
        assert len(asked) == questions and daemon == asked + refused, lines
        warned = [text for p, text in receiver if p < 6]
        assert len(warned) <= seen["obexd_crashes"] and all(
            text.startswith("BluetoothObexAgent: obexd ") for text in warned), lines
        told = [text.split(": ")[1] for p, text in receiver if p == 6]
        assert [told.count(w) for w in ("push accepted", "published", "dropped")] == [
            sent, printed, sent - printed - len(warned)], lines
