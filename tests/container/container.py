# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""A Debian 12 system booted with systemd as PID 1 in systemd-nspawn, with the project's Debian
package installed and a simulated bluetoothd as bluetooth.service: the daemon's unit as it runs
on a board.

Needs root; the root and systemd-nspawn are made once and kept with the other Debian roots
(../debian-root). Run with /usr/bin/python3.
"""

import glob
import os
import shutil
import subprocess
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))

# bluetoothd stand-in: python-dbusmock's BlueZ with hci0, at once or some seconds late.
BLUETOOTH_SERVICE = """[Unit]
Description=Simulated bluetoothd
[Service]
Type=dbus
BusName=org.bluez
ExecStart=/usr/bin/python3 -m dbusmock --system -t /usr/local/lib/bluez_board.py -p '{parameters}'
[Install]
WantedBy=multi-user.target
"""
BLUEZ_POLICY = """<busconfig>
  <policy user="root"><allow own="org.bluez"/><allow send_destination="org.bluez"/></policy>
  <policy group="bluetooth"><allow send_destination="org.bluez"/></policy>
</busconfig>
"""


def root_and_nspawn():
    """The container's root as a tar file, and Debian's systemd-nspawn unpacked beside it (used
    without being installed)."""
    root_tar = subprocess.run(
        [os.path.join(HERE, "..", "debian-root"), "container-root-bookworm", "tar", "systemd",
         "systemd-sysv", "dbus", "libqt5dbus5", "python3-dbusmock", "python3-dbus", "python3-gi"],
        check=True, stdout=subprocess.PIPE, text=True).stdout.strip()
    unpacked = os.path.join(os.path.dirname(root_tar), "systemd-container")
    if not os.path.exists(f"{unpacked}/usr/bin/systemd-nspawn"):
        with tempfile.TemporaryDirectory() as download:
            subprocess.run(["apt-get", "download", "-q", "systemd-container"], cwd=download,
                           check=True, capture_output=True)
            subprocess.run(["dpkg", "-x", *glob.glob(f"{download}/*.deb"), unpacked], check=True)
    return root_tar, f"{unpacked}/usr/bin/systemd-nspawn"


class Container:
    def __init__(self, package, adapter_delay=0):
        root_tar, self.nspawn = root_and_nspawn()
        self.dir = tempfile.mkdtemp(prefix="bluetooth-agent-container-", dir="/var/tmp")
        self.root = os.path.join(self.dir, "root")
        self.proc = self.leader = None
        os.mkdir(self.root)
        subprocess.run(["tar", "-C", self.root, "-xf", root_tar], check=True)
        os.chmod(self.root, 0o755)  # a root others can enter, whatever mode the tar file gave it
        self.write("/etc/hostname", "embosser\n")
        self.install(package)
        self.write("/usr/local/lib/bluez_board.py",
                   open(os.path.join(HERE, "bluez_board.py"), encoding="utf-8").read())
        self.set_bluez(adapter_delay)
        self.write("/etc/dbus-1/system.d/bluez-stand-in.conf", BLUEZ_POLICY)
        self.chroot("useradd", "--system", "--groups", "bluetooth", "embosser-ui")
        self.chroot("systemctl", "enable", "bluetooth.service")

    def install(self, package):
        """Installs the package with apt from the host's mirror, as on a new board."""
        for conf in ("/etc/resolv.conf", "/etc/apt/sources.list.d/debian.sources"):
            shutil.copy(conf, self.root + conf)
        for conf in os.listdir("/etc/apt/apt.conf.d"):
            shutil.copy(f"/etc/apt/apt.conf.d/{conf}", f"{self.root}/etc/apt/apt.conf.d/")
        shutil.copy(package, f"{self.root}/tmp/bluetooth-agent.deb")
        env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND": "noninteractive"}
        for cmd in (["apt-get", "update", "-q"], ["apt-get", "install", "-y", "-q",
                    "--no-install-recommends", "/tmp/bluetooth-agent.deb"]):
            done = subprocess.run(["chroot", self.root, *cmd], capture_output=True, text=True,
                                  env=env)
            if done.returncode != 0:
                raise RuntimeError(f"{cmd} failed: {done.stdout[-2000:]}{done.stderr[-2000:]}")

    def write(self, path, text):
        full = self.root + path
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "w", encoding="utf-8") as f:
            f.write(text)

    def set_bluez(self, adapter_delay):
        self.write("/etc/systemd/system/bluetooth.service", BLUETOOTH_SERVICE.format(
            parameters=f'{{"adapter_delay": {adapter_delay}}}'))

    def chroot(self, *cmd):
        subprocess.run(["chroot", self.root, *cmd], check=True, capture_output=True)

    def boot(self, timeout=120):
        # The container's control groups go below one of our own (there is no host systemd).
        self.move_to(os.path.basename(self.dir))
        self.console = open(os.path.join(self.dir, "console.log"), "wb")
        self.proc = subprocess.Popen(
            [self.nspawn, "-D", self.root, "--register=no", "--keep-unit", "--private-network",
             "--console=read-only", "-b"], stdout=self.console, stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL, start_new_session=True)
        deadline = time.monotonic() + timeout
        while self.leader is None and time.monotonic() < deadline:
            self.leader = self.find_init()
            time.sleep(0.2)
        if self.leader is None:
            raise RuntimeError("the container did not start: " + self.console_log())
        # Until systemd answers, "--wait" returns at once: ask until start-up is over.
        state = ""
        while state not in ("running", "degraded") and time.monotonic() < deadline:
            state = self.run("systemctl", "is-system-running", "--wait", check=False,
                             timeout=timeout).strip()
            time.sleep(0.2)
        return self

    @staticmethod
    def move_to(group):
        for hierarchy in ("unified", "systemd"):
            path = f"/sys/fs/cgroup/{hierarchy}/{group}"
            os.makedirs(path, exist_ok=True)
            with open(f"{path}/cgroup.procs", "w", encoding="ascii") as f:
                f.write(str(os.getpid()))

    def find_init(self):
        """PID 1 of the container, as the host sees it: the systemd below systemd-nspawn whose
        own PID namespace calls it 1."""
        parents = {}
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as f:
                    parents[int(pid)] = int(f.read().rsplit(")", 1)[1].split()[1])
            except (OSError, IndexError, ValueError):
                continue
        for pid in parents:
            ancestor = parents.get(pid)
            while ancestor and ancestor != self.proc.pid:
                ancestor = parents.get(ancestor)
            if ancestor != self.proc.pid:
                continue
            try:
                with open(f"/proc/{pid}/status", encoding="ascii") as f:
                    status = f.read().splitlines()
            except OSError:
                continue
            nspid = next((line for line in status if line.startswith("NSpid:")), "").split()
            # Only once it is systemd: before, nspawn is still setting the container up.
            if status[0].split()[-1] == "systemd" and len(nspid) > 2 and nspid[-1] == "1":
                return pid
        return None

    def run(self, *cmd, check=True, timeout=60, user=None):
        """A command inside the container; returns its standard output."""
        prefix = ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups"] if user else []
        done = subprocess.run(["nsenter", "-t", str(self.leader), "-a", *prefix, *cmd],
                              capture_output=True, text=True, timeout=timeout,
                              stdin=subprocess.DEVNULL)
        if check and done.returncode != 0:
            raise RuntimeError(f"{cmd} failed ({done.returncode}): {done.stdout}{done.stderr}")
        return done.stdout

    def console_log(self):
        with open(os.path.join(self.dir, "console.log"), "rb") as f:
            return f.read().decode("utf-8", "replace")[-4000:]

    def stop(self):
        if self.proc and self.proc.poll() is None:
            subprocess.run(["nsenter", "-t", str(self.leader), "-a", "systemctl", "poweroff"],
                           capture_output=True, stdin=subprocess.DEVNULL)
            try:
                self.proc.wait(30)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, 9)
                self.proc.wait()
        # Whatever of the container is left, and its control groups, go too.
        group = os.path.basename(self.dir)
        if self.proc:
            kill = f"/sys/fs/cgroup/unified/{group}/payload/cgroup.kill"
            if os.path.exists(kill):
                with open(kill, "w", encoding="ascii") as f:
                    f.write("1")
            self.move_to("")
            for hierarchy in ("unified", "systemd"):
                for _ in range(50):
                    subprocess.run(["find", f"/sys/fs/cgroup/{hierarchy}/{group}", "-depth",
                                    "-type", "d", "-exec", "rmdir", "{}", ";"],
                                   capture_output=True)
                    if not os.path.exists(f"/sys/fs/cgroup/{hierarchy}/{group}"):
                        break
                    time.sleep(0.1)
        shutil.rmtree(self.dir, ignore_errors=True)
