"""The reference device, from the host's side: makes it, plays updates on it, and cuts its power. See docs/device.md."""

import argparse
import fcntl
import json
import random
import shutil
import signal
import subprocess
import sys
import time
from typing import NamedTuple

import flash
import image
import replay
from machine import KINDS, Failure, Machine, PowerCut, run_on_terminal

# What an update may leave in the daemon's folder: what the device is told by, and no package and no session.
KEPT_FILES = {"history.bin", "previous", "result_processed", "revert_processed", "update_check"}

# Type and status of the records that there may be.
SUCCESS, UNSUITABLE, CUT_SHORT, WENT_BACK, PENDING = (0, 200), (0, 408), (0, 409), (2, 410), (0, 0)


class Way(NamedTuple):
    """A way of updating, and what comes of it."""
    help: str
    command: str  # of the agent, on the device
    ends: str
    outcome: tuple = SUCCESS
    ask: str = "update-status dm-agent"
    left: set = set()  # files that stay although the update has ended
    may_record: set = set()  # besides the outcome, when the power was cut


WAYS = {
    "over-the-air": Way("over the air", "update /card/upgrade.zip", "updated, and the record says so"),
    "broken": Way("over the air, to a system that fails its boot check", "update /card/broken.zip",
                  "the device has gone back, and its record says why", WENT_BACK, "revert-status", {"upgrade.zip"}),
    "failed": Way("over the air, with a package that the installer cannot use", "update /card/unsuitable.zip",
                  "the device is as it was, and its record says why", UNSUITABLE),
    "sideload": Way("by side-load", "update --sideload /card/bundle.zip", "updated, and the record says so"),
    "script": Way("by script, with the update tool's own image", f"update --script /card/rootfs-{image.NEW}.img",
                  "updated, and the record says so", ask="update-status SUA"),
    "full-image": Way("over the air, installed while the system is up", "update /card/full-image.zip",
                      "updated, and the record says so", may_record={CUT_SHORT}),
}


class Story:
    """Prints what happens, with the time since the start."""

    def __init__(self):
        self.start = time.monotonic()

    def __call__(self, text):
        print(f"{time.monotonic() - self.start:6.1f} s  {text}", flush=True)


def need(holds, complaint):
    if not holds:
        raise Failure(complaint)


def check_device(machine, way):
    """Fails unless the device is as it was, or has ended its update, and says so truly. Returns whether it has ended it."""
    version, slot, run_level, tries, *files = machine.output(
        "cat /opt/qast/etc/vexaos-version; bootvars slot; bootvars run_level; bootvars tries; ls /opt/qast/data/fota"
    ).split("\n")
    history = json.loads(machine.output("fotactl history --json"))["data"]["records"]
    told = [(record["type"], record["status"]) for record in history]
    found = f"firmware {version} in slot {slot}, history {told}"

    updated = version == image.NEW
    need(version == image.OLD or updated and way.outcome == SUCCESS, f"that firmware must not run: {found}")
    need((slot == "b") == updated, f"the wrong slot: {found}")
    need((run_level, tries) == ("3", ""), f"run level {run_level} and {tries or 'no'} tries: {found}")
    need((SUCCESS in told) == updated, f"no true history: {found}")
    need(set(told) <= {way.outcome, PENDING} | way.may_record, f"no true history: {found}")
    ended = way.outcome in told
    left = set(" ".join(files).split()) - KEPT_FILES - way.left
    need(not ended or not left, f"left over: {' '.join(sorted(left))}")
    return ended


def start_update(machine, way, each=None):
    status, printed = machine.run(way.command, each)
    need(status == 0, f"the update is refused: {' '.join(printed)}")


def play_once(kind, way):
    """One update, for a person to follow."""
    story = Story()
    machine = Machine(kind, story)
    machine.factory_reset()

    def ask(command):
        story(f"$ {command}")
        for line in machine.output(command).splitlines():
            story(f"    {line}")

    try:
        story("power on")
        machine.power_on()
        machine.wait_serving()
        story(f"$ {way.command}")
        start_update(machine, way, lambda line: story(f"    {line}"))
        machine.wait_serving()
        ask(f"fotactl {way.ask} | grep -E '^(record|outcome|status|version):'")
        ask("fotactl history | cat")
        need(check_device(machine, way), "the update has left no record")
        story(way.ends)
    finally:
        machine.cut_power()


def cut_in_update(machine, way, moments):
    """One update, with the power cut at these moments: in seconds from its start, and from each restart. It goes on after
    each cut, from what is left. Returns what the device said last before each, and how long all took."""
    cuts, seen = list(moments), []
    machine.factory_reset()
    machine.power_on()
    machine.wait_serving()
    start = time.monotonic()
    while True:
        if cuts:
            machine.cut_at = time.monotonic() + cuts.pop(0)
        try:
            if seen:
                machine.wait_serving()
            if not check_device(machine, way):
                start_update(machine, way)
                machine.wait_serving()
                need(check_device(machine, way), "the update has left no record")
            if machine.cut_at is None:
                return seen, time.monotonic() - start
            machine.idle()
        except PowerCut:
            seen.append(machine.spoken)
            machine.power_on()


def play_cuts(kind, name, count, seed, times):
    """Updates with random cuts. Returns whether the device came through all of them."""
    machine = Machine(kind)
    failed = 0
    try:
        _, duration = cut_in_update(machine, WAYS[name], [])
        machine.cut_power()
        print(f"device: an update takes {duration:.1f} s; {count} with the power cut {times} times each, seed {seed}")
        for number in range(seed, seed + count):
            # One generator an update, so that one alone can be played again.
            source = random.Random(number)
            moments = [source.random() for _ in range(times)]
            try:
                seen, _ = cut_in_update(machine, WAYS[name], [moment * duration for moment in moments])
                verdict = "came through"
            except Failure as failure:
                seen, verdict = None, f"FAILED: {failure}"
            machine.cut_power()
            places = ", ".join(f"{moment:3.0%}" for moment in moments) if seen is None else ", ".join(
                f"{moment:3.0%} '{line}'" for moment, line in zip(moments, seen))
            print(f"{number - seed + 1:4}  {verdict}; cut at {places}", flush=True)
            if seen is None:
                failed += 1
                for file in ("console.log", "disk.img"):
                    shutil.copy(kind.work / file, kind.work / f"failed-{number}-{file}")
                print(f"      left: {kind.work}/failed-{number}-*")
                print(f"      again: ./scripts/device {kind.option}--{name} --cuts 1 --times {times} --seed {number}", flush=True)
    finally:
        machine.cut_power()
    print(f"device: {count - failed} of {count} came through")
    return failed == 0


def play_replays(name, data):
    """Of one way, or of all. Returns whether all was as it should be."""
    if name:
        return replay.play(name, WAYS[name], data)
    played = [replay.play(each, way, data) for each, way in WAYS.items()]
    return all(played + [replay.play("over-the-air", WAYS["over-the-air"], data, lazy) for lazy in ("all", "folders")])


def main():
    parser = argparse.ArgumentParser(prog="device", description="Boots the reference device and plays an update over the "
                                     "air on it. Nothing of this machine is touched but the folder build.")
    machine = parser.add_mutually_exclusive_group()
    for option, emulated in (("--qemu", "x86-64"), ("--arm", "32-bit ARM")):
        machine.add_argument(option, action="store_const", dest="kind", const=option[2:], default="uml",
                             help=f"on an emulated {emulated} machine, not on user-mode Linux")
    ways = parser.add_mutually_exclusive_group()
    for name, way in WAYS.items():
        ways.add_argument(f"--{name}", dest="way", action="store_const", const=name, help=way.help)
    play = parser.add_mutually_exclusive_group()
    play.add_argument("--shell", action="store_true", help="only boot it, for a person at its console")
    play.add_argument("--replay", action="store_true", help="record the block writes of an update, and have the power go after "
                      "each; without a way of updating: of all, and of two daemons that do not sync")
    play.add_argument("--cuts", type=int, metavar="N", help="play N updates with the power cut at random moments")
    play.add_argument("--ubifs", nargs="?", const="50", metavar="N", help="play N updates with the power cut on UBIFS, "
                      "on an emulated flash; or the one that a failure names")
    parser.add_argument("--f2fs", dest="data", action="store_const", const="f2fs", default="ext4",
                        help="with --replay: the data partition is f2fs, not ext4")
    parser.add_argument("--times", type=int, default=1, choices=(1, 2), help="cuts in one update")
    parser.add_argument("--seed", type=int, help="of the moments; otherwise another each time")
    options = parser.parse_args()
    for end in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(end, lambda number, _: sys.exit(128 + number))  # so that no machine stays behind

    kind = KINDS[options.kind]
    seed = random.randrange(1000000) if options.seed is None else options.seed
    work = flash.WORK if options.ubifs else kind.work
    work.mkdir(parents=True, exist_ok=True)
    with open(work / "lock", "w", encoding="ascii") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            sys.exit(f"device: another run uses {work}")
        if options.ubifs:
            sys.exit(0 if flash.play(options.ubifs, seed) else 1)
        print("device: making the disk and the packages", flush=True)
        try:
            if options.replay:
                sys.exit(0 if play_replays(options.way, options.data) else 1)
            image.make_all(kind.work, kind.target)
            if options.shell:
                run_on_terminal(kind)
            elif options.cuts is not None:
                if not play_cuts(kind, options.way or "over-the-air", options.cuts, seed, options.times):
                    sys.exit(1)
            else:
                play_once(kind, WAYS[options.way or "over-the-air"])
        except Failure as failure:
            sys.exit(f"device: FAILED: {failure}; what it said: {kind.work}/console.log")


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
