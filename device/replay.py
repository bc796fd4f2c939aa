"""Each block write of an update: records them on an emulated machine, and has the power go after each."""

import re
import shutil
import subprocess
import time
from pathlib import Path

import image
from machine import KINDS, QEMU_X86, Failure, Machine, qemu, watch

KIND = KINDS["qemu"]  # that can record
WORK = image.BUILD / "device-replay"


class Recorder:
    """Plays an update, and notes how much had been written when the client had been told something."""

    def __init__(self, way, log):
        self.way, self.log = way, log
        self.told = {"record": 0, "status": 0, "processed": 0}
        self.marks = []
        self.machine = Machine(KIND, self.heard, log)

    def heard(self, line):
        if self.marks and line.startswith("device: serving"):
            self.note(processed=1)

    def note(self, **told):
        self.told.update(told)
        self.marks.append(f"{self.log.stat().st_size} {self.told['record']} {self.told['status']} {self.told['processed']}\n")

    def printed(self, line):
        made = re.search(r"record (\d+) is made", line)
        if made:
            self.note(record=made[1])
        elif line.startswith("sideload start "):
            self.note(record=1)  # the first of this device

    def record(self):
        self.machine.factory_reset()
        try:
            self.machine.power_on()
            self.machine.wait_serving()
            self.note()
            status, printed = self.machine.run(self.way.command, self.printed)
            if status != 0:
                raise Failure(f"the update is refused: {' '.join(printed)}")
            self.machine.wait_serving()
            outcome = self.machine.output(f"fotactl {self.way.ask} | cat")  # plain, as for no terminal
            self.note(record=re.search(r"^record: +(\d+)", outcome, re.M)[1],
                      status=re.search(r"^status: +(\d+)", outcome, re.M)[1])
            self.machine.power_off()
        finally:
            self.machine.cut_power()
        return "".join(self.marks)


FSCK = {"ext4": 'e2fsck -fn "$1"', "f2fs": 'fsck.f2fs -f --dry-run "$1"'}


def make_initramfs(name, marks, data, options):
    """What mounts one prefix after the other: the daemon, the checks, and a package for the update after that."""
    root = WORK / "initramfs"
    shutil.rmtree(root, ignore_errors=True)
    for folder in ("dev", "proc", "sys", "run", "tmp", "opt", "var/log", "device", "flash", "parts", "etc"):
        (root / folder).mkdir(parents=True)
    image.put_busybox(root, image.AMD64)
    image.put_modules(root / "modules", image.AMD64, (*image.MODULES, data, "loop"))
    for program in (image.TEST_PROGRAMS / "replay", image.AMD64.programs / "fotad"):
        image.put_program(root, image.AMD64, "replay", program)
    image.run("strip", root / "replay/replay")
    for program in ("/usr/bin/unzip", shutil.which(FSCK[data].split()[0])):
        image.put_program(root, image.AMD64, "usr/bin", Path(program))
    (root / "replay/arguments").write_text(f"{name} {' '.join(options)}", encoding="ascii")
    (root / "replay/fsck").write_text(f"#!/bin/sh\n{FSCK[data]}\n", encoding="ascii")
    (root / "replay/fsck").chmod(0o755)
    (root / "replay/marks").write_text(marks, encoding="ascii")
    shutil.copy(KIND.work / "card/unsuitable.zip", root / "replay/next.zip")  # small, and good as far as the daemon knows
    shutil.copy(image.HERE / "replay/init", root / "init")
    image.pack_initramfs(root, WORK / "initramfs.cpio")


def disks(*files):
    """All read-only, in this order."""
    return [word for number, file in enumerate(files) for word in (
        "-blockdev", f"driver=file,filename={file},node-name=disk{number},read-only=on",
        "-device", f"virtio-blk-pci,drive=disk{number}")]


def replay(name, marks, data, options, quiet):
    """Returns how many points there were, and how many of them were bad, and prints what the bad ones are."""
    make_initramfs(name, marks, data, options)
    firmware = KIND.work / ("broken.img" if name == "broken" else f"slot-{image.NEW}.img")
    result = None

    def heard(line):
        nonlocal result
        found = re.search(r"^replay: \S+ (\d+) of (\d+) points", line)
        if found:
            result = int(found[2]), int(found[2]) - int(found[1])
        elif line.startswith("replay: ") and not (quiet and "bad after" in line):
            print(f"  {line[8:]}", flush=True)

    watch(qemu(*QEMU_X86, WORK, True, disks(KIND.work / "factory.img", WORK / "log", firmware)), WORK / "console.log", heard)
    if result is None:
        raise Failure(f"the replay comes to no end; what it said: {WORK}/console.log")
    return result


def play(name, way, data, lazy=""):
    """Records and replays one way of updating, by a daemon with those syncs away. Returns whether all was as it should be:
    no bad point, but some if the daemon did not sync."""
    WORK.mkdir(parents=True, exist_ok=True)
    label = name + (f", without {lazy} syncs" if lazy else "") + (f", on {data}" if data != "ext4" else "")
    print(f"{label}: recording", flush=True)
    image.make_all(KIND.work, KIND.target._replace(lazy=lazy, data=data))
    marks = Recorder(way, WORK / "log").record()
    print(f"{label}: replaying {(WORK / 'log').stat().st_size / image.MIB:.0f} MiB of writes", flush=True)
    start = time.monotonic()
    (WORK / "marks").write_text(marks, encoding="ascii")
    points, bad = replay(name, marks, data, ["in-order"] if lazy else [], quiet=bool(lazy))
    print(f"{label}: {points} points, {bad} bad, {time.monotonic() - start:.0f} s", flush=True)
    return (bad > 0) == bool(lazy)
