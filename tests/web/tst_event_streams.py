#!/usr/bin/python3
"""Event streams through a real web server with the settings of the demo's. The environment variable NBASE_EVENT_DEVICE names
the device program."""

import http.client
import json
import os
import re
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.error

from demo_device import SECONDS_TO_WAIT, SOURCE_DIRECTORY, Client, reserve_port

SETTINGS = os.path.join(SOURCE_DIRECTORY, "examples", "device", "lighttpd.conf")
NO_HEARTBEATS = 3600


def wait_until(condition, what):
    end = time.monotonic() + SECONDS_TO_WAIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.02)


class Device:
    """The device program and its web server."""

    def __init__(self, heartbeat=NO_HEARTBEATS, stall_timeout=30, **settings):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-events-")
        self.reservation = reserve_port()
        self.port = self.reservation.getsockname()[1]
        self.address = f"http://127.0.0.1:{self.port}"
        self.processes = []
        for name in ("www", "socket", "uploads"):
            os.mkdir(self.path(name))
        self.start(os.environ["NBASE_EVENT_DEVICE"], self.path("socket", "device"), str(heartbeat), str(stall_timeout))
        wait_until(lambda: os.path.exists(self.path("socket", "device")), "the device")
        self.start_web_server(settings)

    def path(self, *names):
        return os.path.join(self.folder.name, *names)

    def start(self, *command):
        self.processes.append(subprocess.Popen(command))

    def start_web_server(self, settings):
        with open(SETTINGS, encoding="utf-8") as file:
            text = file.read()
        values = {"server.errorlog": f'"{self.path("errors")}"',
                  **{"server." + name.replace("_", "-"): str(value) for name, value in settings.items()}}
        for name, value in values.items():
            text, count = re.subn(rf"(?m)^{re.escape(name)} = .*$", lambda _, n=name, v=value: f"{n} = {v}", text)
            assert count == 1, name
        with open(self.path("lighttpd.conf"), "w", encoding="utf-8") as file:
            file.write(f'var.run_directory = "{self.folder.name}"\nvar.port = {self.port}\n{text}')
        path = os.environ["PATH"] + ":/usr/sbin:/sbin"
        self.processes.append(
            subprocess.Popen(["lighttpd", "-D", "-f", self.path("lighttpd.conf")], env={**os.environ, "PATH": path}))
        wait_until(self.is_served, "the web server")

    def is_served(self):
        try:
            self.counts()
        except OSError:
            return False
        return True

    def counts(self):
        with Client(self.address).get("/api/device") as response:
            return json.load(response)

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait(SECONDS_TO_WAIT)
        self.reservation.close()
        self.folder.cleanup()


class Session:
    """A user who has logged in."""

    def __init__(self, device):
        self.device = device
        self.client = Client(device.address)
        with self.client.post("/api/login", {}) as response:
            self.cookie = response.headers["Set-Cookie"].split(";")[0]

    def send(self, document):
        self.client.post("/api/device", document).close()

    def logout(self):
        self.client.post("/api/logout", {}).close()

    def follow(self, last_event_id=None):
        return Stream(self, last_event_id)


class Stream:
    """An event stream as it is received."""

    def __init__(self, session, last_event_id):
        self.connection = http.client.HTTPConnection("127.0.0.1", session.device.port, timeout=SECONDS_TO_WAIT)
        headers = {"Cookie": session.cookie, "Accept": "text/event-stream"}
        if last_event_id is not None:
            headers["Last-Event-ID"] = last_event_id
        self.connection.request("GET", "/api/stream", headers=headers)
        self.response = self.connection.getresponse()
        self.status = self.response.status

    def block(self):
        """The fields of the next block, which must arrive; None at the end of the stream."""
        lines = []
        while True:
            line = self.response.readline()
            if line == b"\n":
                return dict(line.split(b": ", 1) if b": " in line else (line, b"") for line in lines)
            if not line.endswith(b"\n"):
                return None
            lines.append(line[:-1])

    def close(self):
        self.response.close()
        self.connection.close()


class EventStreamTest(unittest.TestCase):
    def device(self, **settings):
        device = Device(**settings)
        self.addCleanup(device.stop)
        return device

    def follow(self, session, last_event_id=None):
        stream = session.follow(last_event_id)
        self.addCleanup(stream.close)
        self.assertEqual(stream.status, 200)
        self.assertEqual(stream.block(), {b"retry": b"2000"})
        if last_event_id is None:
            self.assertEqual(stream.block()[b"event"], b"begin")
        return stream

    def assert_event(self, stream, number, value):
        self.assertEqual(stream.block(), {b"id": b"%d" % number, b"event": b"test", b"data": b"%d" % value})

    def test_each_event_arrives_before_the_next_is_sent(self):
        session = Session(self.device())
        stream = self.follow(session)
        self.assertEqual(stream.response.headers["Content-Type"], "text/event-stream; charset=utf-8")
        self.assertEqual(stream.response.headers["Cache-Control"], "no-store")
        for number in range(1, 21):
            session.send(number)
            self.assert_event(stream, number, number)

    def test_a_stream_continues_after_the_last_event(self):
        session = Session(self.device())
        stream = self.follow(session)
        session.send(1)
        self.assert_event(stream, 1, 1)
        stream.close()
        session.send(2)
        session.send(3)
        stream = self.follow(session, "1")
        self.assert_event(stream, 2, 2)
        self.assert_event(stream, 3, 3)

    def test_heartbeats_keep_a_quiet_stream_from_the_idle_timeouts(self):
        session = Session(self.device(heartbeat=1, max_read_idle=1, max_write_idle=3, max_keep_alive_idle=1))
        stream = self.follow(session)
        for _ in range(8):
            self.assertEqual(stream.block(), {b":": b""})
        session.send(1)
        block = stream.block()
        while block == {b":": b""}:
            block = stream.block()
        self.assertEqual(block[b"id"], b"1")

    def test_a_heartbeat_finds_that_the_browser_has_gone(self):
        device = self.device(heartbeat=1)
        stream = self.follow(Session(device))
        self.assertEqual(device.counts()["streams"], 1)
        stream.close()
        # The request for the counts has a connection, too.
        wait_until(lambda: device.counts() == {"streams": 0, "connections": 1}, "the end of the stream")

    def test_a_browser_that_does_not_read_is_dropped(self):
        device = self.device(heartbeat=1, stall_timeout=2)
        session = Session(device)
        other = Session(device)
        other_stream = self.follow(other)
        self.follow(session)
        large = "x" * 100000
        end = time.monotonic() + SECONDS_TO_WAIT
        while device.counts()["streams"] == 2:
            self.assertLess(time.monotonic(), end)
            session.send(large)
        other.send(7)
        block = other_stream.block()
        while block == {b":": b""}:
            block = other_stream.block()
        self.assertEqual(block[b"data"], b"7")

    def test_a_stream_ends_with_its_session_and_cannot_be_opened_again(self):
        session = Session(self.device())
        stream = self.follow(session)
        session.send(1)
        session.logout()
        self.assert_event(stream, 1, 1)
        self.assertIsNone(stream.block())
        again = session.follow("1")
        self.addCleanup(again.close)
        self.assertEqual(again.status, 401)

    def test_a_later_stream_of_the_session_replaces_the_earlier(self):
        session = Session(self.device())
        stream = self.follow(session)
        later = self.follow(session)
        self.assertEqual(stream.block(), {b"event": b"replaced", b"data": b"null"})
        self.assertIsNone(stream.block())
        session.send(1)
        self.assert_event(later, 1, 1)

    def test_a_stream_reaches_a_browser_of_http_1_0(self):
        session = Session(self.device())
        with socket.create_connection(("127.0.0.1", session.device.port), SECONDS_TO_WAIT) as client:
            client.sendall(b"GET /api/stream HTTP/1.0\r\nHost: 127.0.0.1\r\nCookie: %s\r\n\r\n" % session.cookie.encode())
            received = b""
            while not received.endswith(b"event: begin\ndata: null\n\n"):
                received += client.recv(10000)
            session.send(1)
            while not received.endswith(b"data: 1\n\n"):
                received += client.recv(10000)


if __name__ == "__main__":
    unittest.main()
