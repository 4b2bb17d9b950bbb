# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Received files as a phone, the OBEX receiver, other local writers and the print spooler meet
them: every accepted document whose writer finally closed it reaches the spool once, as one whole
closed version, under its spool name, and is announced with TransferComplete; a push dropped
half-way never is; anything else stays in the receive folder with a log line saying why."""

import hashlib
import os
import re
import signal
import subprocess
import time

import pytest

from conftest import NATIVE, rss_kib, spooled
from simenv import pump, wait_until

PREFIX = '\\"bluetooth-agent\\"'  # backslash, quote, bluetooth-agent, backslash, quote
OPEN_ERROR = "BluetoothAgentDaemon: uploadError: unable to open file"
SPOOL_ERROR = "BluetoothAgentDaemon: uploadError: unable to open temp file"
WATCH_ERROR = "BluetoothFileMonitor: mWatchD = -1"


def spooled_in_order(sandbox, count, timeout=60.0):
    """Waits for count spool files; returns (running number, suffix, content) sorted by number."""
    files = wait_until(lambda: len(spooled(sandbox)) >= count and spooled(sandbox), timeout,
                       f"{count} spooled files")
    assert not [n for n in os.listdir(sandbox.www) if n.startswith(".")], "a hidden copy is left"
    numbered = []
    for name, content in files.items():
        match = re.fullmatch(re.escape(PREFIX) + r"(\d+)-[A-Za-z0-9]{6}(\.\w+)", name)
        assert match, name
        numbered.append((int(match[1]), match[2], content))
    return sorted(numbered)


# Names and contents a phone can send, hostile ones included; names that are no UTF-8 are taken
# by their bytes and announced with their bad bytes replaced.
NAMES = ["my letter.brf", "it's \"quoted\".txt", "back\\slash.brf", "Brief für Jürgen.txt",
         "日本語の点字.brf", "tab\there.txt", "a" * 251 + ".brf", "new\nline.txt", "-rf.txt",
         "..brf", "%s%n%x.txt", "$(reboot).txt", '\\"bluetooth-agent\\"1-XXXXXX.brf',
         "\x01\x1b[31mred.txt", "📄.pdf", "\ufeffbom.txt", b"\xff\xfe.brf", b"caf\xe9.txt"]
CONTENTS = [b"", b"\x00" * (1 << 20), bytes(range(256)) * 64, "⠃⠗⠁⠊⠇⠇⠑".encode("utf-16")]


def test_documents_are_spooled_once_in_order_and_the_rest_removed(world, ui):
    accepted = ["letter.brf", "a.pdf", "a.doc", "a.docx", "a.rtf", "a.txt", "a.brl", "a.bra",
                "a.elpp", "a.tvx", "form.template", "archive.tar.brf", ".brf"]
    refused = ["REPORT.PDF", "letter.Brf", "notes", "trailing.", "a.brf~", "a.templates"]
    world.agent.expect("BluetoothAgentDaemon: uploadError: wrong file type")
    for name in accepted:
        world.sandbox.drop(name, name.encode() + b"\r\n\xff")
    # Numbered in the order of arrival, from 1; refused files take no number.
    assert spooled_in_order(world.sandbox, len(accepted)) == [
        (i + 1, "." + name.rsplit(".", 1)[1], name.encode() + b"\r\n\xff")
        for i, name in enumerate(accepted)]
    names = [n if isinstance(n, bytes) else n.encode() for n in NAMES]
    contents = [CONTENTS[i % len(CONTENTS)] + name for i, name in enumerate(names)]
    for name, content in zip(refused + names, [b"refused"] * len(refused) + contents):
        world.sandbox.drop(name, content)
    # A receiver that publishes a whole document by renaming it into the folder.
    os.rename(world.sandbox.drop("../moved.txt", b"moved"), world.sandbox.obex + "/moved.txt")
    done = [a[0] for a in ui.wait_signal("TransferComplete", len(accepted) + len(names) + 1)]
    assert done[:len(accepted)] == accepted
    assert sorted(done[len(accepted):]) == sorted(
        [n.decode("utf-8", "replace").lstrip("\ufeff") for n in names] + ["moved.txt"])
    assert sorted(c for _, _, c in spooled_in_order(world.sandbox, len(done))) == sorted(
        [name.encode() + b"\r\n\xff" for name in accepted] + contents + [b"moved"])
    pump(0.3)
    assert world.sandbox.received() == [] and len(ui.received("TransferComplete")) == len(done)
    assert world.agent.lines() == ["BluetoothAgentDaemon: uploadError: wrong file type"] * len(
        refused)


def test_what_came_while_it_was_away_or_stopped_is_taken_and_half_copies_cleared(make_world):
    world = make_world()
    world.sandbox.drop("early.brf", b"early")
    unfinished = open(os.path.join(world.sandbox.obex, "unfinished.pdf"), "wb")
    unfinished.write(b"part one, ")
    unfinished.flush()
    # What a power cut in the middle of a copy, or after it as the received file went, leaves;
    # next to a file that is not the daemon's.
    half = os.path.join(world.sandbox.www, "." + PREFIX + "7-a8Kd2Q.brf")
    for path in (half, os.path.join(world.sandbox.www, ".spooler-state"),
                 os.path.join(world.sandbox.obex, ".bluetooth-agent-taken")):
        with open(path, "wb") as f:
            f.write(b"half")
    ui = world.client()
    world.start_agent()
    assert ui.wait_signal("TransferComplete") == [["early.brf"]]
    pump(0.5)
    assert world.sandbox.received() == ["unfinished.pdf"]
    assert sorted(os.listdir(world.sandbox.www))[0] == ".spooler-state"
    unfinished.write(b"part two")
    unfinished.close()
    assert ui.wait_signal("TransferComplete", 2)[1] == ["unfinished.pdf"]
    os.remove(os.path.join(world.sandbox.www, ".spooler-state"))
    assert [c for _, _, c in spooled_in_order(world.sandbox, 2)] == [b"early",
                                                                     b"part one, part two"]
    # More events than the kernel queues (16384 by default) while it is stopped: the overflow
    # makes it look again.
    count = 17000
    os.kill(world.agent.pid, signal.SIGSTOP)
    try:
        for i in range(count):
            world.sandbox.drop(f"burst-{i:05d}.txt", b"%d" % i)
    finally:
        os.kill(world.agent.pid, signal.SIGCONT)
    ui.wait_signal("TransferComplete", count + 2, timeout=600)
    wait_until(lambda: world.sandbox.received() == [], 60, "an empty receive folder")
    assert sorted(c for _, _, c in spooled_in_order(world.sandbox, count + 2))[:count] == sorted(
        b"%d" % i for i in range(count))
    pump(0.5)
    assert len(ui.received("TransferComplete")) == count + 2


FILE_SETTLE = 0.5  # longer than the daemon lets a closed file settle


def come_back(path, writer, versions):
    """A writer that comes back to a file it closed: appends, rewrites it with another version
    of the same size, opens it for writing and closes it again and again for a moment, or
    removes it as obexd removes a push dropped half-way: 1.3 ms after its close."""
    if writer == "drop":
        if versions:  # before the daemon may take it
            versions.clear()
            time.sleep(0.0013)
            os.remove(path)
        return
    try:
        if writer == "reopen":
            deadline = time.monotonic() + 0.005
            while time.monotonic() < deadline:
                os.close(os.open(path, os.O_WRONLY))
            return
        last = versions[-1]
        fd = os.open(path, os.O_WRONLY | (os.O_APPEND if writer == "append" else os.O_TRUNC))
    except FileNotFoundError:
        return  # taken already: the version before was its last
    os.write(fd, b"+" if writer == "append" else last[::-1])
    os.close(fd)
    versions.append(last + b"+" if writer == "append" else last[::-1])


@pytest.mark.parametrize("writer", ["append", "rewrite", "reopen", "drop"])
def test_writers_that_come_back_leave_only_whole_versions(world, ui, writer):
    # 200 documents in four batches, each written again right after its close and once more
    # when the daemon takes it.
    versions = {}
    for batch in range(4):
        names = [f"b{batch}-{i:02d}.txt" for i in range(50)]
        for name in names:
            versions[name] = [hashlib.sha256(name.encode()).digest() * (1 << 15)]
            come_back(world.sandbox.drop(name, versions[name][0]), writer, versions[name])
        time.sleep(FILE_SETTLE / 2)
        for name in names:
            come_back(os.path.join(world.sandbox.obex, name).encode(), writer, versions[name])
        last = {versions[name][-1] for name in names if versions[name]}
        # The copying thread runs at nice 19: under emulation beside busy guests it gets little.
        wait_until(lambda: world.agent.proc.poll() is not None
                   or last <= set(spooled(world.sandbox).values()), 600,
                   "the last version of every document")
        assert world.agent.proc.poll() is None
    pump(FILE_SETTLE)
    jobs = list(spooled(world.sandbox).values())
    whole = {v for vs in versions.values() for v in vs}
    assert [j for j in jobs if j not in whole] == [], "a torn, partial or dropped job"
    assert len(ui.received("TransferComplete")) == len(jobs)
    if writer in ("reopen", "drop"):
        assert sorted(jobs) == sorted(v[0] for v in versions.values() if v), "spooled twice"
    assert world.sandbox.received() == []


def test_pipes_links_unremovable_and_busy_files_stall_nothing(world, ui, tmp_path):
    sandbox = world.sandbox
    world.agent.expect(OPEN_ERROR)
    secret = tmp_path / "secret"
    secret.write_bytes(b"root only")
    os.chmod(secret, 0o600)
    # A pipe closed after writing: reading it would wait for ever.
    fifo = os.path.join(sandbox.obex, "trap.pdf")
    os.mkfifo(fifo)
    os.close(os.open(fifo, os.O_RDWR | os.O_NONBLOCK))
    # A link put over a file right after its close, twenty times over; and a dangling link.
    links = [(f"x{i}.pdf", secret) for i in range(20)] + [("dangling.brf", tmp_path / "created")]
    for name, target in links:
        sandbox.drop(name, b"mine")
        os.symlink(target, os.path.join(sandbox.obex, "link"))
        os.rename(os.path.join(sandbox.obex, "link"), os.path.join(sandbox.obex, name))
    # A file the daemon could copy but never remove.
    locked = os.path.join(sandbox.obex, "locked.brf")
    with open(locked, "wb") as f:
        f.write(b"locked")
        f.flush()
        subprocess.run(["chattr", "+i", locked], check=True)
    # A file its writer keeps open while closing it again and again from a second descriptor:
    # each close asks the daemon to look, and each look finds it still being written.
    busy_path = os.path.join(sandbox.obex, "busy.brf")
    busy = open(busy_path, "wb")
    rss = rss_kib(world.agent.pid)
    try:
        for i in range(200):
            sandbox.drop(f"after{i:03d}.txt", b"after")
            os.close(os.open(busy_path, os.O_WRONLY))
        for _ in range(50000):  # a flood of events for two names
            os.close(os.open(busy_path, os.O_WRONLY))
            os.close(os.open(locked, os.O_RDONLY))
        # At their usual pace: a tenth of a second per look at the busy file would take hours.
        ui.wait_signal("TransferComplete", 200, timeout=60)
        assert set(spooled(sandbox).values()) == {b"after"}
        assert {"locked.brf", "trap.pdf", "busy.brf"} <= set(sandbox.received())
        if NATIVE:
            assert rss_kib(world.agent.pid) - rss < 16 << 10
    finally:
        subprocess.run(["chattr", "-i", locked], check=True)
    # Once in order, their next close takes them.
    sandbox.drop("locked.brf", b"unlocked")
    busy.write(b"busy")
    busy.close()
    wait_until(lambda: {b"unlocked", b"busy"} <= set(spooled(sandbox).values()),
               what="the unlocked and the busy file")
    assert open(secret, "rb").read() == b"root only" and sorted(os.listdir(tmp_path)) == [
        "secret"]


def test_a_document_the_spool_cannot_take_waits_without_holding_up_others(make_world):
    world = make_world(spool_size=16 << 20)
    world.start_agent().expect(SPOOL_ERROR)
    ui = world.client()
    spool = f"/proc/{world.agent.pid}/root/var/spool/lp/www"
    # A job the spooler has not printed yet leaves too little room for the big document.
    printing = os.path.join(spool, "printing.pdf")
    with open(printing, "wb") as f:
        f.write(b"p" * (8 << 20))
    written = rss_kib(world.agent.pid, "wchar:", "io")
    with open(f"/proc/{world.agent.pid}/clear_refs", "w", encoding="ascii") as f:
        f.write("5")  # its peak memory counts from here
    big = os.urandom(12 << 20)
    world.sandbox.drop("big.pdf", big)
    wait_until(lambda: SPOOL_ERROR in world.agent.lines(), what="the spool error")
    for i in range(10):
        world.sandbox.drop(f"small{i}.txt", b"small")
    assert ui.wait_signal("TransferComplete", 10)[-1] == ["small9.txt"]
    assert world.sandbox.received() == ["big.pdf"]
    # Printed and removed: the room it leaves takes the big document at once, once.
    os.remove(printing)
    assert ui.wait_signal("TransferComplete", 11)[-1] == ["big.pdf"]
    assert big in [open(os.path.join(spool, n), "rb").read() for n in os.listdir(spool)]
    assert rss_kib(world.agent.pid, "wchar:", "io") - written < 2 * (len(big) + 50)
    # Copied in pieces: never held whole, whatever its size.
    if NATIVE:
        assert rss_kib(world.agent.pid, "VmHWM:") - rss_kib(world.agent.pid) < len(big) >> 11
    assert world.agent.lines() == [SPOOL_ERROR]


def test_folders_moved_made_anew_or_mounted_over_are_followed(make_world):
    world = make_world()
    os.rmdir(world.sandbox.obex)
    world.start_agent().expect(WATCH_ERROR, SPOOL_ERROR)
    ui = world.client()
    wait_until(lambda: world.agent.lines() == [WATCH_ERROR], what="the watch error")
    lp = os.path.join(world.sandbox.spool, "lp")
    # The receive folder comes; then the folder holding both is moved away and made anew, the
    # spool last; then a file system is mounted over the receive folder.
    os.mkdir(world.sandbox.obex)
    world.sandbox.drop("first.brf", b"first")
    assert ui.wait_signal("TransferComplete") == [["first.brf"]]
    os.rename(lp, lp + ".old")
    os.mkdir(lp)
    os.mkdir(world.sandbox.obex)
    world.sandbox.drop("second.brf", b"second")
    wait_until(lambda: SPOOL_ERROR in world.agent.lines(), what="the spool error")
    os.mkdir(world.sandbox.www)
    assert ui.wait_signal("TransferComplete", 2)[-1] == ["second.brf"]
    root = f"/proc/{world.agent.pid}/root/var/spool/lp/obex"
    # In the daemon's mount namespace, and its root: inside a chroot, entering the namespace alone
    # would leave the command at the namespace's own root.
    inside = ["nsenter", "-t", str(world.agent.pid), "-m", "-r"]
    subprocess.run(inside + ["mount", "-t", "tmpfs", "late-data", "/var/spool/lp/obex"], check=True)
    wait_until(lambda: os.listdir(root) == [], what="the new file system")
    with open(os.path.join(root, "third.brf"), "wb") as f:
        f.write(b"third")
    assert ui.wait_signal("TransferComplete", 3)[-1] == ["third.brf"]
    assert sorted(spooled(world.sandbox).values()) == [b"second", b"third"]
    # Removed for good: said once more.
    # The removed file is closed just after its announcement: busy for a moment.
    wait_until(lambda: not subprocess.run(inside + ["umount", "/var/spool/lp/obex"],
                                          capture_output=True).returncode, what="the umount")
    os.rmdir(world.sandbox.obex)
    wait_until(lambda: world.agent.lines().count(WATCH_ERROR) >= 2, what="the watch error again")
