# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agentctl as the people who build the user interface use it, against the daemon in
the usual fixture; and the README's simulation, run with scripted answers."""

import os
import re
import subprocess
import sys

import dbus

from conftest import LOGGED, ask
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
    world.start_agent().expect(LOGGED)
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


# Each question, the command that answers it, and what BlueZ gets (None: refused). The answer
# serves whatever question is pending: BlueZ gets a boolean for a PIN.
ANSWERS = [("RequestConfirmation", ["confirm", "yes"], [True]),
           ("RequestConfirmation", ["confirm", "no"], None),
           ("RequestPinCode", ["pin", "0815"], ["0815"]),
           ("RequestPinCode", ["pin", "--reject"], None),
           ("RequestPinCode", ["confirm", "yes"], [True])]


def test_commands_reach_bluez_and_errors_are_clear(make_world):
    world = make_world()
    done = ctl(world, "devices")
    assert done.returncode == 3 and "bluetooth-agent is not on the system bus" in done.stderr
    world.start_agent().expect(LOGGED)
    ui = world.client()
    done = ctl(world, "devices")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "no paired devices\n")
    for args in (["confirm", "yes"], ["pin", "0000"]):
        done = ctl(world, *args)
        assert done.returncode == 1 and "no pairing question is pending" in done.stderr
    for question, args, values in ANSWERS:
        passkey = [dbus.UInt32(123456)] if question == "RequestConfirmation" else []
        reply = ask(ui, question, PHONE_PATH, *passkey)
        done = ctl(world, *args)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        reply.wait()
        assert (reply.values, reply.error) == (values, None if values else
                                               "org.bluez.Agent1.Rejected")
    assert world.agent.lines() == [f"{LOGGED}{q} {PHONE_PATH}" + (
        " 123456" if q == "RequestConfirmation" else "") for q, _, _ in ANSWERS]

    world.bluez.add_device(PHONE, "Phone One", paired=True)
    world.bluez.add_device("AA:BB:CC:DD:EE:02", "Tablet", paired=True)
    assert ctl(world, "power").stdout == "on\n"
    assert ctl(world, "power", "off").stdout == "off\n"
    assert world.bluez.adapter_property("Powered") is False
    # Announced again even when nothing changed.
    assert ctl(world, "power", "off").stdout == "off\n"
    assert ui.wait_signal("PowerStateChanged", 2) == [[False], [False]]
    assert ctl(world, "discoverable", "on").stdout == "on\n"
    assert world.bluez.adapter_property("Discoverable") is True
    assert ctl(world, "devices").stdout == f"{PHONE}  Phone One\nAA:BB:CC:DD:EE:02  Tablet\n"
    done = ctl(world, "forget", "AA:BB:CC:DD:EE")
    assert done.returncode == 2 and "usage: bluetooth-agentctl forget ADDRESS" in done.stderr
    # Lower case is taken as the upper case BlueZ uses.
    done = ctl(world, "forget", PHONE.lower())
    assert (done.returncode, done.stdout) == (0, "AA:BB:CC:DD:EE:02  Tablet\n")
    assert world.bluez.calls(ADAPTER_PATH, "RemoveDevice") == [[str(PHONE_PATH)]]
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv")
    for args, stdout, stderr in [(["power", "on"], "off\n", "power is still off"),
                                 (["discoverable", "off"], "on\n", "discoverable is still on")]:
        done = ctl(world, *args)
        assert (done.returncode, done.stdout) == (1, stdout) and stderr in done.stderr
    pump(0.3)
    assert len(ui.received("PowerStateChanged")) == 2  # refused by BlueZ: nothing to announce


def test_simulation_runs_with_a_scripted_answer():
    done = subprocess.run([sys.executable, os.path.join(TOOLS, "simulate.py"), "--answer", "yes"],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "done: paired, connected, and the file is in the print spool" in done.stdout
