"""The demo device as the tests of its page and of its scripts start it: with the same script as run-demo.sh, on a port and
with a state of its own. The environment variable NBASE_DEMO_DEVICE names the device program."""

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


def reserve_port():
    """A socket that is bound to a free port of the loopback address. It does not listen: a web server that sets
    SO_REUSEADDR, as lighttpd does, can listen on the port, but the kernel gives it to no other program (socket(7))."""
    reservation = socket.socket()
    reservation.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    reservation.bind(("127.0.0.1", 0))
    return reservation


class Demo:
    """The operations of demo-control.sh on one state."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-demo-test-")
        self.state = os.path.join(self.folder.name, "a state with blanks")
        self.reservation = reserve_port()
        self.port = self.reservation.getsockname()[1]
        self.address = f"http://127.0.0.1:{self.port}"
        # The folder of the package list; None for the packages of this machine, which take seconds to collect.
        self.packages = self.make_one_package()
        # The folder of the commands ping and traceroute; None for those of BusyBox.
        self.commands = None
        # The stand-in for the SWUpdate daemon; None for none.
        self.updater = None
        self.device = None
        self.options = ()

    def command(self, action, *arguments):
        return [CONTROL, action, "--state", self.state, *arguments]

    def start_command(self, *options, device=None):
        packages = [] if self.packages is None else ["--packages", self.packages]
        commands = [] if self.commands is None else ["--commands", self.commands]
        updater = [] if self.updater is None else ["--updater", self.updater]
        return self.command("start", "--device", device or self.device or device_program(), "--port", str(self.port),
                            *packages, *commands, *updater, *options)

    def control(self, action, *arguments):
        """Runs the action, which must succeed, and returns its output."""
        return output_of(self.command(action, *arguments))

    def start(self, *options):
        self.options = options
        return output_of(self.start_command(*options))

    def make_one_package(self):
        packages = os.path.join(self.folder.name, "packages")
        os.mkdir(packages)
        with open(os.path.join(packages, "manifest.csv"), "w", encoding="latin-1") as file:
            file.write('"PACKAGE","VERSION","LICENSE","LICENSE FILES","SOURCE ARCHIVE","SOURCE SITE"\n'
                       '"one","1","MIT","","",""\n')
        return packages

    def stop(self):
        return self.control("stop")

    def restart(self):
        """Starts again with the options of the last start."""
        self.stop()
        self.start(*self.options)

    def run_directory(self):
        return self.control("run-directory")

    def process(self, name):
        with open(os.path.join(self.run_directory(), name + ".pid"), encoding="ascii") as file:
            return int(file.read().split()[0])

    def remove(self):
        self.stop()
        self.reservation.close()
        self.folder.cleanup()


def output_of(command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


class Client:
    """A client of the device other than the browser; it keeps its session."""

    def __init__(self, address):
        self.address = address
        # Ignores proxies in the environment.
        self.opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}), urllib.request.HTTPCookieProcessor(http.cookiejar.CookieJar()))

    def get(self, path):
        return self.opener.open(self.address + path, timeout=SECONDS_TO_WAIT)

    def post(self, path, value, headers=None):
        request = urllib.request.Request(
            self.address + path, json.dumps(value).encode(), {"Content-Type": "application/json", **(headers or {})})
        return self.opener.open(request, timeout=SECONDS_TO_WAIT)

    def zones(self):
        """The town documents by zone name."""
        self.post("/api/login", {"user": "demo", "password": "demo"}).close()
        with self.get("/api/timezones") as response:
            content = json.load(response)["content"]
        return {f"{region}/{name}": town for region in content for name, town in content[region]["towns"].items()}
