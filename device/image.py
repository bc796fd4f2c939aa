"""Makes what the reference device is delivered with: its disk, its initramfs, and packages on a card. Without root."""

import lzma
import os
import re
import shutil
import subprocess
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve().parent
BUILD = HERE.parent / "build"
FOTAPKG = BUILD / "release/bin/fotapkg"  # of this machine, for all targets
TEST_PROGRAMS = BUILD / "dev/bin"
MIB = 1024 * 1024
OLD, NEW = "5.2.1", "5.3.0"
SLOT_SIZE, DATA_SIZE, CARD_SIZE = 20 * MIB, 96 * MIB, 96 * MIB
# What a kernel from the distribution needs before it finds the disks. Most of it is in modules, and no program in the initramfs
# brings what they ask for by another name, such as the checksum of ext4.
MODULES = ("virtio_mmio", "virtio_pci", "virtio_blk", "crc32c_generic", "crc32_generic", "ext4")
# What the system has from others: busybox's programs must not stand in for the device's own.
OWN_PROGRAMS = {"busybox", "telinit", "unzip"}


class Target(NamedTuple):
    """What an image is made for: a processor and a kernel."""
    programs: Path  # the folder of fotad and fotactl
    root: Path  # where their libraries lie, and unzip
    list_libraries: tuple  # prints them, from a program's name on
    busybox: Path
    kernel: Path | None  # the folder of an unpacked kernel; None: user-mode Linux, which has all that it needs built in
    data: str = "ext4"  # the file system of the data partition: this, or f2fs
    lazy: str = ""  # which syncs of its daemon do nothing, "all" or "folders", to see who notices

    def kernel_version(self):
        if self.kernel is None:
            return run("linux.uml", "--version").decode().strip()
        return (self.kernel / "kernel-version").read_text(encoding="ascii").split("-")[0]

    def kernel_image(self):
        return next((self.kernel / "boot").glob("vmlinuz-*"))


AMD64_PROGRAMS = (BUILD / "release/bin", Path("/"), ("ldd",), Path("/bin/busybox"))
ARMHF_ROOT = BUILD / "sysroot-armhf"
UML = Target(*AMD64_PROGRAMS, None)
AMD64 = Target(*AMD64_PROGRAMS, BUILD / "kernel-amd64")
ARMHF = Target(BUILD / "armhf/bin", ARMHF_ROOT, ("qemu-arm", "-E", "LD_TRACE_LOADED_OBJECTS=1", "-L", ARMHF_ROOT),
               BUILD / "kernel-armhf/bin/busybox", BUILD / "kernel-armhf")


def run(*command, **options):
    words = [str(word) for word in command]
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, **options)
    if done.returncode != 0:
        raise SystemExit(f"device: {' '.join(words)} failed:\n{done.stdout.decode(errors='replace')}")
    return done.stdout


def put_program(root, target, folder, program):
    """A program, and the libraries that it needs, where the target has them."""
    libraries = re.findall(r"/(\S+)(?: => \S+)? \(0x", run(*target.list_libraries, program).decode())
    for file, place in [(program, f"{folder}/{program.name}")] + [(target.root / library, library) for library in libraries]:
        (root / place).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(file, root / place)


def put_busybox(root, target):
    (root / "bin").mkdir()
    shutil.copy(target.busybox, root / "bin")
    for name in run("/bin/busybox", "--list").decode().split():
        if name not in OWN_PROGRAMS:
            (root / "bin" / name).symlink_to("busybox")


def make_ext4(image, folder, size, *options):
    image.unlink(missing_ok=True)
    run("mke2fs", "-q", "-t", "ext4", "-E", "root_owner=0:0", *options, "-d", folder, image, f"{size // 1024}k")


def make_f2fs(image, folder, size):
    image.unlink(missing_ok=True)
    with open(image, "wb") as file:
        file.truncate(size)
    run("mkfs.f2fs", "-q", image)
    run("sload.f2fs", "-f", folder, image)


def put_modules(root, target, names):
    """Kernel modules in the order that they are to be loaded in: each after those that it depends on."""
    files = {file.name.split(".")[0].replace("-", "_"): file for file in (target.kernel / "lib/modules").rglob("*.ko*")}
    order = []

    def add(name):
        content = files[name].read_bytes()
        if files[name].suffix == ".xz":
            content = lzma.decompress(content)
        for other in re.search(rb"\0depends=([^\0]*)", content)[1].decode().replace("-", "_").split(","):
            if other and other not in order:
                add(other)
        (root / f"{len(order):02}-{name}.ko").write_bytes(content)
        order.append(name)

    root.mkdir()
    for name in names:
        if name in files and name not in order:  # others are built in
            add(name)


def pack_initramfs(root, file):
    names = "\n".join(str(path.relative_to(root)) for path in sorted(root.rglob("*")))
    run("/bin/busybox", "cpio", "-o", "-H", "newc", "-R", "0:0", "-F", file, cwd=root, input=names.encode())


def make_initramfs(work, target):
    root = work / "initramfs"
    for folder in ("dev", "proc", "sys", "run", "slot", "flash", "opt/qast/data", "opt/qast/log"):
        (root / folder).mkdir(parents=True)
    put_busybox(root, target)
    if target.kernel:
        put_modules(root / "modules", target, (*MODULES, target.data))
    for script in [*(HERE / "boot").iterdir(), *(HERE / "common").iterdir()]:
        shutil.copy(script, root / "bin")
    (root / "bin/loader").rename(root / "init")  # the name that kernel and switch_root ask for
    pack_initramfs(root, work / "initramfs.cpio")


def make_lazy(root, target):
    put_program(root, target, "lib", TEST_PROGRAMS / "lazy_sync.so")
    (root / "lib/lazy").mkdir()
    (root / "sbin/fotad").rename(root / "lib/lazy/fotad")
    (root / "sbin/fotad").write_text(
        f"#!/bin/sh\nLD_PRELOAD=/lib/lazy_sync.so LAZY_SYNC={target.lazy} exec /lib/lazy/fotad \"$@\"\n", encoding="ascii")
    (root / "sbin/fotad").chmod(0o755)


def make_slot(work, target, version, broken=False):
    """A root file system; a broken one lacks a library of the daemon, as a build may that went wrong."""
    root = work / "root"
    shutil.rmtree(root, ignore_errors=True)
    for folder in ("dev", "proc", "sys", "run", "tmp", "flash", "card", "etc", "var/log", "opt/qast/data", "opt/qast/log"):
        (root / folder).mkdir(parents=True)
    put_busybox(root, target)
    put_program(root, target, "sbin", target.programs / "fotad")
    if target.lazy:
        make_lazy(root, target)
    put_program(root, target, "bin", target.programs / "fotactl")
    put_program(root, target, "usr/bin", target.root / "usr/bin/unzip")
    for script in (HERE / "common").iterdir():
        shutil.copy(script, root / "bin")
    for script in (HERE / "system").iterdir():
        shutil.copy(script, root / ("etc" if script.name in ("inittab", "rc", "rc.stop") else "sbin"))
    (root / "sbin/init").symlink_to("/bin/busybox")

    examples = HERE.parent / "packaging/examples"
    etc = root / "opt/qast/etc"
    (etc / "fota").mkdir(parents=True)
    shutil.copy(examples / "config.xml", etc / "fota")
    shutil.copy(examples / "features.xml", etc)
    for key in ("build_cert.pem", "build_pubkey.pem"):
        shutil.copy(work / "keys" / key, etc / "fota")
    # The image is the same for all devices, so a device's own key is not in it.
    (etc / "fota/device.pem").symlink_to("/flash/key/device.pem")
    (etc / "vexaos-version").write_text(version + "\n", encoding="ascii")
    (etc / "vexaos-kernel-minor-version").write_text(target.kernel_version().rsplit(".", 1)[1] + "\n", encoding="ascii")
    if broken:
        next(root.rglob("libcrypto.so.*")).unlink()
    image = work / ("broken.img" if broken else f"slot-{version}.img")
    make_ext4(image, root, SLOT_SIZE, "-O", "^has_journal", "-m", "0")
    return image


def make_data(work, target):
    root = work / "data"
    for folder in ("data", "log", "var_log", "key"):
        (root / folder).mkdir(parents=True)
    shutil.copy(work / "keys/device.pem", root / "key")
    (root / "key/device.pem").chmod(0o600)
    (make_f2fs if target.data == "f2fs" else make_ext4)(work / "data.img", root, DATA_SIZE)
    return work / "data.img"


def make_disk(disk, partitions):
    """A disk of partitions: name, size and content of each. The device finds them by their names."""
    start, table = 1, "label: gpt\n"
    for name, size, _ in partitions:
        table += f"start={start * 2048}, size={size // MIB * 2048}, name={name}\n"
        start += size // MIB
    disk.unlink(missing_ok=True)
    with open(disk, "wb") as file:
        file.truncate((start + 1) * MIB)
    run("sfdisk", disk, input=table.encode())
    place = MIB
    with open(disk, "r+b") as file:
        for _, size, content in partitions:
            file.seek(place)
            file.write(content)
            place += size


def make_package(work, target, image, name, *more, modem="MDM2.1.07"):
    content = work / "content"
    shutil.rmtree(content, ignore_errors=True)
    content.mkdir()
    if image:
        os.link(image, content / "rootfs.img")
    else:
        (content / "empty").touch()
    kernel = target.kernel_version()
    run(FOTAPKG, "package", "--content", content, "--keys", work / "keys", f"--source={modem}-{kernel}-{OLD}",
        f"--target={modem}-{kernel}-{NEW}", "--description", f"Release {NEW}",
        *more, "-o", work / "card" / name)


def make_card(work, target):
    good, broken = (make_slot(work, target, NEW, broken) for broken in (False, True))
    make_package(work, target, good, "upgrade.zip")
    make_package(work, target, broken, "broken.zip")
    make_package(work, target, None, "unsuitable.zip")  # the installer finds no image in it
    make_package(work, target, good, "full-image.zip", "--full-image", HERE / "package/full-image")
    run(FOTAPKG, "bundle", work / "card/upgrade.zip", "--keys", work / "keys", "-o", work / "card/bundle.zip")
    shutil.copy(good, work / f"card/rootfs-{NEW}.img")
    make_ext4(work / "packages.img", work / "card", CARD_SIZE, "-O", "^has_journal")
    make_disk(work / "card.img", (("card", CARD_SIZE, (work / "packages.img").read_bytes()),))


def make_all(work, target):
    """Leaves factory.img, initramfs.cpio and card.img in `work`, made anew, but for the keys."""
    for folder in ("initramfs", "data", "card"):
        shutil.rmtree(work / folder, ignore_errors=True)
    (work / "card").mkdir(parents=True)
    if not (work / "keys/device.pem").exists():
        run(FOTAPKG, "keys", work / "keys")
    make_initramfs(work, target)
    make_disk(work / "factory.img", (("bootvars", MIB, b"slot=a\nrun_level=3\ntries=\nend\n"),
                                     ("slot-a", SLOT_SIZE, make_slot(work, target, OLD).read_bytes()),
                                     ("slot-b", SLOT_SIZE, b""), ("data", DATA_SIZE, make_data(work, target).read_bytes())))
    make_card(work, target)
