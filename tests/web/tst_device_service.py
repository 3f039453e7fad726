#!/usr/bin/python3
"""Asks the running demo for its own state through its real web server, and has it store a time zone."""

import datetime
import json
import os
import shutil
import socket
import time
import unittest
import urllib.error
import urllib.request
import zoneinfo

from demo_device import SECONDS_TO_WAIT, Client, Demo

LEVELS = ["emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"]


class DeviceServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()
        cls.client = Client(cls.demo.address)
        cls.zones = cls.client.zones()

    def send(self, method="GET", query="", value=None, body=None, client=None):
        """The status and the document of the answer."""
        if value is not None:
            body = json.dumps(value).encode()
        request = urllib.request.Request(
            self.demo.address + "/api/device" + query, body, {"Content-Type": "application/json"}, method=method)
        try:
            with (client or self.client).opener.open(request, timeout=SECONDS_TO_WAIT) as response:
                return response.status, json.load(response)
        except urllib.error.HTTPError as error:
            text = error.read()
            is_document = error.headers.get_content_type() == "application/json"
            return error.code, json.loads(text) if is_document else text

    def state(self, query=""):
        status, document = self.send(query=query)
        self.assertEqual(status, 200, document)
        return document

    def store(self, zone):
        status, document = self.send("PUT", value={"timeZone": zone})
        self.assertEqual(status, 200, document)
        return document["timeZone"]

    def assert_refused(self, answer, status, words):
        self.assertEqual(answer[0], status, answer)
        self.assertEqual(list(answer[1]), ["message"])
        self.assertIn(words, answer[1]["message"])

    def path(self, *names):
        return os.path.join(self.demo.run_directory(), *names)

    def configuration(self):
        with open(self.path("configuration", "system"), encoding="latin-1") as file:
            return file.read()

    def staged(self):
        path = self.path("staging", "system")
        if not os.path.exists(path):
            return ""
        with open(path, encoding="latin-1") as file:
            return file.read()

    def write_configuration(self, text):
        with open(self.path("configuration", "system"), "w", encoding="latin-1") as file:
            file.write(text)

    def log(self, message, level="warning", program="tester[42]"):
        """Sends a message to the device's system log, and waits for it."""
        priority = 24 + ["emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"].index(level)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.sendto(f"<{priority}>Jan  1 00:00:00 {program}: {message}".encode("latin-1"), self.path("log", "socket"))
        self.until_logged(message)

    def until_logged(self, message):
        """The line with this message, as soon as it is in the log."""
        end = time.monotonic() + SECONDS_TO_WAIT
        while True:
            for line in self.state("?level=debug")["log"]["lines"]:
                if line["text"] == message:
                    return line
            self.assertLess(time.monotonic(), end, f"never logged: {message}")
            time.sleep(0.02)

    # State

    def test_every_method_needs_a_session(self):
        before = self.configuration()
        stranger = Client(self.demo.address)
        self.assertEqual(self.send(client=stranger)[0], 401)
        self.assertEqual(self.send("PUT", value={"timeZone": "Europe/Paris"}, client=stranger)[0], 401)
        self.assertEqual(self.configuration(), before)
        for method in ("POST", "DELETE", "PATCH"):
            self.assertEqual(self.send(method)[0], 405)

    def test_the_state_is_that_of_the_system(self):
        state = self.state()
        self.assertEqual(set(state), {"hostName", "library", "time", "utcOffset", "timeZone", "uptime", "memory", "log"})
        self.assertEqual(state["hostName"], socket.gethostname())
        self.assertEqual(state["library"]["name"], "Nolvar base")
        self.assertRegex(state["library"]["version"], r"^\d+\.\d+\.\d+$")
        with open("/proc/uptime", encoding="ascii") as file:
            now = float(file.read().split()[0])
        self.assertLessEqual(state["uptime"], now)
        self.assertLess(now - state["uptime"], SECONDS_TO_WAIT)
        with open("/proc/meminfo", encoding="ascii") as file:
            sizes = {line.split(":")[0]: int(line.split()[1]) * 1024 for line in file}
        self.assertEqual(state["memory"]["total"], sizes["MemTotal"])
        self.assertTrue(0 < state["memory"]["available"] <= sizes["MemTotal"])

    def test_asking_passively_does_not_keep_the_session_alive(self):
        demo = Demo()
        self.addCleanup(demo.remove)
        demo.start("--session-timeout", "2")
        client = Client(demo.address)
        client.post("/api/login", {"user": "demo", "password": "demo"}).close()
        with self.assertRaises(urllib.error.HTTPError) as refusal:
            end = time.monotonic() + SECONDS_TO_WAIT
            while time.monotonic() < end:
                client.get("/api/device?passive=yes").close()
                time.sleep(0.1)
        refusal.exception.close()
        self.assertEqual(refusal.exception.code, 401)

    # The log

    def test_the_latest_warnings_come_first_with_level_and_program(self):
        self.log("first", "warning")
        self.log("second: with a colon", "crit", "watchdog")
        self.log("only for the curious", "info")
        lines = [line for line in self.state()["log"]["lines"] if line["program"] in ("tester", "watchdog")]
        texts = [line["text"] for line in lines]
        self.assertLess(texts.index("second: with a colon"), texts.index("first"))
        self.assertNotIn("only for the curious", texts)
        second = lines[texts.index("second: with a colon")]
        self.assertEqual((second["level"], second["program"]), ("crit", "watchdog"))
        self.assertRegex(second["time"], r"^[A-Z][a-z]{2} [ 0-3]\d \d\d:\d\d:\d\d$")

    def test_lines_are_chosen_by_level_and_by_program(self):
        for level in ("emerg", "err", "warning", "notice", "debug"):
            self.log(f"levels {level}", level, "levels[7]")
        for label, count in (("emerg", 1), ("alert", 1), ("err", 2), ("warn", 3), ("notice", 4), ("info", 4), ("debug", 5)):
            lines = self.state(f"?level={label}&program=levels")["log"]["lines"]
            self.assertEqual(len(lines), count, label)
            self.assertLessEqual({line["level"] for line in lines}, set(LEVELS[:LEVELS.index(label) + 1]))
        self.assertEqual(self.state("?level=debug&program=level")["log"]["lines"], [])
        self.assertEqual(self.state("?level=debug&program=level.")["log"]["lines"], [])
        programs = self.state("?level=emerg")["log"]["programs"]
        self.assertEqual(programs, sorted(set(programs)))
        self.assertLessEqual({"levels", "lighttpd", "nbase-demo-device"}, set(programs))

    def test_there_are_at_most_a_hundred_lines(self):
        for number in range(120):
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
                log.sendto(f"<27>Jan  1 00:00:00 many: {number}".encode(), self.path("log", "socket"))
        self.log("the end", "err", "many")
        lines = self.state("?program=many")["log"]["lines"]
        self.assertEqual([line["text"] for line in lines], ["the end"] + [str(number) for number in range(119, 20, -1)])

    def test_bad_questions_are_answered_400(self):
        for query in ("?level=", "?level=warning", "?level=WARN", "?level=warn&level=err"):
            self.assert_refused(self.send(query=query), 400, "The level must be one of emerg, alert")
        self.assert_refused(self.send(query="?program=a&program=b"), 400, "one program")

    # The time zone

    def test_a_stored_time_zone_is_in_the_configuration_and_followed_at_once(self):
        for zone in ("Asia/Tokyo", "America/Argentina/Buenos_Aires", "Pacific/Auckland"):
            with self.subTest(zone=zone):
                stored = self.store(zone)
                self.assertEqual(stored, {"name": zone, "code": self.zones[zone]["timezoneCode"]})
                self.assertIn(f"option zonename '{zone}'", self.configuration())
                self.assertIn(f"option timezone '{stored['code']}'", self.configuration())
                self.assertIn(f"option hostname '{socket.gethostname()}'", self.configuration())
                self.assertEqual(self.configuration().count("config system"), 1)
                self.assertEqual(self.staged(), "")
                state = self.state()
                self.assertEqual(state["timeZone"], stored)
                now = datetime.datetime.now(zoneinfo.ZoneInfo(zone))
                self.assertEqual(state["utcOffset"], now.utcoffset().total_seconds())
                with self.client.get("/api/events") as response:
                    local = json.load(response)["time"]
                for shown in (state["time"], local):
                    behind = now.replace(tzinfo=None) - datetime.datetime.fromisoformat(shown)
                    self.assertLess(abs(behind.total_seconds()), SECONDS_TO_WAIT)

    def test_a_slot_starts_at_once_when_the_new_local_time_is_in_it(self):
        self.store("Asia/Tokyo")
        now = datetime.datetime.now(zoneinfo.ZoneInfo("America/New_York"))
        start, end = (now + datetime.timedelta(hours=hours) for hours in (-2, 2))
        slot = {"title": "Far away", "kind": "slot", "days": [1, 2, 3, 4, 5, 6, 7], "start": f"{start:%H:%M}",
                "end": f"{end:%H:%M}"}
        with self.client.post("/api/events", slot) as response:
            self.assertIs(json.load(response)["active"], False)
        self.store("America/New_York")
        with self.client.get("/api/events") as response:
            active = {entry["title"]: entry.get("active") for entry in json.load(response)["entries"]}
        self.assertIs(active["Far away"], True)

    def test_what_the_database_does_not_know_is_refused_and_changes_nothing(self):
        stored = self.store("Europe/Paris")
        before = self.configuration()
        for zone in ("", "/", "Europe", "Europe/", "/Paris", "Europe/paris", "Europe/Paris/", "Europe/../Europe/Paris",
                     "../Europe/Paris", "Etc/UTC", "Europe/Paris\n", "Europe/Paris\u0000", "Nowhere/Town"):
            with self.subTest(zone=zone):
                self.assert_refused(self.send("PUT", value={"timeZone": zone}), 400, "no time zone of this name")
        for value in ([], "Europe/Paris", {}, {"timeZone": None}, {"timeZone": 1}, {"timezone": "Europe/Paris"}):
            with self.subTest(value=value):
                self.assert_refused(self.send("PUT", value=value), 400, "must be the name of a zone")
        for body in (b"", b"{", b"\xff"):
            self.assertEqual(self.send("PUT", body=body)[0], 400)
        self.assertEqual(self.configuration(), before)
        self.assertEqual(self.state()["timeZone"], stored)

    def test_a_page_of_another_site_cannot_change_the_time_zone(self):
        before = self.configuration()
        for headers in ({"Origin": "http://evil.example"}, {"Sec-Fetch-Site": "cross-site"}):
            request = urllib.request.Request(
                self.demo.address + "/api/device", b'{"timeZone": "Asia/Tokyo"}', headers, method="PUT")
            with self.assertRaises(urllib.error.HTTPError) as refusal:
                self.client.opener.open(request, timeout=SECONDS_TO_WAIT)
            refusal.exception.close()
            self.assertEqual(refusal.exception.code, 403)
        self.assertEqual(self.configuration(), before)

    def test_a_failed_commit_is_reported_and_nothing_of_it_is_left(self):
        stored = self.store("Europe/Paris")
        before = self.configuration()
        # The file that a commit writes cannot be made where a folder of its name is.
        blocker = self.path("configuration", ".system.uci-new")
        os.mkdir(blocker)
        self.addCleanup(shutil.rmtree, blocker, ignore_errors=True)
        self.assert_refused(self.send("PUT", value={"timeZone": "Asia/Tokyo"}), 500, "stays as it was")
        state = self.state()
        self.assertEqual((state["timeZone"], self.configuration(), self.staged()), (stored, before, ""))
        self.assertNotEqual(state["utcOffset"], 9 * 3600)
        self.assertEqual(self.until_logged("the time zone cannot be stored in the configuration")["level"], "crit")
        os.rmdir(blocker)
        self.assertEqual(self.store("Asia/Tokyo")["name"], "Asia/Tokyo")

    def test_a_configuration_that_cannot_be_read_is_reported_and_left_alone(self):
        self.store("Europe/Paris")
        before = self.configuration()
        path = self.path("configuration", "system")
        for text in ("config system 'unclosed\n", None):
            if text is None:
                os.unlink(path)
            else:
                self.write_configuration(text)
            self.assert_refused(self.send("PUT", value={"timeZone": "Asia/Tokyo"}), 500, "stays as it was")
            self.assertIsNone(self.state()["timeZone"])
        self.write_configuration(before)
        self.assertEqual(self.state()["timeZone"]["name"], "Europe/Paris")

    def test_what_others_have_configured_stays(self):
        self.addCleanup(self.write_configuration, self.configuration())
        self.write_configuration("config clock 'main'\n\toption server 'ntp'\n\nconfig system\n\toption hostname 'one'\n\n"
                                 "config system\n\toption hostname 'two'\n\toption zonename 'UTC'\n\n")
        self.store("Asia/Tokyo")
        self.assertEqual(self.configuration().split(), (
            "config clock 'main' option server 'ntp' config system option hostname 'one' option zonename 'Asia/Tokyo' "
            "option timezone 'JST-9' config system option hostname 'two' option zonename 'UTC'").split())
        self.write_configuration("")
        self.store("Europe/Paris")
        self.assertIn("config system", self.configuration())

    def test_the_machine_s_own_configuration_is_left_alone(self):
        before = os.path.exists("/etc/config"), os.path.exists("/tmp/.uci/system")
        self.store("Europe/Paris")
        self.assertEqual((os.path.exists("/etc/config"), os.path.exists("/tmp/.uci/system")), before)


if __name__ == "__main__":
    unittest.main(verbosity=2)
