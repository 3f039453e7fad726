#!/usr/bin/python3
"""Starts and stops the demo device, and checks what remains and how it is served."""

import json
import os
import signal
import subprocess
import sys
import time
import unittest
import urllib.error

from demo_device import SECONDS_TO_WAIT, SOURCE_DIRECTORY, Client, Demo, device_program, reserve_port
from process_tree import adopt_orphans, is_live, started_processes


def run(command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def signals_in(process, field):
    """The signals in a field of the process's status, for example "SigBlk"."""
    with open(f"/proc/{process}/status", encoding="ascii", errors="replace") as file:
        mask = next(int(line.split()[1], 16) for line in file if line.startswith(field + ":"))
    return {number for number in signal.Signals if mask & 1 << (number - 1)}


def wait_until(condition, what):
    end = time.monotonic() + SECONDS_TO_WAIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.02)


def processes_naming(text):
    """The processes started by this program with the text in their command line."""
    found = []
    for process in started_processes():
        try:
            with open(f"/proc/{process}/cmdline", "rb") as file:
                if text.encode() in file.read():
                    found.append(process)
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


def mounts():
    with open("/proc/self/mountinfo", encoding="utf-8", errors="replace") as file:
        return file.read()


class DemoControlTest(unittest.TestCase):
    def setUp(self):
        self.demo = Demo()
        self.addCleanup(self.demo.remove)
        self.mounts_before = mounts()

    def program(self, text):
        """Makes a replacement for the device program."""
        path = os.path.join(self.demo.folder.name, "program")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)
        return path

    def assert_nothing_is_left(self, run_directory):
        self.assertFalse(os.path.lexists(self.demo.state))
        self.assertFalse(os.path.lexists(run_directory))
        self.assertEqual(processes_naming(run_directory), [])
        self.assertEqual(mounts(), self.mounts_before)

    def test_stop_leaves_nothing_behind(self):
        self.demo.packages = None
        self.demo.start()
        run_directory = self.demo.run_directory()
        self.assertTrue(processes_naming(run_directory))
        self.assertEqual(self.demo.stop(), f"The demo on {self.demo.address} has been stopped.")
        self.assert_nothing_is_left(run_directory)
        self.assertEqual(self.demo.stop(), "The demo is not running.")

    def test_the_updater_has_packages_to_try_and_ends_with_the_demo(self):
        self.demo.updater = os.environ["NBASE_DEMO_UPDATER"]
        self.demo.start()
        run_directory = self.demo.run_directory()
        updater = self.demo.process("updater")
        self.assertTrue(is_live(updater))
        updates = os.path.join(run_directory, "updates")
        self.assertEqual(sorted(os.listdir(updates)), ["demo-1.2.3.swu", "demo-broken.swu"])
        for name, is_broken in (("demo-1.2.3.swu", False), ("demo-broken.swu", True)):
            with open(os.path.join(updates, name), "rb") as file:
                begin = file.read(4096)
            self.assertTrue(begin.startswith(b"070701"), name)
            self.assertEqual(b"FAIL" in begin, is_broken, name)
        self.demo.stop()
        self.assertFalse(is_live(updater))
        self.assert_nothing_is_left(run_directory)

    def test_an_updater_that_does_not_start_is_reported(self):
        for updater, message in ((os.path.join(self.demo.folder.name, "missing"), "has not been built."),
                                 (self.program("#!/bin/sh\necho no sockets; exit 1\n"), "no sockets\n")):
            self.demo.updater = updater
            started = run(self.demo.start_command())
            self.assertEqual(started.returncode, 1)
            self.assertIn(message, started.stderr)
            self.assertFalse(os.path.lexists(self.demo.state))

    def test_the_machine_keeps_its_own_zones(self):
        before = sorted(os.listdir("/usr/share/zoneinfo"))
        self.demo.start()
        self.assertTrue(Client(self.demo.address).zones())
        self.assertEqual(sorted(os.listdir("/usr/share/zoneinfo")), before)
        self.assertEqual(mounts(), self.mounts_before)

    def test_a_second_start_prints_the_address_and_starts_nothing(self):
        self.demo.start()
        device = self.demo.process("device")
        self.assertEqual(self.demo.start(), f"The demo is already running.\n{self.demo.address}")
        self.assertEqual(self.demo.process("device"), device)

    def test_a_second_start_with_another_port_fails(self):
        self.demo.start()
        device = self.demo.process("device")
        address = self.demo.address
        with reserve_port() as other:
            self.demo.port = other.getsockname()[1]
        started = run(self.demo.start_command())
        self.assertEqual((started.returncode, started.stdout), (1, ""))
        self.assertEqual(started.stderr, f"The demo is already running on {address}.\n")
        self.assertEqual(self.demo.control("address"), address)
        self.assertEqual(self.demo.process("device"), device)

    def test_a_port_in_use_is_reported_in_one_line(self):
        other = Demo()
        self.addCleanup(other.remove)
        other.start()
        self.demo.port = other.port
        started = run(self.demo.start_command())
        self.assertEqual(started.returncode, 1)
        self.assertEqual(started.stdout, "")
        self.assertEqual(started.stderr, f"Port {other.port} of 127.0.0.1 is in use by another program; "
                                         "choose another one with --port <port>.\n")
        self.assertFalse(os.path.lexists(self.demo.state))

    def test_an_invalid_port_is_reported(self):
        for port in ("", "0", "65536", "123456", "http", "-1", "80 80"):
            with self.subTest(port=port):
                self.demo.port = port
                started = run(self.demo.start_command())
                self.assertEqual(started.returncode, 1)
                self.assertEqual(started.stderr, f'"{port}" is not a port number\n')

    def test_a_killed_demo_is_removed_by_the_next_start(self):
        self.demo.start()
        old = self.demo.run_directory()
        for name in ("lighttpd", "device"):
            os.kill(self.demo.process(name), signal.SIGKILL)
        wait_until(lambda: not processes_naming(old), "the end of the processes")
        self.assertNotEqual(run(self.demo.command("address")).returncode, 0)
        self.demo.start()
        self.assertNotEqual(self.demo.run_directory(), old)
        self.assertFalse(os.path.lexists(old))

    def test_a_process_id_that_was_reused_by_another_program_is_not_killed(self):
        self.demo.start()
        for name in ("lighttpd", "device"):
            os.kill(self.demo.process(name), signal.SIGKILL)
        bystander = subprocess.Popen(["sleep", "600"])
        self.addCleanup(bystander.wait)
        self.addCleanup(bystander.kill)
        with open(os.path.join(self.demo.run_directory(), "device.pid"), "w", encoding="ascii") as file:
            file.write(f"{bystander.pid} 1\n")
        self.demo.stop()
        self.assertIsNone(bystander.poll())

    def test_an_interrupted_start_leaves_nothing_behind(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number.name):
                # A device program that never listens keeps the start waiting.
                start = subprocess.Popen(self.demo.start_command(device=self.program("#!/bin/sh\nexec sleep 600\n")))
                wait_until(lambda: os.path.exists(os.path.join(self.demo.state, "device.process")), "the device")
                run_directory = os.readlink(self.demo.state)
                start.send_signal(number)
                self.assertEqual(start.wait(SECONDS_TO_WAIT), 130 if number == signal.SIGINT else 143)
                self.assert_nothing_is_left(run_directory)

    def test_a_start_does_not_disturb_another_one_in_progress(self):
        start = subprocess.Popen(self.demo.start_command(device=self.program("#!/bin/sh\nexec sleep 600\n")))
        wait_until(lambda: os.path.exists(os.path.join(self.demo.state, "device.process")), "the device")
        run_directory = os.readlink(self.demo.state)
        second = run(self.demo.start_command())
        self.assertEqual((second.returncode, second.stderr), (1, "Another start of the demo is under way.\n"))
        self.assertEqual(os.readlink(self.demo.state), run_directory)
        self.assertIsNone(start.poll())
        start.terminate()
        self.assertEqual(start.wait(SECONDS_TO_WAIT), 143)
        self.assert_nothing_is_left(run_directory)

    def test_of_two_simultaneous_starts_one_serves(self):
        starts = [subprocess.Popen(self.demo.start_command(), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                  for _ in range(2)]
        codes = sorted(start.wait(SECONDS_TO_WAIT) for start in starts)
        self.assertIn(codes, ([0, 0], [0, 1]))
        self.assertTrue(Client(self.demo.address).zones())
        self.assertEqual(self.demo.control("address"), self.demo.address)

    def test_a_device_program_that_fails_is_reported_with_its_message(self):
        started = run(self.demo.start_command(device=self.program("#!/bin/sh\necho 'no such bus' >&2\nexit 3\n")))
        self.assertEqual(started.returncode, 1)
        self.assertEqual(started.stderr, "no such bus\nThe demo device could not be started.\n")
        self.assertFalse(os.path.lexists(self.demo.state))

    def test_a_missing_device_program_is_reported(self):
        started = run(self.demo.start_command(device="/nowhere/device"))
        self.assertEqual(started.returncode, 1)
        self.assertEqual(started.stderr, 'The device program "/nowhere/device" has not been built.\n')

    def test_the_device_program_ends_without_an_error_message(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(signal=number.name):
                self.demo.start()
                Client(self.demo.address).zones()
                device = self.demo.process("device")
                os.kill(device, number)
                wait_until(lambda: not is_live(device), "the end of the device program")
                # Sanitizers report to this file.
                with open(os.path.join(self.demo.run_directory(), "device.log"), encoding="utf-8") as file:
                    self.assertEqual(file.read(), "")
                self.assertFalse(os.path.lexists(os.path.join(self.demo.run_directory(), "socket", "device")))
                self.demo.stop()

    def test_the_device_blocks_and_ignores_no_termination_signal(self):
        self.demo.start()
        # A program started by the device would inherit them.
        for mask in ("SigBlk", "SigIgn"):
            inherited = signals_in(self.demo.process("device"), mask)
            self.assertFalse(inherited & {signal.SIGINT, signal.SIGTERM}, mask)

    def test_wait_ends_with_the_demo(self):
        self.demo.start()
        waiting = subprocess.Popen(self.demo.command("wait"))
        self.addCleanup(waiting.kill)
        with self.assertRaises(subprocess.TimeoutExpired):
            waiting.wait(0.2)
        self.demo.stop()
        self.assertEqual(waiting.wait(SECONDS_TO_WAIT), 0)


class HelpTest(unittest.TestCase):
    def test_the_scripts_for_a_first_try_explain_themselves_and_refuse_unknown_options(self):
        for name in ("run-demo.sh", "run-tests.sh"):
            with self.subTest(script=name):
                script = os.path.join(SOURCE_DIRECTORY, name)
                helped = run([script, "--help"])
                self.assertEqual((helped.returncode, helped.stderr), (0, ""))
                self.assertIn(f"./{name}", helped.stdout)
                refused = run([script, "--no-such-option"])
                self.assertEqual((refused.returncode, refused.stdout), (2, ""))
                self.assertIn(f'{name}: unknown option "--no-such-option"', refused.stderr)


class WebServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()
        cls.client = Client(cls.demo.address)
        cls.client.zones()

    def status(self, path):
        try:
            with self.client.get(path) as response:
                return response.status
        except urllib.error.HTTPError as error:
            error.close()
            return error.code

    def test_it_listens_on_the_loopback_address_only(self):
        wanted = f":{self.demo.port:04X}"
        listening = []
        for table in ("/proc/net/tcp", "/proc/net/tcp6"):
            with open(table, encoding="ascii") as file:
                rows = [line.split() for line in file.readlines()[1:]]
            listening += [row[1] for row in rows if row[3] == "0A" and row[1].endswith(wanted)]
        loopback = "0100007F" if sys.byteorder == "little" else "7F000001"
        self.assertEqual(listening, [loopback + wanted])

    def test_answers_have_security_headers(self):
        for path, cache in (("/", "no-cache"), ("/style.css", "no-cache"), ("/api/timezones", "no-store")):
            with self.subTest(path=path), self.client.get(path) as response:
                policy = response.headers["Content-Security-Policy"]
                self.assertIn("default-src 'none'", policy)
                self.assertNotIn("unsafe", policy)
                self.assertEqual(response.headers["X-Content-Type-Options"], "nosniff")
                self.assertEqual(response.headers["Referrer-Policy"], "no-referrer")
                self.assertEqual(response.headers["Cache-Control"], cache)

    def test_modules_and_pictures_have_their_types(self):
        types = {"/": "text/html; charset=utf-8", "/style.css": "text/css; charset=utf-8",
                 "/scripts/main.js": "text/javascript; charset=utf-8", "/world.svg": "image/svg+xml"}
        for path, expected in types.items():
            with self.subTest(path=path), self.client.get(path) as response:
                self.assertEqual(response.headers["Content-Type"], expected)

    def test_unknown_scripts_are_not_found(self):
        for path in ("/api", "/api/", "/api/timezonesx", "/api/nothing", "/lighttpd.conf", "/../lighttpd.conf"):
            with self.subTest(path=path):
                self.assertEqual(self.status(path), 404)

    def test_queries_reach_the_device_unchanged(self):
        with self.client.get("/api/timezones?section=content&region=America&town=Argentina%2FBuenos_Aires") as response:
            self.assertEqual(json.load(response)["townName"], "Argentina/Buenos Aires")

    def test_the_rest_of_the_path_is_the_path_information(self):
        self.assertEqual(self.status("/api/timezones/some/path?section=content&region=Nowhere"), 404)
        log = os.path.join(self.demo.run_directory(), "log", "messages")

        def is_logged():
            with open(log, encoding="latin-1") as file:
                return 'script "/api/timezones" with path info "/some/path"' in file.read()
        wait_until(is_logged, "the device's message in the system log")

    def test_a_session_is_needed_and_its_cookie_is_kept_from_scripts(self):
        stranger = Client(self.demo.address)
        with self.assertRaises(urllib.error.HTTPError) as refusal:
            stranger.get("/api/timezones")
        refusal.exception.close()
        self.assertEqual(refusal.exception.code, 401)
        with stranger.post("/api/login", {"user": "demo", "password": "demo"}) as response:
            cookie = response.headers["Set-Cookie"]
        self.assertIn("HttpOnly", cookie)
        self.assertIn("SameSite=Strict", cookie)


if __name__ == "__main__":
    device_program()
    adopt_orphans()
    unittest.main(verbosity=2)
