#!/usr/bin/python3
"""Drives the timetable on the page of the demo device in a real browser, by keyboard.

    tst_timetable_page.py [<unittest arguments>]
    tst_timetable_page.py --screenshot <file.png>     writes the picture for the guide instead
"""

import datetime
import json
import os
import signal
import sys
import unittest
import urllib.request

from browser import Browser, PageTestCase
from demo_device import SECONDS_TO_WAIT, Client, Demo
from selenium.webdriver.common.keys import Keys

ALL_DAYS = [1, 2, 3, 4, 5, 6, 7]
MINUTES_OF_DAY = 24 * 60
NEW_ENTRY = "#entry-title"


class DeviceClient(Client):
    """Another client, which changes the timetable while the page shows it."""

    def __init__(self, address):
        super().__init__(address)
        self.post("/api/login", {"user": "demo", "password": "demo"}).close()

    def entries(self):
        with self.get("/api/events") as response:
            return json.load(response)["entries"]

    def add(self, title, kind, days, *times):
        names = ["time"] if kind == "event" else ["start", "end"]
        entry = {"title": title, "kind": kind, "days": days, **dict(zip(names, times))}
        with self.post("/api/events", entry) as response:
            return json.load(response)["id"]

    def remove(self, entry):
        request = urllib.request.Request(f"{self.address}/api/events?id={entry}", method="DELETE")
        self.opener.open(request, timeout=SECONDS_TO_WAIT).close()

    def remove_all(self):
        for entry in self.entries():
            self.remove(entry["id"])


def open_timetable(browser, demo):
    browser.open(demo.address + "/#timetable")
    browser.log_in()
    browser.until_shown(".timetable")


class TimetableTestCase(PageTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.client = DeviceClient(cls.demo.address)

    def setUp(self):
        super().setUp()
        self.client.remove_all()

    def open(self):
        open_timetable(self.browser, self.demo)

    def fill_in(self, title, kind, days, *times):
        """Fills in the form with the keyboard, from its first field on, and submits it."""
        browser = self.browser
        browser.press_tab_until(NEW_ENTRY)
        browser.press(title, Keys.TAB)
        if kind == "event":
            browser.press(Keys.ARROW_RIGHT)
        for day in ALL_DAYS:
            browser.press(Keys.TAB)
            if day in days:
                browser.press(Keys.SPACE)
        for field, text in zip(("#entry-start", "#entry-end"), times):
            browser.press_tab_until(field)
            browser.press(text)
        browser.press(Keys.ENTER)

    def parts(self, title):
        """Where the week shows an entry: the days with the minutes from and, for a bar, to."""
        return self.browser.run("""
            const parts = [];
            document.querySelectorAll(".week-track").forEach((track, index) => {
              const row = track.getBoundingClientRect();
              const minute = (x) => Math.round((x - row.left - 1) / (row.width - 2) * 1440);
              for (const node of track.querySelectorAll("[data-id]")) {
                if (node.textContent !== arguments[0])
                  continue;
                const mark = node.querySelector(".week-diamond")?.getBoundingClientRect();
                const bar = node.getBoundingClientRect();
                parts.push(mark ? [index + 1, minute(mark.left + mark.width / 2)]
                                : [index + 1, minute(bar.left), minute(bar.right)]);
              }
            });
            return parts;""", title)

    def assert_shown(self, title, expected):
        self.browser.until(lambda: len(self.parts(title)) == len(expected), f"{title} in the week")
        for part, wanted in zip(self.parts(title), expected):
            self.assertEqual((part[0], len(part)), (wanted[0], len(wanted)))
            for minute, wanted_minute in zip(part[1:], wanted[1:]):
                # A pixel is more than a minute.
                self.assertAlmostEqual(minute, wanted_minute, delta=3)

    def titles(self):
        return self.texts(".entry-title")

    def texts(self, selector):
        # At once: the page may replace the elements at any time.
        return self.browser.run(
            "return Array.from(document.querySelectorAll(arguments[0]), (node) => node.innerText)", selector)

    def until_focus_on(self, title):
        self.browser.until(lambda: self.focused_entry() == title, f"the focus on {title}")

    def until_titles(self, *titles):
        self.browser.until(lambda: self.titles() == list(titles), f"the entries {titles}")

    def focused_entry(self):
        return self.browser.run("""
            return document.activeElement.closest("li")?.querySelector(".entry-title").textContent""")

    def clock(self):
        return self.browser.text("[data-field=clock]")

    def happenings(self):
        return [" ".join(text.split()) for text in self.texts(".firing")]


class TimetablePageTest(TimetableTestCase):
    def setUp(self):
        super().setUp()
        self.browser.set_faster_timers(5)

    # Entries

    def test_a_slot_added_by_keyboard_alone_is_a_bar_on_its_days(self):
        self.open()
        self.browser.until_text("[data-part=nothing]", "Nothing is planned.")
        self.fill_in("Light", "slot", [1, 3], "06:30", "18:00")
        self.until_titles("Light")
        self.until_focus_on("Light")
        self.assertEqual(self.browser.text(".entry-when"), "Mon, Wed 06:30–18:00")
        self.browser.until_text("[data-field=announcement]", "“Light” was added.")
        self.assert_shown("Light", [(1, 390, 1080), (3, 390, 1080)])
        entry = self.client.entries()[0]
        self.assertEqual(
            (entry["kind"], entry["days"], entry["start"], entry["end"]), ("slot", [1, 3], "06:30", "18:00"))

    def test_a_slot_over_midnight_continues_in_the_row_of_the_next_day(self):
        self.client.add("Night", "slot", [7], "22:00", "06:00")
        self.client.add("Whole day", "slot", [2], "00:00", "00:00")
        self.client.add("Noon to noon", "slot", [3], "12:00", "12:00")
        self.open()
        self.assert_shown("Night", [(1, 0, 360), (7, 1320, MINUTES_OF_DAY)])
        self.assert_shown("Whole day", [(2, 0, MINUTES_OF_DAY)])
        self.assert_shown("Noon to noon", [(3, 720, MINUTES_OF_DAY), (4, 0, 720)])

    def test_entries_at_the_same_time_do_not_cover_each_other(self):
        self.client.add("One", "slot", [1], "08:00", "12:00")
        self.client.add("Two", "slot", [1], "09:00", "10:00")
        self.client.add("Three", "event", [1], "09:30")
        self.client.add("Four", "event", [1], "23:59")
        self.client.add("Five", "slot", [1], "22:00", "23:00")
        self.open()
        overlaps = self.browser.run("""
            const nodes = document.querySelectorAll(".week-track [data-id]");
            const boxes = Array.from(nodes, (node) => node.getBoundingClientRect());
            const meet = (one, other) => one.left < other.right - 1 && other.left < one.right - 1
              && one.top < other.bottom && other.top < one.bottom;
            return boxes.filter((one, index) => boxes.slice(index + 1).some((other) => meet(one, other))).length""")
        self.assertEqual(len(self.browser.find_all(".week-track [data-id]")), 5)
        self.assertEqual(overlaps, 0)
        self.assert_shown("Four", [(1, 1439)])

    def test_an_entry_is_changed_by_keyboard(self):
        self.client.add("Light", "slot", [1, 2], "06:30", "18:00")
        self.open()
        self.browser.press_tab_until(".entry-open")
        self.browser.press(Keys.ENTER)
        self.assertEqual(self.browser.text("#entry-form-heading"), "Change the entry")
        self.browser.press("Bell", Keys.TAB, Keys.ARROW_RIGHT, Keys.TAB, Keys.SPACE)
        self.assertFalse(self.browser.shows("#entry-end"))
        self.browser.press_tab_until("#entry-start")
        self.browser.press("20:15", Keys.ENTER)
        self.until_titles("Bell")
        self.assert_shown("Bell", [(2, 1215)])
        self.until_focus_on("Bell")
        self.assertEqual(self.browser.text("#entry-form-heading"), "Add an entry")
        entry = self.client.entries()[0]
        self.assertEqual((entry["kind"], entry["days"], entry["time"]), ("event", [2], "20:15"))

    def test_escape_leaves_an_entry_as_it_was(self):
        self.client.add("Light", "slot", [1], "06:30", "18:00")
        self.open()
        self.browser.press_tab_until(".entry-open")
        self.browser.press(Keys.ENTER, "Other", Keys.ESCAPE)
        self.until_focus_on("Light")
        self.assertEqual(self.browser.text("#entry-form-heading"), "Add an entry")
        self.assertEqual(self.browser.find("#entry-title").get_property("value"), "")
        self.assertEqual(self.client.entries()[0]["title"], "Light")

    def test_the_delete_key_removes_an_entry_and_undo_brings_it_back(self):
        for title in ("One", "Two", "Three"):
            self.client.add(title, "event", [1], "06:30")
        self.open()
        self.browser.press_tab_until("li:nth-child(2) .entry-open")
        self.browser.press(Keys.DELETE)
        self.until_titles("One", "Three")
        self.until_focus_on("Three")
        self.browser.until_text("[data-field=announcement]", "“Two” was removed.")
        self.assert_shown("Two", [])
        self.browser.press_tab_until("[data-action=undo]")
        self.browser.press(Keys.ENTER)
        self.until_titles("One", "Three", "Two")
        self.assert_shown("Two", [(1, 390)])
        self.assertFalse(self.browser.shows("[data-action=undo]"))

    def test_a_second_click_on_undo_does_nothing(self):
        self.client.add("One", "event", [1], "06:30")
        self.open()
        self.browser.find(".entry-remove").click()
        self.browser.until_shown("[data-action=undo]")
        # Both come before any answer.
        self.browser.run("""
            const button = document.querySelector("[data-action=undo]");
            button.click();
            button.click();""")
        self.browser.until_text("[data-field=announcement]", "“One” is back.")
        self.until_titles("One")
        sent = [event["request"]["url"] for event in self.browser.network_events("requestWillBeSent")
                if event["request"]["method"] == "POST"]
        self.assertEqual(sent, [self.demo.address + "/api/login", self.demo.address + "/api/events"])

    def test_the_button_removes_an_entry_too_and_so_does_that_of_the_form(self):
        for title in ("One", "Two"):
            self.client.add(title, "event", [1], "06:30")
        self.open()
        self.browser.press_tab_until(".entry-remove")
        self.browser.press(Keys.ENTER)
        self.until_titles("Two")
        self.browser.press_tab_until(".entry-open")
        self.browser.press(Keys.ENTER)
        self.browser.press_tab_until("form [data-action=remove]")
        self.browser.press(Keys.ENTER)
        self.until_titles()
        self.assertEqual(self.client.entries(), [])

    def test_a_click_in_the_week_chooses_the_entry(self):
        self.client.add("Light", "slot", [2], "06:30", "18:00")
        self.open()
        self.browser.find(".week-bar").click()
        self.assertEqual(self.browser.find("#entry-title").get_property("value"), "Light")
        self.assertEqual(self.browser.find("#entry-end").get_property("value"), "18:00")

    def test_what_is_missing_is_reported_and_has_the_focus(self):
        self.open()
        browser = self.browser
        for message, keys, field in (
                ("Give the entry a title.", ["Light"], "#entry-title"),
                ("Choose at least one day.", [Keys.SPACE], "[name=day]"),
                ("Say when it starts.", ["01:00"], "#entry-start"),
                ("Say when it ends.", ["01:00"], "#entry-end")):
            browser.press_tab_until("form [type=submit]")
            browser.press(Keys.ENTER)
            browser.until_text("form [role=alert]", message)
            self.assertTrue(browser.run("return document.activeElement.matches(arguments[0])", field), field)
            browser.press(*keys)
        self.assertEqual(browser.text("#entry-hint"), "Lasts 24 hours.")
        browser.press(Keys.ENTER)
        self.until_titles("Light")

    def test_what_the_device_refuses_is_reported_and_the_form_stays(self):
        entry = self.client.add("Light", "slot", [2], "06:30", "18:00")
        self.open()
        self.browser.press_tab_until(".entry-open")
        self.browser.press(Keys.ENTER)
        self.client.remove(entry)
        self.until_titles()
        self.browser.press("Mine", Keys.ENTER)
        self.browser.until_text("form [role=alert]", "There is no such entry (any more).")
        self.assertEqual(self.browser.find("#entry-title").get_property("value"), "Mine")

    def test_a_title_is_text_whatever_is_in_it(self):
        title = "<b>&amp;</b> <script>alert(1)</script>"
        self.client.add(title, "slot", [2], "06:30", "18:00")
        self.open()
        self.until_titles(title)
        self.assert_shown(title, [(2, 390, 1080)])

    # Live

    def test_what_others_change_appears_without_a_click(self):
        self.open()
        entry = self.client.add("Pump", "slot", ALL_DAYS, "00:00", "00:00")
        self.until_titles("Pump")
        self.browser.until(lambda: self.texts(".entry-active") == ["Active"], "the active entry")
        self.browser.until(lambda: self.texts(".week-bar.is-active") == ["Pump"], "the active bar")
        self.assertEqual(self.texts(".week-today .week-bar.is-active"), ["Pump"])
        self.browser.until(lambda: self.happenings()[:1] and "Pump started" in self.happenings()[0], "the start")
        self.client.remove(entry)
        self.until_titles()
        self.browser.until(lambda: "Pump ended" in self.happenings()[0], "the end")

    def test_news_keep_the_focus_and_a_partly_filled_form(self):
        self.client.add("One", "event", [1], "06:30")
        self.open()
        self.browser.press_tab_until(".entry-open")
        self.client.add("Two", "event", [1], "06:30")
        self.until_titles("One", "Two")
        self.assertEqual(self.focused_entry(), "One")
        self.browser.press_tab_until(NEW_ENTRY)
        self.browser.press("Half a ti")
        self.client.add("Three", "event", [1], "06:30")
        self.until_titles("One", "Two", "Three")
        self.browser.press("tle")
        self.assertEqual(self.browser.find(NEW_ENTRY).get_property("value"), "Half a title")

    def test_the_line_stands_at_the_minute_of_the_device(self):
        self.open()
        shown = self.browser.run("""
            const line = document.querySelector(".week-now").getBoundingClientRect();
            const track = document.querySelector(".week-today .week-track").getBoundingClientRect();
            return [document.querySelector(".week-today .week-day").textContent,
                    (line.left + line.width / 2 - track.left - 1) / (track.width - 2) * 1440,
                    document.querySelector(".week-now-label").textContent]""")
        now = datetime.datetime.now()
        self.assertIn(shown[0], [(now - datetime.timedelta(minutes=minutes)).strftime("%A") for minutes in (0, 1)])
        hour, minute = map(int, shown[2].split(":"))
        self.assertAlmostEqual(shown[1], hour * 60 + minute, delta=3)
        behind = (now - datetime.datetime.combine(now.date(), datetime.time(hour, minute))).total_seconds()
        self.assertLess(behind % (24 * 3600), 120)

    # The page

    def test_small_screens_need_no_horizontal_scrolling(self):
        self.client.add("several words " * 4 + "x", "slot", ALL_DAYS, "22:00", "06:00")
        self.client.add("W" * 60, "event", ALL_DAYS, "23:59")
        self.browser.resize(320, 568)
        self.open()
        for width, height in ((320, 568), (360, 740), (768, 1024), (1280, 800)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.assertEqual(self.browser.run("return window.innerWidth"), width)
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)
                outside = self.browser.run("""
                    const width = innerWidth;
                    return Array.from(document.querySelectorAll("main button, main input, main label, .week-row"))
                      .filter((node) => node.getClientRects().length > 0 && !node.closest(".chip input"))
                      .filter((node) => node.getBoundingClientRect().right > width).length""")
                self.assertEqual(outside, 0)

    def test_the_security_policy_is_not_violated(self):
        self.client.add("Light", "slot", ALL_DAYS, "22:00", "06:00")
        self.open()
        self.browser.until_shown(".week-bar")
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        self.assertEqual([message for message in messages if "401 (Unauthorized)" not in message], [])

    def test_a_session_ended_elsewhere_leads_back_to_the_login(self):
        self.open()
        cookies = "; ".join(f"{cookie['name']}={cookie['value']}" for cookie in self.browser.driver.get_cookies())
        Client(self.demo.address).post("/api/logout", {}, {"Cookie": cookies}).close()
        self.browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")
        self.browser.log_in()
        self.browser.until_shown(".timetable")


class NextMinuteTest(TimetableTestCase):
    @classmethod
    def make_demo(cls):
        return cls.make_own_demo(device=os.environ["NBASE_DEMO_DEVICE_WITH_CLOCK"])

    def until_next_minute(self):
        """Sets the clock of the device, see nsettableclock.cpp, and waits until the page shows the minute."""
        before = self.clock()[-8:-3]
        os.kill(self.demo.process("device"), signal.SIGUSR1)
        self.browser.until(lambda: self.clock()[-8:-3] not in ("", before), "the next minute")

    def test_an_event_of_the_next_minute_appears_live_and_flashes(self):
        self.open()
        browser = self.browser
        self.until_next_minute()
        now = datetime.datetime.strptime(self.clock()[-8:-3], "%H:%M")
        minute = (now + datetime.timedelta(minutes=1)).strftime("%H:%M")
        self.fill_in("Bell", "event", ALL_DAYS, minute)
        self.until_titles("Bell")
        self.assertFalse([text for text in self.happenings() if "Bell" in text])
        self.until_next_minute()
        browser.until(lambda: any("Bell" in text for text in self.happenings()), "the event")
        self.assertRegex(self.happenings()[0], minute + r"\s+Bell happened")
        self.assertIn("is-new", browser.find(".firing").get_attribute("class").split())
        self.assertEqual(len(browser.find_all(".week-mark.flash")), 1)
        self.assertEqual(len(browser.find_all(".week-today .week-mark.flash")), 1)


class DeadDeviceTest(PageTestCase):
    def test_a_device_that_has_ended_is_reported_and_so_is_its_return(self):
        demo = self.demo
        browser = self.browser
        browser.set_faster_timers(5)
        open_timetable(browser, demo)
        browser.until_text("[data-field=clock]", "day, ")
        os.kill(demo.process("device"), signal.SIGKILL)
        browser.until_text("#banner", "The device cannot be reached")
        browser.until_text("[data-field=clock]", "not known")
        self.assertFalse(browser.shows(".week-now"))
        self.assertTrue(browser.shows(".entry-title"))
        demo.restart()
        browser.until_text(".login [role=alert]", "Your session has ended.")
        self.assertFalse(browser.shows("#banner"))


def write_screenshot(path):
    demo = Demo()
    browser = Browser()
    try:
        demo.start()
        client = DeviceClient(demo.address)
        open_timetable(browser, demo)
        now = datetime.datetime.now()
        start, end = (now + datetime.timedelta(hours=hours) for hours in (-1, 2))
        client.add("Ventilation", "slot", ALL_DAYS, f"{start:%H}:00", f"{end:%H}:00")
        client.add("Garden lights", "slot", [5, 6, 7], "19:00", "23:30")
        client.add("Backup", "event", [7], "03:00")
        browser.until_text(".firing-list", "Ventilation started")
        browser.until_text(".entry-list", "Backup")
        browser.find(".week-bar").click()
        browser.resize(1280, browser.run("return document.documentElement.scrollHeight"))
        browser.screenshot(path)
    finally:
        browser.quit()
        demo.remove()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--screenshot"]:
        write_screenshot(sys.argv[2])
    else:
        unittest.main(verbosity=2)
