"""The page as people use it: scenes.py FOLDER [SCENE...], in the simulator's shell; see scripts/web-scenes."""

import http.server
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

ADDRESS = "http://127.0.0.1:8083"
PASSWORD = "scenes in a row"
OLD = "MDM2.1.07-4.14.98-5.2.1"
WORK = "/run/sim/scenes"  # a simulated restart leaves it alone
FILES = sys.argv[1]
UPLOAD = "/opt/qast/data/webui/uploads/uploadedfile"


def run(*words, **more):
    return subprocess.run(words, check=True, capture_output=True, text=True, **more).stdout


class Line:
    """Between browser and device, on a port of its own: cut after so many bytes, and mended two seconds later."""

    def __init__(self, port, cut_after):
        self.left, self.passed, self.cut, self.ends = cut_after, 0, False, set()
        self.listener = socket.create_server(("127.0.0.1", port))
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            browser = self.listener.accept()[0]
            if self.cut:
                browser.close()
                continue
            device = socket.create_connection(("127.0.0.1", 8083))
            self.ends |= {browser, device}
            for ends in ((browser, device), (device, browser)):
                threading.Thread(target=self.pump, args=(*ends, ends[0] is browser), daemon=True).start()

    def pump(self, source, target, counts):
        try:
            while data := source.recv(16384):
                if counts and self.left is not None and self.passed + len(data) > self.left:
                    self.left, self.cut = None, True
                    threading.Timer(2, lambda: setattr(self, "cut", False)).start()
                    # All of them: on another one the browser would send it again by itself, and say nothing.
                    self.hang_up(*self.ends)
                    return
                target.sendall(data)
                self.passed += len(data) if counts else 0
        except OSError:
            pass
        self.hang_up(source, target)

    @staticmethod
    def hang_up(*ends):
        for end in ends:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class Device:
    web = None

    def start(self):
        self.web = subprocess.Popen(["fotaweb", "--user", "root", "--listen", ADDRESS[7:]], stderr=subprocess.DEVNULL)

    def stop(self):
        if self.web:
            self.web.terminate()
            self.web.wait()
        self.web = None

    def restart(self, *installer):
        """The installer's part, as the device does it: all that serves goes and comes back."""
        deadline = time.monotonic() + 30
        while not os.path.exists("/run/vexa/dsm/persistent_mode") and time.monotonic() < deadline:
            time.sleep(0.1)
        self.stop()
        if installer and installer[0] == "revert":
            # The fail-safe's files, and none of the installer's.
            os.makedirs("/opt/qast/log/AB_failsafe", exist_ok=True)
            for name, text in (("", ""), ("_error_code", "410"), ("_reason", "no modem")):
                with open("/opt/qast/log/AB_failsafe/fw_verify_failed" + name, "w", encoding="ascii") as file:
                    file.write(text)
            os.remove("/opt/qast/data/fota/staging/update_pre_install")
            run("reboot-device")
        else:
            run("install", *installer)
        time.sleep(3)  # the browser is to see that it is away
        self.start()

    def cut_power(self):
        self.web.kill()
        self.web.wait()
        run("power-cut")
        self.start()

    @staticmethod
    def room(size):
        """Of the whole flash: "256m" as it is else, or this much more than is taken."""
        if isinstance(size, int):
            taken = shutil.disk_usage("/opt").used
            size = str(taken + size)
        run("mount", "-o", "remount,size=" + size, "/opt")

    @staticmethod
    def history():
        records = json.loads(run("fotactl", "--json", "history"))
        return records["data"]["records"]


class Page:
    def __init__(self):
        options = webdriver.ChromeOptions()
        for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--lang=en", "--host-resolver-rules=MAP *.example 127.0.0.1", f"--user-data-dir={WORK}/profile"):
            options.add_argument(word)
        self.driver = webdriver.Chrome(options=options)
        self.driver.set_script_timeout(10)

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def screen(self):
        try:
            return self.find("main").get_attribute("data-screen")
        except WebDriverException:
            return ""

    def await_that(self, what, holds, seconds=30):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            try:
                if holds():
                    return
            except WebDriverException:
                pass
            time.sleep(0.1)
        raise AssertionError(f"not in {seconds} s: {what}; the screen says: {self.text()}")

    def await_screen(self, *names, seconds=30):
        self.await_that(f"screen {names}", lambda: self.screen() in names, seconds)

    def text(self):
        return self.find("body").text

    def must_say(self, *parts):
        for part in parts:
            assert part in self.text(), f"the screen does not say '{part}': {self.text()}"

    def open(self, address=ADDRESS):
        self.await_that("the page", lambda: self.driver.get(address) or self.screen())

    def log_in(self, password=PASSWORD):
        self.find("#password").send_keys(password, Keys.ENTER)

    def choose(self, name):
        self.find("#file").send_keys(f"{FILES}/{name}")

    def press(self, action):
        self.find(f"form[action='{action}'] button").click()

    def upload(self, name):
        self.await_screen("ready")
        self.choose(name)
        self.find("#upload button").click()

    def network(self, offline=False, upload=-1):
        self.driver.execute_cdp_cmd("Network.enable", {})
        self.driver.execute_cdp_cmd("Network.emulateNetworkConditions", {
            "offline": offline, "latency": 0, "downloadThroughput": -1, "uploadThroughput": upload})

    def outcome(self):
        shown = self.find("#outcome")
        return {name: shown.get_attribute("data-" + name) for name in ("record", "status", "kind")}


def same_as_history(page, kind, status):
    newest = max(Device.history(), key=lambda record: record["id"])
    shown = page.outcome()
    expected = {"record": str(newest["id"]), "status": str(newest["status"]), "kind": kind}
    assert shown == expected and newest["status"] == status, f"screen {shown}, history {newest}"


def no_record_since(before):
    assert len(Device.history()) == before, "something was recorded"


def play_update(page, device, kind, status, *installer):
    page.upload("good.zip")
    page.await_screen("checked")
    page.must_say("Maintenance <release>", OLD, "5.3.0", "2 min", "restarts")
    page.press("/install")
    page.await_screen("installing")
    device.restart(*installer)
    page.await_screen("outcome", seconds=60)
    same_as_history(page, kind, status)


def good(page, device):
    play_update(page, device, "success", 200)
    page.press("/give-up")
    page.await_screen("ready")
    page.must_say("5.3.0")
    page.find("a[href='/history']").click()
    page.await_screen("history")
    page.must_say("The update is installed", "FW Upgrade success")


def installer_failure(page, device):
    play_update(page, device, "failed", 402, "-2147483635", "in block 17")
    page.must_say("in block 17", "Get the file again")


def fall_back(page, device):
    play_update(page, device, "reverted", 410, "revert")
    page.must_say("went back to its old firmware", "no modem")


def too_large(page, _):
    page.await_screen("ready")
    page.driver.execute_script("window.sent = 0; const open = XMLHttpRequest.prototype.open;"
                               "XMLHttpRequest.prototype.open = function (...a) { ++window.sent; open.apply(this, a); };")
    page.upload("large.zip")
    page.await_that("a refusal", lambda: "Nothing was sent" in page.text())
    page.must_say("40.0 MiB", "35.0 MiB")
    assert page.driver.execute_script("return window.sent") == 0, "something was sent"


def refused(page, name, *says):
    before = len(Device.history())
    page.upload(name)
    page.await_screen("refused")
    page.must_say("Nothing was installed", *says)
    no_record_since(before)
    page.press("/give-up")
    page.await_screen("ready")


def no_bundle(page, _):
    refused(page, "noise.zip", "is not an update file")


def foreign(page, _):
    refused(page, "foreign.zip", "signature")


def wrong_version(page, _):
    refused(page, "version.zip", "another firmware", OLD, "4.0.0")


def other_session(page, _):
    page.await_screen("ready")
    run("fotactl", "lock", "dm-agent")
    page.await_screen("closed")
    page.must_say("dm-agent")
    run("fotactl", "unlock", "dm-agent", "--force")
    page.await_screen("ready")


def cut_and_resumed(page, _):
    size = os.path.getsize(f"{FILES}/good.zip")
    for number, percent in enumerate((10, 50, 99)):
        line = Line(8090 + number, size * percent // 100)
        page.open(f"http://127.0.0.1:{8090 + number}")
        page.upload("good.zip")
        page.await_that(f"word of the cut at {percent} %", lambda: "cannot be reached" in page.text())
        page.must_say("says nothing about the update")
        reached = os.path.getsize(UPLOAD)
        assert size * (percent - 5) < reached * 100 < size * (percent + 1), f"{reached} bytes at {percent} %"
        page.await_screen("checked")
        assert line.passed < size + 1_000_000, f"{line.passed} bytes were sent: it began again"
        page.press("/give-up")
        page.await_screen("ready")


def full_flash(page, device):
    before = len(Device.history())
    try:
        device.room(2_000_000)
        page.await_screen("closed", seconds=20)  # the limit is asked for every ten seconds
        page.must_say("not enough room")
        device.room("256m")
        page.await_screen("ready", seconds=20)
        page.network(upload=2_000_000)
        page.upload("good.zip")
        page.await_that("some of it", lambda: float(page.find("#bar").get_attribute("value")) > 10)
        device.room(100_000)
        page.await_that("word of it", lambda: "could not store the file" in page.text())
    finally:
        device.room("256m")
        page.network()
    page.press("/give-up")
    page.await_screen("ready")
    assert not os.path.exists(UPLOAD), "the upload stays"
    no_record_since(before)


def daemon_restarted(page, device):
    """Killed in the middle of the check, and started again; then twice, as by a file that it falls over."""
    for deaths, screen in ((1, "checked"), (2, "refused")):
        page.upload("good.zip")
        for _ in range(deaths):
            deadline = time.monotonic() + 20
            while not os.path.isdir("/dev/sideload_tmp") or not os.listdir("/dev/sideload_tmp"):
                assert time.monotonic() < deadline, "the daemon unpacks nothing"
            os.kill(int(run("pidof", "fotad")), signal.SIGKILL)
            assert page.screen() in ("ready", "checking"), page.screen()
            subprocess.run(["pkill", "unzip"], check=False)
            shutil.rmtree("/dev/sideload_tmp")
            run("fotad")
        page.await_screen(screen)
        page.must_say("came to no end with this file" if deaths == 2 else "5.3.0")
        page.press("/give-up")
        page.await_screen("ready")


def power_cut(page, device):
    page.upload("good.zip")
    page.await_screen("checked")
    page.press("/install")
    page.await_screen("installing")
    page.await_that("the start", lambda: os.path.exists("/run/vexa/dsm/persistent_mode"))
    with open("/opt/qast/data/fota/staging/install_progress", "w", encoding="ascii") as file:
        file.write("40 writing <slot>\n")
    page.await_that("progress", lambda: "40 % writing <slot>" in page.text())
    device.cut_power()
    page.await_screen("outcome", seconds=60)
    same_as_history(page, "pending", 0)
    page.must_say("No outcome is recorded", "5.2.1")


def strangers(page, _):
    page.upload("good.zip")
    page.await_screen("checked")

    class Foreign(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.end_headers()
            self.wfile.write(b"<form method=post action='%s%s'><button>x</button></form>" % (
                ADDRESS.encode(), self.path.encode()))

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 8099), Foreign)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    for host, action in (("evil.example", "/install"), ("evil.example", "/give-up"), ("127.0.0.1", "/install")):
        page.driver.get(f"http://{host}:8099{action}")
        page.find("button").click()
        page.await_that("a refusal", lambda: "from another origin" in page.text())
    server.shutdown()
    page.driver.get(ADDRESS.replace("127.0.0.1", "evil.example"))
    page.must_say("not a name of this device")
    page.open()
    for path in ("/install", "/give-up"):
        status = page.driver.execute_script(
            "return fetch(arguments[0], {method: 'POST'}).then((answer) => answer.status)", path)
        assert status == 403, f"{path} without a token: {status}"
    page.await_screen("checked")
    assert not os.path.exists("/run/vexa/dsm/persistent_mode"), "it was installed"


def cancelled(page, _):
    before = len(Device.history())
    page.network(upload=2_000_000)
    page.upload("good.zip")
    page.await_that("some of it", lambda: float(page.find("#bar").get_attribute("value")) > 10)
    page.find("#cancel").click()
    page.await_screen("ready")
    page.network()
    assert not os.path.exists(UPLOAD), "the upload stays"
    assert not os.path.exists("/opt/qast/data/fota/session"), "the session stays"
    no_record_since(before)


def two_tabs(page, _):
    page.network(upload=2_000_000)
    page.upload("good.zip")
    page.await_that("some of it", lambda: float(page.find("#bar").get_attribute("value")) > 10)
    first = page.driver.current_window_handle
    page.driver.switch_to.new_window("tab")
    page.open()
    page.await_screen("uploading")
    page.must_say("have come")
    page.choose("version.zip")
    page.find("#upload button").click()
    page.await_that("word of the other", lambda: "Another window is sending" in page.text())
    page.driver.close()
    page.driver.switch_to.window(first)
    page.network()
    page.await_screen("checked")
    page.must_say("5.3.0")


def wrong_password(page, _):
    page.press("/logout")
    page.await_screen("login")
    page.driver.delete_all_cookies()
    page.open()
    for _ in range(5):
        page.log_in("wrong password")
        page.await_that("word of it", lambda: "That was not the password" in page.text())
        page.open()
    page.log_in()
    page.await_that("the lock", lambda: "Too many wrong passwords" in page.text())


def keyboard_only(page, device):
    page.await_screen("ready")
    page.choose("good.zip")

    def press(key):
        ActionChains(page.driver).send_keys(key).perform()

    def enter_on(selector):
        for _ in range(30):
            if page.driver.switch_to.active_element == page.find(selector):
                return press(Keys.ENTER)
            press(Keys.TAB)
        raise AssertionError(f"no way to {selector} by the keyboard")

    enter_on("#upload button")
    page.await_screen("checked")
    enter_on("form[action='/install'] button")
    page.await_screen("installing")
    device.restart()
    page.await_screen("outcome", seconds=60)
    same_as_history(page, "success", 200)


def narrow(page, _):
    page.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": 360, "height": 740, "deviceScaleFactor": 2, "mobile": True})

    def fits():
        wide = page.driver.execute_script("return document.documentElement.scrollWidth")
        assert wide <= 360, f"{page.screen()} is {wide} pixels wide"

    try:
        page.open()
        page.await_screen("ready")
        fits()
        page.upload("version.zip")
        page.await_screen("refused")
        fits()
        page.press("/give-up")
        page.upload("good.zip")
        page.await_screen("checked")
        fits()
        page.driver.save_screenshot(f"{FILES}/page.png")  # of which docs/web.png is one
        page.find("a[href='/history']").click()
        page.await_screen("history")
        fits()
    finally:
        page.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})


def no_script(page, device):
    page.driver.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": True})
    try:
        page.open()
        page.upload("large.zip")
        page.await_that("a refusal", lambda: "too large" in page.text())
        assert not os.path.exists(UPLOAD), "some of it was stored"
        page.open()
        page.upload("good.zip")
        page.await_screen("checked")
        page.press("/install")
        page.await_screen("installing")
        device.restart()
        page.open()
        page.await_screen("outcome")
        same_as_history(page, "success", 200)
    finally:
        page.driver.execute_cdp_cmd("Emulation.setScriptExecutionDisabled", {"value": False})


SCENES = [good, too_large, no_bundle, foreign, wrong_version, other_session, full_flash, cut_and_resumed, cancelled,
          two_tabs, daemon_restarted, installer_failure, fall_back, power_cut, wrong_password, strangers, keyboard_only,
          narrow, no_script]


def main():
    os.makedirs(WORK, exist_ok=True)
    os.environ["TMPDIR"] = os.environ["HOME"] = WORK
    run("fotaweb", "--set-password", input=PASSWORD + "\n")
    page, device, failed = Page(), Device(), 0
    wanted = sys.argv[2:]
    for scene in SCENES:
        if wanted and scene.__name__ not in wanted:
            continue
        device.stop()
        with open("/opt/qast/etc/vexaos-version", "w", encoding="ascii") as file:
            file.write("5.2.1\n")
        if os.path.exists("/opt/qast/data/webui/fotaweb_order"):
            os.remove("/opt/qast/data/webui/fotaweb_order")
        device.start()
        begin = time.monotonic()
        try:
            page.open()
            page.driver.delete_all_cookies()
            page.open()
            page.log_in()
            page.await_that("to be let in", lambda: page.screen() not in ("", "login"))
            scene(page, device)
            print(f"{scene.__name__:20} as it should      {time.monotonic() - begin:5.1f} s", flush=True)
        except (AssertionError, WebDriverException, subprocess.CalledProcessError) as problem:
            failed += 1
            print(f"{scene.__name__:20} NOT as it should: {str(problem).splitlines()[0]}", flush=True)
        page.network()
    page.driver.quit()
    device.stop()
    sys.exit(1 if failed else 0)


main()
