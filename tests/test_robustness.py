"""The daemon under load, under faults and under hostile input: answers stay right, nothing is
lost, nothing crashes, memory comes back."""

import json
import os
import subprocess

import dbus

from simenv import Bluez, DEBIAN_PYTHON, pump, wait_until

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_PATH = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")
REJECTED = "org.bluez.Agent1.Rejected"
BUS_PEER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "bus_peer.py")
# A sanitized build keeps freed memory in quarantine, and an emulator's size includes its
# translated code: then the daemon's size says nothing about leaks.
MEMORY_TELLS = "ASAN_OPTIONS" not in os.environ and not os.environ.get("BLUETOOTH_AGENT_LAUNCHER")


def test_1000_pairing_requests_answered_one_after_another(ui):
    for i in range(1000):
        accept = i % 2 == 0
        if i % 3 == 2:
            reply = ui.call_async("RequestPinCode", PHONE_PATH)
            ui.wait_signal("RequestUserPin", len(ui.received("RequestUserPin")) + 1)
            ui.call("userSuppliedPin", accept, f"{i:04d}")
            expected = ([f"{i:04d}"], None) if accept else (None, REJECTED)
        else:
            passkey = i * 7919 % 1000000
            before = len(ui.received("RequestUserConfirmation"))
            reply = ui.call_async("RequestConfirmation", PHONE_PATH, dbus.UInt32(passkey))
            assert ui.wait_signal("RequestUserConfirmation", before + 1)[-1] == [passkey]
            ui.call("userConfirmation", accept)
            expected = ([True], None) if accept else (None, REJECTED)
        reply.wait()
        assert (reply.values, reply.error) == expected, i


class BusyUserInterface:
    """Another process calling getDevices and getPower in a loop, at least `calls` times."""

    def __init__(self, world, calls):
        self.proc = subprocess.Popen([DEBIAN_PYTHON, BUS_PEER, world.bus.address, "poll", str(calls)],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.proc.stdout.readline().strip() == "ready"

    def stop(self):
        out, _ = self.proc.communicate("", timeout=60)
        return json.loads(out)


def rss_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith("VmRSS:")).split()[1])


def deliver_burst(world, ui, prefix, count):
    """count files as fast as a writer can, one in ten of a refused type; waits for all."""
    accepted = {}
    done_before = len(ui.received("TransferComplete"))
    for i in range(count):
        name = f"{prefix}-{i:04d}." + ("docx" if i % 10 else "exe")
        content = (name.encode() + b"\n") * (i % 97 + 1)
        world.sandbox.drop(name, content)
        if i % 10:
            accepted[name] = content
    done = ui.wait_signal("TransferComplete", done_before + len(accepted), timeout=300)
    assert sorted(args[0] for args in done[done_before:]) == sorted(accepted)
    wait_until(lambda: world.sandbox.received() == [], 60, "an empty receive folder")
    return accepted


def test_2000_files_in_bursts_while_the_user_interface_polls(paired_world):
    world = paired_world
    ui = world.client()
    expected = deliver_burst(world, ui, "warm-up", 100)
    pump(1.0)
    idle = rss_kib(world.agent.pid)

    busy = BusyUserInterface(world, 4000)
    for burst in range(4):
        expected.update(deliver_burst(world, ui, f"burst{burst}", 500))
    polled = busy.stop()
    assert polled["calls"] >= 4000 and polled["errors"] == []

    wait_until(lambda: sorted(world.sandbox.spooled().values()) == sorted(expected.values()), 120,
               "every accepted file in the spool with its bytes")
    assert len(ui.received("TransferComplete")) == len(expected) == 1890
    pump(1.0)
    after = rss_kib(world.agent.pid)
    print(f"daemon RSS: {idle} KiB idle after warm-up, {after} KiB idle after 2000 files "
          f"and {polled['calls']} calls")
    if MEMORY_TELLS:
        # A leak of even 1 KiB per file or call would show as megabytes here.
        assert after - idle < 1024, (idle, after)


def test_bluez_leaving_and_returning(paired_world):
    world = paired_world
    ui = world.client()
    world.bluez.stop()

    # Whatever the calls answer now, the daemon serves its own interface.
    assert ui.call("getPower") is False
    ui.call("getDevices")
    assert ui.wait_signal("BluetoothDevices") == [[{}]]
    ui.call("setPower", True)
    ui.call("SetDiscoverable", True)
    ui.call("forgetDevice", PHONE)
    ui.wait_signal("BluetoothDevices", 2)
    reply = ui.call_async("RequestConfirmation", PHONE_PATH, dbus.UInt32(1))
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    assert ui.received("PowerStateChanged") == []

    world.bluez = Bluez(world.bus)
    world.bluez.add_device(PHONE, "Phone One", paired=True)
    assert ui.call("getPower") is True
    ui.call("getDevices")
    assert ui.wait_signal("BluetoothDevices", 3)[-1] == [{"Phone One": PHONE}]
    assert world.agent.proc.poll() is None


HUGE = "x" * (1 << 20)
MALFORMED = [
    ("Release", [["extra"]]),
    ("RequestPinCode", [[], ["not a path"], [PHONE_PATH, 1]]),
    ("DisplayPinCode", [[PHONE_PATH], [PHONE_PATH, dbus.UInt32(1)]]),
    ("RequestPasskey", [[], [dbus.UInt32(1)]]),
    ("DisplayPasskey", [[PHONE_PATH, dbus.UInt32(1)], [PHONE_PATH, "1", "2"]]),
    ("RequestConfirmation", [[PHONE_PATH], [PHONE_PATH, "123456"], [PHONE_PATH, dbus.Int64(1)]]),
    ("RequestAuthorization", [[], [PHONE_PATH, PHONE_PATH]]),
    ("AuthorizeService", [[PHONE_PATH], [PHONE_PATH, {"a": "b"}]]),
    ("SetDiscoverable", [[], ["yes"], [dbus.Byte(1)]]),
    ("userConfirmation", [[], [HUGE], [True, True]]),
    ("userSuppliedPin", [[True], ["1234", True], [[1, 2]]]),
    ("getPower", [[True]]),
    ("setPower", [[], [dbus.Int32(1)]]),
    ("forgetDevice", [[], [dbus.ObjectPath("/x")], [[PHONE]]]),
    ("getDevices", [[HUGE]]),
]


def test_malformed_calls_are_refused_by_the_bus_and_the_daemon_serves_on(world, ui):
    for method, variants in MALFORMED:
        for args in variants:
            reply = ui.call_async(method, *args).wait()
            assert reply.error == "org.freedesktop.DBus.Error.UnknownMethod", (method, args)
    # Every Cancel reaches the agent, whatever it carries, and is refused.
    assert ui.call_async("Cancel", True, HUGE).wait().error == REJECTED
    # Well-formed, with huge texts.
    assert ui.call_async("DisplayPinCode", PHONE_PATH, HUGE).wait().error is None
    assert ui.call_async("AuthorizeService", PHONE_PATH, HUGE).wait().error == REJECTED
    ui.call("userSuppliedPin", True, HUGE)
    ui.call("forgetDevice", HUGE)
    ui.wait_signal("BluetoothDevices")
    reply = ui.call_async("RequestPinCode", PHONE_PATH)
    ui.wait_signal("RequestUserPin")
    ui.call("userSuppliedPin", True, HUGE)
    assert reply.wait().values == [HUGE]
    assert ui.call("getPower") is True and world.agent.proc.poll() is None
