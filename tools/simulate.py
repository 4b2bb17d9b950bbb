"""bluetooth-agent on the simulated default, for a person at the keyboard: a private system bus,
a simulated BlueZ with adapter hci0 and a paired phone, and the daemon in its sandbox. Prints the
daemon's log and every signal it sends, until Ctrl-C tears everything down."""

import os
import signal
import sys
import time

import simenv

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_ALIAS = "Simulated Phone"


def say(source, text):
    print(f"{time.strftime('%H:%M:%S')} {source:<7} {text}", flush=True)


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
        ui = world.client()
        say("agent", f"bluetooth-agent runs (pid {agent.pid}), default agent of the simulated BlueZ")
        bus = world.bus.address
        print(f"""
A user interface talks to it on the system bus, here the private one:
  export DBUS_SYSTEM_BUS_ADDRESS='{bus}'
  gdbus call --system --dest com.quorvane.BluetoothAgent --object-path /BluetoothAgent \\
      --method org.bluez.Agent1.getDevices
  gdbus monitor --system --dest com.quorvane.BluetoothAgent
Ctrl-C stops everything.
""", flush=True)
        seen = 0
        while agent.proc.poll() is None:
            simenv.pump(0.1)
            log.poll()
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
