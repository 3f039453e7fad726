#!/usr/bin/env python3
"""Runs test programs in a virtual device: a machine that QEMU emulates, with the kernel of Debian and its real drivers.

    run-in-virtual-device.py [OPTION]... BUILD-DIRECTORY [TEST...] [-- ARGUMENT...]
    run-in-virtual-device.py --self-check BUILD-DIRECTORY

Runs the named tests, or all that are registered with nbase_use_virtual_device() (tests/virtualdevice/CMakeLists.txt), one
after the other, and prints their output; the arguments are passed to each of them. The result is a failure when a test fails,
and, with the output of the console, when the kernel stops, when the machine ends without the result of a test or when the
deadline passes.

The machine has a file system in memory with the test programs, their libraries and BusyBox, and nothing of this machine's
devices. Its console is ttyS0. For the tests, there are:
- ttyS1 and ttyS2, two 8250 UARTs that are connected to each other;
- two USB serial adapters, whose serial numbers are usb0 and usb1, connected to each other as well;
- a USB memory stick of 64 MiB with the serial number media0, empty, not plugged in at first.
Tests have devices plugged in and out with NVirtualDevice::request() (tests/virtualdevice/nvirtualdevice.h): each line on the
port "control" is one request, which is answered by the line "done" or "failed: <reason>":
    unplug DEVICE    DEVICE is usb0, usb1 or media0
    plug DEVICE
    break PORT       PORT is serial1, serial2, usb0 or usb1; it receives a break

The kernel is downloaded once, as an ordinary user can, and kept below the build directory.
"""

import argparse
import array
import collections
import fcntl
import glob
import json
import lzma
import os
import re
import secrets
import selectors
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import termios
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KERNEL_PACKAGE = "linux-image-amd64"
MEMORY = "1G"
MEDIA_SIZE = 64 * 1024 * 1024
# Without which the machine cannot report anything.
BASIC_MODULES = ["virtio_pci", "virtio_console"]
BASIC_DIRECTORIES = ["/bin", "/dev", "/etc", "/proc", "/root", "/sbin", "/sys", "/tmp", "/usr/bin", "/usr/sbin"]
KERNEL_PARAMETERS = "console=ttyS0 panic=-1 oops=panic"
PEERS = {"serial1": "serial2", "serial2": "serial1", "usb0": "usb1", "usb1": "usb0"}
CHANNELS = ["monitor", "console", "control", "output", *PEERS]
DEVICES = {
    "usb0": {"driver": "usb-serial", "chardev": "usb0", "port": "1"},
    "usb1": {"driver": "usb-serial", "chardev": "usb1", "port": "2"},
    "media0": {"driver": "usb-storage", "drive": "media0", "port": "3", "removable": True},
}
UNPLUGGED_AT_FIRST = ["media0"]


class Failure(Exception):
    """The tests could not be run, or not all of them."""


def device(name):
    return dict(DEVICES[name], id=name, serial=name, bus="usb.0")


# ---- the kernel

def run(*command, **options):
    try:
        return subprocess.run(command, check=True, **options)
    except FileNotFoundError as error:
        raise Failure(f"{command[0]} is not installed; scripts/install-packages.sh check installs it") from error
    except subprocess.CalledProcessError as error:
        raise Failure(f"{shlex.join(command)} failed with status {error.returncode}") from error


def output_of(*command, **options):
    return run(*command, stdout=subprocess.PIPE, text=True, **options).stdout


def download_kernel(folder):
    """Unpacks the current kernel package into a new folder. The package lists are those of the moment, so that the package
    exists on the server, and are not the system's, which only root may update."""
    for directory in "lists/partial", "cache/archives/partial", "package":
        os.makedirs(os.path.join(folder, directory))
    options = [
        f"-o=Dir::State::lists={folder}/lists", f"-o=Dir::Cache={folder}/cache", "-o=APT::Sandbox::User=root",
        "-o=Acquire::Languages=none"]
    run("apt-get", "-q", *options, "update", stdout=sys.stderr)
    dependency = re.search(r"^Depends:.*?\b(linux-image-[^\s,]+)",
                           output_of("apt-cache", *options, "show", KERNEL_PACKAGE), re.MULTILINE)
    if not dependency:
        raise Failure(f"the package {KERNEL_PACKAGE} does not name a kernel")
    run("apt-get", "-q", *options, "download", dependency[1], cwd=os.path.join(folder, "package"), stdout=sys.stderr)
    run("dpkg-deb", "-x", *glob.glob(glob.escape(folder) + "/package/*.deb"), os.path.join(folder, "kernel"))


class Kernel:
    """The files of the kernel, which are downloaded when there are none."""

    def __init__(self, folder):
        root = os.path.join(folder, "kernel")
        if not os.path.exists(root):
            with tempfile.TemporaryDirectory(dir=folder) as temporary:
                download_kernel(temporary)
                os.rename(os.path.join(temporary, "kernel"), root)
        self.image, = glob.glob(glob.escape(root) + "/boot/vmlinuz-*")
        self.release = os.path.basename(self.image).partition("-")[2]
        # In later releases of Debian below /usr.
        libraries = "lib" if os.path.exists(os.path.join(root, "lib")) else "usr/lib"
        modules = os.path.join(root, libraries, "modules", self.release)
        self.module_paths = {self.module_name(path): path for path in
                             glob.iglob(glob.escape(modules) + "/kernel/**/*.ko*", recursive=True)}
        with open(os.path.join(modules, "modules.builtin"), encoding="ascii") as file:
            self.builtin_modules = {self.module_name(line.strip()) for line in file}

    @staticmethod
    def module_name(path):
        return os.path.basename(path).partition(".")[0].replace("-", "_")

    def modules(self, names):
        """The named modules and those that they need: name, content and names of the needed ones."""
        modules = {}
        missing = collections.deque(names)
        while missing:
            name = missing.popleft()
            if name in modules or name in self.builtin_modules:
                continue
            if name not in self.module_paths:
                raise Failure(f"the kernel has no module {name}")
            path = self.module_paths[name]
            with lzma.open(path) if path.endswith(".xz") else open(path, "rb") as file:
                content = file.read()
            needed = re.search(rb"\0depends=([^\0]*)\0", content)[1].decode("ascii").split(",")
            modules[name] = content, [self.module_name(other) for other in needed if other]
            missing.extend(modules[name][1])
        return modules


# ---- the file system

class Archive:
    """A file system in memory in the format that the kernel unpacks (cpio(5), "New ASCII Format"), made in memory because
    only root can give files to root."""

    def __init__(self):
        self.entries = {}

    def add(self, path, mode, content=b""):
        parent = os.path.dirname(path)
        if parent not in self.entries and parent != "/":
            self.add_directory(parent)
        self.entries.setdefault(path, (mode, content))

    def add_directory(self, path):
        self.add(path, 0o040755)

    def add_link(self, path, target):
        self.add(path, 0o120777, target.encode())

    def add_text(self, path, text):
        self.add(path, 0o100644, text.encode())

    def add_file(self, path, source=None):
        with open(source or path, "rb") as file:
            self.add(path, 0o100755, file.read())

    def add_program(self, path):
        """A program, or any other file, with the libraries that it is linked with."""
        if path in self.entries:
            return
        self.add_file(path)
        linked = subprocess.run(["ldd", path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
        if "=> not found" in linked.stdout:
            raise Failure(f"{path} lacks a library:\n{linked.stdout}")
        for library in re.findall(r"^\s(?:.* => )?(/.*) \(0x[0-9a-f]+\)$", linked.stdout, re.MULTILINE):
            if library not in self.entries:
                self.add_file(library)

    def write(self, file):
        for number, (path, (mode, content)) in enumerate(self.entries.items(), 1):
            self.write_entry(file, number, path[1:], mode, content)
        self.write_entry(file, 0, "TRAILER!!!", 0, b"")

    @staticmethod
    def write_entry(file, number, name, mode, content):
        name = os.fsencode(name) + b"\0"
        fields = [number, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(name), 0]
        header = b"070701" + b"".join(b"%08X" % field for field in fields) + name
        file.write(header + bytes(-len(header) % 4) + content + bytes(-len(content) % 4))


def make_file_system(kernel, tests, arguments, mark):
    archive = Archive()
    for directory in BASIC_DIRECTORIES:
        archive.add_directory(directory)
    archive.add_file("/init", os.path.join(SOURCE, "tests", "virtualdevice", "init.sh"))
    archive.add_program("/bin/busybox")
    archive.add_link("/bin/sh", "busybox")

    commands = ""
    modules = [*BASIC_MODULES, *arguments.module]
    for test in tests:
        for path in test["program"], *test["files"]:
            archive.add_program(os.path.abspath(path))
        modules.extend(test["modules"])
        commands += shlex.join(["run_test", os.path.abspath(test["program"]), *arguments.arguments]) + "\n"
    for path in arguments.file:
        archive.add_program(os.path.abspath(path))

    folder = f"/lib/modules/{kernel.release}"
    modules = [kernel.module_name(name) for name in modules]
    loaded = kernel.modules(modules)
    for name, (content, _) in loaded.items():
        archive.add(f"{folder}/{name}.ko", 0o100644, content)
    archive.add_text(folder + "/modules.dep", "".join(
        f"{name}.ko: {' '.join(needed + '.ko' for needed in dependencies(name, loaded))}\n" for name in loaded))
    archive.add_text("/etc/virtual-device/modules", "\n".join(name for name in modules if name in loaded) + "\n")
    archive.add_text("/etc/virtual-device/mark", mark)
    archive.add_text("/etc/virtual-device/tests", commands)
    return archive


def dependencies(name, modules):
    """All modules that a module needs, directly or not; those come last that have to be loaded first (modules.dep(5))."""
    result = []
    for needed in modules[name][1]:
        if needed in modules:
            for other in needed, *dependencies(needed, modules):
                if other in result:
                    result.remove(other)
                result.append(other)
    return result


# ---- the machine

class Machine:
    """The running machine. Its serial ports and its channels to this program are socket pairs, which need no names. What is
    sent on a serial port is taken at once, as on a real line, because QEMU waits for a reader of its USB adapters."""

    def __init__(self, kernel, file_system, media, tests, mark):
        self.tests = tests
        self.mark = mark.encode()
        self.console = b""
        self.results = []
        self.has_ended = False
        self.has_crashed = False  # QEMU itself, not the system in it
        self.awaited = set()
        self.answer = b""
        self.unplugged = set(UNPLUGGED_AT_FIRST)
        self.channels = {}
        self.partial_lines = {"output": b"", "control": b"", "monitor": b""}
        self.unsent = collections.defaultdict(bytearray)
        self.selector = selectors.DefaultSelector()
        self.process = self.start(self.command(kernel, file_system, media))
        self.execute("qmp_capabilities", answer=b"")

    @staticmethod
    def command(kernel, file_system, media):
        command = [
            "qemu-system-x86_64", "-machine", "q35", "-accel", "tcg", "-cpu", "max", "-m", MEMORY, "-nodefaults",
            "-no-user-config", "-display", "none", "-no-reboot",
            "-kernel", kernel.image, "-initrd", file_system, "-append", KERNEL_PARAMETERS,
            "-mon", "chardev=monitor,mode=control"]
        for index, (name, interrupt) in enumerate([("console", 4), ("serial1", 3), ("serial2", 5)]):
            command += ["-device", f"isa-serial,index={index},irq={interrupt},chardev={name}"]
        command += ["-device", "virtio-serial-pci"]
        for name in "control", "output":
            command += ["-device", f"virtserialport,name={name},chardev={name}"]
        command += ["-device", "qemu-xhci,id=usb", "-blockdev", json.dumps(
            {"driver": "raw", "node-name": "media0", "file": {"driver": "file", "filename": media}})]
        for name in DEVICES:
            if name not in UNPLUGGED_AT_FIRST:
                command += ["-device", json.dumps(device(name))]
        return command

    def start(self, command):
        ends = []
        for name in CHANNELS:
            channel, end = socket.socketpair()
            channel.setblocking(False)
            self.channels[name] = channel
            self.selector.register(channel, selectors.EVENT_READ, name)
            ends.append(end)
            command += ["-chardev", f"socket,id={name},fd={end.fileno()}"]
        # QEMU ends with this program, however that ends.
        process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], stdin=subprocess.DEVNULL,
                                   pass_fds=[end.fileno() for end in ends])
        for end in ends:
            end.close()
        return process

    def stop(self):
        try:
            self.process.wait(1 if self.has_ended else 0)
            self.has_crashed = self.process.returncode < 0
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.selector.close()
        for channel in self.channels.values():
            channel.close()

    def follow(self, seconds):
        """Serves the machine until it ends. @return why it ended before the tests had, or None."""
        end = time.monotonic() + seconds
        while any(self.channels[name] in self.selector.get_map() for name in ("console", "output")):
            remaining = end - time.monotonic()
            if remaining <= 0:
                return f"the deadline of {seconds:g} seconds has passed"
            for key, events in self.selector.select(remaining):
                if events & selectors.EVENT_WRITE:
                    self.send_rest(key.data)
                if events & selectors.EVENT_READ:
                    self.receive(key.data)
        self.has_ended = True
        return None if len(self.results) == len(self.tests) else "the machine ended before the tests had"

    def receive(self, name):
        try:
            data = self.channels[name].recv(65536)
        except ConnectionResetError:
            data = b""
        if not data:
            self.selector.unregister(self.channels[name])
        elif name == "console":
            self.console += data
        elif name in PEERS:
            if PEERS[name] not in self.unplugged:
                self.send(PEERS[name], data)
        else:
            *lines, self.partial_lines[name] = (self.partial_lines[name] + data).split(b"\n")
            for line in lines:
                getattr(self, "take_line_of_" + name)(line)

    def send(self, name, data):
        self.unsent[name] += data
        self.send_rest(name)

    def send_rest(self, name):
        channel = self.channels[name]
        try:
            del self.unsent[name][:channel.send(self.unsent[name])]
        except BlockingIOError:
            pass
        except (BrokenPipeError, ConnectionResetError):
            self.unsent[name].clear()
        if channel in self.selector.get_map():
            waiting = selectors.EVENT_WRITE if self.unsent[name] else 0
            self.selector.modify(channel, selectors.EVENT_READ | waiting, name)

    def take_line_of_output(self, line):
        if line.startswith(self.mark):
            self.results.append(int(line.split()[1]))
        else:
            print(line.decode("utf-8", "replace"), flush=True)

    def take_line_of_control(self, line):
        action, _, name = line.decode("utf-8", "replace").partition(" ")
        if action == "unplug" and name in DEVICES:
            self.unplugged.add(name)
            self.wait_until_taken(name)
            self.execute("device_del", "DEVICE_DELETED", id=name)
        elif action == "plug" and name in DEVICES:
            self.unplugged.discard(name)
            self.execute("device_add", **device(name))
        elif action == "break" and name in PEERS:
            self.execute("chardev-send-break", id=name)
        else:
            self.send("control", b"failed: unknown request\n")

    def wait_until_taken(self, name):
        """QEMU crashes when a byte for a USB device comes at the moment at which the device is removed (usb_wakeup() of a
        device without a bus). What the guest does not read stays in the channel, and does no harm."""
        if name not in self.channels:
            return
        self.unsent[name].clear()
        end = time.monotonic() + 1
        size = array.array("i", [1])
        while size[0] > 0 and time.monotonic() < end:
            fcntl.ioctl(self.channels[name], termios.TIOCOUTQ, size)
            time.sleep(0.01)

    def execute(self, command, *events, answer=b"done\n", **arguments):
        """Executes a command of QEMU's monitor (QMP). The answer is sent to the test when the events have come as well."""
        self.awaited = {"return", *events}
        self.answer = answer
        self.send("monitor", json.dumps({"execute": command, "arguments": arguments}).encode())

    def take_line_of_monitor(self, line):
        message = json.loads(line)
        if "error" in message:
            self.awaited = set()
            self.send("control", f"failed: {message['error']['desc']}\n".encode())
            return
        if self.awaited:
            self.awaited -= {message.get("event"), *message}
            if not self.awaited:
                self.send("control", self.answer)

    def report(self, stopped):
        """Prints the results. @return whether all tests have passed."""
        if stopped:
            print(self.console.decode("utf-8", "replace").replace("\r", ""))
            print(self.partial_lines["output"].decode("utf-8", "replace"))
            print("virtual device: the console is above;", stopped)
        results = [*self.results, *["no result"] * (len(self.tests) - len(self.results))]
        for test, result in zip(self.tests, results):
            print(f"{'passed' if result == 0 else 'FAILED':7} {test['name']}" + (f" ({result})" if result else ""))
        return not stopped and all(result == 0 for result in results)


# ---- the program

def registered_tests(build):
    tests = {}
    for path in sorted(glob.glob(glob.escape(build) + "/virtual-device/tests/*.json")):
        with open(path, encoding="utf-8") as file:
            test = json.load(file)
        tests[test["name"]] = test
    return tests


def chosen_tests(build, names):
    tests = registered_tests(build)
    if not tests:
        raise Failure(f"no test is registered in {build}; is it a build directory?")
    for name in names:
        if name not in tests:
            raise Failure(f"there is no test {name}; there are: {' '.join(tests)}")
    chosen = [tests[name] for name in names or tests]
    for test in chosen:
        if not os.path.exists(test["program"]):
            raise Failure(f"{test['name']} is not built: cmake --build {shlex.quote(build)} --target {test['name']}")
    return chosen


def run_tests(kernel, folder, tests, arguments, deadline):
    """Runs the tests in a machine. @return the machine, which has ended, and why it had to be stopped, or None."""
    mark = secrets.token_hex(16)
    with tempfile.TemporaryDirectory(dir=folder) as temporary:
        file_system = os.path.join(temporary, "file-system")
        media = os.path.join(temporary, "media")
        with open(file_system, "wb") as file:
            make_file_system(kernel, tests, arguments, mark).write(file)
        with open(media, "wb") as file:
            file.truncate(MEDIA_SIZE)
        machine = Machine(kernel, file_system, media, tests, mark)
        try:
            stopped = machine.follow(deadline)
        finally:
            machine.stop()
    return machine, stopped


def self_check(kernel, folder, arguments):
    """Checks that every kind of failure is noticed."""
    commands = {
        "passes": "true", "fails": "exit 3", "crashes": "kill -SEGV $$", "stops-the-kernel": "echo c > /proc/sysrq-trigger",
        "does-not-run": "true"}
    with tempfile.TemporaryDirectory(dir=folder) as temporary:
        tests = []
        for name, command in commands.items():
            program = os.path.join(temporary, name)
            with open(program, "w", encoding="ascii") as file:
                file.write(f"#!/bin/sh\n{command}\n")
            tests.append({"name": name, "program": program, "modules": [], "files": []})
        machine, stopped = run_tests(kernel, folder, tests, arguments, arguments.deadline)
        expected = [0, 3, 128 + signal.SIGSEGV]
        if machine.results != expected or not stopped or b"Kernel panic" not in machine.console:
            raise Failure(f"self-check: the results are {machine.results}, {stopped}")
        _, stopped = run_tests(kernel, folder, tests, arguments, deadline=1)
        if stopped != "the deadline of 1 seconds has passed":
            raise Failure(f"self-check: after the deadline: {stopped}")
    print("self-check: failures are noticed")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--module", action="append", default=[], metavar="NAME",
                        help="a further kernel module, which is loaded")
    parser.add_argument("--file", action="append", default=[], metavar="PATH",
                        help="a further file, or program with the libraries that it needs, at the same path as here")
    parser.add_argument("--deadline", type=float, default=900, metavar="SECONDS",
                        help="after which the machine is stopped (default: %(default)s)")
    parser.add_argument("--self-check", action="store_true", help="instead check that this program notices failures")
    parser.add_argument("build", metavar="BUILD-DIRECTORY")
    parser.add_argument("tests", nargs="*", metavar="TEST")
    end = sys.argv.index("--") if "--" in sys.argv else len(sys.argv)
    arguments = parser.parse_args(sys.argv[1:end])
    arguments.arguments = sys.argv[end + 1:]
    return arguments


def main():
    arguments = parse_arguments()
    for program in "qemu-system-x86_64", "busybox", "setpriv":
        if not shutil.which(program):
            raise Failure(f"{program} is not installed; scripts/install-packages.sh demo check installs it")
    tests = chosen_tests(arguments.build, arguments.tests)
    folder = os.path.abspath(os.path.join(arguments.build, "virtual-device"))
    kernel = Kernel(folder)
    if arguments.self_check:
        self_check(kernel, folder, arguments)
        return 0
    machine, stopped = run_tests(kernel, folder, tests, arguments, arguments.deadline)
    if machine.has_crashed:
        print("virtual device: QEMU has crashed; once more", flush=True)
        machine, stopped = run_tests(kernel, folder, tests, arguments, arguments.deadline)
    return 0 if machine.report(stopped) else 1


if __name__ == "__main__":
    # So that what has been started and made is removed.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        sys.exit(main())
    except (Failure, OSError) as failure:
        sys.exit(f"run-in-virtual-device.py: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
