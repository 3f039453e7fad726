#!/usr/bin/env python3
"""Runs tests/virtualdevice/tst_gpiointerrupts.cpp on a GPIO chip with interrupts: the PL061 of an ARM board that QEMU emulates.

    run-gpio-interrupts.py BUILD-DIRECTORY [-- ARGUMENT...]

Debian's kernel for PCs, in which scripts/run-in-virtual-device.py runs tests, has no such chip. The test is compiled with
Debian's cross compiler and run with Debian's kernel and libraries for 32-bit ARM. These are downloaded once, 65 MB, as an
ordinary user can, and kept below the build directory. The levels of the chip's lines are set through QEMU's interface for
device tests ("qtest"), when the test prints a line such as "@0 1": line 0 becomes high.

The result is a failure when the test fails or does not end within the deadline.
"""

import argparse
import glob
import importlib.util
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TRIPLET = "arm-linux-gnueabihf"
KERNEL_PACKAGE = "linux-image-armmp"
# For Debian 12: the headers of Qt, and what its libraries QtCore and QtTest need.
PACKAGES = [
    "busybox-static", "libc6", "libdouble-conversion3", "libgcc-s1", "libglib2.0-0", "libicu72", "libpcre2-16-0",
    "libpcre2-8-0", "libqt5core5a", "libqt5test5", "libstdc++6", "libzstd1", "qtbase5-dev", "zlib1g"]
MEMORY = "512M"
TEST = "tests/virtualdevice/tst_gpiointerrupts.cpp"
SOURCES = [
    "examples/gpio/gpiochip.cpp", "examples/gpio/gpioinput.cpp", "examples/gpio/gpioline.cpp",
    "examples/gpio/gpiooutput.cpp", "examples/gpio/outputguard.cpp", "src/nbase/device/nabstractinput.cpp",
    "src/nbase/device/nabstractoutput.cpp"]
MOC_HEADERS = [
    "examples/gpio/gpioinput.h", "examples/gpio/gpioline.h", "examples/gpio/gpiooutput.h",
    "src/nbase/device/nabstractinput.h", "src/nbase/device/nabstractoutput.h", "tests/gpio/nedgerecorder.h"]
MODULES_OF_QT = ["QtCore", "QtTest"]
END_MARK = "the test has ended with status"
INIT = """#!/bin/sh
mount -t devtmpfs devtmpfs /dev
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /tmp
exec < /dev/null > /dev/ttyAMA0 2>&1
/test $(cat /arguments)
echo "{mark} $?"
poweroff -f
"""


def load_virtual_device():
    path = os.path.join(SOURCE, "scripts", "run-in-virtual-device.py")
    found = importlib.util.spec_from_file_location("virtual_device", path)
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


virtual_device = load_virtual_device()


def download(folder):
    """Unpacks the packages into a new folder. The package lists are those of the moment and not the system's, which may
    not know this architecture."""
    for directory in "lists/partial", "cache/archives/partial", "packages":
        os.makedirs(os.path.join(folder, directory))
    options = [
        f"-o=Dir::State::lists={folder}/lists", f"-o=Dir::Cache={folder}/cache", "-o=Dir::State::status=/dev/null",
        "-o=APT::Sandbox::User=root", "-o=APT::Architecture=armhf", "-o=APT::Architectures::=armhf",
        "-o=Acquire::Languages=none"]
    run = virtual_device.run
    # It also fails when one of several lists cannot be loaded; what counts is whether the packages are found.
    subprocess.run(["apt-get", "-q", *options, "update"], stdout=sys.stderr, check=False)
    description = virtual_device.output_of("apt-cache", *options, "show", KERNEL_PACKAGE)
    kernel = re.search(r"^Depends:.*?\b(linux-image-[^\s,]+)", description, re.MULTILINE)
    if not kernel:
        raise virtual_device.Failure(f"the package {KERNEL_PACKAGE} does not name a kernel")
    run("apt-get", "-q", *options, "download", kernel[1], *PACKAGES, cwd=os.path.join(folder, "packages"),
        stdout=sys.stderr)
    for package in glob.glob(glob.escape(folder) + "/packages/*.deb"):
        run("dpkg-deb", "-x", package, os.path.join(folder, "root"))


def library_path(root, name):
    for directory in f"usr/lib/{TRIPLET}", f"lib/{TRIPLET}", "lib":
        path = os.path.join(root, directory, name)
        if os.path.exists(path):
            return os.path.realpath(path)
    raise virtual_device.Failure(f"the downloaded packages do not contain {name}")


def compile_test(root, folder):
    qt = os.path.join(root, "usr/include", TRIPLET, "qt5")
    includes = [f"-I{folder}", f"-I{SOURCE}/src", f"-I{SOURCE}/tests", f"-I{SOURCE}/examples/gpio", f"-I{qt}"]
    includes += [f"-I{qt}/{module}" for module in MODULES_OF_QT]
    moc = virtual_device.output_of("qmake", "-query", "QT_HOST_BINS").strip() + "/moc"
    generated = []
    for header in MOC_HEADERS:
        generated.append(os.path.join(folder, "moc_" + os.path.basename(header) + ".cpp"))
        virtual_device.run(moc, *includes[:4], os.path.join(SOURCE, header), "-o", generated[-1])
    test = os.path.join(SOURCE, TEST)
    name = os.path.splitext(os.path.basename(test))[0]
    virtual_device.run(moc, *includes[:4], test, "-o", os.path.join(folder, name + ".moc"))
    program = os.path.join(folder, name)
    virtual_device.run(
        TRIPLET + "-g++", "-std=c++11", "-O1", "-fPIC", "-D_GNU_SOURCE", "-D_FILE_OFFSET_BITS=64",
        "-DQT_NO_CAST_FROM_ASCII", "-DQT_NO_CAST_TO_ASCII", "-Wall", "-Wextra", *includes, test,
        *(os.path.join(SOURCE, path) for path in SOURCES), *generated, "-o", program,
        *(library_path(root, f"libQt5{module[2:]}.so.5") for module in MODULES_OF_QT), "-Wl,--allow-shlib-undefined")
    return program


def needed_libraries(root, program):
    libraries = {}
    remaining = [program]
    while remaining:
        output = virtual_device.output_of("readelf", "-d", remaining.pop())
        for name in re.findall(r"\(NEEDED\).*\[(.*)\]", output):
            if name not in libraries:
                libraries[name] = library_path(root, name)
                remaining.append(libraries[name])
    return libraries


def make_file_system(root, program, arguments):
    archive = virtual_device.Archive()
    for directory in virtual_device.BASIC_DIRECTORIES:
        archive.add_directory(directory)
    archive.add("/init", 0o100755, INIT.format(mark=END_MARK).encode())
    archive.add_text("/arguments", arguments)
    archive.add_file("/bin/busybox", os.path.join(root, "bin/busybox"))
    for command in "sh", "mount", "cat", "poweroff":
        archive.add_link("/bin/" + command, "busybox")
    archive.add_file("/test", program)
    for name, path in needed_libraries(root, program).items():
        archive.add_file("/lib/" + name, path)
    return archive


def ask(channel, request):
    channel.write(request + "\n")
    channel.flush()
    return channel.readline()


def find_chip(monitor):
    """The path of the chip in QEMU's tree of objects."""
    monitor.readline()
    ask(monitor, json.dumps({"execute": "qmp_capabilities"}))
    request = {"execute": "qom-list", "arguments": {"path": "/machine/unattached"}}
    devices = json.loads(ask(monitor, json.dumps(request)))["return"]
    return "/machine/unattached/" + next(device["name"] for device in devices if device["type"] == "child<pl061>")


def run_test(root, file_system):
    """@return the status of the test; None if the machine ended before."""
    kernel, = glob.glob(glob.escape(root) + "/boot/vmlinuz-*")
    command = [
        "setpriv", "--pdeathsig", "KILL", "qemu-system-arm", "-machine", "virt", "-cpu", "cortex-a15", "-accel", "tcg",
        "-m", MEMORY, "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot", "-kernel", kernel, "-initrd",
        file_system, "-append", "console=ttyAMA0 quiet loglevel=1 panic=-1 oops=panic", "-serial", "chardev:console",
        "-mon", "chardev=monitor,mode=control", "-qtest", "chardev:qtest", "-qtest-log", "none"]
    channels = {}
    ends = []
    for name in "console", "monitor", "qtest":
        channel, end = socket.socketpair()
        channels[name] = channel.makefile("rw", encoding="utf-8", errors="replace", newline="\n")
        ends.append(end)
        command += ["-chardev", f"socket,id={name},fd={end.fileno()}"]
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, pass_fds=[end.fileno() for end in ends])
    for end in ends:
        end.close()
    try:
        chip = find_chip(channels["monitor"])
        for line in channels["console"]:
            line = line.rstrip()
            request = re.fullmatch(r"@(\d) ([01])", line)
            if request:
                answer = ask(channels["qtest"], f"set_irq_in {chip} unnamed-gpio-in {request[1]} {request[2]}")
                if not answer.startswith("OK"):
                    raise virtual_device.Failure(f"the level of a line cannot be set: {answer.strip()}")
            elif line.startswith(END_MARK):
                return int(line[len(END_MARK):])
            else:
                print(line, flush=True)
        return None
    finally:
        process.kill()
        process.wait()


def fail_at_deadline(*_):
    raise virtual_device.Failure("the deadline has passed")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--deadline", type=int, default=600, metavar="SECONDS", help="(default: %(default)s)")
    parser.add_argument("build", metavar="BUILD-DIRECTORY")
    parser.add_argument("arguments", nargs="*", metavar="ARGUMENT", help="of the test, without blanks")
    arguments = parser.parse_args()
    for program in "qemu-system-arm", TRIPLET + "-g++", "readelf", "setpriv", "qmake":
        if not shutil.which(program):
            raise virtual_device.Failure(
                f"{program} is not installed; scripts/install-packages.sh build demo check installs it")
    folder = os.path.abspath(os.path.join(arguments.build, "virtual-device"))
    os.makedirs(folder, exist_ok=True)
    root = os.path.join(folder, "arm")
    with tempfile.TemporaryDirectory(dir=folder) as temporary:
        if not os.path.exists(root):
            download(temporary)
            os.rename(os.path.join(temporary, "root"), root)
        program = compile_test(root, temporary)
        file_system = os.path.join(temporary, "file-system")
        with open(file_system, "wb") as file:
            make_file_system(root, program, " ".join(arguments.arguments)).write(file)
        signal.signal(signal.SIGALRM, fail_at_deadline)
        signal.alarm(arguments.deadline)
        status = run_test(root, file_system)
    if status is None:
        raise virtual_device.Failure("the machine ended before the test had")
    return 0 if status == 0 else 1


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        sys.exit(main())
    except (virtual_device.Failure, OSError) as failure:
        sys.exit(f"run-gpio-interrupts.py: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
