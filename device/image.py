"""Makes what the reference device is delivered with: its disk, its initramfs, and packages on a card. Without root."""

import os
import re
import shutil
import subprocess
from pathlib import Path

HERE = Path(__file__).resolve().parent
MIB = 1024 * 1024
OLD, NEW = "5.2.1", "5.3.0"
SLOT_SIZE, DATA_SIZE = 20 * MIB, 96 * MIB
PARTITIONS = (("bootvars", MIB), ("slot-a", SLOT_SIZE), ("slot-b", SLOT_SIZE), ("data", DATA_SIZE))
# What the system has from others: busybox's programs must not stand in for the device's own.
OWN_PROGRAMS = {"busybox", "telinit", "unzip"}


def run(*command, **options):
    words = [str(word) for word in command]
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, **options)
    if done.returncode != 0:
        raise SystemExit(f"device: {' '.join(words)} failed:\n{done.stdout.decode(errors='replace')}")
    return done.stdout


def put_program(root, folder, program):
    """A program, and the libraries that it needs, where they lie on this machine."""
    for file, place in [(program, Path(folder) / Path(program).name)] + [
            (library, Path(library[1:])) for library in re.findall(r"(/\S+) \(0x", run("ldd", program).decode())]:
        (root / place).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(file, root / place)


def put_busybox(root):
    (root / "bin").mkdir()
    shutil.copy("/bin/busybox", root / "bin")
    for name in run("/bin/busybox", "--list").decode().split():
        if name not in OWN_PROGRAMS:
            (root / "bin" / name).symlink_to("busybox")


def make_ext4(image, folder, size, *options):
    image.unlink(missing_ok=True)
    run("mke2fs", "-q", "-t", "ext4", "-E", "root_owner=0:0", *options, "-d", folder, image, f"{size // 1024}k")


def make_initramfs(work):
    root = work / "initramfs"
    for folder in ("dev", "proc", "sys", "run", "slot", "flash", "opt/qast/data", "opt/qast/log"):
        (root / folder).mkdir(parents=True)
    put_busybox(root)
    for script in [*(HERE / "boot").iterdir(), *(HERE / "common").iterdir()]:
        shutil.copy(script, root / "bin")
    (root / "bin/loader").rename(root / "init")  # the name that kernel and switch_root ask for
    names = "\n".join(str(path.relative_to(root)) for path in sorted(root.rglob("*")))
    run("/bin/busybox", "cpio", "-o", "-H", "newc", "-R", "0:0", "-F", work / "initramfs.cpio", cwd=root,
        input=names.encode())


def make_slot(work, programs, kernel, version, broken=False):
    """A root file system; a broken one lacks a library of the daemon, as a build may that went wrong."""
    root = work / "root"
    shutil.rmtree(root, ignore_errors=True)
    for folder in ("dev", "proc", "sys", "run", "tmp", "flash", "card", "etc", "var/log", "opt/qast/data", "opt/qast/log"):
        (root / folder).mkdir(parents=True)
    put_busybox(root)
    put_program(root, "sbin", programs / "fotad")
    put_program(root, "bin", programs / "fotactl")
    put_program(root, "usr/bin", shutil.which("unzip"))
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
    (etc / "vexaos-kernel-minor-version").write_text(kernel.rsplit(".", 1)[1] + "\n", encoding="ascii")
    if broken:
        next(root.rglob("libcrypto.so.*")).unlink()
    image = work / ("broken.img" if broken else f"slot-{version}.img")
    make_ext4(image, root, SLOT_SIZE, "-O", "^has_journal", "-m", "0")
    return image


def make_data(work):
    root = work / "data"
    for folder in ("data", "log", "var_log", "key"):
        (root / folder).mkdir(parents=True)
    shutil.copy(work / "keys/device.pem", root / "key")
    (root / "key/device.pem").chmod(0o600)
    make_ext4(work / "data.img", root, DATA_SIZE)
    return work / "data.img"


def make_disk(work, slot):
    disk = work / "factory.img"
    start, table, places = 1, "label: gpt\n", {}
    for name, size in PARTITIONS:
        table += f"start={start * 2048}, size={size // 512}, name={name}\n"
        places[name] = start * MIB
        start += size // MIB
    disk.unlink(missing_ok=True)
    with open(disk, "wb") as file:
        file.truncate((start + 1) * MIB)
    run("sfdisk", disk, input=table.encode())
    with open(disk, "r+b") as file:
        for name, content in (("bootvars", b"slot=a\nrun_level=3\ntries=\nend\n"), ("slot-a", slot.read_bytes()),
                              ("data", make_data(work).read_bytes())):
            file.seek(places[name])
            file.write(content)


def make_package(work, programs, image, kernel, name, *more):
    content = work / "content"
    shutil.rmtree(content, ignore_errors=True)
    content.mkdir()
    if image:
        os.link(image, content / "rootfs.img")
    else:
        (content / "empty").touch()
    run(programs / "fotapkg", "package", "--content", content, "--keys", work / "keys", "--source",
        f"MDM2.1.07-{kernel}-{OLD}", "--target", f"MDM2.1.07-{kernel}-{NEW}", "--description", f"Release {NEW}",
        *more, "-o", work / "card" / name)


def make_card(work, programs, kernel):
    good, broken = (make_slot(work, programs, kernel, NEW, broken) for broken in (False, True))
    make_package(work, programs, good, kernel, "upgrade.zip")
    make_package(work, programs, broken, kernel, "broken.zip")
    make_package(work, programs, None, kernel, "unsuitable.zip")  # the installer finds no image in it
    make_package(work, programs, good, kernel, "full-image.zip", "--full-image", HERE / "package/full-image")
    run(programs / "fotapkg", "bundle", work / "card/upgrade.zip", "--keys", work / "keys", "-o", work / "card/bundle.zip")
    shutil.copy(good, work / f"card/rootfs-{NEW}.img")
    make_ext4(work / "card.img", work / "card", 96 * MIB, "-O", "^has_journal")


def make_all(work, programs):
    """Leaves factory.img, initramfs.cpio and card.img in `work`, made anew, but for the keys."""
    for folder in ("initramfs", "data", "card"):
        shutil.rmtree(work / folder, ignore_errors=True)
    (work / "card").mkdir(parents=True)
    if not (work / "keys/device.pem").exists():
        run(programs / "fotapkg", "keys", work / "keys")
    kernel = run("linux.uml", "--version").decode().strip()
    make_initramfs(work)
    make_disk(work, make_slot(work, programs, kernel, OLD))
    make_card(work, programs, kernel)
