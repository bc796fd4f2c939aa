"""The machine that the reference device is: user-mode Linux with a disk, a card, a serial console and a power switch."""

import os
import queue
import re
import signal
import subprocess
import sys
import threading
import time

KERNEL = "linux.uml"
TIMEOUT = 180  # seconds; a busy host makes a slow device
# Lines of the device's own programs. What the kernel and the daemon say goes to the console's log alone.
SPOKEN = re.compile(r"(loader|installer|write-slot|full image|fail-safe|boot check|device|console): ")


class PowerCut(Exception):
    """The power has gone at the moment that was set for it."""


class Failure(Exception):
    """The device has not done what it should."""


def arguments(work, *more):
    return [KERNEL, "mem=128M", f"initrd={work}/initramfs.cpio", f"ubd0={work}/disk.img",
            f"ubd1r={work}/card.img", "ssl=null", "con=null", "con0=fd:0,fd:1", "console=tty0",
            # Neither is of use here, and both take long.
            "pty.legacy_count=0", "initcall_blacklist=raid6_select_algo", "quiet", "panic=1",
            f"uml_dir={work}/uml", *more]


class Machine:
    def __init__(self, work, show=None):
        self.work, self.show = work, show
        self.process = self.lines = self.cut_at = None
        self.resets = False
        self.log = open(work / "console.log", "w", encoding="utf-8")
        self.spoken = ""

    def forget(self):
        """What an earlier device has said, when this one is new."""
        self.log.seek(0)
        self.log.truncate()
        self.spoken = ""

    def power_on(self):
        """Also what a reset does: a kernel that starts itself again may find its disk locked by what is left of it."""
        self.lines = queue.Queue()
        self.process = subprocess.Popen(arguments(self.work, "driven", "noreboot"), stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        threading.Thread(target=self._read, args=(self.process, self.lines), daemon=True).start()

    def _read(self, process, lines):
        for line in process.stdout:
            lines.put(line.decode(errors="replace").rstrip("\r\n"))
        lines.put(None)

    def cut_power(self):
        """Ends all that the kernel consists of, at once: what was not on the disk is lost."""
        self.cut_at = None
        self._end()

    def _end(self):
        if self.process is not None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
            self.process.stdin.close()
            self.process = None

    def _next_line(self, deadline):
        end = deadline if self.cut_at is None else min(deadline, self.cut_at)
        try:
            line = self.lines.get(timeout=max(0, end - time.monotonic()))
        except queue.Empty:
            if self.cut_at is not None and self.cut_at <= deadline:
                self.cut_power()
                raise PowerCut from None
            raise Failure("the device says nothing more") from None
        if line is None:
            self._end()
            if not self.resets:
                raise Failure("the machine has ended")
            self.power_on()
            return ""
        print(line, file=self.log, flush=True)
        self.resets = line.startswith(("reboot: Restarting", "Rebooting in"))  # the last it says, also after a panic
        if SPOKEN.match(line):
            self.spoken = line
            if self.show and not line.startswith("console: "):
                self.show(line)
        return line

    def wait_for(self, text, timeout=TIMEOUT):
        deadline = time.monotonic() + timeout
        while not self._next_line(deadline).startswith(text):
            pass

    def wait_serving(self):
        self.wait_for("device: serving")
        self.wait_for("console: ready")

    def idle(self):
        """Until the power goes."""
        while True:
            self._next_line(self.cut_at + 1)

    def run(self, command, each=None, timeout=TIMEOUT):
        """Runs a command on the console. Returns its exit status and what it printed; tells `each` of each line."""
        deadline = time.monotonic() + timeout
        try:
            self.process.stdin.write(f"{command}; echo \"[ended with $?]\"\n".encode())
            self.process.stdin.flush()
        except BrokenPipeError:
            raise Failure("the machine has ended") from None
        printed = []
        while True:
            line = self._next_line(deadline)
            ended = re.fullmatch(r"\[ended with (\d+)\]", line)
            if ended:
                return int(ended[1]), printed
            if not SPOKEN.match(line):
                printed.append(line.rsplit("\x1b[K")[-1])  # what a terminal shows in the end
                if each:
                    each(printed[-1])

    def output(self, command):
        status, printed = self.run(command)
        if status != 0:
            raise Failure(f"'{command}' ends with {status}: {' '.join(printed)}")
        return "\n".join(printed)


def run_on_terminal(work):
    """The device on this terminal, until it is switched off."""
    process = subprocess.Popen(arguments(work), start_new_session=True)
    try:
        process.wait()
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        if sys.stdin.isatty():
            subprocess.run(["stty", "sane"], check=False)
