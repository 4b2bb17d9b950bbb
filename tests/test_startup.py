"""Start-up as an integrator meets it: what BlueZ is asked, in which order, and how the daemon
ends when it cannot run (exit code 255 and the logged reason)."""

import dbus
import pytest

from simenv import AGENT_PATH, AGENT_SERVICE, ADAPTER_PATH


def started_calls(bluez):
    """The start-up calls the simulated BlueZ served, in order, without the test's own set-up."""
    wanted = ("Get /org/bluez/hci0 org.bluez.Adapter1.Powered", "Set /org/bluez/hci0",
              "GetManagedObjects", "RegisterAgent", "RequestDefaultAgent")
    return [line for line in bluez.log() if line.startswith(wanted)]


def test_start_powers_names_and_registers_in_order(make_world):
    world = make_world(hostname=b"embosser\n")
    world.bluez.set_adapter_properties(Powered=False)
    world.start_agent()

    assert started_calls(world.bluez) == [
        "Get /org/bluez/hci0 org.bluez.Adapter1.Powered",
        "Set /org/bluez/hci0 org.bluez.Adapter1.Powered True",
        'Set /org/bluez/hci0 org.bluez.Adapter1.Alias "embosser',
        "GetManagedObjects",
        'RegisterAgent "/BluetoothAgent" "DisplayYesNo"',
        'RequestDefaultAgent "/BluetoothAgent"',
    ]
    assert world.bluez.adapter_property("Powered") is True
    # The line feed of the host-name file stays part of the name.
    assert world.bluez.adapter_property("Alias") == "embosser\n"
    conn = world.bus.connect()
    assert conn.get_name_owner(AGENT_SERVICE)
    xml = conn.get_object(AGENT_SERVICE, AGENT_PATH).Introspect(
        dbus_interface="org.freedesktop.DBus.Introspectable")
    assert '<interface name="org.bluez.Agent1">' in xml
    assert world.agent.log() == ""


def test_powered_adapter_is_not_written_but_still_named(make_world):
    world = make_world()
    world.start_agent()
    calls = started_calls(world.bluez)
    assert not [c for c in calls if c.startswith("Set /org/bluez/hci0 org.bluez.Adapter1.Powered")]
    assert [c for c in calls if c.startswith("Set /org/bluez/hci0 org.bluez.Adapter1.Alias")]


@pytest.mark.parametrize("content, alias, logged", [
    (b"embosser\n", "embosser\n", False),
    (b"first\nsecond\n", "first\n", False),
    (b"\n", "\n", False),
    (b"windows\r\nline\r\n", "windows\n", False),
    (b"no-newline", "no-newline", False),
    (b"bra\xc3\xaflle\n", "bra\u00eflle\n", False),
    (b"emb\x00osser\n", "emb", False),
    (b"", "QuorvaneEmbosser", False),
    (b"\x00rest\n", "QuorvaneEmbosser", False),
    (None, "QuorvaneEmbosser", True),
])
def test_alias_comes_from_the_first_line_of_the_hostname(make_world, content, alias, logged):
    world = make_world(hostname=content)
    world.start_agent()
    assert world.bluez.adapter_property("Alias") == alias
    missing_line = "BluetoothAgentDaemon: could not open /etc/hostname"
    assert (missing_line in world.agent.log()) == logged


def test_name_already_taken(make_world):
    world = make_world()
    other = world.bus.connect()
    other.request_name(AGENT_SERVICE)
    agent = world.start_agent(wait=False)
    assert agent.wait_exit() == 255
    assert "BluetoothAgentDaemon: regSrv failed" in agent.log()
    assert "RegisterAgent" not in "\n".join(world.bluez.log())


def test_bluez_absent(make_world):
    world = make_world(with_bluez=False)
    agent = world.start_agent(wait=False)
    assert agent.wait_exit() == 255
    assert "BluetoothAgentDaemon: iface not valid, something went wrong!" in agent.log()


def test_adapter_refuses_power(make_world):
    world = make_world()
    world.bluez.set_adapter_properties(Powered=False)
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv",
                            condition="args[1] == 'Powered'")
    agent = world.start_agent(wait=False)
    assert agent.wait_exit() == 255
    assert "BluetoothAgentDaemon: not powered..." in agent.log()
    assert "GetManagedObjects" not in world.bluez.log()


def test_refused_alias_does_not_stop_start_up(make_world):
    world = make_world()
    world.bluez.fail_method(ADAPTER_PATH, dbus.PROPERTIES_IFACE, "Set", "ssv",
                            condition="args[1] == 'Alias'")
    world.start_agent()
    assert world.client().call("getPower") is True


def test_refused_agent_registration_is_logged_and_the_daemon_serves(make_world):
    world = make_world()
    world.bluez.fail_method("/org/bluez", "org.bluez.AgentManager1", "RegisterAgent", "os",
                            fallback="")
    agent = world.start_agent()
    log = agent.log()
    assert 'BluetoothAgentDaemon: RegisterAgent unsuccessful! "refused by the test"' in log
    # Nothing was registered, so BlueZ refuses the default-agent request too.
    assert "BluetoothAgentDaemon: RequestDefaultAgent unsuccessful!" in log
    assert world.client().call("getPower") is True
    assert agent.proc.poll() is None
