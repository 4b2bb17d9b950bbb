# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""bluetooth-agent on the simulated default, the way the embosser's user interface meets it.

A private system bus, a simulated BlueZ with adapter hci0 and a phone, and the daemon in its
sandbox. The phone asks to pair with a numeric comparison, which the person at the keyboard
answers with `bluetooth-agentctl confirm`; then it connects and sends a file, which lands in the
print spool. Everything the user interface sees is printed by `bluetooth-agentctl monitor`.

  simulate.py                  interactive; Ctrl-C tears everything down
  simulate.py --answer yes|no  the same script with a scripted answer; exits 0 when every step
                               was seen, 1 otherwise
"""

import argparse
import os
import queue
import random
import select
import shlex
import signal
import subprocess
import sys
import threading
import time

import dbus

import simenv

PHONE = "AA:BB:CC:DD:EE:01"
PHONE_ALIAS = "Simulated Phone"
PHONE_PATH = "/org/bluez/hci0/dev_" + PHONE.replace(":", "_")
FILE_NAME = "hello.brf"
STEP_TIMEOUT = 30.0


def say(source, text):
    print(f"{time.strftime('%H:%M:%S')} {source:<7} {text}", flush=True)


class StepFailed(Exception):
    pass


class Monitor:
    """`bluetooth-agentctl monitor`: the user interface's view, printed as it comes."""

    def __init__(self, env):
        self.proc = subprocess.Popen(simenv.ctl_command() + ["monitor"], env=env,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                     start_new_session=True)
        self.lines = []
        self.fresh = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.fresh.put(line.rstrip("\n"))

    def poll(self):
        while not self.fresh.empty():
            line = self.fresh.get()
            self.lines.append(line)
            say("ui", line)

    def stop(self):
        simenv.stop_process(self.proc)


class Simulation:
    def __init__(self, world, answer):
        self.world = world
        self.answer = answer
        self.env = world.bus.env
        self.log = LogFollower(world)
        self.monitor = Monitor(self.env)
        self.spool = SpoolWatcher(world.sandbox)

    def poll(self):
        simenv.pump(0.05)
        self.monitor.poll()
        self.log.poll()
        self.spool.poll()

    def wait_for(self, what, predicate, timeout=STEP_TIMEOUT):
        deadline = time.monotonic() + timeout
        while not predicate():
            if time.monotonic() > deadline:
                raise StepFailed(f"not seen within {timeout:.0f} s: {what}")
            if self.world.agent.proc.poll() is not None:
                raise StepFailed(f"bluetooth-agent exited with {self.world.agent.proc.returncode}")
            self.poll()

    def seen(self, text):
        return lambda: any(text in line for line in self.monitor.lines)

    def ctl(self, *args):
        say("ui", "$ bluetooth-agentctl " + shlex.join(args))
        done = subprocess.run(simenv.ctl_command() + list(args), env=self.env,
                              capture_output=True, text=True)
        for line in (done.stdout + done.stderr).splitlines():
            say("ui", "  " + line)
        if done.returncode != 0:
            raise StepFailed(f"bluetooth-agentctl {' '.join(args)} exited with {done.returncode}")
        return done.stdout

    def run(self):
        bluez = self.world.bluez
        self.wait_for("the monitor", self.seen("watching bluetooth-agent"))
        self.print_how_to_talk()

        passkey = random.randrange(1000000)
        say("step", f"1. {PHONE_ALIAS!r} asks to pair; it shows the number {passkey:06d}")
        ui_as_bluez = self.world.client()
        reply = ui_as_bluez.call_async("RequestConfirmation", dbus.ObjectPath(PHONE_PATH),
                                       dbus.UInt32(passkey), timeout=3600)
        self.wait_for("the pairing question", self.seen(f"RequestUserConfirmation passkey {passkey:06d}"))
        self.take_answer(reply)
        if reply.error:
            say("bluez", f"pairing refused ({reply.error}); {PHONE_ALIAS!r} gives up")
            return
        bluez.root.PairDevice("hci0", PHONE, 5898764, dbus_interface=simenv.BLUEZ_MOCK_IFACE)
        say("bluez", f"pairing accepted: {PHONE_ALIAS!r} is paired")

        say("step", f"2. {PHONE_ALIAS!r} connects")
        bluez.update_device(PHONE_PATH, Connected=True)
        self.wait_for("the connection", self.seen(f'ConnectionStatus "{PHONE_ALIAS}" connected'))

        say("step", "3. the user interface asks for the paired devices")
        if PHONE not in self.ctl("devices"):
            raise StepFailed(f"{PHONE} is not among the paired devices")

        say("step", f"4. {PHONE_ALIAS!r} sends {FILE_NAME}")
        self.world.sandbox.drop(FILE_NAME, b",hello from the phone\n")
        self.wait_for("the transfer", self.seen(f'TransferComplete "{FILE_NAME}"'))
        self.wait_for("the spooled copy", lambda: self.spool.seen)
        say("step", "done: paired, connected, and the file is in the print spool")

    def take_answer(self, reply):
        if self.answer:
            self.ctl("confirm", self.answer)
        else:
            print("\nAnswer as the user interface would: type yes or no here, or in another "
                  "terminal run\n  bluetooth-agentctl confirm yes    (or no, after the export "
                  "line above)\n", flush=True)
        while not reply.done:
            self.poll()
            if not self.answer and select.select([sys.stdin], [], [], 0)[0]:
                word = sys.stdin.readline().strip().lower()
                if word in ("yes", "no"):
                    self.ctl("confirm", word)
                elif word:
                    print("yes or no?", flush=True)
        say("bluez", "got " + (f"the error {reply.error}" if reply.error else f"{reply.values}"))

    def print_how_to_talk(self):
        ctl = os.environ["BLUETOOTH_AGENTCTL"]
        print(f"""
The user interface's view comes from `bluetooth-agentctl monitor` (lines marked "ui").
Talk to the daemon yourself from another terminal:
  export DBUS_SYSTEM_BUS_ADDRESS='{self.world.bus.address}'
  alias bluetooth-agentctl='{os.path.abspath(ctl)}'
  bluetooth-agentctl devices        # or: power, discoverable on, forget {PHONE}, --help
A phone sends a file when one is written into the receive folder, for example:
  cp README.md '{self.world.sandbox.obex}/readme.txt'
""", flush=True)

    def stop(self):
        self.monitor.stop()


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

    def __init__(self, world):
        self.path = world.agent.log_path
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
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--answer", choices=["yes", "no"],
                        help="answer the pairing question with this, then exit")
    args = parser.parse_args()
    # Ctrl-C or a TERM ends the run; the teardown then stops every process.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    world = simenv.World(hostname=b"embosser\n")
    simulation = None
    try:
        world.bluez.add_device(PHONE, PHONE_ALIAS)
        say("bluez", f"adapter hci0, phone {PHONE_ALIAS!r} {PHONE} in range, not paired")
        world.start_agent()
        say("agent", f"bluetooth-agent runs (pid {world.agent.pid}), the default agent of BlueZ")
        simulation = Simulation(world, args.answer)
        simulation.run()
        if args.answer:
            return 0
        print("\nThe script is done; the daemon keeps running. Ctrl-C stops everything.",
              flush=True)
        while world.agent.proc.poll() is None:
            simulation.poll()
        say("agent", f"bluetooth-agent exited with {world.agent.proc.returncode}")
        return 1
    except StepFailed as failure:
        say("sim", f"FAILED: {failure}")
        return 1
    except KeyboardInterrupt:
        return 0
    finally:
        if simulation:
            simulation.poll()
            simulation.stop()
        world.stop()
        say("sim", "stopped: bus, simulated BlueZ, daemon and monitor are gone")


if __name__ == "__main__":
    sys.exit(main())
