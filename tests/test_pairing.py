"""Pairing as BlueZ and the user interface meet it: BlueZ calls the agent, the user interface is
asked through a signal and answers, and BlueZ gets the reply."""

import dbus
import pytest

PHONE = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")
REJECTED = "org.bluez.Agent1.Rejected"


def ask_confirmation(ui, passkey, timeout=30):
    reply = ui.call_async("RequestConfirmation", PHONE, dbus.UInt32(passkey), timeout=timeout)
    return reply


@pytest.mark.parametrize("answer", [True, False])
def test_confirmation_goes_to_the_user_and_back(world, ui, answer):
    reply = ask_confirmation(ui, 123456)
    assert ui.wait_signal("RequestUserConfirmation") == [[123456]]
    assert not reply.done, "BlueZ must wait for the user"
    ui.call("userConfirmation", answer)
    reply.wait()
    if answer:
        assert (reply.values, reply.error) == ([True], None)
    else:
        assert (reply.error, reply.message) == (REJECTED, "Rejected")
    assert ('BluetoothPairingAgent: pairing_agent::RequestConfirmation  '
            '"/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"   123456') in world.agent.log()


@pytest.mark.parametrize("confirm, pin", [(True, "0000"), (True, ""), (True, "12 ab"),
                                          (False, "1234")])
def test_pin_request_goes_to_the_user_and_back(world, ui, confirm, pin):
    reply = ui.call_async("RequestPinCode", PHONE)
    ui.wait_signal("RequestUserPin")
    assert not reply.done
    ui.call("userSuppliedPin", confirm, pin)
    reply.wait()
    if confirm:
        assert (reply.values, reply.error) == ([pin], None)
    else:
        assert (reply.error, reply.message) == (REJECTED, "Rejected")
    assert "pairing_agent::RequestPinCode" in world.agent.log()


def test_two_requests_before_one_answer_only_the_second_is_answered(ui):
    first = ask_confirmation(ui, 111111, timeout=3)
    ui.wait_signal("RequestUserConfirmation")
    second = ask_confirmation(ui, 222222)
    assert ui.wait_signal("RequestUserConfirmation", 2)[1] == [222222]
    ui.call("userConfirmation", True)
    assert second.wait().values == [True]
    # The first one is left to BlueZ's own time-out.
    assert first.wait(10).error == "org.freedesktop.DBus.Error.NoReply"


def test_cancel_is_refused_and_the_question_stays_open(ui):
    reply = ask_confirmation(ui, 654321)
    ui.wait_signal("RequestUserConfirmation")
    cancel = ui.call_async("Cancel").wait()
    assert (cancel.error, cancel.message) == (REJECTED, "Rejected")
    assert not reply.done
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]


def test_answers_without_a_fresh_request_do_not_harm_the_daemon(world, ui):
    # No request at all yet: nothing can be answered, the daemon goes on.
    ui.call("userConfirmation", True)
    ui.call("userSuppliedPin", True, "1234")
    reply = ask_confirmation(ui, 1)
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", False)
    assert reply.wait().error == REJECTED
    # A second answer to the same request is sent and dropped by the bus.
    ui.call("userConfirmation", True)
    assert ui.call("getPower") is True
    assert world.agent.proc.poll() is None


def test_the_answer_serves_whatever_request_is_pending(ui):
    # The UI answers a PIN request with a confirmation: BlueZ gets a boolean, not a PIN.
    reply = ui.call_async("RequestPinCode", PHONE)
    ui.wait_signal("RequestUserPin")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]


@pytest.mark.parametrize("method, args, values, log_line", [
    ("RequestPasskey", [PHONE], [0],
     'pairing_agent::RequestPasskey  "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"'),
    ("DisplayPasskey", [PHONE, dbus.UInt32(4321), dbus.UInt16(2)], [],
     'pairing_agent::DisplayPasskey  "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"   4321   2'),
    ("RequestAuthorization", [PHONE], [],
     'pairing_agent::RequestAuthorization  "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"'),
    ("Release", [], [], "pairing_agent::Release"),
    ("DisplayPinCode", [PHONE, "4711"], [], None),
])
def test_calls_answered_at_once(world, ui, method, args, values, log_line):
    reply = ui.call_async(method, *args).wait()
    assert (reply.values, reply.error) == (values, None)
    log = world.agent.log()
    if log_line:
        assert "BluetoothPairingAgent: " + log_line in log
    else:
        # A shown PIN is neither logged nor passed to the user interface.
        assert "4711" not in log
    assert ui.signals == []


def test_service_authorisation_is_always_refused(ui):
    for uuid in ["0000110a-0000-1000-8000-00805f9b34fb", ""]:
        reply = ui.call_async("AuthorizeService", PHONE, uuid).wait()
        assert (reply.error, reply.message) == (REJECTED, "Rejected")


def test_silenced_log_changes_nothing_else(make_world):
    world = make_world()
    world.start_agent(env={"QT_LOGGING_RULES": "BluetoothPairingAgent.critical=false"})
    ui = world.client()
    reply = ask_confirmation(ui, 42)
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    assert ui.call_async("RequestPasskey", PHONE).wait().values == [0]
    assert "pairing_agent" not in world.agent.log()


def test_wrong_argument_types_get_a_bus_error_and_the_daemon_serves_on(world, ui):
    for method, args in [("userConfirmation", ["yes"]), ("userSuppliedPin", ["1234"]),
                         ("RequestConfirmation", [PHONE, "123456"]),
                         ("RequestConfirmation", []), ("setPower", [dbus.Int32(1)]),
                         ("NoSuchMethod", [])]:
        reply = ui.call_async(method, *args).wait()
        assert reply.error == "org.freedesktop.DBus.Error.UnknownMethod", method
    assert ui.call("getPower") is True
    assert world.agent.proc.poll() is None
