# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agent against the real bluetoothd and two virtual controllers in a Debian guest under
qemu, which plays the user interface and a phone on hci1 (guest/realbluez.py). Each test judges a
scenario from what the user interface and both controllers saw; only what concerns the phone
("Phone"), since the one bluetoothd also tells of the embosser as the phone's controller sees it."""

import json
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "guest"))

import guest as qemu  # noqa: E402
from guest import observed  # noqa: E402

REJECTED = "org.bluez.Error.AuthenticationFailed"


@pytest.fixture(scope="module")
def guest(tmp_path_factory):
    workdir = tmp_path_factory.mktemp("guest")
    results = qemu.Guest(workdir).boot(qemu.programs(os.environ["BLUETOOTH_AGENT_BUILD_DIR"],
                                                     f"{qemu.HERE}/realbluez.py"))
    assert "observations.json" in results, f"the guest reported nothing: {workdir}"
    return dict(json.loads(results["observations.json"]),
                agent_log=results["agent.log"].decode().splitlines())


@pytest.fixture
def scenario(guest, request):
    """What the guest saw in the scenario the test names (scenario_<name>)."""
    return observed(guest, request.node.name.split("scenario_", 1)[1])


def questions(seen):
    return [(m, args) for m, args in seen["ui"] if m.startswith(("Request", "DisplayUser"))]


def paired_both_sides(seen):
    return [(seen[s] or {}).get("Paired") for s in ("embosser_sees_phone", "phone_sees_embosser")]


def test_scenario_startup(scenario):
    # Powered and named after the first line of /etc/hostname (line feed included). That it asks
    # to be the default agent the startup group checks: bluetoothd asks a lone agent anyway.
    assert scenario["embosser"] == {"Powered": True, "Alias": "embosser\n", "Pairable": True}
    assert scenario["ui_getPower"] is True


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


@pytest.mark.parametrize("name, shown, asked", [("le_keyboard", ["DisplayUserPasskey"],
                                                  [["RequestPasskey"]]), ("le_no_io", [], [])])
def test_scenario_phone_without_display(guest, name, shown, asked):
    # A keyboard-only phone: the user interface shows the number the phone's user types. A phone
    # with neither input nor output pairs without a question (README, security note).
    seen = observed(guest, name)
    assert [m for m, _ in questions(seen)] == shown and seen["phone_asked"] == asked
    assert all(0 <= args[0] <= 999999 for _, args in questions(seen))
    assert seen["pair_error"] is None and paired_both_sides(seen) == [True, True]


def test_scenario_bredr_connection(guest):
    paired, dropped = guest["bredr_yes"], guest["disconnection"]
    connected, disconnected = ([a[1] for m, a in seen["ui"] if m == "ConnectionStatus"
                                and a[0] == "Phone"] for seen in (paired, dropped))
    assert True in connected and paired["embosser_sees_phone"]["Connected"] is True
    assert disconnected[-1:] == [False]
    assert dropped["embosser_sees_phone"] == dict(paired["embosser_sees_phone"], Connected=False)


def test_scenario_devices(scenario):
    alias, address = scenario["phone"]
    assert scenario["listed"].get(alias) == address == scenario["listed"].get("Phone")
    assert "Phone" not in scenario["after_forget"]
    assert scenario["embosser_sees_phone"] is None


def test_daemon_log_has_only_the_expected_lines(guest):
    expected = ("BluetoothPairingAgent: pairing_agent::RequestConfirmation ",
                "BluetoothPairingAgent: pairing_agent::DisplayPasskey ",
                "BluetoothPairingAgent: pairing_agent::RequestAuthorization ")
    assert [line for line in guest["agent_log"] if not line.startswith(expected)] == []
