# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Pairing as BlueZ and the user interface meet it: BlueZ calls the agent, the user interface is
asked through a signal and answers, and BlueZ gets the reply."""

import dbus
import pytest

from conftest import LOGGED, ask

PHONE = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")
REJECTED = "org.bluez.Agent1.Rejected"


def test_only_the_latest_question_can_be_answered_and_a_cancelled_one_by_nobody(world, ui):
    world.agent.expect(LOGGED + "RequestConfirmation")
    # No question yet: the answers reach nobody, the user interface is told so, and the daemon
    # goes on.
    ui.call("userConfirmation", True)
    ui.call("userSuppliedPin", True, "1234")
    ui.wait_signal("RequestCancelled", 2)
    first = ask(ui, "RequestConfirmation", PHONE, dbus.UInt32(111111), timeout=3)
    second = ask(ui, "RequestConfirmation", PHONE, dbus.UInt32(222222))
    ui.call("userConfirmation", False)
    assert (second.wait().error, second.message) == (REJECTED, "Rejected")
    # A second answer goes to the answered question, unseen.
    ui.call("userConfirmation", True)
    third = ask(ui, "RequestConfirmation", PHONE, dbus.UInt32(333333), timeout=3)
    # BlueZ's Cancel is refused as a call, but ends the question.
    cancel = ui.call_async("Cancel").wait()
    assert (cancel.error, cancel.message) == (REJECTED, "Rejected")
    ui.wait_signal("RequestCancelled", 3)
    ui.call("userConfirmation", True)
    # The first and the cancelled one are left to BlueZ's own time-out.
    assert first.wait(10).error == third.wait(10).error == "org.freedesktop.DBus.Error.NoReply"
    assert len(ui.received("RequestCancelled")) == 4


@pytest.mark.parametrize("method, args, values, error, line", [
    ("RequestPasskey", [PHONE], [0], None, "RequestPasskey " + PHONE),
    ("DisplayPasskey", [PHONE, dbus.UInt32(4321), dbus.UInt16(2)], [], None,
     "DisplayPasskey " + PHONE + " 4321 2"),
    ("RequestAuthorization", [PHONE], [], None, "RequestAuthorization " + PHONE),
    ("Release", [], [], None, "Release"),
    # A shown PIN is neither logged nor passed on.
    ("DisplayPinCode", [PHONE, "4711"], [], None, None),
    ("AuthorizeService", [PHONE, "0000110a-0000-1000-8000-00805f9b34fb"], None, REJECTED, None),
])
def test_calls_answered_at_once(world, ui, method, args, values, error, line):
    reply = ui.call_async(method, *args).wait()
    assert (reply.values, reply.error) == (values, error)
    logged = [line for line in world.agent.expect(LOGGED).lines() if line.startswith("Blue")]
    assert logged == ([LOGGED + line] if line else [])
    # Only a passkey to type on the other device is for the user to see.
    assert ui.signals == ([("DisplayUserPasskey", [4321, 2])] if method == "DisplayPasskey" else [])


HUGE = "x" * (1 << 20)
MALFORMED = [
    ("Release", ["extra"]), ("RequestPinCode", []), ("RequestPinCode", [PHONE, 1]),
    ("DisplayPinCode", [PHONE]), ("RequestPasskey", [dbus.UInt32(1)]),
    ("DisplayPasskey", [PHONE, "1", "2"]), ("RequestConfirmation", [PHONE, "123456"]),
    ("RequestConfirmation", [PHONE, dbus.Int64(1)]), ("RequestAuthorization", [PHONE, PHONE]),
    ("AuthorizeService", [PHONE, {"a": "b"}]), ("SetDiscoverable", ["yes"]),
    ("userConfirmation", [HUGE]), ("userSuppliedPin", ["1234", True]), ("getPower", [True]),
    ("setPower", [dbus.Int32(1)]), ("forgetDevice", [dbus.ObjectPath("/x")]),
    ("getDevices", [HUGE]), ("NoSuchMethod", []),
]


def test_malformed_and_huge_calls_leave_the_daemon_serving(world, ui):
    world.agent.expect(LOGGED + "RequestPinCode")
    for method, args in MALFORMED:
        reply = ui.call_async(method, *args).wait()
        assert reply.error == "org.freedesktop.DBus.Error.UnknownMethod", (method, args)
    # Every Cancel reaches the agent, whatever it carries, and is refused.
    assert ui.call_async("Cancel", True, HUGE).wait().error == REJECTED
    ui.wait_signal("RequestCancelled")
    assert ui.call_async("DisplayPinCode", PHONE, HUGE).wait().error is None
    ui.call("forgetDevice", HUGE)
    ui.wait_signal("BluetoothDevices")
    reply = ask(ui, "RequestPinCode", PHONE)
    ui.call("userSuppliedPin", True, HUGE)
    assert reply.wait().values == [HUGE]
    assert ui.call("getPower") is True and world.agent.proc.poll() is None
