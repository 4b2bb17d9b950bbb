"""Received files as a phone and the print spooler meet them: a file the OBEX receiver writes
into the receive folder lands in the spool under its spool name, and the user interface hears
of it through TransferComplete."""

import hashlib
import os
import re
import shutil
import subprocess

import pytest

from simenv import pump, wait_until

PREFIX = '\\"bluetooth-agent\\"'  # backslash, quote, bluetooth-agent, backslash, quote


def spool_name(number, suffix):
    return re.compile(re.escape(PREFIX) + str(number) + r"-[A-Za-z0-9]{6}" + re.escape(suffix)
                      + "$")


def wait_spooled(sandbox, count, timeout=30.0):
    """Waits until count files stand in the spool; returns name -> content."""
    return wait_until(lambda: len(sandbox.spooled()) >= count and sandbox.spooled(), timeout,
                      f"{count} spooled files")


def wait_content(sandbox, name, content, timeout=30.0):
    # The copy's last bytes are flushed after it took its name: wait for them.
    wait_until(lambda: sandbox.spooled().get(name) == content, timeout, f"the bytes of {name}")


def test_accepted_file_is_spooled_once_and_announced(world, ui):
    sandbox = world.sandbox
    sandbox.drop("letter.brf", b"\x00\x01braille\r\n\xff")
    assert ui.wait_signal("TransferComplete") == [["letter.brf"]]
    [(name, _)] = wait_spooled(sandbox, 1).items()
    assert spool_name(1, ".brf").match(name), name
    wait_content(sandbox, name, b"\x00\x01braille\r\n\xff")
    assert sandbox.received() == []
    # The uploader's own close event of the name starts nothing more.
    pump(0.5)
    assert len(ui.received("TransferComplete")) == 1 and len(sandbox.spooled()) == 1
    assert world.agent.log() == ""


ACCEPTED = ["a.pdf", "a.doc", "a.docx", "a.rtf", "a.txt", "a.brf", "a.brl", "a.bra", "a.elpp",
            "a.tvx", "a.template", "form.template", "archive.tar.brf", ".brf", "x.y.z.txt"]
REFUSED = ["REPORT.PDF", "letter.Brf", "notes", "trailing.", "archive.brf.zip", "a.brf~",
           "a.templates", "a.ps"]


def test_only_accepted_suffixes_reach_the_spool(world, ui):
    sandbox = world.sandbox
    for name in ACCEPTED + REFUSED:
        sandbox.drop(name, name.encode())
    done = ui.wait_signal("TransferComplete", len(ACCEPTED))
    wait_until(lambda: world.agent.log().count("wrong file type") == len(REFUSED), what="refusals")
    assert sorted(args[0] for args in done) == sorted(ACCEPTED)
    wait_until(lambda: sorted(sandbox.spooled().values()) == sorted(n.encode() for n in ACCEPTED),
               what="the copies")
    # Refused files are removed too, each with one log line.
    assert sandbox.received() == []
    assert world.agent.log().count('BluetoothAgentDaemon: uploadError: "wrong file type"\n') == len(
        REFUSED)


def set_immutable(path, on):
    subprocess.run(["chattr", "+i" if on else "-i", path], check=True)


def test_running_number_counts_accepted_files_and_failed_copies(world, ui):
    sandbox = world.sandbox

    def deliver(name):
        sandbox.drop(name, name.encode())
        wait_until(lambda: name not in sandbox.received(), what=f"{name} taken")

    deliver("first.txt")
    deliver("refused.PDF")
    try:
        set_immutable(sandbox.www, True)  # no copy can be made
        # As defined: the received file is removed, the error logged, the number used up.
        deliver("lost.brf")
        wait_until(lambda: "unable to open temp file" in world.agent.log(), what="the copy error")
    finally:
        set_immutable(sandbox.www, False)
    deliver("second.txt")
    assert ui.wait_signal("TransferComplete", 2) == [["first.txt"], ["second.txt"]]
    names = sorted(wait_spooled(sandbox, 2))
    assert spool_name(1, ".txt").match(names[0]) and spool_name(3, ".txt").match(names[1]), names


def test_same_name_received_again_is_spooled_again(world, ui):
    for round_ in range(3):
        world.sandbox.drop("again.txt", b"round %d" % round_)
        ui.wait_signal("TransferComplete", round_ + 1)
    contents = wait_until(lambda: sorted(world.sandbox.spooled().values()) == [
        b"round 0", b"round 1", b"round 2"], what="three copies")
    assert contents


def test_file_that_cannot_be_opened_stays_in_the_receive_folder(world, ui):
    sandbox = world.sandbox
    path = os.path.join(sandbox.obex, "locked.brf")
    try:
        # Written and closed, but immutable by the time the daemon opens it.
        with open(path, "wb") as f:
            f.write(b"locked")
            f.flush()
            set_immutable(path, True)
        wait_until(lambda: "unable to open file" in world.agent.log(), what="the open error")
        sandbox.drop("after.txt", b"after")
        assert ui.wait_signal("TransferComplete") == [["after.txt"]]
        assert sandbox.received() == ["locked.brf"]
        set_immutable(path, False)
        # No echo came for the locked file, so its name's next close event only clears it.
        sandbox.drop("locked.brf", b"first retry")
        pump(0.5)
        assert sandbox.received() == ["locked.brf"]
        sandbox.drop("locked.brf", b"second retry")
        assert ui.wait_signal("TransferComplete", 2)[1] == ["locked.brf"]
    finally:
        if os.path.exists(path):
            set_immutable(path, False)


def test_burst_of_500_files_loses_nothing(world, ui):
    sandbox = world.sandbox
    files = {f"burst-{i:03d}.txt": (b"%d:" % i) * (i * 37 % 3000) for i in range(500)}
    for name, content in files.items():
        sandbox.drop(name, content)
    done = ui.wait_signal("TransferComplete", 500, timeout=120)
    assert sorted(args[0] for args in done) == sorted(files)
    wait_until(lambda: sorted(sandbox.spooled().values()) == sorted(files.values()), 60,
               "all 500 copies with their bytes")
    assert sandbox.received() == []
    pump(0.5)
    assert len(ui.received("TransferComplete")) == 500 and len(sandbox.spooled()) == 500
    assert world.agent.log() == ""


# Names and contents a phone can send, hostile ones included.
NAMES = ["my letter.brf", "it's \"quoted\".txt", "back\\slash.brf", "Brief für Jürgen.txt",
         "日本語の点字.brf", "tab\there.txt", "a" * 251 + ".brf", "é" * 125 + "x.brf",
         "new\nline.txt", "-rf.txt", ".hidden.brf", "..brf", "%s%n%x.txt", "$(reboot).txt",
         "`id`.brf", "a;rm -rf *.pdf", '\\"bluetooth-agent\\"1-XXXXXX.brf', "\x01\x1b[31mred.txt",
         "📄.pdf", " .txt"]
CONTENTS = [b"", b"\x00" * (1 << 20), bytes(range(256)) * 64, b"\n" * 4096,
            "Braille ⠃⠗⠁⠊⠇⠇⠑".encode("utf-16")]


def test_names_and_contents_a_phone_can_send(world, ui):
    sandbox = world.sandbox
    expected = {name: CONTENTS[i % len(CONTENTS)] + name.encode() for i, name in enumerate(NAMES)}
    for name, content in expected.items():
        sandbox.drop(name, content)
    done = ui.wait_signal("TransferComplete", len(NAMES))
    assert sorted(args[0] for args in done) == sorted(NAMES)
    wait_until(lambda: sorted(sandbox.spooled().values()) == sorted(expected.values()),
               what="every copy with its bytes")
    assert sandbox.received() == []

    # A name that is no UTF-8 reaches the daemon converted, so it names no file: the received
    # file stays where it is, untouched.
    for raw in [b"\xff\xfe.brf", b"caf\xe9.txt"]:
        sandbox.drop(raw, b"kept")
    ui.wait_signal("TransferComplete", len(NAMES) + 2)
    pump(0.5)
    for raw in [b"\xff\xfe.brf", b"caf\xe9.txt"]:
        with open(os.path.join(os.fsencode(sandbox.obex), raw), "rb") as f:
            assert f.read() == b"kept"
    assert world.agent.proc.poll() is None


def test_large_file_is_copied_exactly(world, ui):
    size = 256 * 1024 * 1024
    block = hashlib.sha256(b"seed").digest() * (1 << 15)  # 1 MiB
    path = os.path.join(world.sandbox.obex, "big.pdf")
    digest = hashlib.sha256()
    with open(path, "wb") as f:
        for i in range(size // len(block)):
            chunk = i.to_bytes(4, "big") + block[4:]
            digest.update(chunk)
            f.write(chunk)
    assert ui.wait_signal("TransferComplete", timeout=120) == [["big.pdf"]]

    def spooled_digest():
        [name] = os.listdir(world.sandbox.www)
        full = os.path.join(world.sandbox.www, name)
        if os.path.getsize(full) != size:
            return None
        with open(full, "rb") as f:
            return hashlib.file_digest(f, "sha256").hexdigest()

    wait_until(lambda: spooled_digest() == digest.hexdigest(), 60, "the exact copy")


def test_file_beyond_what_memory_takes_in_one_piece_is_copied_exactly(world, ui):
    size = (5 << 30) // 2  # 2.5 GiB: more than Qt reads into memory at once
    if shutil.disk_usage(world.workdir).free < 10 << 30:
        pytest.skip("needs 10 GiB of free disk for the copy")
    path = os.path.join(world.sandbox.obex, "huge.brf")
    # Sparse, with marks around the 2 GiB boundary and at both ends.
    with open(path, "wb") as f:
        f.truncate(size)
        for offset in (0, (1 << 30) - 7, (2 << 30) - 4096, (2 << 30) + 13, size - 4096):
            f.seek(offset)
            f.write(hashlib.sha256(b"%d" % offset).digest() * 128)

    def digest(name):
        with open(name, "rb") as f:
            return hashlib.file_digest(f, "sha256").hexdigest()

    expected = digest(path)
    assert ui.wait_signal("TransferComplete", timeout=600) == [["huge.brf"]]
    [name] = os.listdir(world.sandbox.www)
    copy = os.path.join(world.sandbox.www, name)
    wait_until(lambda: os.path.getsize(copy) == size, 120, "the whole copy")
    assert digest(copy) == expected


def test_folders_and_vanished_files_do_not_disturb_the_intake(world, ui):
    sandbox = world.sandbox
    os.mkdir(os.path.join(sandbox.obex, "sub.brf"))
    # A large copy keeps the uploader busy while a file comes and goes before it is read.
    sandbox.drop("busy.pdf", b"b" * (64 * 1024 * 1024))
    os.remove(sandbox.drop("gone.brf", b"never read"))
    sandbox.drop("after.txt", b"after")
    done = ui.wait_signal("TransferComplete", 3, timeout=60)
    # The vanished file's name is reopened read-write, which makes it anew, empty.
    assert [args[0] for args in done] == ["busy.pdf", "gone.brf", "after.txt"]
    wait_until(lambda: sorted(len(c) for c in sandbox.spooled().values()) == [
        0, 5, 64 * 1024 * 1024], 60, "the copies")
    assert sandbox.received() == ["sub.brf"]
    assert world.agent.proc.poll() is None


def test_missing_receive_folder_is_logged_and_the_daemon_serves_on(make_world):
    world = make_world()
    os.rmdir(world.sandbox.obex)
    world.start_agent()
    ui = world.client()
    wait_until(lambda: "BluetoothFileMonitor: mWatchD = -1" in world.agent.log(),
               what="the watch error")
    assert ui.call("getPower") is True
    os.mkdir(world.sandbox.obex)
    world.sandbox.drop("late.brf", b"late")
    pump(1.0)
    assert ui.received("TransferComplete") == []
    assert world.sandbox.received() == ["late.brf"]
    assert world.agent.log().count("mWatchD = -1") == 1


def test_monitor_runs_only_after_a_successful_start_up(make_world):
    world = make_world(with_bluez=False)
    os.rmdir(world.sandbox.obex)
    agent = world.start_agent(wait=False)
    assert agent.wait_exit() == 255
    log = agent.log()
    assert "iface not valid, something went wrong!" in log and "mWatchD" not in log
