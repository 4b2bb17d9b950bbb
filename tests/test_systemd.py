# SPDX-FileCopyrightText: 2026 The bluetooth-agent developers
# SPDX-License-Identifier: MIT
"""The package and its unit as they run on a board: the Debian package built, checked by lintian
and installed into a Debian 12 system booted with systemd as PID 1, next to a simulated
bluetoothd as bluetooth.service."""

import os
import subprocess
import sys
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "container"))

from container import Container  # noqa: E402

if os.environ.get("BLUETOOTH_AGENT_IN_CHROOT"):
    pytest.skip("systemd-nspawn does not boot a container inside the chroot of "
                "scripts/test-fresh-root", allow_module_level=True)


SCRIPTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts")


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    out = tmp_path_factory.mktemp("package")
    done = subprocess.run([os.path.join(SCRIPTS, "build-package")], capture_output=True, text=True,
                          env=dict(os.environ, PACKAGE_DIR=str(out)))
    assert done.returncode == 0, done.stderr
    return done.stdout.split()[-1]


@pytest.fixture(scope="module")
def board(package):
    board = Container(package)
    try:
        yield board.boot()
    finally:
        board.stop()


def show(board, prop, unit="bluetooth-agent.service"):
    return board.run("systemctl", "show", "-P", prop, unit).strip()


def wait(condition, what, timeout=60):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, f"timed out waiting for {what}"
        time.sleep(0.2)


def journal(board, priority):
    return board.run("journalctl", "-u", "bluetooth-agent", "-p", priority, "-o", "cat")


def registrations(board):
    log = board.run("journalctl", "-u", "bluetooth.service", "-o", "cat", "--no-pager")
    return log.count('RequestDefaultAgent "/BluetoothAgent"')


def running_again(board, old_pid, registered):
    wait(lambda: show(board, "MainPID") not in ("0", old_pid)
         and show(board, "ActiveState") == "active" and registrations(board) > registered,
         "the daemon running and registered again")


def test_the_package_has_no_lintian_error(package):
    done = subprocess.run(["lintian", "--fail-on", "error", package], capture_output=True,
                          text=True)
    assert done.returncode == 0, done.stdout


def test_boot_starts_it_with_bluez_and_it_registers(board):
    # The package made the user interface's group and the spool folders.
    assert board.run("getent", "group", "bluetooth").startswith("bluetooth:")
    assert board.run("stat", "-c", "%a %U", "/var/spool/lp/obex", "/var/spool/lp/www").split(
        "\n")[:2] == ["750 obex", "755 root"]
    wait(lambda: registrations(board) >= 1, "the agent's registration")
    assert show(board, "ActiveState") == "active"
    pid = show(board, "MainPID")
    assert board.run("readlink", f"/proc/{pid}/exe").strip() == "/usr/libexec/bluetooth-agent"


def test_it_restarts_stops_and_starts_with_bluez(board):
    pid, registered = show(board, "MainPID"), registrations(board)
    board.run("systemctl", "restart", "bluetooth.service")
    running_again(board, pid, registered)
    board.run("systemctl", "stop", "bluetooth.service")
    wait(lambda: show(board, "ActiveState") == "inactive", "the daemon stopped with BlueZ")
    pid, registered = show(board, "MainPID"), registrations(board)
    board.run("systemctl", "start", "bluetooth.service")
    running_again(board, pid, registered)


def test_a_crash_is_restarted(board):
    pid, registered = show(board, "MainPID"), registrations(board)
    board.run("systemctl", "kill", "--kill-who=main", "--signal=SEGV", "bluetooth-agent")
    running_again(board, pid, registered)


def test_it_pairs_through_the_user_interface_group_and_logs_with_priorities(board):
    ask = subprocess.Popen(
        ["nsenter", "-t", str(board.leader), "-a", "dbus-send", "--system", "--print-reply",
         "--reply-timeout=20000", "--dest=com.quorvane.BluetoothAgent", "/BluetoothAgent",
         "org.bluez.Agent1.RequestConfirmation", "objpath:/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01",
         "uint32:123456"], stdout=subprocess.PIPE, text=True)
    wait(lambda: "RequestConfirmation" in journal(board, "info"), "the question logged")
    assert board.run("bluetooth-agentctl", "confirm", "yes", user="embosser-ui") == ""
    assert "boolean true" in ask.communicate(timeout=30)[0]
    outsider = subprocess.run(["nsenter", "-t", str(board.leader), "-a", "setpriv",
                               "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                               "bluetooth-agentctl", "power"], capture_output=True)
    assert outsider.returncode == 4
    # A question is routine, a refused document an error; their texts are unchanged.
    board.run("sh", "-c", "echo x > /var/spool/lp/obex/refused.exe")
    wait(lambda: 'uploadError: "wrong file type"' in journal(board, "err"), "the refusal logged")
    assert "RequestConfirmation" not in journal(board, "warning")


def test_run_is_read_only_and_the_spool_folders_stay_writable_when_made_anew(board):
    pid = show(board, "MainPID")
    enter = ["nsenter", "-t", pid, "-m"]
    refused = board.run(*enter, "sh", "-c", "touch /run/systemd/system/x 2>&1", check=False)
    assert "Read-only file system" in refused
    board.run("rm", "-r", "/var/spool/lp/obex", "/var/spool/lp/www")
    board.run("mkdir", "/var/spool/lp/obex", "/var/spool/lp/www")
    board.run("sh", "-c", "umask 077 && echo hello > /var/spool/lp/obex/letter.brf")
    wait(lambda: board.run("ls", "/var/spool/lp/www").strip(), "the letter in the spool")
    assert board.run("ls", "/var/spool/lp/obex") == ""


def test_a_failed_start_up_is_retried_until_a_late_adapter_is_there(board):
    board.set_bluez(adapter_delay=6)
    board.run("systemctl", "daemon-reload")
    registered = registrations(board)
    board.run("systemctl", "restart", "bluetooth.service")
    wait(lambda: registrations(board) > registered, "the registration once hci0 is there", 90)
    assert int(show(board, "NRestarts")) >= 1 and show(board, "ActiveState") == "active"
