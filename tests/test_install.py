# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The daemon as a firmware integrator installs it: the install tree, the interface description,
and the bus policy on a bus that carries the system's default policy. The unit is tested as it
runs, in the systemd group."""

import json
import os
import re
import shutil
import subprocess
import xml.etree.ElementTree as ET

import dbus
import pytest

import simenv
from simenv import AGENT_PATH, AGENT_SERVICE, DEBIAN_PYTHON, as_user, program, pump

HERE = os.path.dirname(os.path.abspath(__file__))
README = os.path.join(HERE, "..", "README.md")
BUILD_DIR = os.environ.get("BLUETOOTH_AGENT_BUILD_DIR", "")
PREFIX = os.environ.get("BLUETOOTH_AGENT_INSTALL_PREFIX", "/usr")
UI_GROUP = os.environ.get("BLUETOOTH_AGENT_UI_GROUP", "bluetooth")
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
UI_METHODS = ["getPower", "setPower", "SetDiscoverable", "getDevices", "forgetDevice",
              "userConfirmation", "userSuppliedPin"]
BLUEZ_METHODS = ["Release", "RequestPinCode", "DisplayPinCode", "RequestPasskey", "DisplayPasskey",
                 "RequestConfirmation", "RequestAuthorization", "AuthorizeService", "Cancel"]


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The install tree, as `cmake --install` with DESTDIR lays it out."""
    root = tmp_path_factory.mktemp("destdir")
    subprocess.run(["cmake", "--install", BUILD_DIR], env=dict(os.environ, DESTDIR=str(root)),
                   check=True, stdout=subprocess.DEVNULL)
    return root


def readme_install_paths():
    """The paths listed in the README's "Installing on the device" table, for this prefix."""
    text = open(README, encoding="utf-8").read()
    section = text.split("## Installing on the device", 1)[1].split("\n## ", 1)[0]
    paths = re.findall(r"^\|[^|]*\| `(/usr/[^`]+)` \|", section, re.M)
    return {PREFIX + p[len("/usr"):] for p in paths}


def test_every_file_lands_where_the_readme_says(installed):
    files = {"/" + str(p.relative_to(installed)) for p in installed.rglob("*") if p.is_file()}
    assert files == readme_install_paths()
    assert os.access(installed / PREFIX.lstrip("/") / "libexec" / "bluetooth-agent", os.X_OK)


def test_the_receivers_user_and_folders_come_up_without_a_word(installed, tmp_path):
    # As at installation and at each boot: systemd-sysusers, then systemd-tmpfiles, in a new root.
    for kind in ("sysusers.d", "tmpfiles.d"):
        shutil.copytree(installed / PREFIX.lstrip("/") / "lib" / kind, tmp_path / "usr/lib" / kind)
    (tmp_path / "etc").mkdir()
    subprocess.run(["systemd-sysusers", f"--root={tmp_path}"], check=True, capture_output=True)
    done = subprocess.run(["systemd-tmpfiles", "--create", f"--root={tmp_path}"],
                          capture_output=True, text=True)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")
    user = next(line.split(":") for line in open(tmp_path / "etc/passwd", encoding="utf-8")
                if ":OBEX push receiver:/nonexistent:/usr/sbin/nologin" in line)
    obex = (int(user[2]), int(user[3]))
    assert 0 not in obex
    made = {str(p.relative_to(tmp_path)): p.stat() for p in (tmp_path / "var/spool").rglob("*")}
    assert {p: (s.st_mode & 0o7777, (s.st_uid, s.st_gid)) for p, s in made.items()} == {
        "var/spool/lp": (0o755, (0, 0)), "var/spool/lp/www": (0o755, (0, 0)),
        "var/spool/lp/obex": (0o750, obex), "var/spool/lp/obex/.incoming": (0o700, obex)}


def agent_interface(xml_text):
    iface = ET.fromstring(xml_text).find("interface[@name='org.bluez.Agent1']")
    methods = {m.get("name"): [(a.get("name"), a.get("type"), a.get("direction", "in"))
                               for a in m.findall("arg")] for m in iface.findall("method")}
    signals = {s.get("name"): [(a.get("name"), a.get("type")) for a in s.findall("arg")]
               for s in iface.findall("signal")}
    return methods, signals


def test_installed_interface_description_matches_the_running_daemon(installed, world):
    path = installed / PREFIX.lstrip("/") / "share/dbus-1/interfaces/com.quorvane.BluetoothAgent.xml"
    live = world.bus.connect().get_object(AGENT_SERVICE, AGENT_PATH).Introspect(
        dbus_interface="org.freedesktop.DBus.Introspectable")
    described = agent_interface(path.read_text())
    assert described == agent_interface(live)
    assert sorted(described[0]) == sorted(UI_METHODS + BLUEZ_METHODS)


# --- The bus policy -----------------------------------------------------------------------------

@pytest.fixture
def guarded(make_world, installed, tmp_path):
    gid, launcher = simenv.ui_group(UI_GROUP, tmp_path)
    policy_dir = installed / PREFIX.lstrip("/") / "share" / "dbus-1" / "system.d"
    world = make_world(bus_config=simenv.guarded_bus_config(policy_dir), bus_launcher=launcher)
    os.chmod(world.workdir, 0o755)
    # Other users must reach the bus socket and the caller script, with the names it imports.
    shutil.copy(os.path.join(HERE, "bus_peer.py"), world.workdir)
    shutil.copy(simenv.__file__, world.workdir)
    world.ui_gid = gid
    world.start_agent()
    return world


def bus_peer(world, groups):
    return as_user(groups) + [DEBIAN_PYTHON, os.path.join(world.workdir, "bus_peer.py"),
                              world.bus.address]


def peer_env(**extra):
    """A small environment for another user's process; a sanitized run's options go along."""
    keep = ("PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS")
    return dict({k: v for k, v in os.environ.items() if k in keep},
                PYTHONDONTWRITEBYTECODE="1", **extra)


def peer(world, groups, *args):
    done = subprocess.run(bus_peer(world, groups) + list(args), capture_output=True, text=True,
                          timeout=120, env=peer_env())
    assert done.returncode == 0, done.stderr
    return [json.loads(line) for line in done.stdout.splitlines()]


def calls(world, groups, methods):
    return {r["method"]: r.get("error", "ok") for r in peer(world, groups, "call", *methods)}


class Listener:
    """Another user listening for the daemon's signals."""

    def __init__(self, world, groups, seconds=4):
        self.proc = subprocess.Popen(bus_peer(world, groups) + ["listen", str(seconds)],
                                     stdout=subprocess.PIPE, text=True, env=peer_env())
        assert self.proc.stdout.readline().strip() == "ready"

    def signals(self):
        out, _ = self.proc.communicate(timeout=60)
        return json.loads(out)["signals"]


def make_every_signal(world):
    """Root plays BlueZ and the user interface: a pairing question, a passkey to type, a
    cancelled question, a device list, power."""
    world.agent.expect("BluetoothPairingAgent: pairing_agent::RequestConfirmation",
                       "BluetoothPairingAgent: pairing_agent::DisplayPasskey")
    ui = world.client()
    phone = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")
    reply = ui.call_async("RequestConfirmation", phone, dbus.UInt32(123456))
    ui.wait_signal("RequestUserConfirmation")
    ui.call("userConfirmation", True)
    assert reply.wait().values == [True]
    ui.call_async("DisplayPasskey", phone, dbus.UInt32(4711), dbus.UInt16(0)).wait()
    ui.call_async("Cancel").wait()
    ui.call("getDevices")
    ui.call("setPower", True)
    ui.wait_signal("PowerStateChanged")
    pump(0.2)
    return sorted({member for member, _ in ui.signals})


def test_root_owns_the_name_and_gets_answers(guarded):
    conn = guarded.bus.connect()
    owner = conn.get_name_owner(AGENT_SERVICE)
    pid = conn.call_blocking("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "GetConnectionUnixProcessID", "s", [owner])
    assert pid == guarded.agent.pid
    assert guarded.client().call("getPower") is True
    assert make_every_signal(guarded) == ["BluetoothDevices", "DisplayUserPasskey",
                                          "PowerStateChanged", "RequestCancelled",
                                          "RequestUserConfirmation"]


def test_ui_group_gets_its_methods_and_every_signal(guarded):
    group = [guarded.ui_gid]
    listener = Listener(guarded, group)
    results = calls(guarded, group, UI_METHODS + ["org.freedesktop.DBus.Introspectable.Introspect"])
    assert set(results.values()) == {"ok"}, results
    sent = make_every_signal(guarded)
    assert sorted(set(listener.signals())) == sent
    # It cannot pose as BlueZ, nor take the daemon's name.
    assert set(calls(guarded, group, BLUEZ_METHODS).values()) == {DENIED}
    assert peer(guarded, group, "own", AGENT_SERVICE) == [{"error": DENIED}]


def test_everyone_else_gets_nothing(guarded):
    outsider = Listener(guarded, [])
    member = Listener(guarded, [guarded.ui_gid])
    results = calls(guarded, [], UI_METHODS + BLUEZ_METHODS
                    + ["org.freedesktop.DBus.Introspectable.Introspect"])
    assert set(results.values()) == {DENIED}, results
    make_every_signal(guarded)
    assert outsider.signals() == []
    assert member.signals() != []
    assert peer(guarded, [], "own", AGENT_SERVICE) == [{"error": DENIED}]
    assert guarded.agent.proc.poll() is None


def test_ctl_tells_who_may_not_talk_to_the_daemon(guarded):
    # A copy in the world's folder, which other users can read.
    *launcher, binary = program("BLUETOOTH_AGENTCTL")
    ctl = launcher + [shutil.copy(binary, guarded.workdir)]

    def run(groups, *args):
        return subprocess.run(as_user(groups) + ctl + list(args), capture_output=True, text=True,
                              timeout=60, env=peer_env(DBUS_SYSTEM_BUS_ADDRESS=guarded.bus.address))

    for args in [["power"], ["monitor"], ["confirm", "yes"]]:
        done = run([], *args)
        assert done.returncode == 4 and "not allowed to talk to bluetooth-agent" in done.stderr
    member = run([guarded.ui_gid], "power")
    assert (member.returncode, member.stdout) == (0, "on\n")
