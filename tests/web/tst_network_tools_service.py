#!/usr/bin/python3
"""Ping, traceroute and the event stream of the demo device, through its real web server."""

import http.client
import json
import os
import subprocess
import unittest

from demo_device import SECONDS_TO_WAIT, Demo
from scripted_commands import ScriptedCommands

PING = "/api/ping?section=state"
TRACEROUTE = "/api/traceroute?section=state"
STREAM = "/api/stream"


class Session:
    """A client that has signed in."""

    def __init__(self, port, user="demo"):
        self.port = port
        self.headers = {}
        if user:
            response = self.open("POST", "/api/login", {"user": user, "password": "demo"})
            response.read()
            self.headers = {"Cookie": response.headers["Set-Cookie"].split(";")[0]}

    def open(self, method, path, value=None, headers=None):
        """The answer, whose document is still to be read."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=SECONDS_TO_WAIT)
        body = None if value is None else json.dumps(value)
        connection.request(method, path, body, {
            "Content-Type": "application/json", "Connection": "close", **self.headers, **(headers or {})})
        return connection.getresponse()

    def send(self, method, path, value=None):
        """The status and the document of the answer; without a document, None."""
        response = self.open(method, path, value)
        text = response.read()
        is_document = response.headers.get_content_type() == "application/json"
        return response.status, json.loads(text) if is_document else None

    def start_ping(self, host, **parameters):
        return self.send("POST", PING, {"host": host, **parameters})

    def start_traceroute(self, host, names=False):
        return self.send("POST", TRACEROUTE, {"host": host, "printNames": names})


class Stream:
    """The event stream of a session."""

    def __init__(self, test, session, last=None):
        self.response = session.open("GET", STREAM, headers={} if last is None else {"Last-Event-ID": str(last)})
        test.addCleanup(self.response.close)
        test.assertEqual(self.response.status, 200)
        test.assertEqual(self.response.headers.get_content_type(), "text/event-stream")
        self.last = last

    def event(self):
        """The type and the document of the next event, except the stream's own and signs of life; None at its end."""
        event = self.any_event()
        return self.event() if event in (("begin", None), ("alive", None)) else event

    def any_event(self):
        fields = {}
        for line in iter(self.response.readline, b""):
            name, _, value = line.decode("utf-8").rstrip("\n").partition(": ")
            if name:
                fields[name] = value
            elif "event" in fields:
                self.last = fields.get("id", self.last)
                return fields["event"], json.loads(fields["data"])
            else:
                fields = {}
        return None

    def events_until(self, condition):
        """The documents of the events up to the first one that meets the condition."""
        documents = []
        while not documents or not condition(documents[-1]):
            documents.append(self.event()[1])
        return documents


def has_stopped(status):
    return not status["started"]


def is_ping(sent):
    return lambda status: status["statistics"]["sent"] == sent


class NetworkToolsTestCase(unittest.TestCase):
    options = ()

    @classmethod
    def setUpClass(cls):
        cls.commands = ScriptedCommands()
        cls.addClassCleanup(cls.commands.remove)
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.commands = cls.commands.path
        cls.demo.start(*cls.options)

    def setUp(self):
        self.session = self.new_session()

    def new_session(self):
        session = Session(self.demo.port)
        self.addCleanup(session.send, "POST", "/api/logout", {})
        return session

    def start_ping(self, host, *replies, session=None, **parameters):
        self.commands.reply(host, *replies)
        status, document = (session or self.session).start_ping(host, **parameters)
        self.assertEqual(status, 200)
        return document

    def start_traceroute(self, host, *lines):
        self.commands.begin_route(host)
        self.commands.trace(host, *lines)
        self.assertEqual(self.session.start_traceroute(host)[0], 200)


class ServiceTest(NetworkToolsTestCase):
    def test_every_request_needs_a_session(self):
        stranger = Session(self.demo.port, user=None)
        for method, path, value in (
                ("GET", PING, None), ("POST", PING, {"host": "10.0.0.1"}), ("DELETE", PING, None),
                ("GET", TRACEROUTE, None), ("POST", TRACEROUTE, {"host": "10.0.0.1", "printNames": False}),
                ("DELETE", TRACEROUTE, None), ("GET", STREAM, None)):
            with self.subTest(method=method, path=path):
                self.assertEqual(stranger.send(method, path, value)[0], 401)

    def test_the_stream_is_only_read(self):
        for method in ("POST", "PUT", "DELETE"):
            self.assertEqual(self.session.send(method, STREAM, {})[0], 405)

    def test_a_ping_is_started_read_and_stopped(self):
        session = self.session
        self.assertEqual(session.send("GET", PING)[0], 404)
        self.assertEqual(self.start_ping("box", "0.250", delay=2, timeout=3)["parameters"],
                         {"host": "box", "count": 0, "timeout": 3, "delay": 2})
        self.assertEqual(session.start_ping("box")[0], 409)
        status, document = session.send("GET", PING)
        self.assertEqual((status, document["started"]), (200, True))
        status, document = session.send("DELETE", PING)
        self.assertEqual((status, document["started"]), (200, False))
        self.assertEqual(session.send("GET", PING)[0], 404)
        self.assertEqual(session.send("DELETE", PING)[0], 404)

    def test_invalid_parameters_are_refused(self):
        for value in ({}, {"host": ""}, {"host": "a_b"}, {"host": "256.1.1.1"}, {"host": "h", "timeout": 0},
                      {"host": "h", "delay": 0}, {"host": "h", "count": -1}, {"host": "h", "count": 1.5}):
            self.assertEqual(self.session.send("POST", PING, value)[0], 400, value)
        for value in ({"host": "h"}, {"host": "-h", "printNames": True}, {"host": "h", "printNames": 1}):
            self.assertEqual(self.session.send("POST", TRACEROUTE, value)[0], 400, value)


class StreamTest(NetworkToolsTestCase):
    def test_the_results_of_a_ping_come_as_they_happen(self):
        stream = Stream(self, self.session)
        self.start_ping("good", "0.250", "lost", "0.750", count=3)
        states = stream.events_until(has_stopped)
        self.assertEqual([state["statistics"]["sent"] for state in states], [0, 1, 2, 3, 3])
        self.assertEqual([state["last"]["good"] for state in states[1:]], [True, False, True, True])
        self.assertEqual(states[-1]["statistics"],
                         {"sent": 3, "good": 2, "fastest": 250, "slowest": 750, "meanTime": 500})
        self.assertEqual(states[-1], self.session.send("GET", PING)[1])

    def test_an_event_is_there_while_the_ping_still_waits(self):
        stream = Stream(self, self.session)
        self.start_ping("silent", "never")
        self.assertEqual(stream.event()[1]["started"], True)

    def test_the_text_of_a_traceroute_comes_in_pieces(self):
        stream = Stream(self, self.session)
        self.start_traceroute("far", "traceroute to far", " 1  one")
        text = ""
        while not text.endswith(" 1  one\n"):
            name, event = stream.event()
            self.assertEqual((name, event["position"], event["started"]), ("traceroute", len(text), True))
            self.assertNotIn("result", event)
            text += event["text"]
        self.commands.trace("far", " 2  * * *", "end")
        for event in stream.events_until(has_stopped):
            self.assertEqual(event["position"], len(text))
            text += event["text"]
        self.assertEqual(text, "traceroute to far\n 1  one\n 2  * * *\n")
        self.assertEqual(text, self.session.send("GET", TRACEROUTE)[1]["result"])

    def test_a_new_traceroute_begins_at_the_start_of_the_text(self):
        stream = Stream(self, self.session)
        for line in ("first", "second one"):
            self.start_traceroute("again", line, "end")
            events = stream.events_until(has_stopped)
            self.assertEqual(events[0]["position"], 0)
            self.assertEqual("".join(event["text"] for event in events), line + "\n")

    def test_long_text_is_left_to_be_read(self):
        stream = Stream(self, self.session)
        self.start_traceroute("wordy", "x" * 20000, "end")
        events = stream.events_until(has_stopped)
        self.assertTrue([event for event in events if "text" not in event])
        self.assertLess(max(len(event.get("text", "")) for event in events), 5000)
        self.assertEqual(self.session.send("GET", TRACEROUTE)[1]["result"], "x" * 20000 + "\n")

    def test_the_end_of_a_run_that_is_deleted_is_an_event(self):
        stream = Stream(self, self.session)
        self.start_ping("box", "never")
        self.start_traceroute("far", "traceroute to far")
        for path in (PING, TRACEROUTE):
            self.assertEqual(self.session.send("DELETE", path)[0], 200)
            events = stream.events_until(has_stopped)
            self.assertIn("parameters", events[-1])

    def test_each_session_gets_its_own_events_only(self):
        other = self.new_session()
        streams = [Stream(self, self.session), Stream(self, other)]
        self.start_ping("one", "0.100", count=2)
        self.start_ping("two", "0.200", session=other, count=2)
        for stream, host in zip(streams, ("one", "two")):
            states = stream.events_until(has_stopped)
            self.assertEqual([state["parameters"]["host"] for state in states], [host] * len(states))

    def test_a_second_stream_of_a_session_replaces_the_first(self):
        first = Stream(self, self.session)
        second = Stream(self, self.session)
        self.assertEqual(first.event(), ("replaced", None))
        self.assertIsNone(first.event())
        self.start_ping("box", "never")
        self.assertEqual(second.event()[0], "ping")

    def test_a_stream_that_is_taken_up_again_misses_nothing(self):
        stream = Stream(self, self.session)
        self.start_ping("box", "0.100", count=3)
        stream.events_until(is_ping(1))
        stream.response.close()
        while not has_stopped(self.session.send("GET", PING)[1]):
            pass
        states = Stream(self, self.session, stream.last).events_until(has_stopped)
        self.assertEqual([state["statistics"]["sent"] for state in states], [2, 3, 3])

    def test_a_stream_shows_that_the_device_is_alive(self):
        stream = Stream(self, self.session)
        self.assertEqual([stream.any_event(), stream.any_event()], [("begin", None), ("alive", None)])

    def test_a_stream_ends_with_its_session(self):
        stream = Stream(self, self.session)
        self.session.send("POST", "/api/logout", {})
        self.assertIsNone(stream.event())
        self.assertEqual(self.session.send("GET", STREAM)[0], 401)


class ExpiringSessionTest(NetworkToolsTestCase):
    options = ("--session-timeout", "2")

    def test_a_stream_does_not_keep_its_session_alive(self):
        stream = Stream(self, self.session)
        self.start_ping("box", "0.100")
        for event in iter(stream.event, None):
            self.assertEqual(event[0], "ping")
        self.assertEqual(self.session.send("GET", PING)[0], 401)


def environment_of(process):
    path = f"/proc/{process}/environ"
    try:
        with open(path, "rb") as file:
            return file.read()
    except PermissionError:
        # The device has got a capability by sudo (ptrace(2), access mode checking).
        return subprocess.check_output(["sudo", "-n", "cat", path])


class BusyBoxTest(unittest.TestCase):
    def setUp(self):
        self.demo = Demo()
        self.addCleanup(self.demo.remove)
        self.demo.start()
        self.session = Session(self.demo.port)

    def test_the_device_finds_the_commands_of_busybox_first(self):
        lines = environment_of(self.demo.process("device")).split(b"\0")
        variables = dict(line.split(b"=", 1) for line in lines if b"=" in line)
        folder = variables[b"PATH"].split(b":")[0].decode()
        for name in ("ping", "traceroute"):
            self.assertEqual(os.path.basename(os.readlink(os.path.join(folder, name))), "busybox")

    def test_ping_and_traceroute_reach_the_machine_itself_or_report_that_they_may_not(self):
        stream = Stream(self, self.session)
        self.session.start_ping("127.0.0.1", count=2)
        last = stream.events_until(has_stopped)[-1]
        self.session.start_traceroute("127.0.0.1")
        stream.events_until(has_stopped)
        result = self.session.send("GET", TRACEROUTE)[1]["result"]
        # Raw sockets need a capability, which an ordinary user's programs have in no namespace of their own.
        if "Operation not permitted" in result:
            self.assertNotEqual(os.getuid(), 0)
            self.assertEqual(last["statistics"], {"sent": 2, "good": 0, "fastest": 0, "slowest": 0, "meanTime": 0})
            return
        self.assertEqual(last["statistics"]["good"], 2)
        self.assertEqual(last["last"]["ttl"], 64)
        self.assertGreaterEqual(last["statistics"]["slowest"], last["statistics"]["fastest"])
        self.assertRegex(result, r"(?m)^ 1  127\.0\.0\.1(  \d+\.\d{3} ms){3}$")


if __name__ == "__main__":
    unittest.main(verbosity=2)
