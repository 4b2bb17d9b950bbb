# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""python-dbusmock template: BlueZ as the systemd tests' bluetooth.service runs it. The bluez5
template, with the adapter hci0 at start or `adapter_delay` seconds later (a controller that
comes up late), and an agent manager that takes a new registration of a path it knows, since
bluetoothd forgets an agent whose owner left the bus."""

from dbusmock import mockobject
from dbusmock.templates import bluez5
from gi.repository import GLib

BUS_NAME = bluez5.BUS_NAME
MAIN_OBJ = bluez5.MAIN_OBJ
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True
AddAdapter = bluez5.AddAdapter
AddDevice = bluez5.AddDevice
PairDevice = bluez5.PairDevice
ConnectDevice = bluez5.ConnectDevice
DisconnectDevice = bluez5.DisconnectDevice


def load(mock, parameters):
    bluez5.load(mock, parameters)
    manager = mockobject.objects["/org/bluez"]
    manager.AddMethod(bluez5.AGENT_MANAGER_IFACE, "RegisterAgent", "os", "",
                      "self.agent_paths = [p for p in self.agent_paths if p != args[0]]"
                      " + [args[0]]")

    def add_adapter():
        mock.AddAdapter("hci0", "bluetoothd stand-in")
        return False

    # Once the mock runs: the object manager it adds the adapter to is not there before.
    delay = parameters.get("adapter_delay", 0)
    if delay:
        GLib.timeout_add_seconds(delay, add_adapter)
    else:
        GLib.idle_add(add_adapter)
