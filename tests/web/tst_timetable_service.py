#!/usr/bin/python3
"""Sends valid and invalid requests to the timetable service through the demo's real web server."""

import datetime
import json
import os
import signal
import time
import unittest
import urllib.error
import urllib.request

from demo_device import SECONDS_TO_WAIT, Client, Demo

ALL_DAYS = [1, 2, 3, 4, 5, 6, 7]
EVENT = {"title": "Bell", "kind": "event", "days": [1, 5], "time": "05:30"}
SLOT = {"title": "Light", "kind": "slot", "days": [6, 7], "start": "20:00", "end": "23:15"}


def at(minutes):
    """The time of the day some minutes from now, as the service writes it."""
    return (datetime.datetime.now() + datetime.timedelta(minutes=minutes)).strftime("%H:%M")


def without(entry, name):
    return {key: value for key, value in entry.items() if key != name}


def active_slot(title="Now"):
    return {"title": title, "kind": "slot", "days": ALL_DAYS, "start": at(-120), "end": at(120)}


def inactive_slot(title="Not now"):
    return {"title": title, "kind": "slot", "days": ALL_DAYS, "start": at(120), "end": at(-120)}


class ServiceTestCase(unittest.TestCase):
    device = None

    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.device = cls.device
        cls.demo.start()
        cls.client = Client(cls.demo.address)
        cls.client.post("/api/login", {"user": "demo", "password": "demo"}).close()

    def setUp(self):
        for entry in self.timetable()["entries"]:
            self.send("DELETE", f"?id={entry['id']}")

    def send(self, method, query="", value=None, body=None, client=None):
        """The status and the document of the answer."""
        if value is not None:
            body = json.dumps(value).encode()
        request = urllib.request.Request(
            self.demo.address + "/api/events" + query, body, {"Content-Type": "application/json"}, method=method)
        try:
            with (client or self.client).opener.open(request, timeout=SECONDS_TO_WAIT) as response:
                return response.status, json.load(response)
        except urllib.error.HTTPError as error:
            text = error.read()
            is_document = error.headers.get_content_type() == "application/json"
            return error.code, json.loads(text) if is_document else text

    def timetable(self, query=""):
        status, document = self.send("GET", query)
        self.assertEqual(status, 200, document)
        return document

    def add(self, entry):
        status, document = self.send("POST", "", entry)
        self.assertEqual(status, 200, document)
        return document

    def assert_refused(self, answer, status, words):
        self.assertEqual(answer[0], status, answer)
        self.assertEqual(list(answer[1]), ["message"])
        self.assertIn(words, answer[1]["message"])

    def happenings(self, since):
        return [(firing["title"], firing["happening"]) for firing in self.timetable(f"?since={since}")["firings"]]


class TimetableServiceTest(ServiceTestCase):
    def test_every_method_needs_a_session(self):
        entry = self.add(EVENT)
        stranger = Client(self.demo.address)
        for method, query, value in (("GET", "", None), ("GET", "?since=0", None), ("POST", "", EVENT),
                                     ("PUT", f"?id={entry['id']}", SLOT), ("DELETE", f"?id={entry['id']}", None)):
            self.assertEqual(self.send(method, query, value, client=stranger)[0], 401, method)
        self.assertEqual(self.timetable()["entries"], [entry])

    def test_a_page_of_another_site_cannot_change_anything(self):
        self.add(EVENT)
        with self.assertRaises(urllib.error.HTTPError) as refusal:
            self.client.post("/api/events", EVENT, {"Origin": "http://evil.example"})
        refusal.exception.close()
        self.assertEqual(refusal.exception.code, 403)
        self.assertEqual(len(self.timetable()["entries"]), 1)

    def test_other_methods_are_not_allowed(self):
        for method in ("PATCH", "OPTIONS"):
            self.assertEqual(self.send(method)[0], 405)

    def test_entries_are_added_changed_and_removed(self):
        event = self.add(EVENT)
        self.assertEqual(event, {**EVENT, "id": event["id"]})
        slot = self.add({**SLOT, "days": [7, 6, 6], "title": "  Light  "})
        self.assertEqual(slot, {**SLOT, "id": slot["id"], "active": slot["active"]})
        self.assertEqual(self.timetable()["entries"], [event, slot])

        other = {**EVENT, "title": "Büro \N{BELL} 鐘", "time": "00:00"}
        status, changed = self.send("PUT", f"?id={event['id']}", other)
        self.assertEqual((status, changed), (200, {**other, "id": event["id"]}))
        self.assertEqual(self.timetable()["entries"], [changed, slot])

        self.assertEqual(self.send("DELETE", f"?id={event['id']}"), (200, {}))
        self.assertEqual(self.timetable()["entries"], [slot])

    def test_an_id_is_not_used_again(self):
        first = self.add(EVENT)["id"]
        self.send("DELETE", f"?id={first}")
        self.assertGreater(self.add(EVENT)["id"], first)

    def test_an_event_can_become_a_slot_and_a_slot_an_event(self):
        entry = self.add(EVENT)
        before = self.timetable()["number"]
        slot = active_slot()
        self.assertEqual(
            self.send("PUT", f"?id={entry['id']}", slot), (200, {**slot, "id": entry["id"], "active": True}))
        self.assertEqual(self.send("PUT", f"?id={entry['id']}", EVENT), (200, entry))
        self.assertEqual(self.happenings(before), [("Now", "started"), ("Now", "ended")])

    def test_a_change_that_starts_or_ends_a_slot_is_reported(self):
        before = self.timetable()["number"]
        entry = self.add(active_slot("Pump"))
        self.assertIs(entry["active"], True)
        self.assertEqual(self.happenings(before), [("Pump", "started")])
        self.assertIs(self.send("PUT", f"?id={entry['id']}", inactive_slot("Pump"))[1]["active"], False)
        self.assertEqual(self.happenings(before), [("Pump", "started"), ("Pump", "ended")])
        self.send("PUT", f"?id={entry['id']}", active_slot("Pump 2"))
        self.assertEqual(self.send("DELETE", f"?id={entry['id']}")[0], 200)
        self.assertEqual(
            self.happenings(before),
            [("Pump", "started"), ("Pump", "ended"), ("Pump 2", "started"), ("Pump 2", "ended")])

    def test_a_slot_that_is_active_already_started_when_it_began(self):
        local = datetime.datetime.fromisoformat(self.timetable()["time"])
        for title, hours, days in (("hours ago", 3, ALL_DAYS), ("yesterday", 23, ALL_DAYS),
                                   ("on one day", 2, [(local - datetime.timedelta(hours=2)).isoweekday()])):
            with self.subTest(title=title):
                began = (local - datetime.timedelta(hours=hours)).replace(second=0)
                end = local + datetime.timedelta(minutes=30)
                self.add({"title": title, "kind": "slot", "days": days, "start": f"{began:%H:%M}", "end": f"{end:%H:%M}"})
                firing = [each for each in self.timetable()["firings"] if each["title"] == title][-1]
                self.assertEqual((firing["happening"], firing["time"]), ("started", began.isoformat()))

    def test_a_page_gets_only_what_is_new(self):
        number = self.timetable()["number"]
        self.assertNotIn("entries", self.timetable(f"?since={number}"))
        first = self.add(EVENT)
        news = self.timetable(f"?since={number}")
        self.assertEqual((news["entries"], news["firings"]), ([first], []))
        self.assertGreater(news["number"], number)
        self.assertNotIn("entries", self.timetable(f"?since={news['number']}"))

        second = self.add(active_slot())
        after = self.timetable(f"?since={news['number']}")
        self.assertEqual(after["entries"], [first, second])
        self.assertEqual(len(after["firings"]), 1)
        firing = after["firings"][0]
        self.assertEqual((firing["entry"], firing["title"], firing["happening"]), (second["id"], "Now", "started"))
        self.assertTrue(news["number"] < firing["number"] <= after["number"])
        self.assertEqual(self.timetable(f"?since={after['number']}")["firings"], [])

    def test_a_number_from_before_a_restart_gives_everything(self):
        entry = self.add(active_slot())
        news = self.timetable("?since=18446744073709551615")
        self.assertEqual(news["entries"], [entry])
        self.assertEqual(news["firings"], self.timetable()["firings"])
        self.assertTrue(news["firings"])

    def test_the_latest_hundred_happenings_are_kept(self):
        entry = self.add(active_slot("0"))
        for count in range(1, 61):
            self.send("PUT", f"?id={entry['id']}", inactive_slot(str(count)))
            self.send("PUT", f"?id={entry['id']}", active_slot(str(count)))
        firings = self.timetable()["firings"]
        self.assertEqual(len(firings), 100)
        self.assertEqual((firings[0]["title"], firings[-1]["title"]), ("11", "60"))
        numbers = [firing["number"] for firing in firings]
        self.assertEqual(numbers, sorted(numbers))

    def test_the_time_is_the_local_time_of_the_device(self):
        before = datetime.datetime.now().replace(microsecond=0)
        told = datetime.datetime.strptime(self.timetable()["time"], "%Y-%m-%dT%H:%M:%S")
        self.assertTrue(before <= told <= datetime.datetime.now())

    def test_bad_questions_are_answered_400(self):
        for query in ("?since=", "?since=-1", "?since=1x", "?since=+1", "?since=1&since=1",
                      "?since=18446744073709551616"):
            self.assert_refused(self.send("GET", query), 400, "number of an earlier answer")
        for query in ("?since=%FF", "?x=%", "?id=%FF"):
            for method, value in (("GET", None), ("PUT", EVENT), ("DELETE", None)):
                self.assertEqual(self.send(method, query, value)[0], 400, query)

    def test_bad_entries_are_refused_with_the_rule_they_break(self):
        title, kind, days = "title must be a text of 1 to 60 printable", 'kind must be "event" or "slot"', "days must be"
        for entry, words in (
                ([], "must be a JSON object"), ("x", "must be a JSON object"),
                ({}, title), (without(EVENT, "title"), title), ({**EVENT, "title": 1}, title),
                ({**EVENT, "title": ""}, title), ({**EVENT, "title": " \t"}, title),
                ({**EVENT, "title": "x" * 61}, title), ({**EVENT, "title": "\N{BELL}" * 61}, title),
                ({**EVENT, "title": "a\nb"}, title),
                ({**EVENT, "title": "a\u0000b"}, title), ({**EVENT, "title": "a\u2028b"}, title),
                (without(EVENT, "kind"), kind), ({**EVENT, "kind": "Event"}, kind), ({**EVENT, "kind": None}, kind),
                (without(EVENT, "days"), days), ({**EVENT, "days": []}, days), ({**EVENT, "days": 1}, days),
                ({**EVENT, "days": [0]}, days), ({**EVENT, "days": [8]}, days), ({**EVENT, "days": [1.5]}, days),
                ({**EVENT, "days": ["1"]}, days), ({**EVENT, "days": [1, None]}, days), ({**EVENT, "days": [-1]}, days),
                (without(EVENT, "time"), "The time must be"), ({**EVENT, "time": "24:00"}, "The time must be"),
                ({**EVENT, "time": "12:60"}, "The time must be"), ({**EVENT, "time": "7:30"}, "The time must be"),
                ({**EVENT, "time": "07:30:00"}, "The time must be"), ({**EVENT, "time": 730}, "The time must be"),
                ({**EVENT, "time": " 07:30"}, "The time must be"), ({**EVENT, "time": ""}, "The time must be"),
                (without(SLOT, "start"), "The start must be"), ({**SLOT, "start": "x"}, "The start must be"),
                (without(SLOT, "end"), "The end must be"), ({**SLOT, "end": "24:00"}, "The end must be")):
            with self.subTest(entry=entry):
                self.assert_refused(self.send("POST", "", entry), 400, words)
        for body in (b"", b"{", b"\xff", b"[" * 10000):
            self.assertEqual(self.send("POST", "", body=body)[0], 400)
        self.assertEqual(self.timetable()["entries"], [])

    def test_a_title_is_measured_in_characters(self):
        for character in ("x", "é", "鐘", "\N{BELL}"):
            title = character * 60
            self.assertEqual(self.add({**EVENT, "title": title})["title"], title)

    def test_a_refused_change_changes_nothing(self):
        entry = self.add(SLOT)
        number = self.timetable()["number"]
        self.assert_refused(self.send("PUT", f"?id={entry['id']}", {**SLOT, "end": ""}), 400, "The end must be")
        after = self.timetable()
        self.assertEqual((after["entries"], after["number"]), ([entry], number))

    def test_an_unknown_entry_is_answered_404(self):
        entry = self.add(EVENT)
        for query in ("", "?id=", "?id=0", f"?id={entry['id'] + 1}", f"?id={entry['id'] + 2 ** 32}", "?id=-1", "?id=x",
                      f"?id={entry['id']}&id={entry['id']}"):
            self.assert_refused(self.send("PUT", query, EVENT), 404, "no such entry")
            self.assert_refused(self.send("DELETE", query), 404, "no such entry")
        self.assertEqual(self.timetable()["entries"], [entry])

    def test_there_are_at_most_a_hundred_entries(self):
        for _ in range(100):
            entry = self.add(EVENT)
        self.assert_refused(self.send("POST", "", EVENT), 409, "100 entries already")
        self.send("DELETE", f"?id={entry['id']}")
        self.add({**EVENT, "title": "x" * 60})


class NextMinuteTest(ServiceTestCase):
    device = os.environ.get("NBASE_DEMO_DEVICE_WITH_CLOCK")

    def device_time(self):
        return datetime.datetime.fromisoformat(self.timetable()["time"]).replace(second=0)

    def until_next_minute(self):
        """Sets the clock of the device, see nsettableclock.cpp, and waits for the minute."""
        before = self.device_time()
        os.kill(self.demo.process("device"), signal.SIGUSR1)
        self.until(lambda: self.device_time() != before, "the next minute")

    def test_events_and_slots_fire_at_their_minute(self):
        self.until_next_minute()
        number = self.timetable()["number"]
        minute, later = (f"{self.device_time() + datetime.timedelta(minutes=minutes):%H:%M}" for minutes in (1, 60))
        self.add({"title": "next", "kind": "event", "days": ALL_DAYS, "time": minute})
        self.add({"title": "later", "kind": "event", "days": ALL_DAYS, "time": later})
        self.add({"title": "slot", "kind": "slot", "days": ALL_DAYS, "start": minute, "end": later})
        self.assertEqual(self.happenings(number), [])
        self.until_next_minute()
        self.until(lambda: len(self.happenings(number)) == 2, "the two happenings")
        firings = self.timetable(f"?since={number}")["firings"]
        self.assertEqual({(firing["title"], firing["happening"], firing["time"][11:16]) for firing in firings},
                         {("next", "triggered", minute), ("slot", "started", minute)})
        self.assertEqual([entry["active"] for entry in self.timetable()["entries"] if entry["title"] == "slot"], [True])

    def until(self, condition, what):
        end = time.monotonic() + SECONDS_TO_WAIT
        while not condition():
            self.assertLess(time.monotonic(), end, "timed out waiting for " + what)
            time.sleep(0.05)


class SessionTest(unittest.TestCase):
    def test_requests_for_news_do_not_keep_the_session_alive(self):
        demo = Demo()
        self.addCleanup(demo.remove)
        demo.start("--session-timeout", "2")
        client = Client(demo.address)
        client.post("/api/login", {"user": "demo", "password": "demo"}).close()
        with self.assertRaises(urllib.error.HTTPError) as refusal:
            end = time.monotonic() + SECONDS_TO_WAIT
            while time.monotonic() < end:
                client.get("/api/events?since=0").close()
                time.sleep(0.1)
        refusal.exception.close()
        self.assertEqual(refusal.exception.code, 401)


if __name__ == "__main__":
    unittest.main()
