# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agent against the real BlueZ: bluetoothd, obexd and two virtual controllers from
btvirt in a Debian guest under qemu (guest/guest-run). The guest plays the embosser's user
interface and a phone on hci1 through every scenario once; each test here judges one scenario
from what the user interface and both controllers saw.

One bluetoothd serves both controllers, so the user interface also hears of the embosser as the
phone's controller sees it; only what concerns the phone ("Phone") is judged."""

import json
import os
import shutil
import subprocess

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
REJECTED = "org.bluez.Error.AuthenticationFailed"

subprocess.run([os.path.join(HERE, "..", "scripts", "install-deps"), "qemu-system-x86", "debootstrap", "e2fsprogs"],
               capture_output=True)
if shutil.which("qemu-system-x86_64") is None or subprocess.run(
        ["qemu-system-x86_64", "--version"], capture_output=True).returncode != 0:
    pytest.skip("qemu-system-x86_64 cannot be installed or run on this host",
                allow_module_level=True)


@pytest.fixture(scope="module")
def guest(tmp_path_factory):
    out = tmp_path_factory.mktemp("guest")
    subprocess.run([os.path.join(HERE, "guest", "guest-run"), os.environ["BLUETOOTH_AGENT_BUILD_DIR"],
                    str(out)], check=True, timeout=1800)
    with open(out / "observations.json", encoding="utf-8") as f:
        observations = json.load(f)
    observations["agent_log"] = (out / "agent.log").read_text().splitlines()
    return observations


def observed(guest, name):
    seen = guest.get(name, {"failed": f"the guest never ran {name}"})
    assert "failed" not in seen, seen["failed"]
    return seen


@pytest.fixture
def scenario(guest, request):
    """What the guest saw in the scenario the test names (scenario_<name>)."""
    return observed(guest, request.node.name.split("scenario_", 1)[1])


def phone_statuses(seen):
    return [a[1] for m, a in seen["ui"] if m == "ConnectionStatus" and a[0] == "Phone"]


def questions(seen):
    return [(m, args) for m, args in seen["ui"] if m.startswith(("Request", "DisplayUser"))]


def paired_both_sides(seen):
    return [(seen[s] or {}).get("Paired") for s in ("embosser_sees_phone", "phone_sees_embosser")]


def test_scenario_startup(scenario):
    # Powered, named after the first line of /etc/hostname (line feed included) and the default
    # agent of bluetoothd.
    assert scenario["embosser"] == {"Powered": True, "Alias": "embosser\n", "Pairable": True}
    assert scenario["ui_getPower"] is True
    assert scenario["default_agent"].endswith(" /BluetoothAgent")


@pytest.mark.parametrize("name, answer", [("bredr_yes", True), ("bredr_no", False),
                                          ("le_yes", True), ("le_no", False)])
def test_scenario_numeric_comparison(guest, name, answer):
    seen = observed(guest, name)
    # The user interface and the phone were shown the same number, once.
    (asked,) = [args for member, args in questions(seen)]
    assert seen["phone_asked"] == [["RequestConfirmation", asked[0]]]
    if name.startswith("le"):
        assert asked[0] != 0  # LE gives a real passkey; btvirt's BR/EDR always 000000
    assert seen["pair_error"] == (None if answer else REJECTED)
    assert paired_both_sides(seen) == [answer, answer]


def test_scenario_le_keyboard(scenario):
    # A keyboard-only phone: the user interface shows the number the phone's user types.
    ((member, (passkey, entered)),) = questions(scenario)
    assert member == "DisplayUserPasskey" and 0 <= passkey <= 999999
    assert scenario["phone_asked"] == [["RequestPasskey"]]
    assert scenario["pair_error"] is None
    assert paired_both_sides(scenario) == [True, True]


def test_scenario_le_no_io(scenario):
    # A phone with neither input nor output pairs without a question (README, security note).
    assert questions(scenario) == []
    assert scenario["pair_error"] is None
    assert paired_both_sides(scenario) == [True, True]


def test_scenario_unanswered(scenario):
    # bluetoothd gives up after its 60 s and cancels; the user interface is told, and a late
    # yes neither pairs nor pretends to.
    assert [m for m, _ in questions(scenario)] == ["RequestUserConfirmation", "RequestCancelled"]
    assert scenario["pair_error"] == REJECTED and scenario["seconds"] >= 55
    code, stderr = scenario["late_confirm"]
    assert code == 1 and "no pairing question is pending" in stderr
    assert scenario["embosser_after_late_yes"]["Paired"] is False


def test_scenario_bredr_connection(guest):
    paired, dropped = guest["bredr_yes"], guest["disconnection"]
    assert True in phone_statuses(paired)
    assert paired["embosser_sees_phone"]["Connected"] is True
    assert phone_statuses(dropped)[-1:] == [False]
    assert dropped["embosser_sees_phone"] == dict(paired["embosser_sees_phone"], Connected=False)


def test_scenario_devices(scenario):
    alias, address = scenario["phone"]
    assert scenario["listed"].get(alias) == address == scenario["listed"].get("Phone")
    assert "Phone" not in scenario["after_forget"]
    assert scenario["embosser_sees_phone"] is None


def test_scenario_object_push(scenario):
    assert scenario["sent"] == {"letter.brf": "complete", "photo.jpg": "complete"}
    assert [args for member, args in scenario["ui"] if member == "TransferComplete"] == [
        ["letter.brf"]]
    # The document is in the spool under the spool's name; the photo is deleted.
    (spooled,) = scenario["spool"].items()
    assert spooled[0].startswith('\\"bluetooth-agent\\"1-') and spooled[0].endswith(".brf")
    assert spooled[1] == "braille text\n" * 100
    assert scenario["receive_folder"] == []


def test_scenario_repairing(scenario):
    cycles = scenario["cycles"]
    assert [c["paired"] for c in cycles] == [True] * 5
    counts = [c["ConnectionStatus"] for c in cycles]
    # One watcher per device: the notices of a cycle do not grow with the cycles before it.
    assert max(counts) <= counts[0] + 2, counts


def test_scenario_bluetoothd_restart(scenario):
    assert scenario["agent_log"][0] == "BluetoothAgentDaemon: BlueZ left the system bus"
    assert any(line.endswith("registering the agent") for line in scenario["agent_log"][1:3])
    assert [m for m, _ in questions(scenario)] == ["RequestUserConfirmation"]
    assert scenario["pair_error"] is None
    assert paired_both_sides(scenario) == [True, True]


def test_daemon_log_has_only_the_expected_lines(guest):
    expected = ("BluetoothPairingAgent: pairing_agent::RequestConfirmation ",
                "BluetoothPairingAgent: pairing_agent::DisplayPasskey ",
                "BluetoothPairingAgent: pairing_agent::RequestAuthorization ",
                'BluetoothAgentDaemon: uploadError: "wrong file type"',
                "BluetoothAgentDaemon: BlueZ ", "BluetoothAgentDaemon: hci0 appeared")
    assert [line for line in guest["agent_log"] if not line.startswith(expected)] == []
