#!/usr/bin/python3
"""Reads and changes the inputs and outputs of the demo device through its real web server, and follows them."""

import unittest
import urllib.parse

from demo_device import Demo
from tst_network_tools_service import Session, Stream

IO = "/api/io"
INPUT_1 = {"name": "Input 1", "valid": True, "level": False, "active": False, "polarity": "NO", "wiredTo": "Output 1"}
INPUT_2 = {"name": "Input 2", "valid": True, "level": True, "active": False, "polarity": "NC", "wiredTo": None}
OUTPUT_1 = {"name": "Output 1", "valid": True, "level": False, "active": False, "polarity": "NO"}
OUTPUT_2 = {"name": "Output 2", "valid": True, "level": True, "active": False, "polarity": "NC"}
RESET = {"Output 1": {"polarity": "NO", "active": False}, "Output 2": {"polarity": "NC", "active": False},
         "Input 1": {"polarity": "NO", "valid": True}, "Input 2": {"polarity": "NC", "level": True, "valid": True}}


def path(name):
    return f"{IO}?{urllib.parse.urlencode({'name': name})}"


def points(document):
    """The inputs and outputs of a document by their names."""
    return {point["name"]: point for point in document["inputs"] + document["outputs"]}


class IoTestCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()

    def setUp(self):
        self.session = self.new_session()
        for name, change in RESET.items():
            self.change(name, **change)

    def new_session(self):
        session = Session(self.demo.port)
        self.addCleanup(session.send, "POST", "/api/logout", {})
        return session

    def state(self, session=None):
        status, document = (session or self.session).send("GET", IO)
        self.assertEqual(status, 200)
        return document

    def change(self, name, **change):
        status, document = self.session.send("PUT", path(name), change)
        self.assertEqual(status, 200, document)
        return document

    def assert_refused(self, address, change, status, text):
        before = self.state()
        answered, document = self.session.send("PUT", address, change)
        self.assertEqual((answered, list(document)), (status, ["message"]), (address, change))
        self.assertIn(text, document["message"])
        self.assertEqual(self.state(), before)


class ServiceTest(IoTestCase):
    def test_every_request_needs_a_session(self):
        stranger = Session(self.demo.port, user=None)
        for method, address, value in (("GET", IO, None), ("GET", IO + "?passive=yes", None),
                                       ("PUT", path("Output 1"), {"active": True})):
            self.assertEqual(stranger.send(method, address, value)[0], 401)
        self.assertFalse(points(self.state())["Output 1"]["active"])

    def test_other_methods_and_paths_are_refused(self):
        for method in ("POST", "DELETE"):
            self.assertEqual(self.session.send(method, path("Output 1"), {"active": True})[0], 405)
        self.assertEqual(self.session.send("GET", "/api/ios")[0], 404)

    def test_pages_of_other_sites_cannot_switch_anything(self):
        response = self.session.open("PUT", path("Output 1"), {"active": True}, {"Origin": "http://evil.example"})
        response.read()
        self.assertEqual(response.status, 403)
        self.assertFalse(points(self.state())["Output 1"]["active"])

    def test_inputs_and_outputs_are_listed(self):
        document = self.state()
        self.assertIsInstance(document.pop("number"), int)
        self.assertEqual(document, {"inputs": [INPUT_1, INPUT_2], "outputs": [OUTPUT_1, OUTPUT_2]})
        self.assertEqual(self.session.send("GET", IO + "?passive=yes")[1], self.state())

    def test_an_output_switches_the_input_that_is_wired_to_it(self):
        document = self.change("Output 1", active=True)
        self.assertEqual(points(document)["Output 1"], {**OUTPUT_1, "level": True, "active": True})
        self.assertEqual(points(document)["Input 1"], {**INPUT_1, "level": True, "active": True})
        self.assertEqual(document, self.state())
        self.assertEqual(points(document)["Input 2"], INPUT_2)
        self.assertEqual(points(document)["Output 2"], OUTPUT_2)

    def test_a_normally_closed_output_is_active_while_its_level_is_low(self):
        document = self.change("Output 2", active=True)
        self.assertEqual(points(document)["Output 2"], {**OUTPUT_2, "level": False, "active": True})

    def test_a_polarity_changes_the_state_and_not_the_level(self):
        self.assertEqual(points(self.change("Output 1", polarity="NC"))["Output 1"],
                         {**OUTPUT_1, "active": True, "polarity": "NC"})
        self.assertEqual(points(self.state())["Input 1"], INPUT_1)
        self.assertEqual(points(self.change("Input 1", polarity="NC"))["Input 1"],
                         {**INPUT_1, "active": True, "polarity": "NC"})

    def test_a_new_polarity_applies_to_a_state_in_the_same_request(self):
        self.assertEqual(points(self.change("Output 1", polarity="NC", active=False))["Output 1"],
                         {**OUTPUT_1, "level": True, "polarity": "NC"})

    def test_a_contact_is_switched_and_its_wire_broken(self):
        self.assertEqual(points(self.change("Input 2", level=False))["Input 2"], {**INPUT_2, "level": False, "active": True})
        broken = points(self.change("Input 2", valid=False))["Input 2"]
        self.assertEqual((broken["valid"], broken["active"]), (False, False))
        self.change("Input 2", level=True, polarity="NO")
        self.assertEqual(points(self.change("Input 2", valid=True))["Input 2"],
                         {**INPUT_2, "active": True, "polarity": "NO"})

    def test_the_wired_input_takes_the_level_of_its_output_when_its_wire_is_mended(self):
        self.change("Input 1", valid=False)
        self.assertFalse(points(self.change("Output 1", active=True))["Input 1"]["active"])
        self.assertTrue(points(self.change("Input 1", valid=True))["Input 1"]["active"])

    def test_a_change_that_is_not_understood_is_refused_as_a_whole(self):
        for change in ({}, [], "active", {"polarity": "nc"}, {"polarity": None}, {"polarity": 1}, {"level": 1},
                       {"level": "true"}, {"valid": None}, {"active": True}, {"level": False, "other": 1},
                       {"level": False, "polarity": "open"}):
            with self.subTest(change=change):
                self.assert_refused(path("Input 2"), change, 400, "Of an input")
        for change in ({}, [True], {"active": 0}, {"level": True}, {"valid": False}, {"active": True, "polarity": ""}):
            with self.subTest(change=change):
                self.assert_refused(path("Output 1"), change, 400, "Of an output")

    def test_what_is_no_json_is_refused(self):
        for body, content_type, status in ((None, "application/json", 400),
                                           ({"active": True}, "multipart/form-data; boundary=x", 415)):
            response = self.session.open("PUT", path("Output 1"), body, {"Content-Type": content_type})
            response.read()
            self.assertEqual(response.status, status)

    def test_the_level_of_a_wired_input_cannot_be_changed(self):
        self.assert_refused(path("Input 1"), {"level": True, "valid": False}, 409, "Input 1 follows Output 1")

    def test_the_name_must_be_that_of_one_input_or_output(self):
        for name in ("Input 3", "input 1", "", " Input 1", "\u00e9"):
            with self.subTest(name=name):
                self.assert_refused(path(name), {"polarity": "NC"}, 404, "no input or output of this name")
        for query in ("", "?other=1", "?name=Input%201&name=Input%202"):
            with self.subTest(query=query):
                self.assert_refused(IO + query, {"polarity": "NC"}, 400, "Name one input or output")


class StreamTest(IoTestCase):
    def setUp(self):
        super().setUp()
        self.first = self.state()["number"]

    def next_state(self, stream):
        """The document of the next event about a change in the test itself."""
        name, document = stream.event()
        self.assertEqual(name, "io")
        return document if document["number"] > self.first else self.next_state(stream)

    def test_all_sessions_get_a_change_with_one_event(self):
        streams = [Stream(self, session) for session in (self.session, self.new_session())]
        # The state of the output and that of its input.
        switched = self.change("Output 1", active=True)
        for stream in streams:
            self.assertEqual(self.next_state(stream), switched)
        broken = self.change("Input 2", valid=False)
        for stream in streams:
            self.assertEqual(self.next_state(stream), broken)

    def test_the_polarity_of_a_broken_input_is_sent_as_well(self):
        self.first = self.change("Input 2", valid=False)["number"]
        stream = Stream(self, self.session)
        changed = self.change("Input 2", polarity="NO")
        self.assertEqual(self.next_state(stream), changed)

    def test_what_changes_nothing_is_no_event(self):
        stream = Stream(self, self.session)
        self.assertEqual(self.change("Output 1", active=False, polarity="NO")["number"], self.first)
        switched = self.change("Output 2", active=True)
        self.assertEqual(self.next_state(stream), switched)

    def test_numbers_increase(self):
        numbers = [self.change("Output 1", active=active)["number"] for active in (True, False, True)]
        self.assertEqual(sorted(set(numbers)), numbers)


if __name__ == "__main__":
    unittest.main(verbosity=2)
