"""A real Debian with systemd, on user-mode Linux, with this project's packages: see docs/systemd.md."""

import json
import re
import shutil
import signal
import sys
from pathlib import Path
from typing import NamedTuple

import image
from device import Story, need
from machine import Failure, Kind, Machine, user_mode_linux

WORK = image.BUILD / "check-systemd"
PACKAGES = image.BUILD / "debian/packages"
EXAMPLES = image.HERE.parent / "packaging/examples"
LIMIT = 900  # seconds for all of it
ROOT_SIZE, CARD_SIZE = 600 * image.MIB, 64 * image.MIB
ROOTFS = f"/card/rootfs-{image.NEW}.img"
STAGING = "/opt/qast/data/fota/staging"
image.FOTAPKG = image.BUILD / "debian/bin/fotapkg"

KIND = Kind("", WORK, image.UML, lambda work, driven, log: user_mode_linux(
    work, driven, log, ("mem=256M", "root=/dev/ubda", "rw", f"ubd2={work}/slot.img")))


def dependencies():
    """What our packages ask for, from the distribution."""
    own, asked = set(), set()
    for package in PACKAGES.glob("*.deb"):
        name, depends = (image.run("dpkg-deb", "-f", package, field).decode().strip() for field in ("Package", "Depends"))
        own.add(name)
        asked |= {re.split(r"[ (|:]", one.strip())[0] for one in depends.split(",") if one.strip()}
    return sorted(asked - own)


def make_root():
    """The Debian root, made once for each list of packages. Without root."""
    into_root = ((image.HERE / "system/console", "/usr/local/sbin/console"), (image.HERE / "common/leave", "/usr/bin/leave"),
                 (image.HERE / "systemd/console.service", "/etc/systemd/system/console.service"))
    release = re.search(r'^VERSION_CODENAME="?([^"\n]*)', Path("/etc/os-release").read_text(encoding="utf-8"), re.MULTILINE)[1]
    command = ["mmdebstrap", "--variant=minbase", "--include=systemd,systemd-sysv,udev,dbus," + ",".join(dependencies()),
               "--dpkgopt=path-exclude=/usr/share/doc/*", "--dpkgopt=path-exclude=/usr/share/locale/*",
               *[f"--customize-hook=upload {source} {place}" for source, place in into_root],
               "--customize-hook=chroot \"$1\" sh -ec 'chmod 755 /usr/local/sbin/console /usr/bin/leave; "
               "useradd agent; useradd stranger; systemctl enable console; "
               "systemctl mask getty@tty1 e2scrub_reap e2scrub_all.timer apt-daily.timer apt-daily-upgrade.timer; "
               "mkdir -p /card /opt/qast/data /opt/qast/log'",
               release, str(WORK / "root.tar")]
    recipe = "\n".join([*command, *[source.read_text(encoding="utf-8") for source, _ in into_root]])
    made = WORK / "root.made"
    if made.exists() and made.read_text(encoding="utf-8") == recipe:
        return
    print("check-systemd: making a Debian root (once)", flush=True)
    made.unlink(missing_ok=True)
    image.run(*command)
    image.run("fakeroot", "sh", "-ec", f"rm -rf root && mkdir root && tar -C root -xf root.tar && rm -f factory.img root.tar && "
              f"mke2fs -q -t ext4 -d root factory.img {ROOT_SIZE // 1024}k && rm -rf root", cwd=WORK)
    made.write_text(recipe, encoding="utf-8")


def make_card():
    """What is brought to the system: our packages, keys and configuration, updates, and an installer."""
    card = WORK / "card"
    shutil.rmtree(card, ignore_errors=True)
    (card / "etc/fota").mkdir(parents=True)
    for package in PACKAGES.glob("*.deb"):
        shutil.copy(package, card)
    if not (WORK / "keys/device.pem").exists():
        image.run(image.FOTAPKG, "keys", WORK / "keys")
    for key in ("device.pem", "build_cert.pem", "build_pubkey.pem"):
        shutil.copy(WORK / "keys" / key, card / "etc/fota")
    (card / "etc/fota/device.pem").chmod(0o600)
    shutil.copy(EXAMPLES / "config.xml", card / "etc/fota")
    shutil.copy(EXAMPLES / "features.xml", card / "etc")
    (card / "etc/vexaos-version").write_text(image.OLD + "\n", encoding="ascii")
    (card / "etc/vexaos-kernel-minor-version").write_text(KIND.target.kernel_version().rsplit(".", 1)[1] + "\n", encoding="ascii")
    for file in (EXAMPLES / "firmware-installer.service", EXAMPLES / "strict.conf", image.HERE / "systemd/install-firmware",
                 image.HERE / "system/update"):
        shutil.copy(file, card)
    rootfs = WORK / "rootfs.img"
    rootfs.write_bytes(bytes(range(256)) * 1024)
    for name, content, more in (("upgrade.zip", rootfs, ()), ("unsuitable.zip", None, ()),
                                ("full-image.zip", rootfs, ("--full-image", image.HERE / "systemd/install-firmware"))):
        image.make_package(WORK, KIND.target, content, name, *more, modem="")
    image.run(image.FOTAPKG, "bundle", card / "upgrade.zip", "--keys", WORK / "keys", "-o", card / "bundle.zip")
    shutil.copy(rootfs, card / f"rootfs-{image.NEW}.img")
    (WORK / "slot.img").write_bytes(bytes(image.MIB))
    image.make_ext4(WORK / "card.img", card, CARD_SIZE, "-O", "^has_journal")


class System:
    """The system, from its console."""

    def __init__(self, story):
        self.story = story
        self.machine = Machine(KIND, story)

    def ask(self, command):
        """Prints what a person would see; fails if the command does."""
        self.story(f"$ {command}")
        printed = self.machine.output(command)
        for line in printed.splitlines():
            self.story(f"    {line}")
        return printed

    def expect(self, holds, command):
        status, printed = self.machine.run(command)
        self.story(f"$ {command}   # ends with {status}")
        need((status == 0) == holds, f"'{command}' ends with {status}: {' '.join(printed)}")

    def wait_booted(self):
        self.machine.wait_for("console: ready")
        self.machine.output("mount -o ro /dev/ubdb /card")
        state = self.machine.run("systemctl is-system-running --wait")[1]
        need(state == ["running"], f"the system is {state}: {self.machine.run('systemctl --failed --plain --no-legend')[1]}")


class Way(NamedTuple):
    command: str
    status: int = 200
    before: str = "true"
    restarts: bool = True
    cut: bool = False  # the power, when the daemon has answered


SUCCESS = "over the air"
FAILURE = Way("update /card/unsuitable.zip", 408)
POWER_CUT = Way("update /card/upgrade.zip", cut=True)
SECURITY = "systemd-analyze security fotad --no-pager | tail -n 1"
DROP_INS = "/etc/systemd/system/fotad.service.d"
FAIL_SAFE = "/opt/qast/log/AB_failsafe"
WAYS = {SUCCESS: Way("update /card/upgrade.zip"),
        "over the air, without a bus": Way("update /card/upgrade.zip",
                                           before="systemctl mask --runtime --now dbus.service dbus.socket"),
        "side-load": Way("update --sideload /card/bundle.zip"),
        "by script": Way(f"update --script {ROOTFS}", before="mkdir -p /run/vexa/modem; echo 0 >/run/vexa/modem/fw_version"),
        "full image": Way("update /card/full-image.zip"),
        "fall-back": Way(f"mkdir -p {FAIL_SAFE}; leave {FAIL_SAFE}/fw_verify_failed_error_code 410; "
                         f"leave {FAIL_SAFE}/fw_verify_failed_reason unfit; leave {FAIL_SAFE}/fw_verify_failed; "
                         "systemctl restart fotad", 410, restarts=False),
        "factory reset": Way("cp /card/upgrade.zip /opt/qast/data/fota; fotactl update /opt/qast/data/fota/upgrade.zip "
                             "--no-install && fotactl factory-reset --yes", 409, restarts=False)}


def install(system):
    system.expect(True, "dpkg --force-unsafe-io -i /card/*.deb >/tmp/dpkg 2>&1 || { cat /tmp/dpkg; false; }")
    system.expect(False, "systemctl is-enabled fotad")
    system.expect(True, "systemctl start fotad")  # skipped: nothing says that this is a device
    system.expect(False, "systemctl is-active fotad")
    system.ask("cp -r /card/etc /opt/qast; systemctl -q enable --now fotad; systemctl is-active fotad")
    system.expect(True, "test -e /dev/mqueue/fota_mq && fotactl upgrade-status")


def let_ask(system):
    need(system.ask("stat -c '%U:%G %a' /dev/mqueue/fota_mq") == "root:fota 660", "the queue is not the group's")
    system.expect(False, "runuser -u agent -- fotactl upgrade-status")
    system.ask("usermod -aG fota agent")
    system.expect(True, "runuser -u agent -- fotactl upgrade-status")
    system.expect(False, "runuser -u stranger -- fotactl upgrade-status")
    system.expect(False, "runuser -u agent -- find /opt/qast -writable -type f | grep .")


def stay_without_installer(system):
    """Nothing is wanted by the target yet: a device that went there would not come back."""
    system.ask("sh /card/update /card/upgrade.zip")
    system.expect(True, "timeout 30 sh -c 'until grep \"telinit: no installer\" /var/log/debug_log; do sleep 1; done'")
    need(system.machine.output("systemctl get-default") != "fota-installer.target", "the next boot is the installer's")
    system.expect(True, "systemctl is-active fotad && fotactl abort dm-agent --status 401 --reason given-up --force")


def bring_installer(system):
    system.ask("cp /card/firmware-installer.service /etc/systemd/system; cp /card/install-firmware /card/update /usr/sbin; "
               "systemctl enable firmware-installer")


def update(system, name, way):
    """One update, through the reboot to its record."""
    system.story(f"--- {name}")
    system.machine.output(f"echo {image.OLD} >/opt/qast/etc/vexaos-version; systemctl restart fotad; {way.before}; "
                          "dd if=/dev/zero of=/dev/ubdc bs=64k count=1 2>/dev/null")
    system.ask(way.command)
    if way.cut:
        system.machine.cut_power()
        system.machine.power_on()
    if way.restarts:
        system.wait_booted()
    need(system.machine.output("systemctl get-default") != "fota-installer.target", "the system starts the installer again")
    system.expect(True, "systemctl is-active fotad")
    told = json.loads(system.machine.output("fotactl history --json"))["data"]["records"][0]
    system.ask("fotactl history | head -n 2")
    version = system.machine.output("cat /opt/qast/etc/vexaos-version")
    need(told["status"] == way.status, f"the outcome is {told}")
    need(version == (image.NEW if way.status == 200 else image.OLD), f"the firmware is {version}")
    written = system.machine.run(f"cmp -n $(stat -c %s {ROOTFS}) {ROOTFS} /dev/ubdc >/dev/null")[0] == 0
    need(written == (way.status == 200), "the slot is not as it should be")
    need(not system.machine.run(f"ls -d {STAGING} 2>/dev/null")[1], "the update has left its staging folder")


def observe(system):
    """What others than the queue's clients learn of the first update."""
    name = "org.fotad.Update1"
    read = f"runuser -u stranger -- busctl get-property {name} /org/fotad/Update1 {name} UpdateStatus"
    system.expect(True, f"timeout 30 sh -c 'until {read} | grep -q \"^ay 2844 0 0 0 0 200 0 0 0 \"; do sleep 1; done'")
    system.ask(f"{read} | cut -c 1-60")
    system.ask("journalctl -t fotad -o cat FOTA_RECORD=2 | grep 'copied result into DB'")
    system.ask("journalctl -t fotad -o cat FOTA_EVENT=FOTA_MSG_VALIDATE_UPDATE_PKG FOTA_AGENT=dm-agent | "
               "grep 'validation success'")
    system.expect(True, "runuser -u agent -- fotactl upgrade-status")  # nothing was lost with /run


def check(system):
    system.story("power on")
    system.machine.power_on()
    system.wait_booted()
    install(system)
    let_ask(system)
    stay_without_installer(system)
    bring_installer(system)
    update(system, SUCCESS, WAYS[SUCCESS])
    observe(system)
    update(system, "over the air, and the installer fails", FAILURE)
    update(system, "over the air, and the power goes", POWER_CUT)
    system.story("--- all ways, with the strict drop-in")
    system.ask(f"{SECURITY}; mkdir -p {DROP_INS}; sed 's|^#DeviceAllow=.*|DeviceAllow=/dev/ubdc rw|' /card/strict.conf "
               f">{DROP_INS}/strict.conf; systemctl daemon-reload; {SECURITY}")
    for name, way in WAYS.items():
        update(system, name, way)
    system.expect(True, "grep 'trying alternate method' /var/log/debug_log")  # without a bus
    system.story("--- purge")
    system.ask(f"rm -r {DROP_INS}; dpkg -P fotad >/dev/null; ls /opt/qast")
    system.expect(False, "systemctl cat fotad")
    system.expect(False, "pidof fotad")


def main():
    signal.signal(signal.SIGALRM, lambda *_: sys.exit(f"check-systemd: FAILED: not over after {LIMIT} seconds"))
    for end in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(end, lambda number, _: sys.exit(128 + number))  # so that no machine stays behind
    signal.alarm(LIMIT)
    make_root()
    make_card()
    system = System(Story())
    system.machine.factory_reset()
    try:
        check(system)
        system.story("check-systemd: as it should be")
    except Failure as failure:
        try:
            system.ask("systemctl --no-pager -l status fotad; journalctl -b --no-pager -n 30; tail -n 30 /var/log/debug_log")
        except Failure:
            print((WORK / "console.log").read_text(encoding="utf-8", errors="replace")[-4000:])
        sys.exit(f"check-systemd: FAILED: {failure}; what it said: {WORK}/console.log")
    finally:
        system.machine.cut_power()


if __name__ == "__main__":
    main()
