#!/usr/bin/python3
"""Clients that would keep others from the demo device, or fill its disk: slow ones, and floods of messages in its log."""

import http.client
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from demo_device import SECONDS_TO_WAIT, SOURCE_DIRECTORY, Client, Demo

BOUNDED_LOG = os.path.join(SOURCE_DIRECTORY, "examples", "device", "bounded-log.sh")
SLOW_CLIENTS = 300
SECONDS_BETWEEN_BYTES = 5


class WebServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()

    def status(self, path="/", host=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.demo.port, timeout=SECONDS_TO_WAIT)
        try:
            connection.putrequest("GET", path, skip_host=True)
            if host is not None:
                connection.putheader("Host", host)
            connection.endheaders()
            return connection.getresponse().status
        finally:
            connection.close()

    def slow_client(self):
        client = socket.create_connection(("127.0.0.1", self.demo.port), SECONDS_TO_WAIT)
        self.addCleanup(client.close)
        client.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: ")
        return client

    def is_cut_off(self, client):
        client.setblocking(False)
        try:
            return client.recv(1000) == b""
        except BlockingIOError:
            return False
        except ConnectionError:
            return True

    def test_the_device_answers_to_its_own_names_only(self):
        port = self.demo.port
        for host in (f"127.0.0.1:{port}", "127.0.0.1", f"localhost:{port}", "LocalHost"):
            self.assertEqual(self.status(host=host), 200, host)
            self.assertEqual(self.status("/api/timezones", host=host), 401, host)
        for host in ("evil.example", f"evil.example:{port}", "127.0.0.1.evil.example", "localhost.evil.example",
                     "evil-localhost", "10.0.0.1", "[::1]", None):
            self.assertIn(self.status(host=host), (400, 403), host)
            self.assertIn(self.status("/api/timezones", host=host), (400, 403), host)

    def test_the_page_stays_reachable_while_hundreds_of_clients_send_a_byte_now_and_then(self):
        clients = [self.slow_client() for _ in range(SLOW_CLIENTS)]
        left = list(clients)
        sent = time.monotonic()
        end = sent + SECONDS_TO_WAIT
        answers = 0
        while left:
            self.assertLess(time.monotonic(), end, f"{len(left)} slow clients are never cut off")
            if time.monotonic() - sent > SECONDS_BETWEEN_BYTES:
                sent = time.monotonic()
                for client in left:
                    try:
                        client.send(b"x")
                    except OSError:
                        pass  # seen below
            self.assertEqual(self.status(host="127.0.0.1"), 200)
            answers += 1
            time.sleep(0.2)
            left = [client for client in left if not self.is_cut_off(client)]
        self.assertGreater(answers, 3)

    def test_the_page_stays_reachable_beside_clients_too_fast_to_be_cut_off(self):
        clients = [self.slow_client() for _ in range(SLOW_CLIENTS)]
        for client in clients:
            client.send(b"x")
        for path, status in (("/", 200), ("/api/timezones", 401)):
            self.assertEqual(self.status(path, host="127.0.0.1"), status)

    def test_what_device_and_web_server_log_is_in_the_demo_s_own_system_log(self):
        messages = os.path.join(self.demo.run_directory(), "log", "messages")
        with open(messages, encoding="latin-1") as file:
            text = file.read()
        self.assertRegex(text, r"daemon\.info nbase-demo-device\[\d+\]: serving with")
        self.assertRegex(text, r"daemon\.warn lighttpd: .*server started")
        # Where the machine has a system log, the demo leaves it alone.
        for path in ("/var/log/messages", "/var/log/syslog"):
            if os.path.exists(path):
                with open(path, encoding="latin-1") as file:
                    self.assertNotIn(f"[{self.demo.process('device')}]: serving with", file.read())


    def kept_connections(self, count):
        connections = []
        for _ in range(count):
            connection = http.client.HTTPConnection("127.0.0.1", self.demo.port, timeout=SECONDS_TO_WAIT)
            connection.connect()
            self.addCleanup(connection.close)
            connections.append(connection)
        return connections

    def statuses_of_a_burst(self, connections):
        """Every connection's answer to one request. The device is stopped until all are sent: they wait in its queue
        together, however fast it is."""
        with Client(self.demo.address).post("/api/login", {"user": "demo", "password": "demo"}) as response:
            headers = {"Cookie": response.headers["Set-Cookie"].split(";")[0]}
        device = self.demo.process("device")
        os.kill(device, signal.SIGSTOP)
        try:
            for connection in connections:
                connection.request("GET", "/api/timezones?section=information", headers=headers)
            time.sleep(0.5)  # The web server opens its connections to the device.
        finally:
            os.kill(device, signal.SIGCONT)
        statuses = []
        for connection in connections:
            response = connection.getresponse()
            response.read()
            statuses.append(response.status)
        return statuses

    def test_hundreds_of_requests_at_once_are_all_answered(self):
        self.assertEqual(self.statuses_of_a_burst(self.kept_connections(600)), [200] * 600)

    def test_hundreds_of_kept_connections_are_all_answered_again_and_again(self):
        connections = self.kept_connections(250)
        for _ in range(3):
            self.assertEqual(self.statuses_of_a_burst(connections), [200] * 250)


class BoundedLogTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="nbase-log-")
        self.addCleanup(folder.cleanup)
        self.path = os.path.join(folder.name, "the messages")

    def write(self, *lines, size=100):
        subprocess.run([BOUNDED_LOG, self.path, str(size)], input=b"".join(line + b"\n" for line in lines), check=True)

    def lines(self, ending=""):
        with open(self.path + ending, "rb") as file:
            return file.read().splitlines()

    def test_lines_are_kept_as_they_are(self):
        lines = [b"  blanks  ", b"back\\slash \\n %s", b"-n", b"", b"\xe9\xff"]
        self.write(*lines)
        self.assertEqual(self.lines(), lines)
        self.assertFalse(os.path.exists(self.path + ".0"))

    def test_the_latest_lines_are_kept_within_twice_the_size(self):
        lines = [b"line %04d" % number for number in range(1000)]
        self.write(*lines)
        kept = self.lines(".0") + self.lines()
        self.assertEqual(kept, lines[-len(kept):])
        self.assertGreaterEqual(len(kept), 10)
        self.assertLessEqual(os.path.getsize(self.path), 100)
        self.assertLessEqual(os.path.getsize(self.path + ".0"), 110)

    def test_a_log_that_is_there_already_is_continued(self):
        self.write(*[b"x" * 29] * 3)
        self.write(b"y" * 29, b"z")
        self.assertEqual(self.lines(".0"), [b"x" * 29] * 3 + [b"y" * 29])
        self.assertEqual(self.lines(), [b"z"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
