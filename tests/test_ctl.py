# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agentctl as the people who build the user interface use it, against the daemon in
the usual fixture; and the README's simulation, run with scripted answers."""

import os
import re
import subprocess
import sys

import dbus
import pytest

from simenv import ADAPTER_PATH, ctl_command, pump

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_PATH = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")
STAMP = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} "
TOOLS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools")


def ctl(world, *args):
    return subprocess.run(ctl_command() + list(args), env=world.bus.env, capture_output=True,
                          text=True, timeout=60)


def test_monitor_prints_each_signal_as_one_readable_line(make_world):
    world = make_world()
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    world.start_agent().expect("BluetoothPairingAgent: pairing_agent::")
    ui = world.client()
    monitor = subprocess.Popen(ctl_command() + ["monitor"], env=world.bus.env,
                               stdout=subprocess.PIPE, text=True)

    def shown():
        line = monitor.stdout.readline()
        assert re.match(STAMP, line), line
        return line.split(" ", 1)[1].rstrip("\n")

    try:
        assert shown() == "watching bluetooth-agent"
        ui.call_async("RequestConfirmation", PHONE_PATH, dbus.UInt32(4242))
        assert shown() == "RequestUserConfirmation passkey 004242"
        ui.call_async("RequestPinCode", PHONE_PATH)
        assert shown() == "RequestUserPin"
        ui.call_async("Cancel")
        assert shown() == "RequestCancelled"
        ui.call_async("DisplayPasskey", PHONE_PATH, dbus.UInt32(4321), dbus.UInt16(0))
        assert shown() == "DisplayUserPasskey passkey 004321 entered 0"
        world.bluez.update_device(str(PHONE_PATH), Connected=True)
        assert shown() == 'ConnectionStatus "Phone One" connected'
        world.bluez.add_device("AA:BB:CC:DD:EE:02", 'The "Headset"')
        assert shown() == r'ConnectionStatus "The \"Headset\"" disconnected'
        ui.call("getDevices")
        assert shown() == f'BluetoothDevices "Phone One" {PHONE}'
        # A phone's text never makes a second line, nor reaches the terminal raw.
        world.sandbox.drop("Brief\\für\t\u202e\u2028\nRequestUserPin\x1b[2J.brf", b"x")
        assert shown() == (r'TransferComplete "Brief\\für\t\u202e\u2028\nRequestUserPin'
                                  r'\u001b[2J.brf"')
        ui.call("setPower", False)
        assert shown() == "PowerStateChanged off"
        world.agent.stop()
        assert shown() == "bluetooth-agent left the system bus"
    finally:
        monitor.kill()
        monitor.wait()


def test_power_discoverability_devices_and_forgetting(paired_world):
    world, ui = paired_world, paired_world.client()
    assert ctl(world, "power").stdout == "on\n"
    assert ctl(world, "power", "off").stdout == "off\n"
    assert world.bluez.adapter_property("Powered") is False
    # Announced again even when nothing changed.
    assert ctl(world, "power", "off").stdout == "off\n"
    assert ui.wait_signal("PowerStateChanged", 2) == [[False], [False]]
    assert ctl(world, "discoverable", "on").stdout == "on\n"
    assert world.bluez.adapter_property("Discoverable") is True
    assert ctl(world, "devices").stdout == f"{PHONE}  Phone One\nAA:BB:CC:DD:EE:02  Tablet\n"
    # Lower case is taken as the upper case BlueZ uses.
    done = ctl(world, "forget", PHONE.lower())
    assert (done.returncode, done.stdout) == (0, "AA:BB:CC:DD:EE:02  Tablet\n")
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == [[str(PHONE_PATH)]]


def test_answers_reach_bluez_and_errors_are_clear(make_world):
    world = make_world()
    done = ctl(world, "devices")
    assert done.returncode == 3 and "bluetooth-agent is not on the system bus" in done.stderr
    world.start_agent().expect("BluetoothPairingAgent: pairing_agent::")
    ui = world.client()
    done = ctl(world, "devices")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "no paired devices\n")
    for args in (["confirm", "yes"], ["pin", "0000"]):
        done = ctl(world, *args)
        assert done.returncode == 1 and "no pairing question is pending" in done.stderr
    for i, (question, args, values) in enumerate([
            ("RequestConfirmation", ["confirm", "yes"], [True]),
            ("RequestConfirmation", ["confirm", "no"], None),
            ("RequestPinCode", ["pin", "0815"], ["0815"]),
            ("RequestPinCode", ["pin", "--reject"], None)]):
        extra = [dbus.UInt32(1)] if question == "RequestConfirmation" else []
        reply = ui.call_async(question, PHONE_PATH, *extra)
        ui.wait_signal("RequestUserConfirmation" if extra else "RequestUserPin", i % 2 + 1)
        done = ctl(world, *args)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        reply.wait()
        assert (reply.values, reply.error) == (values, None if values else
                                               "org.bluez.Agent1.Rejected")
    done = ctl(world, "forget", "AA:BB:CC:DD:EE")
    assert done.returncode == 2 and "usage: bluetooth-agentctl forget ADDRESS" in done.stderr
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == []
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv")
    for args, stdout, stderr in [(["power", "off"], "on\n", "power is still on"),
                                 (["discoverable", "on"], "off\n", "discoverable is still off")]:
        done = ctl(world, *args)
        assert (done.returncode, done.stdout) == (1, stdout) and stderr in done.stderr
    pump(0.3)
    assert ui.received("PowerStateChanged") == []  # refused by BlueZ: nothing to announce


@pytest.mark.parametrize("answer, last_step", [
    ("yes", "done: paired, connected, and the file is in the print spool"),
    ("no", "pairing refused (org.bluez.Agent1.Rejected)"),
])
def test_simulation_runs_with_a_scripted_answer(answer, last_step):
    done = subprocess.run([sys.executable, os.path.join(TOOLS, "simulate.py"), "--answer", answer],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    assert last_step in done.stdout
    # Each step as the user interface saw it.
    seen = [line.split(" ui      ", 1)[1] for line in done.stdout.splitlines() if " ui " in line]
    assert any(re.match(STAMP + r"RequestUserConfirmation passkey \d{6}$", s) for s in seen)
    if answer == "yes":
        for text in ['ConnectionStatus "Simulated Phone" connected', 'TransferComplete "hello.brf"']:
            assert any(text in s for s in seen), text
