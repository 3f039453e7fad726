#!/usr/bin/python3
"""Firmware update and removable media of the demo device, through its real web server."""

import hashlib
import http.client
import os
import re
import statistics
import threading
import time
import unittest

from demo_device import SECONDS_TO_WAIT, Demo
from firmware_demo import (BOUNDARY, FIRMWARE, LAST_MESSAGE, MEDIA, MEBIBYTE, MESSAGES, PACKAGES, FirmwareClient,
                           FirmwareDemo, form, make_package, package, wait_until)
from tst_network_tools_service import Session, Stream

class FirmwareTestCase(FirmwareClient, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = FirmwareDemo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()

    def setUp(self):
        self.session = self.new_session()
        self.make_free()

    def new_session(self):
        session = Session(self.demo.port)
        self.addCleanup(session.send, "POST", "/api/logout", {})
        return session


class RequestTest(FirmwareTestCase):
    def test_every_request_needs_a_session(self):
        stranger = Session(self.demo.port, user=None)
        for method, path in (("GET", FIRMWARE), ("POST", FIRMWARE), ("GET", PACKAGES), ("GET", MESSAGES), ("GET", MEDIA)):
            with self.subTest(method=method, path=path):
                self.assertEqual(stranger.send(method, path, {} if method == "POST" else None)[0], 401)
        self.assertEqual(self.upload(package(), session=stranger), 401)

    def test_media_and_messages_are_only_read(self):
        for path in (MESSAGES, MEDIA):
            for method in ("POST", "PUT", "DELETE"):
                self.assertEqual(self.session.send(method, path, {})[0], 405)
        self.assertEqual(self.session.send("POST", PACKAGES, {})[0], 405)

    def test_a_form_without_a_package_starts_nothing(self):
        self.assertEqual(self.upload(package(), part="other"), 400)
        self.assertEqual(self.upload(package()), 200)
        self.until_finished()

    def test_another_kind_of_body_is_refused(self):
        self.session.headers["Content-Type"] = "text/plain"
        response = self.session.open("POST", FIRMWARE, {}, {"Content-Type": "text/plain"})
        response.read()
        self.assertEqual(response.status, 415)

    def test_a_package_that_is_too_large_is_refused_before_it_is_sent(self):
        connection = self.begin_upload(b"", 513 * MEBIBYTE)
        self.assertEqual(connection.getresponse().status, 413)


class InstallationTest(FirmwareTestCase):
    def test_the_steps_come_as_events_to_every_session(self):
        other = self.new_session()
        streams = [Stream(self, self.session), Stream(self, other)]
        self.demo.configure()
        self.assertEqual(self.upload(package()), 200)
        for stream in streams:
            states, messages = self.events_until_last_message(stream)
            self.assertEqual([name for name, _ in groups(states)], ["starting", "installing", "finished"])
            self.assertEqual([(each["currentStep"], each["imageName"]) for each in states
                              if each["state"] == "installing" and each["currentStep"] and not each["stepPercentage"]],
                             [(1, "image-1.bin"), (2, "image-2.bin")])
            self.assertTrue(states[-1]["success"])
            self.assertEqual([each["description"] for each in messages],
                             ["Software Update started !", "Software update started", "Installing image-1.bin",
                              "Installing image-2.bin", "SWUPDATE successful !", "Main thread sleep again !", LAST_MESSAGE])
            self.assertEqual([each["status"] for each in messages], ["start", "run", "run", "run", "success", "run", "idle"])
            self.assertEqual(messages, self.messages())

    def events_until_last_message(self, stream):
        """The states and the messages of one installation."""
        states, messages = [], []
        while not messages or messages[-1]["description"] != LAST_MESSAGE:
            name, document = stream.event()
            (states if name == "firmware" else messages).append(document)
        return states, messages

    def test_what_the_daemon_reports_about_a_failure_is_kept(self):
        self.demo.configure("fail-step 2", "message The_second_image_is_damaged.")
        self.assertEqual(self.upload(package()), 200)
        self.assertEqual(self.until_finished()["success"], False)
        errors = [message for message in self.messages() if message["isError"]]
        self.assertEqual([(each["status"], each["description"]) for each in errors],
                         [("failure", "The second image is damaged.")])
        # Another session finds it as well, and the next installation forgets it.
        self.assertEqual(self.messages(self.new_session()), self.messages())
        self.demo.configure()
        self.assertEqual(self.upload(package()), 200)
        self.until_finished()
        self.assertEqual([message for message in self.messages() if message["isError"]], [])

    def test_the_number_of_kept_messages_is_bounded(self):
        self.demo.configure("steps 60 step-time 10")
        self.assertEqual(self.upload(package()), 200)
        self.until_finished()
        numbers = [message["number"] for message in self.messages()]
        self.assertEqual(len(numbers), 50)
        self.assertEqual(numbers, list(range(numbers[0], numbers[0] + 50)))

    def test_a_long_message_is_cut(self):
        self.demo.configure("fail-step 1", "message " + "x" * 2000)
        self.assertEqual(self.upload(package()), 200)
        self.until_finished()
        self.assertEqual([each["description"] for each in self.messages() if each["isError"]], ["x" * 300])

    def test_a_second_package_is_refused_while_one_is_installed(self):
        self.demo.configure("step-time 2000")
        self.assertEqual(self.upload(package()), 200)
        self.assertEqual(self.upload(package()), 409)
        self.assertEqual(self.session.send("POST", FIRMWARE, {"media": "sda1", "packageFileName": "a.swu"})[0], 404)
        self.assertTrue(self.until_finished()["success"])

    def test_after_an_upload_that_breaks_off_the_next_one_works(self):
        body = form(package())
        connection = self.begin_upload(body[:len(body) // 2], len(body))
        wait_until(lambda: self.state()["state"] != "finished", "the beginning of the upload")
        connection.close()
        wait_until(lambda: self.upload(package()) == 200, "the end of the upload")
        self.assertTrue(self.until_finished()["success"])

    def test_an_upload_that_pauses_is_continued(self):
        content = package(8 * MEBIBYTE)
        body = form(content)
        connection = self.begin_upload(body[:MEBIBYTE], len(body))
        wait_until(lambda: self.state()["state"] == "installing", "the beginning of the image")
        connection.send(body[MEBIBYTE:])
        self.assertEqual(connection.getresponse().status, 200)
        self.assertTrue(self.until_finished()["success"])

    def test_an_image_that_the_daemon_drops_is_answered_at_once(self):
        self.demo.configure("fault image=disconnect after 20000", "message Wrong_signature")
        # More than the daemon takes, but not all of the body.
        body = form(package(64 * MEBIBYTE))
        connection = self.begin_upload(body[:MEBIBYTE], len(body))
        self.assertEqual(connection.getresponse().status, 200)
        self.assertEqual(self.until_finished()["success"], False)
        self.assertIn("Wrong signature", [message["description"] for message in self.messages()])

    def test_a_session_that_ends_does_not_end_its_upload(self):
        session = self.new_session()
        body = form(package())
        connection = self.begin_upload(body[:MEBIBYTE], len(body), session)
        wait_until(lambda: self.state()["state"] == "installing", "the beginning of the image")
        session.send("POST", "/api/logout", {})
        connection.send(body[MEBIBYTE:])
        self.assertEqual(connection.getresponse().status, 200)
        self.assertTrue(self.until_finished()["success"])

    def test_a_daemon_that_stops_answering_leaves_the_result_unknown(self):
        stream = Stream(self, self.session)
        self.demo.configure("step-time 2000")
        self.assertEqual(self.upload(package()), 200)
        wait_until(lambda: self.state().get("currentStep") == 1, "the first step")
        self.demo.stop_updater(self)
        message = next(document for name, document in iter(stream.event, None)
                       if name == "firmware-message" and document["isError"])
        self.assertEqual((message["status"], self.messages()[-1]), ("unknown", message))
        self.assertEqual(self.state()["state"], "installing")
        self.demo.continue_updater()
        wait_until(lambda: self.state()["state"] == "finished", "the end")
        self.assertTrue(self.state()["success"])
        self.assertNotIn(message, self.messages())

    def test_a_daemon_that_refuses_is_answered_with_a_conflict(self):
        self.demo.configure("fault install=refuse")
        self.assertEqual(self.upload(package()), 409)
        self.demo.configure("fault install=disconnect")
        self.assertEqual(self.upload(package()), 409)


def groups(states):
    """Each state with how often it follows itself."""
    found = []
    for state in states:
        if not found or found[-1][0] != state["state"]:
            found.append([state["state"], 0])
        found[-1][1] += 1
    return found


class LargePackageTest(FirmwareTestCase):
    SIZE = 200 * MEBIBYTE

    def test_a_large_package_arrives_bit_for_bit_in_little_memory_while_the_device_answers(self):
        output = os.path.join(self.demo.folder.name, "image")
        os.mkfifo(output)
        self.demo.configure("output " + output, "cpio 0")
        received = Received(output)
        device = Memory(self.demo.process("device"))
        web_server = Memory(self.demo.process("lighttpd"))
        polls = Polls(self.session)
        begin = time.monotonic()
        status, digest = self.upload_large()
        duration = time.monotonic() - begin
        polls.end()
        growths = [memory.end() for memory in (device, web_server)]
        received.join()
        milliseconds = sorted(1000 * each for each in polls.durations)
        print(f"\n{self.SIZE // MEBIBYTE} MiB in {duration:.1f} s; growth of the device {growths[0]} KiB, of the web server "
              f"{growths[1]} KiB; {len(milliseconds)} polls answered in {statistics.median(milliseconds):.1f} ms (median), "
              f"{milliseconds[-1]:.1f} ms at most", flush=True)
        self.assertEqual(status, 200)
        self.assertEqual((received.size, received.digest), (self.SIZE, digest))
        self.assertLessEqual(growths[0], 4096)
        self.assertLessEqual(growths[1], 4096)
        self.assertEqual(os.listdir(os.path.join(self.demo.run_directory(), "uploads")), [])
        self.assertEqual(polls.statuses, {200})
        # Other programs may keep the machine busy. In the end the device answers within a few milliseconds.
        self.assertLess(statistics.median(milliseconds), 1000)
        self.assertTrue(self.until_finished()["success"])

    def upload_large(self):
        """The status of the answer, and the digest of what was sent, which is made meanwhile."""
        digest = hashlib.sha256()
        block = os.urandom(MEBIBYTE - 8)
        begin, end = form(b"\0").split(b"\0", 1)

        def body():
            yield begin
            for number in range(self.SIZE // MEBIBYTE):
                content = number.to_bytes(8, "little") + block
                digest.update(content)
                yield content
            yield end

        connection = self.connection()
        connection.request("POST", FIRMWARE, body(), self.headers(len(begin) + self.SIZE + len(end)))
        with connection.getresponse() as response:
            response.read()
            return response.status, digest.hexdigest()


class Received(threading.Thread):
    """What comes out of a pipe."""

    def __init__(self, path):
        super().__init__()
        self.path = path
        self.size = 0
        self.digest = None
        self.start()

    def run(self):
        digest = hashlib.sha256()
        with open(self.path, "rb") as file:
            while content := file.read(65536):
                digest.update(content)
                self.size += len(content)
        self.digest = digest.hexdigest()


class Memory(threading.Thread):
    """Watches how much the memory of a process grows."""

    def __init__(self, process):
        super().__init__()
        self.process = process
        self.before = self.peak = self.size()
        self.is_ended = threading.Event()
        self.start()

    def size(self):
        """The resident memory that no file backs, in KiB (proc(5), /proc/<pid>/status)."""
        with open(f"/proc/{self.process}/status", encoding="ascii", errors="replace") as file:
            return int(re.search(r"RssAnon:\s+(\d+) kB", file.read()).group(1))

    def run(self):
        while not self.is_ended.wait(0.01):
            self.peak = max(self.peak, self.size())

    def end(self):
        self.is_ended.set()
        self.join()
        return self.peak - self.before


class Polls(threading.Thread):
    """Asks for the state again and again."""

    def __init__(self, session):
        super().__init__()
        self.session = session
        self.durations = []
        self.statuses = set()
        self.is_ended = threading.Event()
        self.start()

    def run(self):
        while not self.is_ended.wait(0.02):
            begin = time.monotonic()
            self.statuses.add(self.session.send("GET", FIRMWARE)[0])
            self.durations.append(time.monotonic() - begin)

    def end(self):
        self.is_ended.set()
        self.join()


class MediaTest(FirmwareTestCase):
    def insert(self, name, **properties):
        self.demo.insert(name, **properties)
        self.addCleanup(self.demo.pull, name)

    def test_a_medium_is_listed_with_what_identifies_it(self):
        self.assertEqual(self.session.send("GET", MEDIA), (200, []))
        self.insert("sdz1", label="UPDATES", size="8m", read_only=True)
        self.insert("mmcblk7p1")
        wait_until(lambda: len(self.session.send("GET", MEDIA)[1]) == 2, "the media")
        card, stick = self.session.send("GET", MEDIA)[1]
        self.assertEqual({name: stick[name] for name in ("name", "label", "type", "readOnly", "size")},
                         {"name": "sdz1", "label": "UPDATES", "type": "usb", "readOnly": True, "size": 8 * MEBIBYTE})
        self.assertEqual(stick["used"] + stick["free"], stick["size"])
        self.assertEqual((card["name"], card["label"], card["type"], card["readOnly"]), ("mmcblk7p1", "", "mmc", False))

    def test_insertion_and_removal_are_events_that_come_at_once(self):
        stream = Stream(self, self.session)
        inserted = self.demo.insert("sdz1", label="UPDATES")
        self.assertEqual([(name, document[0]["name"]) for name, document in [stream.event()]], [("media", "sdz1")])
        insertion = time.monotonic() - inserted
        pulled = self.demo.pull("sdz1")
        self.assertEqual(stream.event(), ("media", []))
        print(f"\nthe event after an insertion {1000 * insertion:.0f} ms, after a removal "
              f"{1000 * (time.monotonic() - pulled):.0f} ms", flush=True)

    def test_a_package_on_a_medium_is_installed(self):
        path = make_package(self.demo.media_folder.name)
        self.insert("sdz1", packages=[path])
        wait_until(lambda: self.session.send("GET", PACKAGES)[1] == {"sdz1": ["update.swu"]}, "the package")
        package_of_medium = {"media": "sdz1", "packageFileName": "update.swu"}
        self.assertEqual(self.session.send("POST", FIRMWARE, package_of_medium)[0], 200)
        self.assertTrue(self.until_finished()["success"])

    def test_what_is_not_on_a_medium_is_refused(self):
        self.insert("sdz1")
        wait_until(lambda: self.session.send("GET", MEDIA)[1], "the medium")
        for medium, name, status in (("sdy1", "update.swu", 404), ("sdz1", "missing.swu", 409), ("sdz1", "../a.swu", 400)):
            with self.subTest(medium=medium, name=name):
                self.assertEqual(
                    self.session.send("POST", FIRMWARE, {"media": medium, "packageFileName": name})[0], status)


class NoDaemonTest(unittest.TestCase):
    def test_without_a_daemon_an_installation_is_refused(self):
        demo = Demo()
        self.addCleanup(demo.remove)
        demo.start()
        session = Session(demo.port)
        self.assertEqual(session.send("GET", FIRMWARE), (200, {"state": "idle"}))
        self.assertEqual(session.send("GET", MESSAGES), (200, []))
        body = form(package(1000))
        connection = http.client.HTTPConnection("127.0.0.1", demo.port, timeout=SECONDS_TO_WAIT)
        self.addCleanup(connection.close)
        connection.request("POST", FIRMWARE, body,
                           {"Content-Type": f"multipart/form-data; boundary={BOUNDARY}", **session.headers})
        with connection.getresponse() as response:
            self.assertEqual(response.status, 409)


if __name__ == "__main__":
    unittest.main(verbosity=2)
