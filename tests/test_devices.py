# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""What the user interface learns about phones: the paired-device list, connection status,
forgetting a device; and how BlueZ's signals, however many or however typed, are taken. Power
and discoverability: the ctl group."""

import dbus

from conftest import NATIVE, rss_kib
from simenv import ADAPTER_IFACE, ADAPTER_PATH, DEVICE_IFACE, MOCK_IFACE, pump

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_PATH = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"


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
    # Nothing to report: an empty change, a name no BlueZ property has, another object's change,
    # signals typed otherwise than BlueZ types them.
    world.bluez.emit_changed(PHONE_PATH, DEVICE_IFACE, {})
    world.bluez.emit_changed(PHONE_PATH, DEVICE_IFACE, {'"Connected"': True})
    world.bluez.emit_changed(ADAPTER_PATH, ADAPTER_IFACE, {"Powered": True})
    no_names, phone = dbus.Array([], signature="s"), dbus.ObjectPath(PHONE_PATH)
    for member, signature, args in [
            ("PropertiesChanged", "sa{iv}as",
             [DEVICE_IFACE, {dbus.Int32(1): dbus.Boolean(True, variant_level=1)}, no_names]),
            ("PropertiesChanged", "sa{ss}as", [DEVICE_IFACE, {"Connected": "yes"}, no_names]),
            ("InterfacesAdded", "oa{ss}", [phone, {DEVICE_IFACE: "x"}]),
            ("InterfacesAdded", "oa{ia{sv}}", [phone, {dbus.Int32(1): {"a": 1}}]),
            ("InterfacesRemoved", "oai", [phone, [dbus.Int32(1)]])]:
        changed = member == "PropertiesChanged"
        world.bluez.emit(PHONE_PATH if changed else "/", dbus.PROPERTIES_IFACE if changed else
                         "org.freedesktop.DBus.ObjectManager", member, signature, args)
    # Other objects' announcements resend the list (paired by now), once per object.
    media = {"org.bluez.Media1": {}}
    for path, interfaces in [("media", media), ("media", media), ("nothing", {}),
                             ("other", {"org.bluez.Network1": {}})]:
        world.bluez.announce("/org/bluez/hci0/" + path, interfaces)
    assert ui.wait_signal("BluetoothDevices", 2) == [[{"Phone One": PHONE}]] * 2
    pump(0.3)
    assert len(ui.received("ConnectionStatus")) == len(changes) + 1
    assert len(ui.received("BluetoothDevices")) == 2


def test_devices_that_come_and_go_in_thousands(world, ui):
    bluez = world.bluez
    kept, reports, rss = {}, 0, []
    # One in ten stays, one in seven of those is paired (which BlueZ reports as a change).
    for i in range(3000):
        address, alias = f"AA:BB:CC:DD:{i >> 8:02X}:{i & 255:02X}", f"Visitor {i}"
        path = bluez.add_device(address, alias, paired=i % 70 == 0)
        reports += 2 if i % 70 == 0 else 1
        if i % 10:
            bluez.obj(ADAPTER_PATH).RemoveDevice(dbus.ObjectPath(path),
                                                 dbus_interface=ADAPTER_IFACE)
        elif i % 70 == 0:
            kept[alias] = address
        if i in (1499, 2999):
            ui.wait_signal("ConnectionStatus", reports, timeout=120)
            rss.append(rss_kib(world.agent.pid))
    # What came and went leaves nothing behind, and the list is what a fresh start would give.
    if NATIVE:
        assert rss[1] - rss[0] < 512
    assert ui.devices() == kept
    # BlueZ's bus allows a connection 512 subscriptions: one serves every device.
    bluez.update_device("/org/bluez/hci0/dev_AA_BB_CC_DD_0B_AE", Connected=True)
    assert ui.wait_signal("ConnectionStatus", reports + 1)[-1] == ["Visitor 2990", True]
    # A device announced again and again is reported each time, and watched once.
    bluez.add_device(PHONE, "Phone One")
    for _ in range(200):
        bluez.announce(PHONE_PATH, {DEVICE_IFACE: {"Alias": "Phone One"}})
    bluez.emit_changed(PHONE_PATH, DEVICE_IFACE, {"Connected": True})
    seen = ui.wait_signal("ConnectionStatus", reports + 203)
    pump(0.5)
    assert seen[reports + 1:] == [["Phone One", False]] * 201 + [["Phone One", True]]


def test_the_list_holds_the_paired_devices_and_comes_after_every_forgetting(make_world):
    world = make_world()
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Headset")
    world.bluez.add_device("AA:BB:CC:DD:EE:09", "Twin", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:05", "Twin", paired=True)
    # An object below a device is none of its own.
    world.bluez.root.AddObject(PHONE_PATH + "/sep1", "org.bluez.MediaEndpoint1", {}, [],
                               dbus_interface=MOCK_IFACE)
    world.start_agent().expect("QDBusObjectPath: invalid path",
                               "QDBusConnection: error: could not send")
    ui = world.client()
    # Two devices with one alias show as one, with the greater address. Only a path BlueZ knows
    # removes a device.
    for i, text in enumerate(["not an address", "../../x", "", PHONE.lower(), PHONE]):
        ui.call("forgetDevice", text)
        assert ui.wait_signal("BluetoothDevices", i + 1)[-1] == [
            {"Twin": "AA:BB:CC:DD:EE:09"} | ({} if text == PHONE else {"Phone One": PHONE})]
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == [
        ["/org/bluez/hci0/dev_"], ["/org/bluez/hci0/dev_aa_bb_cc_dd_ee_01"], [PHONE_PATH]]
    world.bluez.add_device("AA:BB:CC:DD:EE:03", "Tablet", paired=True)
    assert ui.devices() == {"Twin": "AA:BB:CC:DD:EE:09", "Tablet": "AA:BB:CC:DD:EE:03"}
