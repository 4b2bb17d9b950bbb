# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The embosser switched off at the wall while bluetooth-agent takes documents, in a Debian guest
under qemu whose receive and spool folders live on a disk of their own. The guest runs this file
(main), the host judges (test_power_cuts) from its console, where the daemon's log goes too.
Each boot lets the daemon take what the last cut left, lists both folders, then writes a batch of
documents and is cut: in the middle of the batch, or 0, 2 or 6 s after its last TransferComplete."""

import collections
import hashlib
import os
import signal
import subprocess
import sys
import time
from contextlib import suppress

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "guest"))

import guest as qemu  # noqa: E402
from board import RECEIVE, SPOOL, Board, document, listing  # noqa: E402
from simenv import AGENT_IFACE, AGENT_PATH, wait_until, watching  # noqa: E402

BATCH, CUTS = 20, ["mid", 0, 2, 6]


def content(index):
    """Document index: 64 KiB to 4 MiB, derived from the index, so the host knows its checksum."""
    return document(f"doc{index}", 64 << 10 << index % 7)


def test_power_cuts(tmp_path):
    # The disk starts as a cut during a copy leaves it: a hidden partial copy in the spool.
    (tmp_path / "lp" / "obex").mkdir(parents=True)
    (tmp_path / "lp" / "www").mkdir()
    (tmp_path / "lp" / "www" / '.\\"bluetooth-agent\\"7-Ab3dEf.brf').write_bytes(content(0)[:999])
    disk = tmp_path / "spool.img"
    subprocess.run(["mkfs.ext4", "-q", "-d", tmp_path / "lp", disk, "512M"], check=True,
                   capture_output=True)
    documents = {hashlib.sha256(content(i)).hexdigest(): i for i in range(len(CUTS) * BATCH)}
    build, conf = os.environ["BLUETOOTH_AGENT_BUILD_DIR"], "com.quorvane.BluetoothAgent.conf"
    inputs = {name: f"{qemu.HERE}/{name}" for name in ("init", "board.py", "guest.py")} | {
        "bluetooth-agent": f"{build}/src/bluetooth-agent", conf: f"{build}/data/{conf}",
        "simenv.py": f"{qemu.TOP}/tools/simenv.py", "scenario.py": __file__,
        "batch": tmp_path / "batch"}
    guest, findings, daemon_log, announced = qemu.Guest(tmp_path), [], [], []
    for boot, cut in enumerate(CUTS + [None]):
        fsck = subprocess.run(["e2fsck", "-f", "-y", disk], capture_output=True, text=True)
        assert fsck.returncode < 4, fsck.stdout + fsck.stderr
        (tmp_path / "batch").write_text(str(boot))
        seen = collections.defaultdict(list)

        def on_line(line):
            word, _, rest = line.partition(" ")
            if word == "agent:":
                daemon_log.append(rest)
            elif word in ("spool", "receive", "listed", "TransferComplete"):
                seen[word].append(rest.split())
                count = len(seen["TransferComplete"])
                if count == BATCH // 2 and cut == "mid" or count == BATCH and cut != "mid":
                    guest.cut(0 if cut == "mid" else cut)

        guest.boot(inputs, disks=[disk], timeout=900, on_line=on_line)
        assert seen["listed"] and (cut is None or guest.cut_at is not None), (
            f"boot {boot} failed before it listed both folders, or ended before its cut:\n"
            + (tmp_path / "console.log").read_text(errors="replace")[-3000:])
        findings.append(f"cut {CUTS[boot - 1]} after {len(announced)} announced: " * bool(boot)
                        + recovered(boot * BATCH, seen, documents))
        announced = seen["TransferComplete"]
    assert all(f.endswith("in order") for f in findings) and daemon_log == [], \
        "\n".join(findings + ["daemon log:"] + daemon_log)


def recovered(written, seen, documents):
    """What is wrong in the folders once the daemon has taken what the cut left. Every document
    written before is due, announced or not (the writer flushed it); a cut may add one duplicate."""
    spool = [(name, int(size), documents.get(sha)) for name, size, sha in seen["spool"]]
    copies = collections.Counter(i for name, size, i in spool if name[0] != ".")
    duplicates = [sum(copies[i] - 1 for i in range(b, b + BATCH) if copies[i] > 1)
                  for b in range(0, written, BATCH)]
    problems = {
        "lost": [i for i in range(written) if not copies[i]],
        "torn, partial or empty (bytes)": [s for n, s, i in spool if i is None and n[0] != "."],
        "duplicates per batch": duplicates if max(duplicates, default=0) > 1 else [],
        "hidden in the spool": [name for name, size, i in spool if name[0] == "."],
        "left in the receive folder": [name for name, size, sha in seen["receive"]]}
    return "; ".join(f"{what}: {len(items)} {items[:8]}" for what, items in problems.items()
                     if items) or "in order"


def main():
    batch = int(open("/guest/batch", encoding="ascii").read())
    subprocess.run(["mount", "/dev/vdd", "/var/spool/lp"], check=True)
    board = Board()
    board.start("bluetoothd")
    board.start_bluez()
    agent = board.procs["agent"] = subprocess.Popen(["/guest/bluetooth-agent"], env=dict(
        os.environ, QT_MESSAGE_PATTERN="agent: %{if-category}%{category}: %{endif}%{message}"))
    # Ready once its start-up ended with the watch on the receive folder.
    wait_until(lambda: watching(agent.pid), 180, "bluetooth-agent")
    try:
        with suppress(TimeoutError):  # the host sees what stayed
            wait_until(lambda: not os.listdir(RECEIVE), 300, "the daemon taking what was left")
        for label, folder in (("spool", SPOOL), ("receive", RECEIVE)):
            for name, (size, sha) in listing(folder).items():
                print(label, name, size, sha, flush=True)
        print("listed", flush=True)
        if batch == len(CUTS):
            return
        board.ui.conn.add_signal_receiver(lambda name: print("TransferComplete", name, flush=True),
                                          "TransferComplete", AGENT_IFACE, path=AGENT_PATH)
        # The daemon waits while the batch is written: a cut in the middle of the batch meets
        # the daemon's work only, never a receiver's unfinished file.
        agent.send_signal(signal.SIGSTOP)
        for index in range(batch * BATCH, (batch + 1) * BATCH):
            with open(f"{RECEIVE}/doc{index}.brf", "wb") as f:
                f.write(content(index))
                f.flush()
                os.fsync(f.fileno())
        os.fsync(os.open(RECEIVE, os.O_RDONLY))
        agent.send_signal(signal.SIGCONT)
        announced = len(board.ui.received("TransferComplete")) + BATCH
        wait_until(lambda: len(board.ui.received("TransferComplete")) == announced, 600, "a batch")
        time.sleep(120)  # for the host to cut the power
    finally:
        board.kill("agent")  # it holds the console too: the guest ends only without it


if __name__ == "__main__":
    main()
