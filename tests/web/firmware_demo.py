"""The demo device with a stand-in for the SWUpdate daemon that a test controls, and with removable media that it inserts."""

import contextlib
import http.client
import os
import signal
import tempfile
import time

from demo_device import SECONDS_TO_WAIT, Demo, device_program

# Runs in the mount namespace of the device, before it. Media are file systems in memory that are mounted as those of USB
# sticks. The commands come from a pipe, one in each line, until "exit" or the end of the device. An ordinary user is root
# there, or needs sudo where the kernel has no user namespaces, as in a chroot.
DEVICE = """#!/bin/sh
as_root=
[ "$(id -u)" -eq 0 ] || as_root="sudo -n"
$as_root mount -t tmpfs tmpfs /sys
$as_root mkdir -p /sys/class/block
$as_root setpriv --pdeathsig KILL sh -c 'while [ -p "FOLDER/commands" ]; do
    while read -r command; do
        eval "$command"
        echo done >>"FOLDER/done"
    done <"FOLDER/commands"
done' &
exec "DEVICE_PROGRAM" "$@"
"""

FIRMWARE = "/api/firmware"
PACKAGES = "/api/firmware?section=packages"
MESSAGES = "/api/firmware-messages"
MEDIA = "/api/media"

MEBIBYTE = 1024 * 1024
BOUNDARY = "firmware-test"
PACKAGE_END = b"TRAILER!!!\0\0"
LAST_MESSAGE = "Waiting for requests..."

# What the stand-in does unless a test says otherwise.
DEFAULTS = "steps 2 step-time 200 cpio 1"

# The address sanitizer keeps 256 MB of freed memory by default, which a test could not tell from a growth of the device.
os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"


def wait_until(condition, what):
    end = time.monotonic() + SECONDS_TO_WAIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.01)


def line_count(path):
    with open(path, encoding="utf-8") as file:
        return file.read().count("\n")


def open_if_it_is_read(path, flags):
    """Fails for a pipe without a reader, instead of waiting for one."""
    return os.open(path, flags | os.O_NONBLOCK)


class Commands:
    """Lines that are written to a pipe, and the lines by which a program answers each."""

    def __init__(self, pipe, answers):
        self.pipe = pipe
        self.answers = answers

    def run(self, *lines):
        for line in lines:
            count = line_count(self.answers)
            with open(self.pipe, "w", encoding="utf-8") as file:
                file.write(line + "\n")
            wait_until(lambda count=count: line_count(self.answers) > count, f"the end of {line}")


class FirmwareDemo(Demo):
    def __init__(self):
        super().__init__()
        self.updater = os.environ["NBASE_DEMO_UPDATER"]
        self.media_folder = tempfile.TemporaryDirectory(prefix="nbase-media-")
        folder = self.media_folder.name
        # Without a blank, which the library does not find in a mount point.
        os.mkfifo(self.media_path("commands"))
        os.mkdir(self.media_path("tick"))
        open(self.media_path("done"), "w", encoding="ascii").close()
        self.device = self.media_path("device")
        with open(self.device, "w", encoding="utf-8") as file:
            file.write(DEVICE.replace("FOLDER", folder).replace("DEVICE_PROGRAM", device_program()))
        os.chmod(self.device, 0o755)
        self.media_commands = Commands(self.media_path("commands"), self.media_path("done"))

    def media_path(self, name):
        return os.path.join(self.media_folder.name, name)

    def configure(self, *options):
        """Makes the stand-in idle, and sets its options, for example "steps 3", instead of the earlier ones."""
        self.updater_commands().run("reset", " ".join([DEFAULTS, *options]))

    def change(self, *options):
        """Changes options of the stand-in, which continues what it does."""
        self.updater_commands().run(" ".join(options))

    def updater_commands(self):
        run = self.run_directory()
        return Commands(os.path.join(run, "updater.commands"), os.path.join(run, "updater.log"))

    def stop_updater(self, test):
        """The stand-in answers nothing until continue_updater()."""
        updater = self.process("updater")
        test.addCleanup(os.kill, updater, signal.SIGCONT)
        os.kill(updater, signal.SIGSTOP)

    def continue_updater(self):
        os.kill(self.process("updater"), signal.SIGCONT)

    def insert(self, name, packages=(), label="", size="4m", read_only=False):
        """Mounts a medium, and returns when the device could begin to notice it. The packages are paths of files, whose
        names they have on the medium."""
        mount_point = self.media_path(name)
        os.mkdir(mount_point)
        device = self.media_path("new")
        self.media_commands.run(
            f"rm -f /dev/{name}",
            *([f"mkfs.vfat -n {label} -C /dev/{name} 1440 >/dev/null"] if label else []),
            f"mount -t tmpfs -o size={size} /dev/{name} {mount_point}",
            *(f"cp {package} {mount_point}" for package in packages),
            f"mkdir {device} && echo {int(read_only)} >{device}/ro",
            f"cp -R {device} /sys/class/block/{name} && rm -r {device}")
        begin = time.monotonic()
        # The list looks through the block devices after each change of the mounts.
        self.media_commands.run(
            f"mount -t tmpfs tmpfs {self.media_path('tick')} && umount {self.media_path('tick')}")
        return begin

    def pull(self, name):
        """Takes the medium out without unmounting it before, and returns when the device could begin to notice it."""
        mount_point = self.media_path(name)
        begin = time.monotonic()
        self.media_commands.run(f"rm -r /sys/class/block/{name}", f"umount {mount_point} && rm -f /dev/{name}")
        os.rmdir(mount_point)
        return begin

    def remove(self):
        # With sudo, the commands do not end with the device.
        with contextlib.suppress(OSError), open(
                self.media_path("commands"), "w", encoding="ascii", opener=open_if_it_is_read) as pipe:
            pipe.write("exit\n")
        super().remove()
        self.media_folder.cleanup()


def package(size=3000000, text=b""):
    """What the stand-in takes for a package."""
    return (b"070701" + text).ljust(size - len(PACKAGE_END), b"\0") + PACKAGE_END


def make_package(folder, name="update.swu", size=3000000, text=b""):
    """Writes a package to a file, and returns its path."""
    path = os.path.join(folder, name)
    with open(path, "wb") as file:
        file.write(package(0, text))
        file.seek(max(file.tell(), size) - len(PACKAGE_END))
        file.write(PACKAGE_END)
    return path


def form(content, part="package"):
    """The body of an upload."""
    return (f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{part}"; filename="update.swu"\r\n'
            "Content-Type: application/octet-stream\r\n\r\n").encode() + content + f"\r\n--{BOUNDARY}--\r\n".encode()


class FirmwareClient:
    """What a test case with the attributes demo and session does with the firmware service."""

    latest = 0  # number of the last message that has been waited for

    def make_free(self):
        """Waits until the device takes another package, with the defaults of the stand-in."""
        self.latest = 0
        self.demo.configure("steps 1 step-time 10")
        for message in self.messages():
            self.latest = message["number"]
        wait_until(lambda: self.upload(package(1000)) == 200, "the end of an earlier installation")
        self.until_finished()
        self.demo.configure()

    def connection(self):
        return http.client.HTTPConnection("127.0.0.1", self.demo.port, timeout=SECONDS_TO_WAIT)

    def headers(self, size, session=None):
        return {"Content-Type": f"multipart/form-data; boundary={BOUNDARY}", "Content-Length": str(size),
                "Connection": "close", **(session or self.session).headers}

    def upload(self, content, part="package", session=None):
        """The status of the answer."""
        connection = self.connection()
        body = form(content, part)
        connection.request("POST", FIRMWARE, body, self.headers(len(body), session))
        with connection.getresponse() as response:
            response.read()
            return response.status

    def begin_upload(self, sent, size, session=None):
        """Sends the beginning of an upload, and returns its connection."""
        connection = self.connection()
        connection.putrequest("POST", FIRMWARE)
        for name, value in self.headers(size, session).items():
            connection.putheader(name, value)
        connection.endheaders(sent)
        self.addCleanup(connection.close)
        return connection

    def state(self, session=None):
        return (session or self.session).send("GET", FIRMWARE)[1]

    def messages(self, session=None):
        return (session or self.session).send("GET", MESSAGES)[1]

    def until_finished(self):
        """Waits for the end of the installation and for its last message, and returns the state."""
        try:
            wait_until(self.has_last_message, "the last message")
        except AssertionError as error:
            raise AssertionError(f"{error}; there are {self.messages()} after {self.latest}") from error
        wait_until(lambda: self.state()["state"] == "finished", "the end of the installation")
        return self.state()

    def has_last_message(self):
        messages = self.messages()
        if not messages or messages[-1]["number"] <= self.latest or messages[-1]["description"] != LAST_MESSAGE:
            return False
        self.latest = messages[-1]["number"]
        return True
