# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""Received files as a phone, the OBEX receiver and the print spooler meet them: every accepted
document the receiver finished writing reaches the spool once, whole, under its spool name, and
is announced with TransferComplete; or it stays in the receive folder with a log line saying why.
"""

import hashlib
import os
import re
import shutil
import signal
import subprocess
import time

import pytest

from simenv import pump, wait_until

PREFIX = '\\"bluetooth-agent\\"'  # backslash, quote, bluetooth-agent, backslash, quote
OPEN_ERROR = "BluetoothAgentDaemon: uploadError: unable to open file"
SPOOL_ERROR = "BluetoothAgentDaemon: uploadError: unable to open temp file"
WATCH_ERROR = "BluetoothFileMonitor: mWatchD = -1"
NATIVE = "ASAN_OPTIONS" not in os.environ and not os.environ.get("BLUETOOTH_AGENT_LAUNCHER")


def spooled_in_order(sandbox, count, timeout=60.0):
    """Waits for count spool files; returns (running number, name, content) sorted by number."""
    files = wait_until(lambda: len(sandbox.spooled()) >= count and sandbox.spooled(), timeout,
                       f"{count} spooled files")
    assert not [n for n in os.listdir(sandbox.www) if n.startswith(".")], "a hidden copy is left"
    numbered = []
    for name, content in files.items():
        match = re.fullmatch(re.escape(PREFIX) + r"(\d+)-[A-Za-z0-9]{6}(\.\w+)", name)
        assert match, name
        numbered.append((int(match[1]), match[2], content))
    return sorted(numbered)


def test_accepted_files_are_spooled_once_and_refused_ones_removed(world, ui):
    accepted = ["letter.brf", "a.pdf", "a.doc", "a.docx", "a.rtf", "a.txt", "a.brl", "a.bra",
                "a.elpp", "a.tvx", "form.template", "archive.tar.brf", ".brf"]
    refused = ["REPORT.PDF", "letter.Brf", "notes", "trailing.", "a.brf~", "a.templates"]
    world.agent.expect("BluetoothAgentDaemon: uploadError: wrong file type")
    for name in accepted:
        world.sandbox.drop(name, b"\x00\x01" + name.encode() + b"\r\n\xff")
    spooled = spooled_in_order(world.sandbox, len(accepted))
    for name in refused:
        world.sandbox.drop(name, b"refused")
    wait_until(lambda: world.sandbox.received() == [], what="an empty receive folder")
    # Numbered in the order of arrival, from 1; refused files take no number.
    assert [(n, s, c) for n, s, c in spooled] == [
        (i + 1, "." + name.rsplit(".", 1)[1], b"\x00\x01" + name.encode() + b"\r\n\xff")
        for i, name in enumerate(accepted)]
    assert [a[0] for a in ui.wait_signal("TransferComplete", len(accepted))] == accepted
    pump(0.3)
    assert len(ui.received("TransferComplete")) == len(accepted)
    assert world.agent.lines() == ["BluetoothAgentDaemon: uploadError: wrong file type"] * len(
        refused)


# Names and contents a phone can send, hostile ones included.
NAMES = ["my letter.brf", "it's \"quoted\".txt", "back\\slash.brf", "Brief für Jürgen.txt",
         "日本語の点字.brf", "tab\there.txt", "a" * 251 + ".brf", "new\nline.txt", "-rf.txt",
         "..brf", "%s%n%x.txt", "$(reboot).txt", '\\"bluetooth-agent\\"1-XXXXXX.brf',
         "\x01\x1b[31mred.txt", "📄.pdf", "\ufeffbom.txt"]
CONTENTS = [b"", b"\x00" * (1 << 20), bytes(range(256)) * 64, "⠃⠗⠁⠊⠇⠇⠑".encode("utf-16")]


def test_any_name_and_content_a_phone_can_send(world, ui):
    sandbox = world.sandbox
    expected = {name.encode(): CONTENTS[i % len(CONTENTS)] + name.encode()
                for i, name in enumerate(NAMES)}
    # Names that are no UTF-8 are taken by their bytes, and announced with their bad bytes replaced.
    expected.update({b"\xff\xfe.brf": b"not utf-8", b"caf\xe9.txt": b"latin-1"})
    for name, content in expected.items():
        sandbox.drop(name, content)
    done = ui.wait_signal("TransferComplete", len(expected))
    assert sorted(a[0] for a in done) == sorted(n.decode("utf-8", "replace").lstrip("\ufeff")
                                                for n in expected)
    assert sorted(c for _, _, c in spooled_in_order(sandbox, len(expected))) == sorted(
        expected.values())
    assert sandbox.received() == []


def test_a_burst_of_files_while_the_daemon_is_stopped_overflows_nothing(world, ui):
    # More events than the kernel queues (16384 by default): the overflow makes it look again.
    count = 9000
    os.kill(world.agent.pid, signal.SIGSTOP)
    try:
        for i in range(count):
            world.sandbox.drop(f"burst-{i:04d}.txt", b"%d" % i)
    finally:
        os.kill(world.agent.pid, signal.SIGCONT)
    ui.wait_signal("TransferComplete", count, timeout=600)
    wait_until(lambda: world.sandbox.received() == [], 60, "an empty receive folder")
    assert sorted(c for _, _, c in spooled_in_order(world.sandbox, count)) == sorted(
        b"%d" % i for i in range(count))
    pump(0.5)
    assert len(ui.received("TransferComplete")) == count


def test_files_that_arrived_before_the_start_are_taken_but_not_while_still_written(make_world):
    world = make_world()
    world.sandbox.drop("early.brf", b"early")
    unfinished = open(os.path.join(world.sandbox.obex, "unfinished.pdf"), "wb")
    unfinished.write(b"part one, ")
    unfinished.flush()
    ui = world.client()
    world.start_agent()
    assert ui.wait_signal("TransferComplete") == [["early.brf"]]
    pump(0.5)
    assert world.sandbox.received() == ["unfinished.pdf"]
    unfinished.write(b"part two")
    unfinished.close()
    assert ui.wait_signal("TransferComplete", 2)[1] == ["unfinished.pdf"]
    assert [c for _, _, c in spooled_in_order(world.sandbox, 2)] == [b"early",
                                                                     b"part one, part two"]


def test_a_second_close_of_one_file_gives_no_second_job(world, ui):
    path = os.path.join(world.sandbox.obex, "twice.txt")
    os.kill(world.agent.pid, signal.SIGSTOP)
    try:
        world.sandbox.drop("twice.txt", b"written once")
        os.close(os.open(path, os.O_WRONLY))
    finally:
        os.kill(world.agent.pid, signal.SIGCONT)
    ui.wait_signal("TransferComplete")
    pump(1.0)
    assert [c for _, _, c in spooled_in_order(world.sandbox, 1)] == [b"written once"]
    assert len(ui.received("TransferComplete")) == 1


def set_immutable(path, on):
    subprocess.run(["chattr", "+i" if on else "-i", path], check=True)


def test_pipes_links_and_unremovable_files_are_refused_and_stall_nothing(world, ui, tmp_path):
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
    # Held meanwhile, the daemon meets every one of them as a link.
    links = [(f"x{i}.pdf", secret) for i in range(20)] + [("dangling.brf", tmp_path / "created")]
    os.kill(world.agent.pid, signal.SIGSTOP)
    for name, target in links:
        sandbox.drop(name, b"mine")
        os.symlink(target, os.path.join(sandbox.obex, "link"))
        os.rename(os.path.join(sandbox.obex, "link"), os.path.join(sandbox.obex, name))
    os.kill(world.agent.pid, signal.SIGCONT)
    # A file the daemon could copy but never remove.
    locked = os.path.join(sandbox.obex, "locked.brf")
    with open(locked, "wb") as f:
        f.write(b"locked")
        f.flush()
        set_immutable(locked, True)
    try:
        for name in ["after1.txt", "after2.txt", "after3.txt"]:
            sandbox.drop(name, b"after")
        wait_until(lambda: {"after1.txt", "after2.txt", "after3.txt"} <= {
            a[0] for a in ui.received("TransferComplete")}, what="the files after the trap")
        assert b"root only" not in sandbox.spooled().values()
        assert set(sandbox.spooled().values()) == {b"after"}
        assert "locked.brf" in sandbox.received() and "trap.pdf" in sandbox.received()
    finally:
        set_immutable(locked, False)
    # Once it can be removed, the next close of the same name takes it.
    sandbox.drop("locked.brf", b"unlocked")
    wait_until(lambda: b"unlocked" in sandbox.spooled().values(), what="the unlocked file")
    assert open(secret, "rb").read() == b"root only" and sorted(os.listdir(tmp_path)) == [
        "secret"]


def test_a_spool_that_cannot_take_a_copy_keeps_the_received_file(world, ui):
    sandbox = world.sandbox
    world.agent.expect(SPOOL_ERROR)
    os.rmdir(sandbox.www)
    sandbox.drop("first.txt", b"first")
    wait_until(lambda: SPOOL_ERROR in world.agent.lines(), what="the spool error")
    assert sandbox.received() == ["first.txt"]
    os.mkdir(sandbox.www)
    # The next file that arrives brings the waiting one along.
    sandbox.drop("second.txt", b"second")
    ui.wait_signal("TransferComplete", 2)
    # A failed copy used up number 1.
    assert [(n, c) for n, _, c in spooled_in_order(sandbox, 2)] == [(2, b"second"), (3, b"first")]
    assert sandbox.received() == []


def test_a_full_spool_gets_no_partial_copy_and_keeps_the_received_file(make_world):
    world = make_world(spool_size=1 << 20)
    world.start_agent().expect(SPOOL_ERROR)
    ui = world.client()
    spool = f"/proc/{world.agent.pid}/root/var/spool/lp/www"
    world.sandbox.drop("big.pdf", b"b" * (2 << 20))
    wait_until(lambda: SPOOL_ERROR in world.agent.lines(), what="the spool error")
    world.sandbox.drop("small.txt", b"small")
    assert ui.wait_signal("TransferComplete") == [["small.txt"]]
    wait_until(lambda: world.agent.lines().count(SPOOL_ERROR) == 2, what="the second try")
    [name] = os.listdir(spool)
    assert open(os.path.join(spool, name), "rb").read() == b"small"
    assert world.sandbox.received() == ["big.pdf"]


def test_the_receive_folder_missing_at_start_and_removed_later(make_world):
    world = make_world()
    os.rmdir(world.sandbox.obex)
    world.start_agent().expect(WATCH_ERROR)
    ui = world.client()
    wait_until(lambda: world.agent.lines() == [WATCH_ERROR], what="the watch error")
    for round_ in range(1, 3):
        os.mkdir(world.sandbox.obex)
        # Written in two parts: the look round the folder that comes back meets the writer at it,
        # and the file is taken whole once it is closed.
        with open(os.path.join(world.sandbox.obex, f"round{round_}.brf"), "wb") as f:
            f.write(b"first ")
            f.flush()
            time.sleep(0.05)
            f.write(b"%d" % round_)
        assert ui.wait_signal("TransferComplete", round_)[-1] == [f"round{round_}.brf"]
        wait_until(lambda: world.sandbox.received() == [], what="the file taken")
        assert b"first %d" % round_ in world.sandbox.spooled().values()
        os.rmdir(world.sandbox.obex)
        wait_until(lambda: world.agent.lines() == [WATCH_ERROR] * (round_ + 1),
                   what="the watch error once more")


def test_a_file_larger_than_the_daemon_may_hold_in_memory(world, ui):
    if not NATIVE:
        pytest.skip("an address-space limit needs the daemon's own process (no emulator, no ASan)")
    size = 1 << 30
    if shutil.disk_usage(world.workdir).free < 3 * size:
        pytest.skip("needs 3 GiB of free disk for the file and its copy")
    with open(f"/proc/{world.agent.pid}/status", encoding="ascii") as f:
        vm_size = int(next(line for line in f if line.startswith("VmSize:")).split()[1]) << 10
    subprocess.run(["prlimit", f"--pid={world.agent.pid}", f"--as={vm_size + (256 << 20)}"],
                   check=True)
    path = os.path.join(world.sandbox.obex, "big.pdf")
    with open(path, "wb") as f:  # sparse, with marks at both ends and around the middle
        f.truncate(size)
        for offset in (0, size // 2 - 7, size - 4096):
            f.seek(offset)
            f.write(hashlib.sha256(b"%d" % offset).digest() * 128)
    with open(path, "rb") as f:
        expected = hashlib.file_digest(f, "sha256").hexdigest()
    assert ui.wait_signal("TransferComplete", timeout=300) == [["big.pdf"]]
    [name] = os.listdir(world.sandbox.www)
    with open(os.path.join(world.sandbox.www, name), "rb") as f:
        assert hashlib.file_digest(f, "sha256").hexdigest() == expected
    assert world.sandbox.received() == []
