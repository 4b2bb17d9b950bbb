# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""What the user interface learns about phones and what it controls: the paired-device list,
connection status, forgetting a device, power and discoverability; and how BlueZ's signals,
however many or however typed, are taken."""

import os

import dbus
import pytest

from simenv import ADAPTER_PATH, DEVICE_IFACE, pump

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_PATH = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"
NATIVE = "ASAN_OPTIONS" not in os.environ and not os.environ.get("BLUETOOTH_AGENT_LAUNCHER")


def test_device_list_holds_the_paired_devices(make_world):
    world = make_world()
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Headset")
    world.bluez.add_device("AA:BB:CC:DD:EE:09", "Twin", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:05", "Twin", paired=True)
    world.start_agent()
    ui = world.client()
    # Two devices with one alias show as one, with the greater address.
    assert ui.devices() == {"Phone One": PHONE, "Twin": "AA:BB:CC:DD:EE:09"}
    world.bluez.add_device("AA:BB:CC:DD:EE:03", "Tablet", paired=True)
    assert ui.devices() == {"Phone One": PHONE, "Twin": "AA:BB:CC:DD:EE:09",
                            "Tablet": "AA:BB:CC:DD:EE:03"}


def test_devices_report_their_state_when_announced_and_at_every_change(world, ui):
    world.bluez.add_device(PHONE, "Phone One")
    assert ui.wait_signal("ConnectionStatus") == [["Phone One", False]]
    changes = [
        (DEVICE_IFACE, {"Connected": True}, True),
        (DEVICE_IFACE, {"Connected": False}, False),
        # Every change counts, on any interface; the first value in name order is the status.
        (DEVICE_IFACE, {"RSSI": dbus.Int16(-60)}, True),
        ("org.bluez.Battery1", {"Percentage": dbus.Byte(80)}, True),
        (DEVICE_IFACE, {"Connected": False, "Paired": True}, False),
        (DEVICE_IFACE, {"Alias": "Phone One", "Connected": False}, True),
    ]
    for i, (interface, changed, status) in enumerate(changes):
        world.bluez.emit_changed(PHONE_PATH, interface, changed)
        assert ui.wait_signal("ConnectionStatus", i + 2)[-1] == ["Phone One", status]
    # Nothing to report: an empty change, a name no BlueZ property has, another object's change.
    world.bluez.emit_changed(PHONE_PATH, DEVICE_IFACE, {})
    world.bluez.emit_changed(PHONE_PATH, DEVICE_IFACE, {'"Connected"': True})
    world.bluez.emit_changed(ADAPTER_PATH, "org.bluez.Adapter1", {"Powered": True})
    pump(0.3)
    assert len(ui.received("ConnectionStatus")) == len(changes) + 1


NO_NAMES = dbus.Array([], signature="s")
MISTYPED = [
    ("PropertiesChanged", "sa{iv}as",
     [DEVICE_IFACE, {dbus.Int32(1): dbus.Boolean(True, variant_level=1)}, NO_NAMES]),
    ("PropertiesChanged", "sa{ss}as", [DEVICE_IFACE, {"Connected": "yes"}, NO_NAMES]),
    ("InterfacesAdded", "oa{ss}", [dbus.ObjectPath(PHONE_PATH), {DEVICE_IFACE: "x"}]),
    ("InterfacesAdded", "oa{ia{sv}}", [dbus.ObjectPath(PHONE_PATH), {dbus.Int32(1): {"a": 1}}]),
    ("InterfacesRemoved", "oai", [dbus.ObjectPath(PHONE_PATH), [dbus.Int32(1)]]),
]


@pytest.mark.parametrize("member, signature, args", MISTYPED, ids=[m[1] for m in MISTYPED])
def test_mistyped_signals_from_bluez_are_ignored(world, ui, member, signature, args):
    world.agent.expect("BluetoothPairingAgent: pairing_agent::RequestConfirmation")
    world.bluez.add_device(PHONE, "Phone One")
    ui.wait_signal("ConnectionStatus")
    interface = dbus.PROPERTIES_IFACE if member == "PropertiesChanged" else \
        "org.freedesktop.DBus.ObjectManager"
    world.bluez.emit(PHONE_PATH if member == "PropertiesChanged" else "/", interface, member,
                     signature, args)
    reply = ui.call_async("RequestConfirmation", dbus.ObjectPath(PHONE_PATH), dbus.UInt32(7))
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    assert len(ui.received("ConnectionStatus")) == 1


def test_a_thousand_devices_over_the_daemons_life_are_all_reported(world, ui):
    # BlueZ's bus allows a connection 512 subscriptions: the daemon keeps a fixed number.
    count = 600
    for i in range(count):
        world.bluez.add_device(f"AA:BB:CC:DD:{i >> 8:02X}:{i & 255:02X}", f"Visitor {i}")
    ui.wait_signal("ConnectionStatus", count, timeout=120)
    world.bluez.update_device("/org/bluez/hci0/dev_AA_BB_CC_DD_02_57", Connected=True)
    assert ui.wait_signal("ConnectionStatus", count + 1)[-1] == ["Visitor 599", True]


def rss_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith("VmRSS:")).split()[1])


def test_a_device_announced_again_and_again_is_watched_once(world, ui):
    world.bluez.add_device(PHONE, "Phone One")
    ui.wait_signal("ConnectionStatus")
    device = {DEVICE_IFACE: {"Alias": "Phone One"}}
    for _ in range(50):
        world.bluez.announce(PHONE_PATH, device)
    ui.wait_signal("ConnectionStatus", 51)
    before = rss_kib(world.agent.pid)
    for _ in range(450):
        world.bluez.announce(PHONE_PATH, device)
    # Each announcement reports the state once; one change afterwards is reported once.
    ui.wait_signal("ConnectionStatus", 501, timeout=60)
    world.bluez.update_device(PHONE_PATH, Connected=True)
    ui.wait_signal("ConnectionStatus", 502)
    pump(0.5)
    assert ui.received("ConnectionStatus")[501:] == [["Phone One", True]]
    if NATIVE:
        assert rss_kib(world.agent.pid) - before < 1024
    # Removed by BlueZ, it is watched no more, and its next announcement is reported as before.
    world.bluez.obj(ADAPTER_PATH).RemoveDevice(dbus.ObjectPath(PHONE_PATH),
                                               dbus_interface="org.bluez.Adapter1")
    world.bluez.add_device(PHONE, "Phone One")
    assert ui.wait_signal("ConnectionStatus", 503)[-1] == ["Phone One", False]


def test_announcements_of_other_objects_resend_the_list_once_per_object(world, ui):
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    ui.wait_signal("ConnectionStatus")
    world.bluez.announce("/org/bluez/hci0/media", {"org.bluez.Media1": {}})
    assert ui.wait_signal("BluetoothDevices") == [[{"Phone One": PHONE}]]
    world.bluez.announce("/org/bluez/hci0/media", {"org.bluez.Media1": {}})
    world.bluez.announce("/org/bluez/hci0/nothing", {})
    pump(0.3)
    assert len(ui.received("BluetoothDevices")) == 1
    world.bluez.announce("/org/bluez/hci0/other", {"org.bluez.Network1": {}})
    ui.wait_signal("BluetoothDevices", 2)


@pytest.mark.parametrize("text, removed_path", [
    (PHONE, PHONE_PATH),
    ("aa:bb:cc:dd:ee:01", "/org/bluez/hci0/dev_aa_bb_cc_dd_ee_01"),
    ("", "/org/bluez/hci0/dev_"),
    ("not an address", None),
    ("../../x", None),
], ids=["address", "lower-case", "empty", "not-an-address", "relative"])
def test_forgetting_a_device_and_sending_a_fresh_list(paired_world, text, removed_path):
    world = paired_world
    world.agent.expect("QDBusObjectPath: invalid path", "QDBusConnection: error: could not send")
    ui = world.client()
    ui.call("forgetDevice", text)
    left = {"Tablet": "AA:BB:CC:DD:EE:02"}
    if text != PHONE:
        left["Phone One"] = PHONE
    assert ui.wait_signal("BluetoothDevices") == [[left]]
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == ([[removed_path]] if removed_path
                                                               else [])


def test_power_and_discoverability(world, ui):
    ui.call("setPower", False)
    assert world.bluez.adapter_property("Powered") is False and ui.call("getPower") is False
    # Announced again even when nothing changed.
    ui.call("setPower", False)
    ui.call("setPower", True)
    assert ui.wait_signal("PowerStateChanged", 3) == [[False], [False], [True]]
    ui.call("SetDiscoverable", True)
    assert world.bluez.adapter_property("Discoverable") is True
    ui.call("SetDiscoverable", False)
    assert world.bluez.adapter_property("Discoverable") is False
    # Refused by BlueZ: nothing is announced.
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv")
    ui.call("setPower", False)
    pump(0.3)
    assert len(ui.received("PowerStateChanged")) == 3 and len(ui.signals) == 3
    assert world.bluez.adapter_property("Powered") is True
