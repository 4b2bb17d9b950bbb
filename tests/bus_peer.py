# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Another process calling bluetooth-agent: for the access tests as another user (setpriv), and
as a user interface busy in a loop. Prints one JSON line per result for the test to read.

  bus_peer.py ADDRESS call METHOD...   each method called with sample arguments:
                                       {"method": M, "ok": [values]} or {"method": M, "error": N}
  bus_peer.py ADDRESS own NAME         {"ok": reply} or {"error": N}
  bus_peer.py ADDRESS listen SECONDS   "ready", then after SECONDS: {"signals": [members]}
"""

import json
import sys
import time

import dbus
from gi.repository import GLib

from simenv import AGENT_IFACE as IFACE, AGENT_PATH as PATH, AGENT_SERVICE as SERVICE
PHONE = dbus.ObjectPath("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01")

SAMPLE_ARGS = {
    "Release": [], "RequestPinCode": [PHONE], "DisplayPinCode": [PHONE, "1234"],
    "RequestPasskey": [PHONE], "DisplayPasskey": [PHONE, dbus.UInt32(1), dbus.UInt16(1)],
    "RequestConfirmation": [PHONE, dbus.UInt32(1)], "RequestAuthorization": [PHONE],
    "AuthorizeService": [PHONE, "uuid"], "Cancel": [], "SetDiscoverable": [False],
    "userConfirmation": [False], "userSuppliedPin": [False, ""], "getPower": [],
    "setPower": [True], "forgetDevice": ["00:00:00:00:00:00"], "getDevices": [],
    "org.freedesktop.DBus.Introspectable.Introspect": [],
}


def emit(result):
    print(json.dumps(result), flush=True)


def call(conn, method):
    iface, _, name = method.rpartition(".")
    proxy = conn.get_object(SERVICE, PATH, introspect=False)
    try:
        # Agent questions are left unanswered by design: a short time-out is enough to see that
        # the call got through.
        values = proxy.get_dbus_method(name, iface or IFACE)(*SAMPLE_ARGS[method], timeout=2)
        emit({"method": method, "ok": json.loads(json.dumps(values, default=str))})
    except dbus.exceptions.DBusException as e:
        emit({"method": method, "error": e.get_dbus_name()})


def main():
    address, command, *args = sys.argv[1:]
    conn = dbus.bus.BusConnection(address)
    if command == "call":
        for method in args:
            call(conn, method)
    elif command == "own":
        try:
            emit({"ok": int(conn.request_name(args[0], dbus.bus.NAME_FLAG_DO_NOT_QUEUE))})
        except dbus.exceptions.DBusException as e:
            emit({"error": e.get_dbus_name()})
    elif command == "listen":
        received = []
        conn.add_signal_receiver(lambda *_, member=None: received.append(member),
                                 dbus_interface=IFACE, member_keyword="member")
        # The bus handles a connection's messages in order: once it answered, the match is set.
        conn.get_name_owner("org.freedesktop.DBus")
        print("ready", flush=True)
        deadline = time.monotonic() + float(args[0])
        context = GLib.MainContext.default()
        while time.monotonic() < deadline:
            context.iteration(False) or time.sleep(0.01)
        emit({"signals": received})


if __name__ == "__main__":
    main()
