"""The port for systemd among mocks of what it asks: systemd_test.py PROGRAMS PACKAGE, inside the sandbox."""
import ctypes
import os
import pathlib
import socket
import struct
import subprocess
import sys
import time

import dbus

programs, package = map(pathlib.Path, sys.argv[1:])
SOCKET = pathlib.Path("/run/dbus/system_bus_socket")
LOG, COMMANDS = pathlib.Path("/var/log/debug_log"), pathlib.Path("/run/vexa/telinit.log")
port = ctypes.CDLL(str(programs / "port_calls.so"))
failed: list[str] = []
running: dict[str, subprocess.Popen] = {}


def check(what, got, wanted):
    if got != wanted:
        failed.append(what)
        print(f"FAILED: {what}: {got!r} instead of {wanted!r}", flush=True)


def eventually(what, condition, seconds=15):
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        time.sleep(0.05)
    check(what, bool(condition()), True)


def start_bus():
    policy = pathlib.Path(__file__).parents[2] / "packaging/org.fotad.Update1.conf"
    pathlib.Path("/run/bus.conf").write_text(f"""<busconfig><listen>unix:path={SOCKET}</listen><policy context="default">
        <allow user="*"/><allow receive_requested_reply="true"/><allow send_requested_reply="true" send_type="method_return"/>
        <allow send_requested_reply="true" send_type="error"/><allow receive_type="signal"/><allow receive_type="method_call"/>
        <allow send_type="signal"/><allow send_destination="org.freedesktop.DBus"/></policy><policy user="root"><allow own_prefix="org.freedesktop"/><allow send_destination_prefix="org.freedesktop"/></policy>
        <include>{policy}</include></busconfig>""")
    SOCKET.parent.mkdir(exist_ok=True)
    SOCKET.unlink(missing_ok=True)
    running["bus"] = subprocess.Popen(["dbus-daemon", "--config-file=/run/bus.conf", "--nofork", "--nopidfile"])
    eventually("the bus", SOCKET.exists)


def stop(*names):
    for name in names:
        running[name].terminate()
        running.pop(name).wait()


def connection():
    return dbus.bus.BusConnection(f"unix:path={SOCKET}")


MODEM = {"Revision": "MDM3.2.08\r\nbuilt today"}
MANAGER = "org.freedesktop.{}.Manager"
METHODS = {
    "systemd1": [(MANAGER, "SetDefaultTarget", "sb", "a(sss)", "ret = []"), (MANAGER, "StartUnit", "ss", "o", "ret = '/job'")],
    "login1": [(MANAGER, "Inhibit", "ssss", "h", ""), (MANAGER, "Reboot", "b", "", "")],
    "ModemManager1": [("org.freedesktop.DBus.ObjectManager", "GetManagedObjects", "", "a{oa{sa{sv}}}", "")],
}
SLOW = "import time; time.sleep(10)"
REFUSED = "raise dbus.exceptions.DBusException('no', name='org.test.Refused')"
# What a service answers instead of what it should: each method, its type and its code.
UP, ANOTHER_TYPE = {}, {"Inhibit": ("s", "ret = 'x'"), "GetManagedObjects": ("a{sv}", "ret = {'a': 1}")}


def start_service(service, answers, modem=MODEM):
    name, path = f"org.freedesktop.{service}", f"/org/freedesktop/{service}"
    kind = ["--template", "logind"] if service == "login1" and not answers else ["-m", name, path, MANAGER.format(service)]
    running[service] = subprocess.Popen([sys.executable, "-m", "dbusmock", "--system", "-l", f"/run/{service}", *kind])
    bus = connection()
    eventually(service, lambda: bus.name_has_owner(name))
    mock = dbus.Interface(bus.get_object(name, path), "org.freedesktop.DBus.Mock")
    if service == "ModemManager1" and not answers:
        mock.AddObject(f"{path}/Modem/0", f"{name}.Modem", modem, dbus.Array([], signature="(ssss)"))
    elif kind[0] == "-m":
        for interface, method, takes, gives, code in METHODS[service]:
            gives, code = answers.get(method, (gives, code))
            mock.AddMethod(interface.format(service), method, takes, gives, code)
    if service == "systemd1":
        enabled = dbus.Array(answers.get("Wants", ["installer.service"]), signature="s")
        mock.AddObject(f"{path}/unit/fota_2dinstaller_2etarget", f"{name}.Unit", {"Wants": enabled}, dbus.Array([], signature="(ssss)"))


def modem_version():
    info = ctypes.create_string_buffer(b"z" * 1024, 1024)
    check("modem2_get_info", port.modem2_get_info(info), 0)
    return info.raw[:255].split(b"\0")[0].decode()


def hold():
    port.powersave_wakelock_release(b"fota")
    return port.powersave_wakelock_acquire(b"fota")


INSTALLER, RESET, HOLD, VERSION = (("installer", lambda: port.dsm_set_persistent_mode(5)), ("reset", lambda: port.dsm_reset_device(1)),
                                   ("wake lock", hold), ("modem", modem_version))
GOOD = {INSTALLER: 0x70000, RESET: 0x70000, HOLD: 0xD0000, VERSION: "MDM3.2.08"}
BAD = {INSTALLER: 0x70001, RESET: 0x70001, HOLD: 0xD0001, VERSION: "MDM2.1.07"}  # the file's version


def every(code):
    return {row[1]: (row[3], code) for rows in METHODS.values() for row in rows}


def ask(what, wanted, logged=None):
    LOG.write_text("")
    for (name, call), result in wanted.items():
        start = time.monotonic()
        check(f"{name}, {what}", call(), result)
        check(f"{name}, {what}: in time", time.monotonic() - start < 4, True)
    check(f"{what} is logged", LOG.read_text().count(logged) if logged else 0, len(wanted) if logged else 0)


def services_one_by_one():
    ask("no bus", BAD, "no system bus")
    SOCKET.parent.mkdir(exist_ok=True)
    with socket.socket(socket.AF_UNIX) as mute:
        mute.bind(str(SOCKET))
        mute.listen()
        ask("mute bus", BAD, "Connection timed out")
    start_bus()
    ask("no service", BAD, "org.freedesktop.DBus.Error.ServiceUnknown")
    for what, answers, wanted, logged in (("slow", every(SLOW), BAD, "Connection timed out"), ("refused", every(REFUSED), BAD, "org.test.Refused"),
                                          ("another type", ANOTHER_TYPE, {HOLD: BAD[HOLD], VERSION: BAD[VERSION]}, None),
                                          ("nobody installs", {"Wants": []}, {INSTALLER: 0x70001}, "no installer is enabled"),
                                          ("only the second", {"StartUnit": ("o", REFUSED)}, {INSTALLER: 0x70001}, "org.test.Refused"),
                                          ("all up", UP, GOOD, None)):
        for service in METHODS:
            start_service(service, answers)
        ask(what, wanted, logged)
        if answers is not UP:
            stop(*METHODS)
    for service, wanted in (("systemd1", ['SetDefaultTarget "fota-installer.target" True', 'StartUnit "fota-installer.target" "isolate"']),
                            ("login1", ["Reboot False"])):
        asked = [line.split(" ", 1)[1] for line in pathlib.Path("/run", service).read_text().splitlines()]
        check(f"{service} was asked", [line for line in asked if line in wanted][-len(wanted):], wanted)
    logind = dbus.Interface(connection().get_object("org.freedesktop.login1", "/org/freedesktop/login1"), MANAGER.format("login1"))
    for number, act in ((1, lambda: None), (1, lambda: port.powersave_wakelock_acquire(b"fota")), (0, lambda: port.powersave_wakelock_release(b"fota")),
                        (1, hold), (0, RESET[1])):
        act()
        eventually(f"{number} inhibitors", lambda: len(logind.ListInhibitors()) == number)
    check("the inhibitor", [str(text) for text in (hold(), logind.ListInhibitors()[0])[1][:4]], ["sleep:shutdown", "fota", "Firmware update", "block"])
    for modem in ({"Revision": "M" * 300}, {"Manufacturer": "M"}, {"Revision": dbus.Int32(3)}):
        stop("ModemManager1")
        start_service("ModemManager1", UP, dbus.Dictionary(modem, signature="sv"))
        check(f"modem {modem}", modem_version(), "M" * 254 if len(str(modem)) > 99 else BAD[VERSION])
    check("the port", subprocess.run([programs / "port_test", "--gtest_brief=1"], env=os.environ | {
        "FOTA_KEEP": str(SOCKET.parent), "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={SOCKET}"}, check=False).returncode, 0)
    stop(*METHODS, "bus")
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/sys/power"], check=True)
    kernel = [pathlib.Path("/sys/power", name) for name in ("wake_lock", "wake_unlock")]
    for file in kernel:
        file.touch()
    check("only the kernel's lock", [hold()] + [file.read_text() for file in kernel], [0xD0000, "fota", "fota"])


def journal():
    path = pathlib.Path("/run/systemd/journal/socket")
    path.parent.mkdir(parents=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as journald:
        journald.bind(str(path))
        journald.settimeout(5)
        port.vexa_dbg_context(b"EVENT", b"agent\nPRIORITY=0", 7)

        def received():
            rest, got = journald.recv(65536), {}
            while rest:
                name, rest = rest.split(b"\n", 1)
                size = struct.unpack("<Q", rest[:8])[0]
                got[name], rest = rest[8:8 + size], rest[9 + size:]
            return got

        port.vexa_dbg_log(b"FOTA", 5, b"the first that it takes")
        received()
        for write, fields in ((lambda: port.vexa_dbg_log(b"FOTA", 5, b"a line\n"), {b"PRIORITY": b"5", b"SYSLOG_IDENTIFIER": b"fotad"}),
                              (lambda: port.vexa_dbg_syslog(138, b"a line\n"), {b"PRIORITY": b"2", b"SYSLOG_FACILITY": b"17", b"SYSLOG_IDENTIFIER": b"fota"})):
            write()
            check("journal", received(), fields | {b"MESSAGE": b"a line", b"FOTA_EVENT": b"EVENT", b"FOTA_AGENT": b"agent\nPRIORITY=0", b"FOTA_RECORD": b"7"})
        start = time.monotonic()
        for _ in range(1000):
            port.vexa_dbg_log(b"FOTA", 5, b"nobody reads")
        check("a stuck journal holds nothing up", time.monotonic() - start < 8, True)
        journald.settimeout(0)
        taken = 0
        try:
            while received():
                taken += 1
        except BlockingIOError:
            port.vexa_dbg_log(b"FOTA", 5, b"somebody reads")
        check("what was lost", received().get(b"FOTA_LOST"), str(1000 - taken).encode())
    port.vexa_dbg_context(b"", None, 0)


def fotactl(*words):
    start = time.monotonic()
    done = subprocess.run([programs / "fotactl", *words], capture_output=True, text=True, check=False)
    return done.returncode, time.monotonic() - start


def daemon_starts():
    running["fotad"] = subprocess.Popen([programs / "fotad", "--foreground"])
    eventually("the daemon", lambda: fotactl("upgrade-status")[0] == 0)


def whole_update():
    """One that the daemon plays: nobody says that the settings are ready, and the bus comes, is slow, goes and comes again."""
    pathlib.Path("/run/vexa/msgbus/settings.ready").unlink()
    daemon_starts()
    start_bus()
    for service, answers in (("systemd1", every(SLOW)), ("login1", every(SLOW))):
        start_service(service, answers)
    bus = connection()
    eventually("the daemon's name", lambda: bus.name_has_owner("org.fotad.Update1"))

    def get(name):
        object_ = connection().get_object("org.fotad.Update1", "/org/fotad/Update1", introspect=False)
        return object_.Get("org.fotad.Update1", name, dbus_interface="org.freedesktop.DBus.Properties")

    heard = subprocess.Popen(["dbus-monitor", "--address", f"unix:path={SOCKET}", "type=signal,member=PropertiesChanged"],
                             stdout=subprocess.PIPE, text=True)
    check("nothing yet", [get("UpgradeStatus"), get("BackupBeforeUpdate"), list(get("UpdateStatus")), list(get("RevertStatus"))], [0, 0, [], []])
    for words in (("lock", "me"), ("validate", "me", package), ("install", "me")):
        check(f"{words[0]} with a slow bus", fotactl(*words)[0], 0)
    check("asked meanwhile", [code == 0 and took < 4 for code, took in (fotactl("upgrade-status") for _ in range(9))], [True] * 9)
    eventually("the fall-back", lambda: COMMANDS.exists() and "telinit 5" in COMMANDS.read_text())
    eventually("UpgradeStatus", lambda: get("UpgradeStatus") == 1)
    stop("fotad", "bus")
    pathlib.Path("/opt/qast/data/fota/staging/result_success").touch()
    daemon_starts()
    start_bus()
    eventually("the daemon's name again", lambda: connection().name_has_owner("org.fotad.Update1"))
    for _ in range(2):  # also after a restart of the daemon
        eventually("UpdateStatus", lambda: bytes(get("UpdateStatus"))[4:8] == struct.pack("<I", 200))
        check("a record", len(get("UpdateStatus")), 2844)
        stop("fotad")
        daemon_starts()
        eventually("the name", lambda: connection().name_has_owner("org.fotad.Update1"))
    heard.terminate()
    check("heard", "UpgradeStatus" in heard.communicate()[0], True)


port.vexa_dbg_start()
for part in (services_one_by_one, journal, whole_update):
    part()
stop(*list(running))
sys.exit(f"{len(failed)} failed" if failed else 0)
