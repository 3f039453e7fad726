#!/usr/bin/python3
"""The first view of the demo device's page, with its state and its system log, and saving its time zone, in a real browser.

    tst_device_page.py [<unittest arguments>]
    tst_device_page.py --screenshot <file.png>     writes the picture for the guide instead
"""

import datetime
import json
import os
import shutil
import socket
import sys
import unittest
import urllib.request
import zoneinfo

from browser import Browser
from demo_device import SECONDS_TO_WAIT, Demo
from selenium.webdriver.common.keys import Keys
from tst_page_access import SignedInTestCase


class DeviceTestCase(SignedInTestCase):
    def path(self, *names):
        return os.path.join(self.demo.run_directory(), *names)

    def put(self, path, value):
        request = urllib.request.Request(
            self.demo.address + path, json.dumps(value).encode(), {"Content-Type": "application/json"}, method="PUT")
        with self.client.opener.open(request, timeout=SECONDS_TO_WAIT) as response:
            return json.load(response)

    def send_to_log(self, priority, program, text):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.sendto(f"<{priority}>Jan  1 00:00:00 {program}: {text}".encode("latin-1"), self.path("log", "socket"))


class StateTest(DeviceTestCase):
    def lines(self):
        return [" | ".join(texts) for texts in self.browser.run("""
            return Array.from(document.querySelectorAll(".log-lines tbody tr"),
                              (row) => Array.from(row.cells, (cell) => cell.textContent).slice(1))""")]

    def choose(self, selector, text):
        """Chooses an option by keyboard: in a list that is closed, typing goes to the option that begins so."""
        self.browser.press_tab_until(selector)
        self.browser.press(text)

    def test_the_state_of_the_device_is_shown(self):
        self.open("#device")
        browser = self.browser
        self.assertEqual(browser.text("[data-field=host-name]"), socket.gethostname())
        self.assertRegex(browser.text("[data-field=library]"), r"^Nolvar base \d+\.\d+\.\d+$")
        self.assertRegex(browser.text("[data-field=clock]"), r"^([01]\d|2[0-3]):[0-5]\d:[0-5]\d$")
        self.assertRegex(browser.text("[data-field=date]"), r"^[A-Z][a-z]+day, \d+ [A-Z][a-z]+ \d{4}$")
        self.assertRegex(browser.text("[data-field=uptime]"), r"\d+ (day|hour|minute)s?|less than a minute")
        self.assertRegex(browser.text("[data-field=memory]"), r"^[\d.]+ [KMG]iB of [\d.]+ [KMG]iB available$")
        before = browser.text("[data-field=clock]")
        browser.until(lambda: browser.text("[data-field=clock]") != before, "the next second")

    def test_lines_of_the_log_are_chosen_by_level_and_program_and_appear_by_themselves(self):
        browser = self.browser
        browser.set_faster_timers(10)
        self.addCleanup(browser.set_faster_timers, 1)
        self.send_to_log(28, "door[17]", "open")
        self.send_to_log(27, "pump", "stuck <b>")
        self.send_to_log(30, "pump", "pressure is good")
        self.open("#device")
        browser.until(lambda: "Error | pump | stuck <b>" in self.lines(), "the error")
        self.assertIn("Warning | door | open", self.lines())
        self.assertNotIn("Information | pump | pressure is good", self.lines())
        self.choose("#log-level", "Every")
        browser.until(lambda: "Information | pump | pressure is good" in self.lines(), "everything")
        self.choose("#log-program", "pump")
        browser.until(lambda: self.lines() == ["Information | pump | pressure is good", "Error | pump | stuck <b>"],
                      "the lines of one program")
        browser.until(lambda: browser.find("[data-field=log-announcement]").get_property("textContent") == "2 messages",
                      "the announcement")
        self.choose("#log-level", "Critical")
        browser.until_text("[data-part=no-lines]", "There is no such message in the log.")
        self.assertEqual(browser.find("#log-program").get_property("value"), "pump")
        # Asked for by the page itself.
        self.send_to_log(24, "pump", "on fire")
        browser.until(lambda: self.lines() == ["Emergency | pump | on fire"], "the new line")

    def test_small_screens_need_no_scrolling_sideways(self):
        self.send_to_log(27, "wide", "x" * 500)
        self.put("/api/device", {"timeZone": "Australia/Lord_Howe"})
        for address in ("#device", "#time-zones"):
            self.open(address)
            for width, height in ((320, 568), (360, 740), (768, 1024)):
                with self.subTest(view=address, width=width):
                    self.browser.resize(width, height)
                    self.assertEqual(self.browser.run("return window.innerWidth"), width)
                    self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)
            self.browser.resize(1280, 800)


class TimeZoneTest(DeviceTestCase):
    def configuration(self):
        with open(self.path("configuration", "system"), encoding="latin-1") as file:
            return file.read()

    def until_chosen(self, zone):
        self.browser.until_text("[data-field=zone]", zone)

    def test_the_chosen_zone_is_saved_by_keyboard_and_followed(self):
        self.put("/api/device", {"timeZone": "Europe/Paris"})
        self.open("#time-zones")
        browser = self.browser
        self.until_chosen("Europe/Paris")
        self.assertEqual(browser.text("[data-field=stored-name]"), "Europe/Paris")
        self.assertFalse(browser.shows("[data-action=save]"))
        browser.press_tab_until("#zone-search")
        browser.press("tokyo", Keys.ENTER)
        self.until_chosen("Asia/Tokyo")
        browser.press_tab_until("[data-action=save]")
        browser.press(Keys.ENTER)
        browser.until_text("[data-field=stored-name]", "Asia/Tokyo")
        self.assertEqual(browser.find("[data-field=announcement]").get_property("textContent"),
                         "Tokyo is the device’s time zone now.")
        self.assertFalse(browser.shows("[data-action=save]"))
        self.assertEqual(self.focused(), "Tokyo")
        self.assertIn("option zonename 'Asia/Tokyo'", self.configuration())
        self.assertIn("option timezone 'JST-9'", self.configuration())

        browser.run("location.hash = '#device'")
        browser.until_text("[data-field=zone-name]", "Asia/Tokyo")
        self.assertEqual(browser.text("[data-field=zone-code]"), "JST-9")
        self.assertEqual(browser.text("[data-field=offset]"), "UTC+09:00")
        tokyo = datetime.datetime.now(zoneinfo.ZoneInfo("Asia/Tokyo"))
        self.assertIn(f"{tokyo:%H}:", browser.text("[data-field=clock]") + f"{tokyo:%H:}" * (tokyo.minute == 0))
        # The view of the time zones begins with the stored one.
        browser.find(".state a").click()
        self.until_chosen("Asia/Tokyo")

    def test_cancel_goes_back_to_the_stored_zone(self):
        self.put("/api/device", {"timeZone": "Europe/Paris"})
        self.open("#Asia/Tokyo")
        browser = self.browser
        self.until_chosen("Asia/Tokyo")
        browser.press_tab_until("[data-action=cancel]")
        browser.press(Keys.ENTER)
        self.until_chosen("Europe/Paris")
        self.assertEqual(self.focused(), "Paris")
        self.assertFalse(browser.shows("[data-action=cancel]"))
        self.assertTrue(browser.driver.current_url.endswith("#time-zones"))
        self.assertIn("option zonename 'Europe/Paris'", self.configuration())

    def test_what_cannot_be_stored_is_told_and_can_be_tried_again(self):
        self.put("/api/device", {"timeZone": "Europe/Paris"})
        self.open("#Asia/Tokyo")
        browser = self.browser
        blocker = self.path("configuration", ".system.uci-new")
        os.mkdir(blocker)
        self.addCleanup(shutil.rmtree, blocker, ignore_errors=True)
        browser.press_tab_until("[data-action=save]")
        browser.press(Keys.ENTER)
        browser.until_text(".zone-details [role=alert]", "The time zone stays as it was.")
        self.assertEqual(browser.text("[data-field=stored-name]"), "Europe/Paris")
        self.assertFalse(browser.shows("#banner"))
        os.rmdir(blocker)
        browser.press(Keys.ENTER)
        browser.until_text("[data-field=stored-name]", "Asia/Tokyo")
        self.assertFalse(browser.shows(".zone-details [role=alert]"))


def write_screenshot(path):
    demo = Demo()
    browser = Browser()
    try:
        demo.start()
        browser.open(demo.address)
        browser.log_in(password="guess")
        browser.until_shown(".login [role=alert]")
        browser.find("#login-user").clear()
        browser.log_in()
        browser.until_shown(".device")
        browser.run("location.hash = '#Europe/Paris'")
        browser.until_shown("[data-action=save]")
        browser.find("[data-action=save]").click()
        browser.until_text("[data-field=stored-name]", "Europe/Paris")
        browser.run("location.hash = '#device'")
        browser.until_text("[data-field=zone-name]", "Europe/Paris")
        browser.resize(1280, 560)
        browser.screenshot(path)
    finally:
        browser.quit()
        demo.remove()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--screenshot"]:
        write_screenshot(sys.argv[2])
    else:
        unittest.main(verbosity=2)
