"""bluetooth-agent on the simulated default, for a person at the keyboard: a private system bus,
a simulated BlueZ with adapter hci0 and a paired phone, and the daemon in its sandbox. The phone
sends a file, which lands in the print spool. Prints the daemon's log, every signal it sends and
every file that reaches the spool, until Ctrl-C tears everything down."""

import os
import signal
import sys
import time

import simenv

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_ALIAS = "Simulated Phone"


def say(source, text):
    print(f"{time.strftime('%H:%M:%S')} {source:<7} {text}", flush=True)


class SpoolWatcher:
    """Prints each file that appears in the print spool."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.seen = set()

    def poll(self):
        for name in sorted(set(os.listdir(self.sandbox.www)) - self.seen):
            if not name.startswith("."):  # still being written under its hidden name
                self.seen.add(name)
                say("spool", f"new file {name} in {self.sandbox.www}")


class LogFollower:
    """Prints what the daemon writes to its log as it comes."""

    def __init__(self, path):
        self.path = path
        self.offset = 0

    def poll(self):
        with open(self.path, "rb") as f:
            f.seek(self.offset)
            data = f.read()
        complete = data[:data.rfind(b"\n") + 1]
        self.offset += len(complete)
        for line in complete.decode("utf-8", "replace").splitlines():
            say("daemon", line)


def main():
    # Ctrl-C or a TERM ends the loop below; the teardown then stops every process.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    world = simenv.World(hostname=b"embosser\n")
    try:
        world.bluez.add_device(PHONE, PHONE_ALIAS, paired=True)
        say("bluez", f"adapter hci0, phone {PHONE_ALIAS!r} {PHONE} (paired)")
        agent = world.start_agent()
        log = LogFollower(agent.log_path)
        spool = SpoolWatcher(world.sandbox)
        ui = world.client()
        say("agent", f"bluetooth-agent runs (pid {agent.pid}), default agent of the simulated BlueZ")
        bus = world.bus.address
        print(f"""
A user interface talks to it on the system bus, here the private one:
  export DBUS_SYSTEM_BUS_ADDRESS='{bus}'
  gdbus call --system --dest com.quorvane.BluetoothAgent --object-path /BluetoothAgent \\
      --method org.bluez.Agent1.getDevices
  gdbus monitor --system --dest com.quorvane.BluetoothAgent
A phone sends a file when one is written into the receive folder, for example:
  cp README.md '{world.sandbox.obex}/readme.txt'
Ctrl-C stops everything.
""", flush=True)
        world.sandbox.drop("welcome.brf", b"  ,welcome to the embosser\n")
        say("bluez", f"{PHONE_ALIAS!r} sends welcome.brf into {world.sandbox.obex}")
        seen = 0
        while agent.proc.poll() is None:
            simenv.pump(0.1)
            log.poll()
            spool.poll()
            for member, args in ui.signals[seen:]:
                say("signal", f"{member}({', '.join(repr(a) for a in args)})")
            seen = len(ui.signals)
        log.poll()
        say("agent", f"bluetooth-agent exited with {agent.proc.returncode}")
        return 1
    except KeyboardInterrupt:
        return 0
    finally:
        world.stop()
        say("sim", "stopped: bus, simulated BlueZ and daemon are gone")


if __name__ == "__main__":
    os.environ.setdefault("BLUETOOTH_AGENT", "build/src/bluetooth-agent")
    sys.exit(main())
