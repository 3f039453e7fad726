"""The system's SWUpdate (Debian's package, 2022.12), and packages that it accepts."""

import os
import struct
import subprocess
import tempfile

from firmware_demo import wait_until

# Debian's daemon has these sizes of records.
RECORDS = ("3120" if struct.calcsize("P") == 8 else "3104") + ":2416"

DESCRIPTION = """software = {{ version = "1.2.3"; hardware-compatibility: [ "1.0" ];
files: ( {{ filename = "payload"; path = "{path}"; sha256 = "{hash}"; }} ); }}
"""


class SwupdateDaemon:
    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-swupdate-")
        self.control_socket = self.path("sockinstctrl")
        self.progress_socket = self.path("swupdateprog")
        self.installed = self.path("installed")
        # It accepts only signed packages.
        self.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "key.pem", "-out", "certificate.pem",
                 "-days", "2", "-subj", "/CN=test", "-addext", "extendedKeyUsage=emailProtection")
        with open(self.path("swupdate.cfg"), "w", encoding="ascii") as file:
            file.write("globals : { };\n")
        # TMPDIR is the folder of its sockets.
        with open(self.path("log"), "wb") as log:
            self.process = subprocess.Popen(
                ["swupdate", "-f", "swupdate.cfg", "-k", "certificate.pem", "-H", "test:1.0", "-v"], cwd=self.folder.name,
                env={**os.environ, "TMPDIR": self.folder.name}, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: self.process.poll() is not None or self.is_listening(), "the sockets of SWUpdate")
        if self.process.poll() is not None:
            with open(self.path("log"), encoding="utf-8", errors="replace") as log:
                raise AssertionError("SWUpdate has ended: " + log.read())

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def is_listening(self):
        with open(self.path("log"), encoding="utf-8", errors="replace") as log:
            return (os.path.exists(self.control_socket) and os.path.exists(self.progress_socket)
                    and "Main loop daemon" in log.read())

    def wait_until_it_sleeps(self):
        """An installation that is requested before the daemon waits for one is accepted, but never begins."""
        wait_until(self.is_asleep, "SWUpdate to sleep")

    def is_asleep(self):
        """Whether none of its threads is running or about to (proc(5), /proc/<pid>/task/<tid>/stat)."""
        threads = f"/proc/{self.process.pid}/task"
        for thread in os.listdir(threads):
            with open(f"{threads}/{thread}/stat", encoding="utf-8", errors="replace") as file:
                if file.read().rpartition(")")[2].split()[0] != "S":
                    return False
        return True

    def run(self, *command, **options):
        return subprocess.run(command, cwd=self.folder.name, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              **options).stdout

    def make_package(self, name, payload, described=None):
        """Writes a package that installs the payload, whose description has the hash of the payload or of other bytes, and
        returns its path."""
        with open(self.path("payload"), "wb") as file:
            file.write(payload if described is None else described)
        digest = self.run("openssl", "dgst", "-sha256", "-r", "payload").split()[0].decode("ascii")
        with open(self.path("payload"), "wb") as file:
            file.write(payload)
        with open(self.path("sw-description"), "w", encoding="utf-8") as file:
            file.write(DESCRIPTION.format(path=self.installed, hash=digest))
        self.run("openssl", "cms", "-sign", "-in", "sw-description", "-out", "sw-description.sig", "-signer",
                 "certificate.pem", "-inkey", "key.pem", "-outform", "DER", "-nosmimecap", "-binary")
        self.run("cpio", "-o", "-H", "crc", "-O", name, input=b"sw-description\nsw-description.sig\npayload\n")
        return self.path(name)

    def installed_bytes(self):
        with open(self.installed, "rb") as file:
            return file.read()

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.folder.cleanup()
