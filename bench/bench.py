# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Measures bluetooth-agent on the simulated default and prints each figure next to a floor
measured in the same run: a minimal program doing the same job.

Needs the programs of a build with -DBLUETOOTH_AGENT_BENCH=ON: $BLUETOOTH_AGENT and
$BENCH_DIR (the folder of bench-driver and the floors). bench/run does it all.
"""

import glob
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tools"))

import simenv  # noqa: E402

BENCH_DIR = os.environ.get("BENCH_DIR", "")
DAEMON = os.environ.get("BLUETOOTH_AGENT", "")
PAIRING_REQUESTS = 2000
INTAKE = [("4 KiB", 4 << 10, 300), ("1 MiB", 1 << 20, 100), ("64 MiB", 64 << 20, 10)]
STARTS = 15
IDLE_SECONDS = 10


def bench_program(name):
    return os.path.join(BENCH_DIR, name)


class Running:
    """A program in the sandbox of a fresh simulated world (BlueZ with hci0, one paired phone)."""

    def __init__(self, argv, ready):
        self.world = simenv.World()
        self.world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
        self.log = open(os.path.join(self.world.workdir, "program.log"), "w+b")
        self.proc = subprocess.Popen(self.world.sandbox.wrap(argv), env=self.world.bus.env,
                                     stdout=subprocess.PIPE if ready == "stdout" else self.log,
                                     stderr=self.log, start_new_session=True)
        if ready == "stdout":
            assert self.proc.stdout.readline().strip() == b"ready"
        elif ready == "watch":  # the daemon's start-up ends with the file monitor's watch
            simenv.wait_until(lambda: self.proc.poll() is not None
                              or simenv.watching(self.proc.pid), 30, "the watch")
        elif ready == "agent":
            simenv.wait_until(lambda: self.proc.poll() is not None or self.world.bluez.calls(
                "/org/bluez", "RequestDefaultAgent"), 30, "the default agent")
        else:
            conn = self.world.bus.connect()
            simenv.wait_until(lambda: conn.name_has_owner(simenv.AGENT_SERVICE), 30, "the name")
        assert self.proc.poll() is None, f"{argv[0]} exited with {self.proc.returncode}"
        self.pid = self.proc.pid

    def drive(self, *args):
        done = subprocess.run([bench_program("bench-driver"), *args], env=self.world.bus.env,
                              capture_output=True, text=True, check=True)
        return [int(line) for line in done.stdout.split()]

    def stop(self):
        simenv.stop_process(self.proc)
        self.log.close()
        self.world.stop()


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def measure_pairing(argv, ready):
    running = Running(argv, ready)
    try:
        latencies = running.drive("pairing", str(PAIRING_REQUESTS))
    finally:
        running.stop()
    return percentile(latencies, 50) / 1e3, percentile(latencies, 99) / 1e3


def measure_intake(argv, ready):
    running = Running(argv, ready)
    try:
        return {label: statistics.median(running.drive(
                    "intake", str(size), str(count), running.world.sandbox.obex,
                    running.world.sandbox.www)) / 1e6
                for label, size, count in INTAKE}
    finally:
        running.stop()


def status_kib(pid, field):
    with open(f"/proc/{pid}/status", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith(field + ":")).split()[1])


def measure_peak(argv, ready):
    """Peak RSS over idle (MiB) while a sparse 1 GiB file is taken."""
    running = Running(argv, ready)
    try:
        time.sleep(1)
        idle = status_kib(running.pid, "VmRSS")
        sandbox = running.world.sandbox
        with open(os.path.join(sandbox.obex, "big.pdf"), "wb") as f:
            f.truncate(1 << 30)
        simenv.wait_until(lambda: sandbox.received() == [], 300, "the 1 GiB file taken")
        return (status_kib(running.pid, "VmHWM") - idle) / 1024
    finally:
        running.stop()


def task_counters(pid):
    """Context switches (wake-ups) and CPU time (ns) summed over every thread of pid."""
    switches = cpu = 0
    for task in glob.glob(f"/proc/{pid}/task/*"):
        with open(f"{task}/status", encoding="ascii") as f:
            for line in f:
                if line.startswith(("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches")):
                    switches += int(line.split()[1])
        with open(f"{task}/schedstat", encoding="ascii") as f:
            cpu += int(f.read().split()[0])
    return switches, cpu


def measure_idle(argv, ready):
    running = Running(argv, ready)
    try:
        time.sleep(2)  # let start-up settle
        with open(f"/proc/{running.pid}/smaps_rollup", encoding="ascii") as f:
            rollup = {line.split(":")[0]: int(line.split()[1]) for line in f if "kB" in line}
        with open(f"/proc/{running.pid}/status", encoding="ascii") as f:
            threads = int(next(line for line in f if line.startswith("Threads:")).split()[1])
        switches, cpu = task_counters(running.pid)
        time.sleep(IDLE_SECONDS)
        switches_after, cpu_after = task_counters(running.pid)
    finally:
        running.stop()
    return {"RSS (KiB)": rollup["Rss"], "PSS (KiB)": rollup["Pss"],
            "private (KiB)": rollup["Private_Clean"] + rollup["Private_Dirty"],
            # Its own data; the clean part counts library pages no other process maps.
            "private dirty (KiB)": rollup["Private_Dirty"],
            "threads": threads, f"wake-ups in {IDLE_SECONDS} s": switches_after - switches,
            f"CPU in {IDLE_SECONDS} s (ms)": (cpu_after - cpu) / 1e6}


def measure_startup(program):
    """Median time from exec until the simulated BlueZ is asked to make it the default agent."""
    times = []
    for _ in range(STARTS):
        world = simenv.World()
        try:
            world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
            asked = []
            world.bluez.conn.add_signal_receiver(
                lambda name, _args: name == "RequestDefaultAgent" and asked.append(
                    time.monotonic_ns()),
                signal_name="MethodCalled", dbus_interface=simenv.MOCK_IFACE, path="/org/bluez")
            world.bluez.conn.get_name_owner("org.bluez")  # the match rule is in place
            stamp = os.path.join(world.workdir, "exec-stamp")
            proc = subprocess.Popen(world.sandbox.wrap(
                [simenv.DEBIAN_PYTHON, os.path.join(HERE, "exec_timed.py"), stamp, program]),
                env=world.bus.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                start_new_session=True)
            simenv.wait_until(lambda: asked, 30, "the default-agent request")
            with open(stamp, encoding="ascii") as f:
                times.append((asked[0] - int(f.read())) / 1e6)
            simenv.stop_process(proc)
        finally:
            world.stop()
    return statistics.median(times)


def main():
    daemon = [DAEMON]
    rows = []
    print("measuring the pairing relay ...", file=sys.stderr, flush=True)
    agent_p50, agent_p99 = measure_pairing(daemon, "watch")
    floor_p50, floor_p99 = measure_pairing([bench_program("bench-floor-agent")], "name")
    rows.append(("pairing relay p50 (µs)", agent_p50, floor_p50, "<= 1.2x"))
    rows.append(("pairing relay p99 (µs)", agent_p99, floor_p99, "<= 1.2x"))

    print("measuring the received-file intake ...", file=sys.stderr, flush=True)
    agent_intake = measure_intake(daemon, "watch")
    floor_intake = measure_intake([bench_program("bench-floor-intake")], "stdout")
    for label, _, count in INTAKE:
        rows.append((f"intake {label}, close to signal, median of {count} (ms)",
                     agent_intake[label], floor_intake[label],
                     "<= 1.1x" if label == "64 MiB" else "<= 1.3x"))

    rows.append(("intake 1 GiB, peak RSS over idle (MiB)", measure_peak(daemon, "watch"),
                 measure_peak([bench_program("bench-floor-intake")], "stdout"), "<= 64 MiB"))

    print(f"measuring idle ({IDLE_SECONDS} s each) ...", file=sys.stderr, flush=True)
    agent_idle = measure_idle(daemon, "watch")
    floor_idle = measure_idle([bench_program("bench-floor-startup")], "agent")
    for key, value in agent_idle.items():
        goal = "0" if key.startswith("wake-ups") else "<= 1.2x"
        rows.append((f"idle {key}", value, floor_idle[key], goal))

    print(f"measuring start-up ({STARTS} starts each) ...", file=sys.stderr, flush=True)
    rows.append(("start-up, exec to default agent, median (ms)", measure_startup(DAEMON),
                 measure_startup(bench_program("bench-floor-startup")), "<= 1.2x"))

    print(f"\n{'measure':<52} {'bluetooth-agent':>15} {'floor':>10} {'ratio':>7}  goal")
    for name, value, floor, goal in rows:
        ratio = f"{value / floor:.2f}" if floor else "-"
        print(f"{name:<52} {value:>15.6g} {floor:>10.6g} {ratio:>7}  {goal}")
    print("\nfloors: pairing = a minimal Qt agent that defers, signals and replies; intake = three "
          "threads with the\ndaemon's hops (watcher, main, copier) that read, write a temporary "
          "file, rename and signal;\nidle and start-up = a minimal Qt program making the same "
          "start-up calls.")


if __name__ == "__main__":
    main()
