"""The machines that the reference device can be: each with a disk, a card, a serial console and a power switch."""

import os
import queue
import re
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Callable, NamedTuple

import image

TIMEOUT = 180  # seconds; a busy host makes a slow device
# Lines of the device's own programs. What the kernel and the daemon say goes to the console's log alone.
SPOKEN = re.compile(r"(loader|installer|write-slot|full image|fail-safe|boot check|device|console): ")


class PowerCut(Exception):
    """The power has gone at the moment that was set for it."""


class Failure(Exception):
    """The device has not done what it should."""


# To each kernel: be brief, and restart after a panic. The rest is of no use here and takes long.
KERNEL_WORDS = ("quiet", "panic=1", "printk.time=0", "rcupdate.rcu_expedited=1", "pty.legacy_count=0", "initcall_blacklist=raid6_select_algo")


# The command that starts each kind. A machine that is driven ends when the device restarts, as one that starts itself again
# may find its disk locked by what is left of it; then its console is for a program. `log` is a file for each write and flush
# of the disk, or None.

def user_mode_linux(work, driven, log, words=()):
    if log:
        raise Failure("user-mode Linux cannot record what it writes")
    words = words or ("mem=128M", f"initrd={work}/initramfs.cpio")
    return ["linux.uml", *words, f"ubd0={work}/disk.img", f"ubd1r={work}/card.img",
            "ssl=null", "con=null", "con0=fd:0,fd:1", "console=tty0", f"uml_dir={work}/uml", *KERNEL_WORDS,
            *(["driven", "noreboot"] if driven else [])]


def qemu_disks(work, driver, log):
    # By default there is a cache, and what the device flushes is flushed.
    disks = [f"driver=file,filename={work}/disk.img,node-name=disk"]
    if log:
        append = "on" if log.exists() and log.stat().st_size > 0 else "off"
        log.touch()
        disks += [f"driver=file,filename={log},node-name=log",
                  f"driver=blklogwrites,file=disk,log=log,log-append={append},node-name=logged-disk"]
    disks += [f"driver=file,filename={work}/card.img,node-name=card,read-only=on"]
    return [*[word for one in disks for word in ("-blockdev", one)],
            "-device", f"{driver},drive={'logged-disk' if log else 'disk'}", "-device", f"{driver},drive=card"]


def qemu(emulator, target, words, work, driven, more):
    return [*emulator, "-m", "512", "-nodefaults", "-display", "none", *more,
            "-chardev", "stdio,id=console,signal=off", "-serial", "chardev:console",
            "-kernel", target.kernel_image(), "-initrd", f"{work}/initramfs.cpio",
            "-append", " ".join([*words, *KERNEL_WORDS, *(["driven"] if driven else [])]),
            *(["-no-reboot"] if driven else [])]


QEMU_X86 = (["qemu-system-x86_64", "-cpu", "max"], image.AMD64, ("console=ttyS0", "mitigations=off"))
QEMU_ARM = (["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15"], image.ARMHF, ("console=ttyAMA0",))


def qemu_x86(work, driven, log):
    return qemu(*QEMU_X86, work, driven, qemu_disks(work, "virtio-blk-pci", log))


def qemu_arm(work, driven, log):
    return qemu(*QEMU_ARM, work, driven, qemu_disks(work, "virtio-blk-device", log))


class Kind(NamedTuple):
    option: str  # what chooses it on the command line
    work: Path  # the folder of its disk
    target: image.Target
    command: Callable


KINDS = {"uml": Kind("", image.BUILD / "device", image.UML, user_mode_linux),
         "qemu": Kind("--qemu ", image.BUILD / "device-qemu", image.AMD64, qemu_x86),
         "arm": Kind("--arm ", image.BUILD / "device-arm", image.ARMHF, qemu_arm)}


def factory_reset(work):
    subprocess.run(["cp", "--sparse=always", work / "factory.img", work / "disk.img"], check=True)


def end_group(process):
    """Ends all that a machine consists of."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


class Machine:
    """`log` is a file, made anew, for each write and flush of the disk."""

    def __init__(self, kind, show=None, log=None):
        self.kind, self.show, self.log = kind, show, log
        self.process = self.lines = self.cut_at = None
        self.resets = False
        if log:
            log.unlink(missing_ok=True)
        self.console = open(kind.work / "console.log", "w", encoding="utf-8")
        self.spoken = ""

    def factory_reset(self):
        """A new device, which has said nothing yet."""
        factory_reset(self.kind.work)
        self.console.seek(0)
        self.console.truncate()
        self.spoken = ""

    def power_on(self):
        """Also what a reset does."""
        self.lines = queue.Queue()
        self.process = subprocess.Popen(self.kind.command(self.kind.work, True, self.log), stdin=subprocess.PIPE,
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

    def power_off(self):
        """As a person does who is done: what is not on the disk yet gets there."""
        self.process.stdin.write(b"poweroff\n")
        self.process.stdin.flush()
        self._wait_end()

    def _wait_end(self):
        try:
            self.process.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            raise Failure("the machine does not end") from None
        finally:
            self._end()

    def _end(self):
        if self.process is not None:
            end_group(self.process)
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
            self._wait_end()
            if not self.resets:
                raise Failure("the machine has ended")
            self.power_on()
            return ""
        print(line, file=self.console, flush=True)
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


def watch(arguments, console, each):
    """Runs a machine that needs nobody to its end, and tells `each` of each line that it says."""
    process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               start_new_session=True)
    try:
        with open(console, "w", encoding="utf-8") as log:
            for line in process.stdout:
                line = line.decode(errors="replace").rstrip("\r\n")
                print(line, file=log, flush=True)
                each(line)
        process.wait()
    finally:
        end_group(process)


def run_on_terminal(kind):
    """A new device on this terminal, until it is switched off."""
    factory_reset(kind.work)
    process = subprocess.Popen(kind.command(kind.work, False, None), start_new_session=True)
    try:
        process.wait()
    finally:
        end_group(process)
        if sys.stdin.isatty():
            subprocess.run(["stty", "sane"], check=False)
