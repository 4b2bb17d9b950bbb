# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Measures bluetooth-agent on the simulated default and prints each figure next to a floor
measured in the same run: a minimal program doing the same job.

The machine is shared and noisy, so a figure and its floor are taken in turn, a request or a
file each, rather than one after the other: whatever else the machine does weighs on both.

Needs the programs of a build with -DBLUETOOTH_AGENT_BENCH=ON: $BLUETOOTH_AGENT and
$BENCH_DIR (the folder of bench-driver and the floors). bench/run does it all.
"""

import collections
import glob
import os
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tools"))

import simenv  # noqa: E402

BENCH_DIR = os.environ.get("BENCH_DIR", "")
DAEMON = os.environ.get("BLUETOOTH_AGENT", "")
PAIRING_REQUESTS = 2000
# The relay idle and under load, in rounds: the load's figures are not those of one quiet or
# busy moment of the machine.
ROUNDS = 5
LOADED_SECONDS = 2
INTAKE = [("4 KiB", 4 << 10, 300), ("1 MiB", 1 << 20, 100), ("64 MiB", 64 << 20, 10)]
STARTS = 15
IDLE_SECONDS = 10
PHONE_PATH = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01"
# BlueZ's side of the load: a device's properties change 100 times a second (a phone's signal
# strength, as BlueZ reports it while it discovers).
PROPERTY_CHANGES = 100
PAIRED = 100
VISITORS = 10000
VISITOR_BATCH = 500
DEVICE_LISTS = 20

# Methods added to the simulated BlueZ, so that it sends at full pace from its own connection
# (a signal from anyone else is not BlueZ's); args are the method's arguments.
START_CHANGES = """
from gi.repository import GLib
self.changes = {'sent': 0, 'start': time.monotonic(), 'on': True}
def tick(state=self.changes, device=objects[args[0]], rate=args[1]):
    while state['sent'] < int((time.monotonic() - state['start']) * rate):
        rssi = dbus.Int16(-40 - state['sent'] % 30, variant_level=1)
        device.EmitSignal(dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
                          ['org.bluez.Device1', dbus.Dictionary({'RSSI': rssi}, signature='sv'),
                           dbus.Array([], signature='s')])
        state['sent'] += 1
    return state['on']
GLib.timeout_add(max(1, 500 // args[1]), tick)
"""
STOP_CHANGES = """
self.changes['on'] = False
ret = (self.changes['sent'], time.monotonic() - self.changes['start'])
"""
# Devices numbered first to first + count - 1: paired and kept (args[2] true), or announced and
# removed at once, as phones passing by.
DEVICES = """
adapter = objects['/org/bluez/hci0']
for i in range(args[0], args[0] + args[1]):
    address = 'BE:AC:%02X:%02X:%02X:%02X' % (i >> 24 & 255, i >> 16 & 255, i >> 8 & 255, i & 255)
    path = self.AddDevice('hci0', address, 'Device %d' % i)
    if args[2]:
        self.PairDevice('hci0', address, 5898764)
    else:
        adapter.RemoveDevice(path)
"""


def bench_program(name):
    return os.path.join(BENCH_DIR, name)


def drive(env, *args):
    """Runs bench-driver: the latencies (ns) of each target it measured, and what else it
    counted, by name."""
    done = subprocess.run([bench_program("bench-driver"), *args], env=env, capture_output=True,
                          text=True, check=True)
    latencies, counted = collections.defaultdict(list), {}
    for first, value in (line.split() for line in done.stdout.splitlines()):
        if first.isdigit():
            latencies[int(first)].append(int(value))
        else:
            counted[first] = float(value)
    return latencies, counted


class Running:
    """A program in the sandbox of a fresh simulated world (BlueZ with hci0, one paired phone),
    and a companion program if given (argv, ready) that shares its world. Their log goes into a
    pipe, as to the journal: a log file on the spool's file system would make each line they
    write wait for the spool's flushes."""

    def __init__(self, argv, ready, spool_size=None, companion=None):
        self.world = simenv.World(spool_size=spool_size)
        self.world.bluez.add_device("AA:BB:CC:DD:EE:01", "Phone One", paired=True)
        self.log = open(os.path.join(self.world.workdir, "program.log"), "w+b")
        log_out, self.log_in = os.pipe()
        self.logger = threading.Thread(target=self._keep_log, args=(log_out,))
        self.logger.start()
        self.procs = []
        try:
            for program in [(argv, ready)] + ([companion] if companion else []):
                self._start(*program)
        except BaseException:
            os.close(self.log_in)
            self.stop()
            raise
        os.close(self.log_in)
        self.pid = self.procs[0].pid
        self.address = self.world.bus.address
        self.sandbox = self.world.sandbox

    def _start(self, argv, ready):
        proc = subprocess.Popen(self.world.sandbox.wrap(argv), env=self.world.bus.env,
                                stdout=subprocess.PIPE if ready == "stdout" else self.log_in,
                                stderr=self.log_in, start_new_session=True)
        self.procs.append(proc)
        if ready == "stdout":
            assert proc.stdout.readline().strip() == b"ready"
        elif ready == "watch":  # the daemon's start-up ends with the file monitor's watch
            simenv.wait_until(lambda: proc.poll() is not None or simenv.watching(proc.pid), 30,
                              "the watch")
        elif ready == "agent":
            simenv.wait_until(lambda: proc.poll() is not None or self.world.bluez.calls(
                "/org/bluez", "RequestDefaultAgent"), 30, "the default agent")
        else:
            conn = self.world.bus.connect()
            simenv.wait_until(lambda: conn.name_has_owner(simenv.AGENT_SERVICE), 30, "the name")
        assert proc.poll() is None, f"{argv[0]} exited with {proc.returncode}"

    def _keep_log(self, pipe):
        # Read now and then, not at every line: the reader's own wake-ups are no cost of theirs.
        while data := os.read(pipe, 1 << 16):
            self.log.write(data)
            time.sleep(0.05)
        os.close(pipe)

    def drive(self, *args):
        return drive(self.world.bus.env, *args)

    def bluez_method(self, name, in_sig, out_sig, code):
        self.world.bluez.root.AddMethod(simenv.BLUEZ_MOCK_IFACE, name, in_sig, out_sig, code,
                                        dbus_interface=simenv.MOCK_IFACE)

    def bluez_call(self, name, *args):
        return self.world.bluez.root.get_dbus_method(name, simenv.BLUEZ_MOCK_IFACE)(
            *args, timeout=600)

    def stop(self):
        for proc in self.procs:
            simenv.stop_process(proc)
        self.logger.join(10)
        self.log.close()
        self.world.stop()


class Programs(list):
    """Several Running programs at once, all stopped at the end of a with block."""

    def __init__(self, *programs):
        super().__init__()
        try:
            for program in programs:
                self.append(Running(*program))
        except BaseException:
            self.__exit__()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for running in self:
            running.stop()


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(p / 100 * (len(ordered) - 1))))]


def measure_relay():
    """The pairing relay (µs): p50 and p99 of the daemon and of the floor agent, asked in turn,
    and of both under the same load (the floor with a durable intake floor beside it), in
    rounds that alternate with the idle ones; and the rates the load reached (per second)."""
    durable_intake = ([bench_program("bench-floor-intake"), "--durable"], "stdout")
    with Programs(([DAEMON], "watch"),
                  ([bench_program("bench-floor-agent")], "name", None, durable_intake)) as both:
        for running in both:
            running.bluez_method("StartChanges", "ou", "", START_CHANGES)
            running.bluez_method("StopChanges", "", "ud", STOP_CHANGES)
        idle, loaded = collections.defaultdict(list), collections.defaultdict(list)
        counted, changes, seconds = collections.Counter(), 0, 0
        for _ in range(ROUNDS):
            latencies, _ = both[0].drive("pairing", str(PAIRING_REQUESTS // ROUNDS),
                                         *(running.address for running in both))
            for target, values in latencies.items():
                idle[target] += values
            for target, running in enumerate(both):
                running.bluez_call("StartChanges", PHONE_PATH, PROPERTY_CHANGES)
                try:
                    latencies, load = running.drive("pairing-loaded", str(LOADED_SECONDS),
                                                    running.sandbox.obex, running.sandbox.www)
                finally:
                    sent, elapsed = running.bluez_call("StopChanges")
                loaded[target] += latencies[0]
                if target == 0:
                    counted.update(load)
                    changes, seconds = changes + sent, seconds + elapsed
    quantiles = lambda values: {p: percentile(values, p) / 1e3 for p in (50, 99)}  # noqa: E731
    rates = {name: counted[name] / counted["seconds"]
             for name in ("documents", "lists", "statuses")}
    rates["changes"] = changes / seconds
    rates["unspooled"] = counted["documents"] - counted["spooled"]
    return ([quantiles(idle[target]) for target in (0, 1)],
            [quantiles(loaded[target]) for target in (0, 1)], len(loaded[0]), rates)


def measure_intake(programs):
    """Median close-to-signal time (ms) of each program for each size, files sent in turn."""
    with Programs(*programs) as running:
        targets = [part for r in running for part in (r.address, r.sandbox.obex, r.sandbox.www)]
        medians = {}
        for label, size, count in INTAKE:
            latencies, _ = running[0].drive("intake", str(size), str(count), *targets)
            medians[label] = [statistics.median(latencies[t]) / 1e6 for t in range(len(running))]
        return medians


def io_written(pid):
    """Bytes the process wrote: write(), copy_file_range() and the like all count."""
    with open(f"/proc/{pid}/io", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith("wchar:")).split()[1])


def measure_oversize():
    """A document too big for the room left in a 16 MiB spool (an 8 MiB job not printed yet),
    ten small ones behind it; then the job is printed. Bytes the daemon wrote and bytes spooled
    (MiB), and how many small ones were spooled before the big one."""
    with Programs(([DAEMON], "watch", 16 << 20)) as (running,):
        ui = running.world.client()
        printing = f"/proc/{running.pid}/root/var/spool/lp/www/printing.pdf"
        with open(printing, "wb") as f:
            f.write(b"p" * (8 << 20))
        written = io_written(running.pid)
        documents = {"big.pdf": 12 << 20, **{f"small{i}.txt": 4 << 10 for i in range(10)}}
        for name, size in documents.items():
            running.sandbox.drop(name, b"d" * size)
        ui.wait_signal("TransferComplete", 10, timeout=60)
        # The spooler takes its time: the big one waits, and the spool is asked again meanwhile.
        simenv.pump(4)
        os.remove(printing)
        order = [args[0] for args in ui.wait_signal("TransferComplete", 11, timeout=60)]
        return ((io_written(running.pid) - written) / (1 << 20),
                sum(documents.values()) / (1 << 20), order.index("big.pdf"))


def status_kib(pid, field):
    with open(f"/proc/{pid}/status", encoding="ascii") as f:
        return int(next(line for line in f if line.startswith(field + ":")).split()[1])


def measure_devices():
    """The device list with 100 paired devices after 10,000 others came and went: the slowest
    of 20 asks (ms) and its size; RSS (KiB) after 10,000 and after 20,000 came and went."""
    with Programs(([DAEMON], "watch")) as (running,):
        running.bluez_method("AddDevices", "uub", "", DEVICES)
        # Through the daemon's queue: what BlueZ sent before is all taken in.
        daemon = running.world.bus.connect().get_object(simenv.AGENT_SERVICE, simenv.AGENT_PATH)

        def come_and_go(first):
            # A batch at a time, each taken in before the next comes: a backlog of thousands of
            # signals would measure the queue's peak rather than what the devices left behind.
            for batch in range(first, first + VISITORS, VISITOR_BATCH):
                running.bluez_call("AddDevices", batch, VISITOR_BATCH, False)
                daemon.getDevices(dbus_interface=simenv.AGENT_IFACE, timeout=600)
            return status_kib(running.pid, "VmRSS")

        running.bluez_call("AddDevices", 0, PAIRED, True)
        rss = come_and_go(PAIRED)
        latencies, counted = running.drive("devices", str(DEVICE_LISTS))
        return (max(latencies[0]) / 1e6, int(counted["listed"]), rss,
                come_and_go(PAIRED + VISITORS))


def measure_peak(argv, ready):
    """Peak RSS over idle (MiB) while a sparse 1 GiB file is taken."""
    with Programs((argv, ready)) as (running,):
        time.sleep(1)
        idle = status_kib(running.pid, "VmRSS")
        with open(os.path.join(running.sandbox.obex, "big.pdf"), "wb") as f:
            f.truncate(1 << 30)
        simenv.wait_until(lambda: running.sandbox.received() == [], 300, "the 1 GiB file taken")
        return (status_kib(running.pid, "VmHWM") - idle) / 1024


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


def measure_idle(*programs):
    """The footprint of each program, idle side by side."""
    with Programs(*programs) as running:
        time.sleep(2)  # let start-up settle
        figures = []
        for r in running:
            with open(f"/proc/{r.pid}/smaps_rollup", encoding="ascii") as f:
                rollup = {line.split(":")[0]: int(line.split()[1]) for line in f if "kB" in line}
            figures.append({
                "RSS (KiB)": rollup["Rss"], "PSS (KiB)": rollup["Pss"],
                "private (KiB)": rollup["Private_Clean"] + rollup["Private_Dirty"],
                # Its own data; the clean part counts library pages no other process maps.
                "private dirty (KiB)": rollup["Private_Dirty"],
                "threads": status_kib(r.pid, "Threads")})
        before = [task_counters(r.pid) for r in running]
        time.sleep(IDLE_SECONDS)
        for r, figure, (switches, cpu) in zip(running, figures, before):
            switches_after, cpu_after = task_counters(r.pid)
            figure[f"wake-ups in {IDLE_SECONDS} s"] = switches_after - switches
            figure[f"CPU in {IDLE_SECONDS} s (ms)"] = (cpu_after - cpu) / 1e6
        return figures


def start_once(program):
    """The time from exec until the simulated BlueZ is asked to make it the default agent."""
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
            started = (asked[0] - int(f.read())) / 1e6
        simenv.stop_process(proc)
        return started
    finally:
        world.stop()


def measure_startup(*programs):
    """Median start-up time (ms) of each program, started in turn."""
    times = [[start_once(program) for program in programs] for _ in range(STARTS)]
    return [statistics.median(column) for column in zip(*times)]


def show(rows):
    """rows: (name, value, the figure it is set against or None, goal[, "diff"]); the third
    column is a ratio, or with "diff" the difference."""
    print(f"\n{'measure':<66} {'bluetooth-agent':>15} {'against':>10} {'ratio':>7}  goal")
    for name, value, against, goal, *diff in rows:
        if against is None:
            compared = "-"
        elif diff:
            compared = f"{value - against:+.4g}"
        else:
            compared = f"{value / against:.2f}" if against else "-"
        against = "-" if against is None else f"{against:.6g}"
        print(f"{name:<66} {value:>15.6g} {against:>10} {compared:>7}  {goal}")


def main():
    daemon = [DAEMON]
    floor_intake = bench_program("bench-floor-intake")
    rows = []
    print("measuring the pairing relay, idle and under load ...", file=sys.stderr, flush=True)
    (idle, floor), (loaded, floor_loaded), loaded_count, rates = measure_relay()
    unspooled = int(rates["unspooled"])
    rows += [("pairing relay p50 (µs)", idle[50], floor[50], "<= 1.05x"),
             ("pairing relay p99 (µs)", idle[99], floor[99], "<= 1.05x"),
             ("pairing relay p50 under load, against idle (µs)", loaded[50], idle[50], "-"),
             ("pairing relay p99 under load, against idle (µs)", loaded[99], idle[99],
              "<= 1.5x"),
             ("pairing relay p99 under load, against the floor under load (µs)", loaded[99],
              floor_loaded[99], "-"),
             (f"  load: 64 MiB documents written per s ({unspooled} not spooled)",
              rates["documents"], None, "4"),
             ("  load: getDevices answered per s", rates["lists"], None, "10"),
             ("  load: PropertiesChanged per s, relayed against sent", rates["statuses"],
              rates["changes"], "100")]

    print("measuring the received-file intake ...", file=sys.stderr, flush=True)
    settle = int(subprocess.run([bench_program("bench-driver"), "settle"], capture_output=True,
                                text=True, check=True).stdout)
    intake = measure_intake([
        (daemon, "watch"), ([floor_intake, "--durable"], "stdout"),
        ([floor_intake, "--durable", "--settle", str(settle)], "stdout"),
        ([floor_intake], "stdout")])
    rows.append(("intake settle time: a closed file waits before it is taken (ms)", settle,
                 None, "-"))
    for label, _, count in INTAKE:
        agent, durable, settled, _ = intake[label]
        rows.append((f"intake {label}, close to signal less settle, median of {count} (ms)",
                     agent - settle, durable, "<= 1.1x" if label == "64 MiB" else "<= 1.3x"))
        rows.append(("  against a durable floor that settles too, less settle (ms)",
                     agent - settle, settled - settle, "-"))
    for label, _, _ in INTAKE:
        _, durable, _, plain = intake[label]
        rows.append((f"intake floor {label}, durable against non-durable (ms)", durable, plain,
                     "-"))
    rows.append(("intake 1 GiB, peak RSS over idle (MiB)", measure_peak(daemon, "watch"),
                 measure_peak([floor_intake], "stdout"), "<= 64 MiB"))

    print("measuring a document too big for the spool ...", file=sys.stderr, flush=True)
    written, spooled, small_first = measure_oversize()
    rows.append(("oversize 12 MiB, 16 MiB spool: MiB written against spooled", written, spooled,
                 "<= 2x"))
    rows.append(("oversize: of the 10 small ones behind it, spooled before it", small_first,
                 None, "10"))

    print(f"measuring idle ({IDLE_SECONDS} s) ...", file=sys.stderr, flush=True)
    agent_idle, floor_idle = measure_idle(
        (daemon, "watch"), ([bench_program("bench-floor-startup")], "agent"))
    for key, value in agent_idle.items():
        goal = "0" if key.startswith("wake-ups") else "<= 1.2x"
        rows.append((f"idle {key}", value, floor_idle[key], goal))

    print(f"measuring start-up ({STARTS} starts each) ...", file=sys.stderr, flush=True)
    rows.append(("start-up, exec to default agent, median (ms)",
                 *measure_startup(DAEMON, bench_program("bench-floor-startup")), "<= 1.2x"))

    print(f"measuring {2 * VISITORS} devices that come and go ...", file=sys.stderr, flush=True)
    slowest, listed, rss_first, rss_second = measure_devices()
    rows.append((f"getDevices, {listed} paired, {VISITORS} came and went: slowest of "
                 f"{DEVICE_LISTS} (ms)", slowest, None, "<= 50"))
    rows.append((f"RSS after {2 * VISITORS} devices came and went, against {VISITORS} (KiB)",
                 rss_second, rss_first, "<= +512", "diff"))

    show(rows)
    rounds = f"{loaded_count} requests, in {ROUNDS} rounds of {LOADED_SECONDS} s"
    print(f"""
against: the floor, a minimal program doing the same job, measured in turn with the daemon
(a request or a file each), unless the row says otherwise. Floors: pairing = a minimal Qt agent
that defers, signals and replies (under load also passing on BlueZ's property changes and
answering getDevices, beside a durable intake floor); intake = three threads with the daemon's
hops (watcher, copier, main) that copy in the kernel at the daemon's priority into a temporary
file, rename and signal; durable = with the daemon's flushes, and "settles too" = taking each
file only after the settle time; idle and start-up = a minimal Qt program making the same
start-up calls. Under load ({rounds} between the idle ones): a 64 MiB
document every 250 ms, renamed into the receive folder as the OBEX receiver publishes one,
getDevices 10 times and BlueZ's PropertiesChanged 100 times a second.""")


if __name__ == "__main__":
    main()
