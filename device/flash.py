"""Updates on UBIFS, on an emulated machine whose flash is simulated, with the power cut in the middle of them."""

import re
import shlex
import shutil
import sys

import image
from machine import QEMU_X86, qemu, watch

WORK = image.BUILD / "device-ubifs"
TESTS = image.BUILD / "dev"
# UBIFS looks for the three ways to compress, of which some are built in, before anything can load them.
MODULES = ("lzo", "deflate", "zstd", "nandsim", "ubi", "ubifs")
# Time goes by instructions, and waits take none: a busy host does not let a request time out.
CLOCK = ("-icount", "shift=1,sleep=off", "-rtc", "clock=vm")
LAZY_CUTS = "10"  # of the daemon that does not sync


def make_initramfs(words, lazy):
    """Programs and keys lie where the build has them, as tests know their keys by that place."""
    root = WORK / "initramfs"
    shutil.rmtree(root, ignore_errors=True)
    for folder in ("dev", "devices", "proc", "sys", "run", "tmp", "opt", "var/log"):
        (root / folder).mkdir(parents=True)
    image.put_busybox(root, image.AMD64)
    image.put_modules(root / "modules", image.AMD64, MODULES)
    programs = TESTS / "bin"
    for program in ("fotad", "fotapkg", "ubifs_trials", "lazy_sync.so"):
        image.put_program(root, image.AMD64, str(programs.relative_to("/")), programs / program)
        image.run("strip", root / programs.relative_to("/") / program)
    for program in ("openssl", "zip", "unzip"):
        image.put_program(root, image.AMD64, "usr/bin", image.AMD64.root / "usr/bin" / program)
    shutil.copytree(TESTS / "tests/keys", root / (TESTS / "tests/keys").relative_to("/"))
    preloaded = ["env", f"LD_PRELOAD={programs}/lazy_sync.so"] if lazy else []
    (root / "trials").write_text(shlex.join([*preloaded, f"{programs}/ubifs_trials", *words]) + "\n", encoding="utf-8")
    shutil.copy(image.HERE / "flash/init", root / "init")
    image.pack_initramfs(root, WORK / "initramfs.cpio")


def run_trials(words, lazy, show):
    """Gives ubifs_trials these words, in a machine of its own. Returns whether all came through."""
    make_initramfs(words, lazy)
    ended = None

    def heard(line):
        nonlocal ended
        if line.startswith("flash: ended with "):
            ended = line.split()[-1]
        elif line.startswith("flash: "):
            show(line)

    watch(qemu(*QEMU_X86, WORK, True, CLOCK), WORK / "console.log", heard)
    if ended not in ("0", "1"):
        sys.exit(f"device: FAILED: the updates were not played; see {WORK}/console.log")
    return ended == "0"


def show_trial(line):
    print(line, flush=True)
    if "  FAILED: " in line:
        print(f"       again: ./scripts/device --ubifs {line.split()[1]}", flush=True)


def show_total(line):
    if re.match(r"flash: \d+ of ", line):
        print(line, flush=True)


def play(cuts, seed):
    """As many updates with a cut, and some to see that a cut can fail; or the one of that name. Returns whether all was as it
    should be."""
    if not cuts.isdigit():
        return run_trials([cuts], False, show_trial)
    print(f"device: updates on UBIFS, {cuts} of them with the power cut, seed {seed}", flush=True)
    good = run_trials([cuts, str(seed)], False, show_trial)
    print("device: the same with a daemon that does not sync, which has to fail", flush=True)
    noticed = not run_trials([LAZY_CUTS, str(seed)], True, show_total)
    if not noticed:
        print("device: FAILED: nothing has noticed that it does not sync", flush=True)
    return good and noticed
