# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The daemon as a firmware integrator installs it: the install tree, the interface description,
and the bus policy on a bus that carries the system's default policy. The units are tested as
they run, in the image group."""

import grp
import os
import re
import shutil
import subprocess
import xml.etree.ElementTree as ET

import dbus
import pytest

from simenv import AGENT_IFACE, AGENT_PATH, AGENT_SERVICE, pump

README = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "README.md")
BUILD_DIR = os.environ.get("BLUETOOTH_AGENT_BUILD_DIR", "")
PREFIX = os.environ.get("BLUETOOTH_AGENT_INSTALL_PREFIX", "/usr")
UI_GROUP = os.environ.get("BLUETOOTH_AGENT_UI_GROUP", "bluetooth")
DENIED = "org.freedesktop.DBus.Error.AccessDenied"


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The install tree, as `cmake --install` with DESTDIR lays it out."""
    root = tmp_path_factory.mktemp("destdir")
    subprocess.run(["cmake", "--install", BUILD_DIR], env=dict(os.environ, DESTDIR=str(root)),
                   check=True, stdout=subprocess.DEVNULL)
    return root


def agent_interface(xml_text):
    """Each method and signal: its arguments' names, types and directions."""
    iface = ET.fromstring(xml_text).find("interface[@name='org.bluez.Agent1']")
    return {(e.tag, e.get("name")): [(a.get("name"), a.get("type"), a.get("direction", "in"))
                                     for a in e.findall("arg")] for e in iface}


def test_every_file_lands_where_the_readme_says_and_describes_the_daemon(installed, world):
    # The paths listed in the README's "Installing on the device" table, for this prefix.
    text = open(README, encoding="utf-8").read()
    section = text.split("## Installing on the device", 1)[1].split("\n## ", 1)[0]
    paths = re.findall(r"^\|[^|]*\| `(/usr/[^`]+)` \|", section, re.M)
    files = {"/" + str(p.relative_to(installed)) for p in installed.rglob("*") if p.is_file()}
    assert files == {PREFIX + p[len("/usr"):] for p in paths}
    assert os.access(installed / PREFIX.lstrip("/") / "libexec" / "bluetooth-agent", os.X_OK)
    path = installed / PREFIX.lstrip("/") / "share/dbus-1/interfaces/com.quorvane.BluetoothAgent.xml"
    live = world.bus.connect().get_object(AGENT_SERVICE, AGENT_PATH).Introspect(
        dbus_interface="org.freedesktop.DBus.Introspectable")
    described = agent_interface(path.read_text())
    assert described == agent_interface(live)
    assert sorted(name for kind, name in described if kind == "method") == sorted(SAMPLES)


# --- The bus policy -----------------------------------------------------------------------------

PHONE = "objpath:/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"
# Every method with arguments of its own types, as dbus-send writes them.
SAMPLES = {"getPower": [], "setPower": ["boolean:true"], "SetDiscoverable": ["boolean:false"],
           "getDevices": [], "forgetDevice": ["string:00:00:00:00:00:00"],
           "userConfirmation": ["boolean:false"], "userSuppliedPin": ["boolean:false", "string:"],
           "Release": [], "RequestPinCode": [PHONE], "DisplayPinCode": [PHONE, "string:1"],
           "RequestPasskey": [PHONE], "DisplayPasskey": [PHONE, "uint32:1", "uint16:1"],
           "RequestConfirmation": [PHONE, "uint32:1"], "RequestAuthorization": [PHONE],
           "AuthorizeService": [PHONE, "string:uuid"], "Cancel": []}


def guarded_bus_config(policy_dir):
    """A bus config: the system bus's own default policy, the installed file, and BlueZ's usual
    root rights."""
    system_conf = open("/usr/share/dbus-1/system.conf", encoding="utf-8").read()
    default_policy = re.search(r'<policy context="default">.*?</policy>', system_conf, re.S)[0]
    return lambda workdir: f"""<busconfig>
  <type>system</type>
  <listen>unix:tmpdir={workdir}</listen>
  <auth>EXTERNAL</auth>
  {default_policy}
  <includedir>{policy_dir}</includedir>
  <policy user="root"><allow own="org.bluez"/><allow send_destination="org.bluez"/></policy>
</busconfig>
"""


def ui_group(name, tmp_path):
    """The user-interface group's id, and how to start a bus that knows it. A group missing on
    this machine is added to a copy of /etc/group that only the bus sees."""
    try:
        return grp.getgrnam(name).gr_gid, ()
    except KeyError:
        pass
    gid = next(g for g in range(4242, 60000) if g not in {e.gr_gid for e in grp.getgrall()})
    group_file = tmp_path / "group"
    shutil.copy("/etc/group", group_file)
    with open(group_file, "a", encoding="utf-8") as f:
        f.write(f"{name}:x:{gid}:\n")
    return gid, ("unshare", "--mount", "--propagation", "private", "sh", "-c",
                 'mount --bind "$0" /etc/group && exec "$@"', str(group_file))


@pytest.fixture
def guarded(make_world, installed, tmp_path):
    gid, launcher = ui_group(UI_GROUP, tmp_path)
    policy_dir = installed / PREFIX.lstrip("/") / "share" / "dbus-1" / "system.d"
    world = make_world(bus_config=guarded_bus_config(policy_dir), bus_launcher=launcher)
    os.chmod(world.workdir, 0o755)  # other users must reach the bus socket
    world.ui_gid = gid
    # With the pairing log silenced, as an integrator may: it changes nothing else.
    world.start_agent(env={"QT_LOGGING_RULES": "BluetoothPairingAgent.critical=false"})
    return world


def as_peer(world, groups, command, **kwargs):
    """command as nobody, in the given groups (none: an outsider), on the guarded bus; a
    sanitized run's options go along."""
    env = {k: v for k, v in os.environ.items() if k in ("PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
    env["DBUS_SYSTEM_BUS_ADDRESS"] = world.bus.address
    group_args = [f"--groups={','.join(map(str, groups))}"] if groups else ["--clear-groups"]
    return subprocess.Popen(["setpriv", "--reuid=nobody", "--regid=nogroup", *group_args,
                             *command], env=env, text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, **kwargs)


def answers(world, groups, methods):
    """What each call gets: ok, or the D-Bus error's name."""
    def call(member, args, dest=AGENT_SERVICE, path=AGENT_PATH):
        out, err = as_peer(world, groups, ["dbus-send", "--system", "--print-reply",
                                           "--reply-timeout=5000", f"--dest={dest}", path,
                                           member, *args]).communicate(timeout=60)
        return err.split()[1].rstrip(":") if err.startswith("Error ") else "ok"
    found = {m: call(f"{AGENT_IFACE}.{m}", SAMPLES[m]) for m in methods}
    found["Introspect"] = call("org.freedesktop.DBus.Introspectable.Introspect", [])
    found["own"] = call("org.freedesktop.DBus.RequestName", [f"string:{AGENT_SERVICE}", "uint32:4"],
                        "org.freedesktop.DBus", "/org/freedesktop/DBus")
    return found


def test_only_root_and_the_user_interface_group_talk_to_it(guarded):
    member, outsider = [guarded.ui_gid], []
    listeners = {}
    for name, groups in (("member", member), ("outsider", outsider)):
        listeners[name] = as_peer(guarded, groups, ["gdbus", "monitor", "--system", "--dest",
                                                    AGENT_SERVICE])
        while "is owned by" not in listeners[name].stdout.readline():
            pass
    pump(0.3)
    ui_methods = list(SAMPLES)[:7]
    assert answers(guarded, member, ui_methods) == dict.fromkeys(ui_methods + ["Introspect"],
                                                                 "ok") | {"own": DENIED}
    assert set(answers(guarded, member, list(SAMPLES)[7:]).values()) - {"ok"} == {DENIED}
    assert set(answers(guarded, outsider, list(SAMPLES)).values()) == {DENIED}
    # Root plays BlueZ and the user interface: every signal the daemon has.
    ui = guarded.client()
    reply = ui.call_async("RequestConfirmation", dbus.ObjectPath(PHONE[8:]), dbus.UInt32(1))
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    ui.call_async("DisplayPasskey", dbus.ObjectPath(PHONE[8:]), dbus.UInt32(1), dbus.UInt16(0))
    ui.call("setPower", True)
    ui.wait_signal("PowerStateChanged")
    pump(0.5)
    heard = {}
    for name, listener in listeners.items():
        listener.terminate()
        heard[name] = set(re.findall(r"org\.bluez\.Agent1\.(\w+) ", listener.communicate()[0]))
    # The member's own calls made the others: no question pending, a device list.
    assert heard == {"outsider": set(), "member": {
        "RequestUserConfirmation", "DisplayUserPasskey", "RequestCancelled", "BluetoothDevices",
        "PowerStateChanged"}}
