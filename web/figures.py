"""What the page costs while 32 MiB come: figures.py FOLDER, in the simulator's shell; see scripts/web-figures."""

import http.server
import os
import re
import statistics
import subprocess
import sys
import threading
import time

ADDRESS = "127.0.0.1:8083"
PLAIN = "127.0.0.1:8084"
RECEIVED = "/opt/received"
FILE = sys.argv[1] + "/upload"
ROUNDS = 7


class Plain(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_PUT(self):
        left = int(self.headers["Content-Length"])
        with open(RECEIVED, "wb") as file:
            while left > 0:
                part = self.rfile.read(min(left, 65536))
                file.write(part)
                left -= len(part)
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


def curl(*words):
    return subprocess.run(["curl", "-sS", *words], check=True, capture_output=True, text=True).stdout


def anonymous(process):
    with open(f"/proc/{process}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(r"Anonymous: +(\d+)", file.read()).group(1)) / 1024


def watched(processes, work):
    """The most memory of its own that each has meanwhile, in MiB."""
    most, done = [0.0] * len(processes), threading.Event()

    def watch():
        while not done.is_set():
            for i, process in enumerate(processes):
                most[i] = max(most[i], anonymous(process))

    watcher = threading.Thread(target=watch)
    watcher.start()
    work()
    done.set()
    watcher.join()
    return most


def timed(work):
    begin = time.monotonic()
    work()
    return time.monotonic() - begin


def main():
    subprocess.run(["fotaweb", "--set-password"], input="figures of it\n", text=True, check=True)
    with subprocess.Popen(["fotaweb", "--user", "root", "--listen", ADDRESS]) as web:
        time.sleep(1)
        with open(f"/proc/{web.pid}/task/{web.pid}/children", encoding="ascii") as file:
            processes = [web.pid, int(file.read())]
        names = ("keeps the rights", "speaks HTTP")
        origin, jar = ("-H", f"Origin: http://{ADDRESS}"), FILE + ".cookies"

        def show(when, most):
            for name, mib in zip(names, most):
                print(f"{when:38} {name:17} {mib:5.1f} MiB of its own")

        show("after the start", [anonymous(process) for process in processes])
        show("while the password is compared", watched(processes, lambda: curl(
            *origin, "-c", jar, "-d", "password=figures of it", f"http://{ADDRESS}/login")))

        def send():
            token = re.search('data-token="([0-9a-f]*)"', curl("-b", jar, f"http://{ADDRESS}/")).group(1)
            sent = timed(lambda: curl(*origin, "-b", jar, "-F", "token=" + token, "-F", f"file=@{FILE}",
                                      f"http://{ADDRESS}/upload"))
            while '"checking"' in (state := curl("-b", jar, f"http://{ADDRESS}/state")):
                time.sleep(0.1)
            assert '"checked"' in state, state
            curl(*origin, "-b", jar, "-d", "token=" + token, f"http://{ADDRESS}/give-up")
            return sent

        show("while it comes and is checked", watched(processes, send))
        threading.Thread(target=http.server.HTTPServer(("127.0.0.1", 8084), Plain).serve_forever, daemon=True).start()
        pairs = [(send(), timed(lambda: curl("-T", FILE, f"http://{PLAIN}/"))) for _ in range(ROUNDS)]
        ratios = sorted(ours / plain for ours, plain in pairs)
        for name, times in zip(("the page", "a plain receiver"), zip(*pairs)):
            print(f"by curl to {name:26} {min(times):.3f} {statistics.median(times):.3f} {max(times):.3f} s")
        print(f"ratio, pair by pair: {ratios[0]:.2f} {statistics.median(ratios):.2f} {ratios[-1]:.2f}")
        os.remove(RECEIVED)
        web.terminate()


main()
