"""What the user interface learns about phones and what it controls: the paired-device list,
connection status, forgetting a device, power and discoverability."""

import dbus
import pytest

from simenv import ADAPTER_PATH, MOCK_IFACE, pump

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_PATH = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"


def devices(ui):
    """Asks for the device list and returns the list that the signal brings."""
    before = len(ui.received("BluetoothDevices"))
    ui.call("getDevices")
    return ui.wait_signal("BluetoothDevices", before + 1)[-1][0]


def announce(bluez, path, interfaces):
    """BlueZ announces an object with these interfaces (InterfacesAdded on /)."""
    bluez.root.EmitSignal(
        "org.freedesktop.DBus.ObjectManager", "InterfacesAdded", "oa{sa{sv}}",
        [dbus.ObjectPath(path), dbus.Dictionary(interfaces, signature="sa{sv}")],
        dbus_interface=MOCK_IFACE)


def emit_changed(bluez, path, interface, changed):
    bluez.obj(path).EmitSignal(
        dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as",
        [interface, dbus.Dictionary(changed, signature="sv"), dbus.Array([], signature="s")],
        dbus_interface=MOCK_IFACE)


def test_device_list_holds_paired_devices_known_at_start_and_added_later(make_world):
    world = make_world()
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Headset")
    world.start_agent()
    ui = world.client()
    assert devices(ui) == {"Phone One": PHONE}

    world.bluez.add_device("AA:BB:CC:DD:EE:03", "Tablet", paired=True)
    assert devices(ui) == {"Phone One": PHONE, "Tablet": "AA:BB:CC:DD:EE:03"}


def test_device_list_is_empty_without_paired_devices(world, ui):
    assert devices(ui) == {}
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Headset")
    assert devices(ui) == {}


def test_two_paired_devices_with_one_alias_show_the_greater_address(make_world):
    world = make_world()
    world.bluez.add_device("AA:BB:CC:DD:EE:09", "Phone", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone", paired=True)
    world.start_agent()
    assert devices(world.client()) == {"Phone": "AA:BB:CC:DD:EE:09"}


def test_new_device_reports_its_connection_state_at_once(world, ui):
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Headset")
    assert ui.wait_signal("ConnectionStatus") == [["Headset", False]]
    props = {"Alias": dbus.String("Car", variant_level=1),
             "Connected": dbus.Boolean(True, variant_level=1),
             "Paired": dbus.Boolean(False, variant_level=1)}
    car = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_03"
    world.bluez.root.AddObject(car, "org.bluez.Device1", props, [], dbus_interface=MOCK_IFACE)
    announce(world.bluez, car, {"org.bluez.Device1": props})
    assert ui.wait_signal("ConnectionStatus", 2)[1] == ["Car", True]


@pytest.mark.parametrize("known_at_start", [True, False])
def test_property_changes_report_connection_status(make_world, known_at_start):
    world = make_world()
    if known_at_start:
        world.bluez.add_device(PHONE, "Phone One")
    world.start_agent()
    ui = world.client()
    if not known_at_start:
        # Reported when announced; from then on its property changes are watched.
        world.bluez.add_device(PHONE, "Phone One")
        ui.wait_signal("ConnectionStatus")
    count = len(ui.received("ConnectionStatus"))

    world.bluez.update_device(PHONE_PATH, Connected=True)
    assert ui.wait_signal("ConnectionStatus", count + 1)[-1] == ["Phone One", True]
    world.bluez.update_device(PHONE_PATH, Connected=False)
    assert ui.wait_signal("ConnectionStatus", count + 2)[-1] == ["Phone One", False]


def test_any_property_change_is_reported_with_its_first_value(world, ui):
    world.bluez.add_device(PHONE, "Phone One")
    ui.wait_signal("ConnectionStatus")
    # Every change counts, on any interface; the first value in name order gives the status.
    world.bluez.update_device(PHONE_PATH, RSSI=dbus.Int16(-60))
    assert ui.wait_signal("ConnectionStatus", 2)[-1] == ["Phone One", True]
    emit_changed(world.bluez, PHONE_PATH, "org.bluez.Battery1", {"Percentage": dbus.Byte(80)})
    assert ui.wait_signal("ConnectionStatus", 3)[-1] == ["Phone One", True]
    emit_changed(world.bluez, PHONE_PATH, "org.bluez.Device1",
                 {"Connected": False, "Paired": True})
    assert ui.wait_signal("ConnectionStatus", 4)[-1] == ["Phone One", False]
    # Nothing to report: an empty change and a name no BlueZ property has.
    emit_changed(world.bluez, PHONE_PATH, "org.bluez.Device1", {})
    emit_changed(world.bluez, PHONE_PATH, "org.bluez.Device1", {'"Connected"': True})
    pump(0.3)
    assert len(ui.received("ConnectionStatus")) == 4
    assert world.agent.proc.poll() is None


def test_announcements_of_other_objects_resend_the_list_once_per_object(world, ui):
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    ui.wait_signal("ConnectionStatus")
    announce(world.bluez, "/org/bluez/hci0/media", {"org.bluez.Media1": {}})
    assert ui.wait_signal("BluetoothDevices") == [[{"Phone One": PHONE}]]
    announce(world.bluez, "/org/bluez/hci0/media", {"org.bluez.Media1": {}})
    announce(world.bluez, "/org/bluez/hci0/nothing", {})
    pump(0.3)
    assert len(ui.received("BluetoothDevices")) == 1
    announce(world.bluez, "/org/bluez/hci0/other", {"org.bluez.Network1": {}})
    ui.wait_signal("BluetoothDevices", 2)
    assert world.agent.proc.poll() is None


def test_forgetting_a_device_removes_it_and_sends_a_fresh_list(paired_world):
    world = paired_world
    ui = world.client()
    ui.call("forgetDevice", PHONE)
    assert ui.wait_signal("BluetoothDevices") == [[{"Tablet": "AA:BB:CC:DD:EE:02"}]]
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == [[PHONE_PATH]]


@pytest.mark.parametrize("text, removed_path", [
    ("aa:bb:cc:dd:ee:01", "/org/bluez/hci0/dev_aa_bb_cc_dd_ee_01"),
    ("", "/org/bluez/hci0/dev_"),
    ("not an address", None),
    ("../../x", None),
    ("x" * 100000, "/org/bluez/hci0/dev_" + "x" * 100000),
], ids=["lower-case", "empty", "not-an-address", "relative", "huge"])
def test_forgetting_with_a_bad_address_changes_nothing(paired_world, text, removed_path):
    world = paired_world
    ui = world.client()
    ui.call("forgetDevice", text)
    assert ui.wait_signal("BluetoothDevices") == [[{"Phone One": PHONE,
                                                    "Tablet": "AA:BB:CC:DD:EE:02"}]]
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == ([[removed_path]] if removed_path
                                                               else [])
    assert ui.call("getPower") is True


def test_power_switch(world, ui):
    assert ui.call("getPower") is True
    ui.call("setPower", False)
    assert world.bluez.adapter_property("Powered") is False
    assert ui.call("getPower") is False
    assert ui.wait_signal("PowerStateChanged") == [[False]]
    # Announced again even when nothing changed.
    ui.call("setPower", False)
    assert ui.wait_signal("PowerStateChanged", 2) == [[False], [False]]
    ui.call("setPower", True)
    assert ui.wait_signal("PowerStateChanged", 3)[-1] == [True]
    assert world.bluez.adapter_property("Powered") is True


def test_refused_power_switch_is_not_announced(world, ui):
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv")
    ui.call("setPower", False)
    pump(0.3)
    assert ui.received("PowerStateChanged") == []
    assert world.bluez.adapter_property("Powered") is True


def test_discoverability_switch(world, ui):
    ui.call("SetDiscoverable", True)
    assert world.bluez.adapter_property("Discoverable") is True
    ui.call("SetDiscoverable", False)
    assert world.bluez.adapter_property("Discoverable") is False
    pump(0.2)
    assert ui.signals == []
