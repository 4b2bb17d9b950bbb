# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agent-obex, the OBEX receiver's agent, against a simulated obexd on a private session
bus, in the fixed-path sandbox: only a push that obexd reports complete, with its announced length,
reaches the receive folder, by a rename that replaces nothing; everything else is removed. Its log
lines carry the journal priority the unit gives them: pushes log nothing at warning or worse."""

import os

import dbus
import dbus.service

from simenv import Reply, program, wait_until

TRANSFER = "org.bluez.obex.Transfer1"
REJECTED = "org.bluez.obex.Error.Rejected"
LOG = "<6>BluetoothObexAgent: "
ROUTINE = [LOG + line for line in ("waiting for obexd", "registered with obexd", "push accepted:",
                                   "published:", "dropped:", "push refused, it has no length:")]


def unit_message_pattern():
    """The unit's QT_MESSAGE_PATTERN: each line starts with its level's journal priority."""
    unit = os.path.join(os.environ["BLUETOOTH_AGENT_BUILD_DIR"], "data",
                        "bluetooth-agent-obex.service")
    line = next(line for line in open(unit, encoding="utf-8") if "QT_MESSAGE_PATTERN=" in line)
    return line.split("QT_MESSAGE_PATTERN=", 1)[1].rstrip('"\n').replace("%%", "%")


def emit(conn, path, interface, member, signature, *args):
    signal = dbus.lowlevel.SignalMessage(path, interface, member)
    signal.append(*args, signature=signature)
    conn.send_message(signal)


class Transfer(dbus.service.Object):
    def __init__(self, conn, path, properties):
        super().__init__(conn, path)
        self.path, self.properties = path, properties

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return self.properties


class Obexd(dbus.service.Object):
    """obexd as its agent meets it: the agent manager, a transfer object per push, AuthorizePush,
    the file written where the agent said (create, write, close), then the transfer's Status."""

    def __init__(self, bus, sandbox):
        self.conn = bus.connect()
        self.sandbox = sandbox
        self.name = dbus.service.BusName("org.bluez.obex", self.conn)
        super().__init__(self.conn, "/org/bluez/obex")
        self.agent, self.count = None, 0

    @dbus.service.method("org.bluez.obex.AgentManager1", in_signature="o", sender_keyword="sender")
    def RegisterAgent(self, path, sender=None):
        self.agent = self.conn.get_object(sender, path, introspect=False)

    def authorize(self, name, size):
        """A phone announces a push (size None: no Length); returns the transfer and the reply,
        whose path is the staged file's as the test sees it."""
        self.count += 1
        properties = {"Name": name, "Status": "queued"}
        if size is not None:
            properties["Size"] = dbus.UInt64(size)
        transfer = Transfer(self.conn, f"/org/bluez/obex/server/session1/transfer{self.count}",
                            properties)
        reply = Reply()
        self.agent.AuthorizePush(dbus.ObjectPath(transfer.path), reply_handler=reply.ok,
                                 error_handler=reply.fail, dbus_interface="org.bluez.obex.Agent1")
        if reply.wait().values:
            staged = reply.values[0]
            assert os.path.dirname(staged) == "/var/spool/lp/obex/.incoming"
            reply.values[0] = self.sandbox.spool + staged[len("/var/spool"):]
        return transfer, reply

    def push(self, name, data, status="complete", size=None):
        """A whole push; returns its reply and the inode obexd wrote, once the agent is done.
        status None: the transfer object goes without a last Status."""
        transfer, reply = self.authorize(name, len(data) if size is None else size)
        if reply.error:
            return reply, None
        with open(reply.values[0], "wb") as f:
            f.write(data)
        inode = os.stat(reply.values[0]).st_ino
        if status:
            emit(self.conn, transfer.path, dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as",
                 TRANSFER, {"Status": status}, dbus.Array([], signature="s"))
        else:
            emit(self.conn, "/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                 "oas", transfer.path, [TRANSFER])
        wait_until(lambda: not os.path.exists(reply.values[0]), what="the agent's decision")
        return reply, inode


def start_agent(world, prefix=()):
    return world.start_agent(wait=False, command=[*prefix, *program("BLUETOOTH_AGENT_OBEX")],
                             env={"DBUS_SESSION_BUS_ADDRESS": world.bus.address,
                                  "QT_MESSAGE_PATTERN": unit_message_pattern()})


def test_only_whole_documents_are_moved_in_and_the_agent_ends_with_obexd(make_world):
    # The agent waits for obexd, with a leftover of an earlier run in staging.
    world = make_world(with_bluez=False)
    staging = os.path.join(world.sandbox.obex, ".incoming")
    os.mkdir(staging)
    open(os.path.join(staging, "push-leftover"), "wb").close()
    agent = start_agent(world).expect(*ROUTINE, LOG + "removed unfinished pushes")
    wait_until(lambda: "waiting for obexd" in agent.log(), what="the agent waiting for obexd")
    obexd = Obexd(world.bus, world.sandbox)
    wait_until(lambda: obexd.agent, what="RegisterAgent")
    assert os.listdir(staging) == []
    names = ["letter.brf", "letter.brf", "../../etc/letter.brf", "notes", "notes", ".."]
    inodes = [obexd.push(name, b"%d" % i)[1] for i, name in enumerate(names)]
    # Broken off, short, lengthless and cancelled pushes leave nothing.
    for name, how in [("error.brf", {"status": "error"}), ("short.brf", {"size": 1 << 20}),
                      ("gone.brf", {"status": None})]:
        assert obexd.push(name, b"partial", **how)[0].error is None
    _, reply = obexd.authorize("no-length.brf", None)
    assert (reply.error, os.listdir(staging)) == (REJECTED, [])
    _, reply = obexd.authorize("cancelled.brf", 10)
    obexd.agent.Cancel(dbus_interface="org.bluez.obex.Agent1")
    wait_until(lambda: not os.path.exists(reply.values[0]), what="the cancelled push removed")
    obex = world.sandbox.obex
    received = {n: open(os.path.join(obex, n), "rb").read() for n in os.listdir(obex)
                if n != ".incoming"}
    published = ["letter.brf", "letter-1.brf", "letter-2.brf", "notes", "notes-1", "unnamed"]
    assert received == {n: b"%d" % i for i, n in enumerate(published)}
    assert inodes == [os.stat(os.path.join(obex, n)).st_ino for n in published]
    assert os.listdir(staging) == []
    # Without obexd the agent is of no use: the unit starts both again.
    world.agent.expect("<4>BluetoothObexAgent: obexd left the session bus")
    obexd.conn.close()
    assert world.agent.proc.wait(30) == 1
    # obexd is the agent's child under the receiver's start script: its end ends the agent too,
    # said once however many ways it is seen (here off the bus and ended, at once).
    child = ("(sleep 0.5; gdbus call --session --dest org.freedesktop.DBus --object-path "
             "/org/freedesktop/DBus --method org.freedesktop.DBus.RequestName org.bluez.obex 0 "
             '>/dev/null) & exec "$@"')
    agent = start_agent(make_world(with_bluez=False), ["sh", "-c", child, "sh"])
    agent.expect(LOG + "waiting for obexd", "<4>BluetoothObexAgent: obexd")
    assert agent.proc.wait(30) == 1
    assert len([line for line in agent.lines() if line.startswith("<4>")]) == 1, agent.lines()
