# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Start-up as an integrator meets it: what BlueZ is asked, in which order, how the daemon ends
when it cannot run (exit code 255 and the logged reason), and how it becomes the agent of a
BlueZ that restarted."""

import os
import signal

import dbus
import pytest

from conftest import LOGGED, NATIVE, Bluez, rss_kib, spooled
from simenv import ADAPTER_PATH, AGENT_SERVICE, pump, wait_until

START_CALLS = ("Get /org/bluez/hci0 org.bluez.Adapter1.Powered", "Set /org/bluez/hci0",
               "GetManagedObjects", "RegisterAgent", "RequestDefaultAgent")
REGISTERED = ['RegisterAgent "/BluetoothAgent" "DisplayYesNo"', 'RequestDefaultAgent "/BluetoothAgent"']
PHONE = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")


def started_calls(bluez):
    """The start-up calls the simulated BlueZ served, in order, without the test's own set-up."""
    return [line for line in bluez.log() if line.startswith(START_CALLS)]


@pytest.mark.parametrize("content, alias", [
    (b"first\nsecond\n", "first\n"),  # the line feed stays part of the name
    (b"\n", "\n"),
    (b"windows\r\nline\r\n", "windows\n"),
    (b"no-newline", "no-newline"),
    (b"bra\xc3\xaflle\n", "bra\u00eflle\n"),
    (b"emb\x00osser\n", "emb"),
    (b"", "QuorvaneEmbosser"),
    (b"\x00rest\n", "QuorvaneEmbosser"),
    (None, "QuorvaneEmbosser"),
])
def test_start_powers_names_from_the_host_name_and_registers_in_order(make_world, content, alias):
    world = make_world(hostname=content)
    powered = content is None  # one start finds hci0 on already: asked, not switched on again
    world.bluez.set_adapter_properties(Powered=powered)
    missing = "BluetoothAgentDaemon: could not open /etc/hostname"
    world.start_agent().expect(missing)
    assert [" ".join(call.split()[:3]) for call in started_calls(world.bluez)] == [
        "Get /org/bluez/hci0 org.bluez.Adapter1.Powered"] + (
        [] if powered else ["Set /org/bluez/hci0 org.bluez.Adapter1.Powered"]) + [
        "Set /org/bluez/hci0 org.bluez.Adapter1.Alias", "GetManagedObjects"] + REGISTERED
    assert [world.bluez.adapter_property(name) for name in ("Powered", "Alias")] == [True, alias]
    assert world.agent.lines() == [missing] * (content is None)


@pytest.mark.parametrize("how, line", [
    ("name taken", "regSrv failed"), ("no BlueZ", "iface not valid, something went wrong!"),
    ("power refused", "not powered...")])
def test_start_up_that_cannot_run_exits_255_with_the_reason(make_world, how, line):
    world = make_world(with_bluez=how != "no BlueZ")
    holder = world.bus.connect()
    if how == "name taken":
        holder.request_name(AGENT_SERVICE)
    if how == "power refused":
        world.bluez.set_adapter_properties(Powered=False)
        world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv",
                                condition="args[1] == 'Powered'")
    world.sandbox.drop("waiting.brf", b"kept")
    agent = world.start_agent(wait=False)
    assert agent.proc.wait(30) == 255
    assert agent.expect("BluetoothAgentDaemon: " + line).lines() == ["BluetoothAgentDaemon: " + line]
    # Neither registered nor touching any received file.
    assert world.bluez is None or "RegisterAgent" not in "\n".join(world.bluez.log())
    assert world.sandbox.received() == ["waiting.brf"] and spooled(world.sandbox) == {}


def test_refused_name_and_registration_are_logged_and_the_daemon_serves(make_world):
    world = make_world()
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv",
                            condition="args[1] == 'Alias'")
    world.bluez.fail_method("/org/bluez", "org.bluez.AgentManager1", "RegisterAgent", "os",
                            fallback="")
    lines = ["BluetoothAgentDaemon: RegisterAgent unsuccessful! refused by the test",
             # Nothing was registered, so BlueZ refuses the default-agent request too.
             "BluetoothAgentDaemon: RequestDefaultAgent unsuccessful!"]
    world.start_agent().expect(*lines)
    assert world.client().call("getPower") is True
    assert [line[:len(lines[1])] for line in world.agent.lines()] == [lines[0][:len(lines[1])],
                                                                       lines[1]]


@pytest.mark.parametrize("adapter_at_once", [True, False])
def test_a_restarted_bluez_gets_the_agent_again(paired_world, adapter_at_once):
    world = paired_world
    left, back, *waited = ["BluetoothAgentDaemon: " + text for text in (
        "BlueZ left the system bus", "BlueZ is on the system bus: registering the agent",
        "BlueZ is on the system bus without hci0: waiting for it",
        "hci0 appeared: registering the agent")]
    world.agent.expect(left, back, *waited, LOGGED)
    ui = world.client()
    stale = ui.call_async("RequestConfirmation", PHONE, dbus.UInt32(1), timeout=60)
    ui.wait_signal("RequestUserConfirmation")
    world.bluez.stop()
    wait_until(lambda: len(world.agent.lines()) == 2, what="the daemon noticing")
    # Without BlueZ the daemon still serves; the question of the old BlueZ is gone, and the user
    # interface is told so.
    ui.wait_signal("RequestCancelled")
    assert ui.call("getPower") is False
    assert ui.devices() == {}
    ui.call("userConfirmation", True)
    ui.wait_signal("RequestCancelled", 2)

    # Held while the new BlueZ starts, the daemon first sees it with its adapter.
    os.kill(world.agent.pid, signal.SIGSTOP if adapter_at_once else signal.SIGCONT)
    world.bluez = Bluez(world.bus, adapter=adapter_at_once)
    os.kill(world.agent.pid, signal.SIGCONT)
    if not adapter_at_once:
        wait_until(lambda: len(world.agent.lines()) == 3, what="the daemon waiting for hci0")
        world.bluez.add_adapter()
    world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
    # Both BlueZ write to one log: the first registered at start, the new one now.
    wait_until(lambda: started_calls(world.bluez).count(REGISTERED[1]) == 2, what="registration")
    assert [line for line in world.agent.lines() if "Daemon" in line] == [left] + (
        [back] if adapter_at_once else waited)
    assert world.bluez.adapter_property("Alias") == "embosser\n"
    pump(0.3)
    assert not stale.done
    # The new BlueZ's question reaches the user and the answer reaches it.
    reply = ui.call_async("RequestConfirmation", PHONE, dbus.UInt32(2))
    assert ui.wait_signal("RequestUserConfirmation", 2)[-1] == [2]
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    assert ui.devices() == {"Phone One": "AA:BB:CC:DD:EE:01"}
    assert world.agent.proc.poll() is None and os.path.exists(world.sandbox.obex)
    if not adapter_at_once:
        return
    # And again and again: nothing that belonged to an earlier BlueZ stays behind.
    for restarts in range(2, 52):
        if restarts == 12:
            rss = rss_kib(world.agent.pid)
        world.bluez.stop()
        world.bluez = Bluez(world.bus)
        world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
        wait_until(lambda: started_calls(world.bluez).count(REGISTERED[1]) == restarts + 1,
                   what="registration")
    # A proxy kept per restart would add some 3 KiB each.
    if NATIVE:
        assert rss_kib(world.agent.pid) - rss < 80
    assert ui.devices() == {"Phone One": "AA:BB:CC:DD:EE:01"}


def test_a_hung_bluez_holds_up_no_document_no_list_and_no_later_question(paired_world):
    world = paired_world
    world.agent.expect(LOGGED + "RequestConfirmation")
    ui = world.client()
    os.kill(world.bluez.proc.pid, signal.SIGSTOP)
    try:
        calls = {method: ui.call_async(method, *args, timeout=60) for method, args in [
            ("getPower", []), ("setPower", [False]), ("SetDiscoverable", [True]),
            ("forgetDevice", ["AA:BB:CC:DD:EE:02"])]}
        world.sandbox.drop("meanwhile.brf", b"meanwhile")
        assert ui.wait_signal("TransferComplete", timeout=5) == [["meanwhile.brf"]]
        assert ui.devices() == {"Phone One": "AA:BB:CC:DD:EE:01", "Tablet": "AA:BB:CC:DD:EE:02"}
        assert not [method for method, call in calls.items() if call.done]
    finally:
        os.kill(world.bluez.proc.pid, signal.SIGCONT)
    # Each call is answered with what BlueZ answered once it could.
    assert [calls[m].wait().values for m in calls] == [[True], [], [], []]
    assert ui.wait_signal("PowerStateChanged") == [[False]]
    assert ui.wait_signal("BluetoothDevices", 2)[-1] == [{"Phone One": "AA:BB:CC:DD:EE:01"}]
    reply = ui.call_async("RequestConfirmation", PHONE, dbus.UInt32(3))
    assert ui.wait_signal("RequestUserConfirmation") == [[3]]
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
