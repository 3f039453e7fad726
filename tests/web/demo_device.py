"""The demo device as the tests of its page and of its scripts start it: by the same script as run-demo.sh, on a free
port and with a state of its own. The device program is named by the environment variable NBASE_DEMO_DEVICE."""

import http.cookiejar
import json
import os
import socket
import subprocess
import tempfile
import urllib.request

SOURCE_DIRECTORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CONTROL = os.path.join(SOURCE_DIRECTORY, "examples", "device", "demo-control.sh")
SECONDS_TO_WAIT = 30


def device_program():
    return os.environ["NBASE_DEMO_DEVICE"]


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Demo:
    """The operations of demo-control.sh on one state."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-demo-test-")
        self.state = os.path.join(self.folder.name, "a state with blanks")
        self.port = free_port()
        self.address = f"http://127.0.0.1:{self.port}"

    def command(self, action, *arguments):
        return [CONTROL, action, "--state", self.state, *arguments]

    def start_command(self, *options, device=None):
        return self.command("start", "--device", device or device_program(), "--port", str(self.port), *options)

    def control(self, action, *arguments):
        """Does the action, which has to succeed; the result is what it prints."""
        return output_of(self.command(action, *arguments))

    def start(self, *options):
        return output_of(self.start_command(*options))

    def stop(self):
        return self.control("stop")

    def restart(self):
        self.stop()
        self.start()

    def run_directory(self):
        return self.control("run-directory")

    def process(self, name):
        with open(os.path.join(self.run_directory(), name + ".pid"), encoding="ascii") as file:
            return int(file.read().split()[0])

    def remove(self):
        self.stop()
        self.folder.cleanup()


def output_of(command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


class Client:
    """A client of the device beside a browser; it keeps its session."""

    def __init__(self, address):
        self.address = address
        # Without a proxy, whatever the environment says.
        self.opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}), urllib.request.HTTPCookieProcessor(http.cookiejar.CookieJar()))

    def get(self, path):
        return self.opener.open(self.address + path, timeout=SECONDS_TO_WAIT)

    def post(self, path, value, headers=None):
        request = urllib.request.Request(
            self.address + path, json.dumps(value).encode(), {"Content-Type": "application/json", **(headers or {})})
        return self.opener.open(request, timeout=SECONDS_TO_WAIT)

    def zones(self):
        """The town documents by the name of their zone."""
        self.post("/api/login", {"user": "demo", "password": "demo"}).close()
        with self.get("/api/timezones") as response:
            content = json.load(response)["content"]
        return {f"{region}/{name}": town for region in content for name, town in content[region]["towns"].items()}
