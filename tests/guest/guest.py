# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The host side of every guest test: a Debian 12 guest under qemu (software emulation, niced),
booted from a snapshot of the image ../debian-root keeps. The guest finds its root on /dev/vda,
its inputs on /dev/vdb and a disk for its results on /dev/vdc (tar streams both)."""

import os
import shutil
import subprocess
import tarfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
PACKAGES = ("linux-image-amd64 initramfs-tools kmod udev systemd systemd-sysv dbus adduser bluez "
            "bluez-obexd bluez-test-tools libqt5core5a libqt5dbus5 python3-dbus python3-gi "
            "e2fsprogs").split()


class Guest:
    """The boots of one guest; in workdir, console.log (of every boot), and results (of the last
    boot that ended)."""

    def __init__(self, workdir):
        self.workdir, self.qemu, self.cut_at = str(workdir), None, None

    def boot(self, inputs, disks=(), init="/sbin/guest-boot", timeout=1200, on_line=None):
        """Boots the guest and waits for its end. inputs: name -> path; disks: more raw disks, which
        keep what reached them (qemu's cache=writeback the disk's cache); init: the default runs
        the inputs' init, None boots systemd, which runs it at every boot until it powers off.
        on_line gets each console line, and may call cut(). Returns the results (name -> bytes)."""
        subprocess.run([f"{TOP}/scripts/install-deps", "qemu-system-x86"], check=True)
        made = subprocess.run([f"{TOP}/tests/debian-root", "guest-bookworm-systemd", "ext4",
                               *PACKAGES], check=True, stdout=subprocess.PIPE, text=True)
        root, kernel, initrd = [made.stdout.strip().replace(".ext4", suffix)
                                for suffix in (".ext4", ".vmlinuz", ".initrd")]
        with tarfile.open(f"{self.workdir}/inputs.tar", "w") as tar:
            for name, path in inputs.items():
                tar.add(path, arcname=name)
        results = f"{self.workdir}/results.img"
        with open(results, "wb") as f:
            f.truncate(256 << 20)
        # systemd.run alone boots a target of its own with only that unit: the board's whole boot
        # is wanted, the unit with it.
        command = ("nice -n 10 qemu-system-x86_64 -machine q35 -accel tcg,thread=multi -cpu max "
                   "-m 1024 -smp 2 -nographic -net none -append").split() + [
                   "root=/dev/vda rw console=ttyS0 panic=-1 quiet " + (f"init={init}" if init else
                   "systemd.unit=multi-user.target systemd.wants=kernel-command-line.service "
                   "systemd.run=/sbin/guest-boot systemd.run_success_action=none"),
                   "-kernel", kernel, "-initrd", initrd] + ["-no-reboot"] * bool(init)
        for path, snapshot in ((root, True), (f"{self.workdir}/inputs.tar", True), (results, False),
                               *((disk, False) for disk in disks)):
            command += ["-drive", f"file={path},format=raw,if=virtio" + ",snapshot=on" * snapshot]
        self.cut_at = None
        self.qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)
        watchdog = threading.Timer(timeout, self.qemu.kill)
        watchdog.start()
        with open(f"{self.workdir}/console.log", "ab") as console:
            for line in self.qemu.stdout:
                console.write(line)
                if on_line:
                    on_line(line.decode("utf-8", "replace").rstrip("\r\n"))
        self.qemu.wait()
        if not watchdog.is_alive():
            raise TimeoutError(f"the guest did not end within {timeout} s: {self.workdir}")
        watchdog.cancel()
        kept = f"{self.workdir}/results"
        shutil.rmtree(kept, ignore_errors=True)
        os.mkdir(kept)
        with tarfile.open(results) as tar:  # empty if the guest never got as far (or was cut)
            tar.extractall(kept)
        return {name: open(f"{kept}/{name}", "rb").read() for name in os.listdir(kept)}

    def cut(self, after=0.0):
        """Cuts the power (SIGKILL to qemu) after that many seconds: what no disk had is lost."""
        self.cut_at = after
        threading.Timer(after, self.qemu.kill).start()
