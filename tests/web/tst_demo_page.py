#!/usr/bin/python3
"""Drives the page of the demo device in a real browser, with the real web server and device program behind it.

    tst_demo_page.py [<unittest arguments>]
    tst_demo_page.py --screenshot <file.png>     writes the picture for the README instead
"""

import os
import signal
import sys
import unittest

from browser import Browser, PageTestCase
from demo_device import Client, Demo
from selenium.webdriver.common.keys import Keys


class PageTest(PageTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.zones = Client(cls.demo.address).zones()

    def open_time_zones(self, address="#time-zones"):
        self.browser.open(self.demo.address + "/" + address)
        self.browser.log_in()
        self.browser.until_shown(".time-zones")

    def assert_chosen(self, zone):
        town = self.zones[zone]
        browser = self.browser
        browser.until_text("[data-field=zone]", zone)
        self.assertEqual(browser.text("code[data-field=code]"), town["timezoneCode"])
        self.assertEqual(browser.text("#zone-name"), town["townName"])
        self.assertIn(town["countryCode"], browser.text("[data-field=country]"))
        chosen = browser.find_all("[role=option][aria-selected=true]")
        self.assertEqual([element.text.split("\n")[0] for element in chosen], [town["townName"]])
        self.assertIn(zone, browser.driver.current_url)

    # Login

    def test_wrong_password_is_reported_and_the_form_stays(self):
        browser = self.browser
        browser.open(self.demo.address + "/#time-zones")
        browser.log_in(password="wrong")
        browser.until_text(".login [role=alert]", "The user name or the password is wrong.")
        self.assertFalse(browser.shows(".time-zones"))
        self.assertEqual(browser.find("#login-password").get_property("value"), "")
        browser.find("#login-user").clear()
        browser.log_in()
        browser.until_shown(".time-zones")

    def test_a_first_visit_asks_for_the_login_without_an_error_message(self):
        browser = self.browser
        browser.open(self.demo.address + "/#time-zones")
        browser.until_shown("form.login")
        self.assertFalse(browser.shows(".login [role=alert]"))
        self.assertFalse(browser.shows("#logout"))

    def test_reload_keeps_the_session(self):
        self.open_time_zones()
        self.browser.driver.refresh()
        self.browser.until_shown(".time-zones")
        self.assertFalse(self.browser.shows("form.login"))

    def test_sign_out_ends_the_session(self):
        self.open_time_zones()
        self.browser.press_tab_until("#logout")
        self.browser.press(Keys.ENTER)
        self.browser.until_text(".login [role=alert]", "You have signed out.")
        self.browser.driver.refresh()
        self.browser.until_shown("form.login")

    # The time zones

    def test_every_zone_of_the_device_is_in_the_list_and_a_point_on_the_map_at_its_coordinates(self):
        self.open_time_zones()
        points = self.browser.run("""
            return Array.from(document.querySelectorAll(".map-point"), (point) => {
              const [x, y] = point.getAttribute("d").match(/-?[0-9.e-]+/g);
              const box = point.getBoundingClientRect(), map = point.ownerSVGElement.getBoundingClientRect();
              return [point.dataset.id, Number(x), Number(y), (box.x + box.width / 2 - map.x) / map.width,
                      (box.y + box.height / 2 - map.y) / map.height];
            });""")
        self.assertGreater(len(self.zones), 300)
        self.assertEqual(sorted(point[0] for point in points), sorted(self.zones))
        for zone, x, y, across, down in points:
            town = self.zones[zone]
            self.assertEqual((x, y), (town["longitude"], -town["latitude"]), zone)
            self.assertAlmostEqual(across, (town["longitude"] + 180) / 360, delta=0.01, msg=zone)
            self.assertAlmostEqual(down, (90 - town["latitude"]) / 180, delta=0.01, msg=zone)
        names = self.browser.run("""
            return Array.from(document.querySelectorAll("[role=option] .option-label"), (label) => label.textContent)""")
        self.assertEqual(sorted(names), sorted(town["townName"] for town in self.zones.values()))

    def test_coast_lines_are_drawn(self):
        self.open_time_zones()
        self.browser.until(lambda: self.browser.run("""
            const land = document.querySelector(".map-land").getBBox();
            return land.width > 300 && land.height > 150"""), "the land on the map")

    def test_choosing_a_town_by_keyboard_alone_shows_its_tz_string(self):
        self.open_time_zones()
        self.browser.press_tab_until("#zone-search")
        self.browser.press("paris", Keys.ENTER)
        self.assert_chosen("Europe/Paris")
        self.assertEqual(self.browser.text("code[data-field=code]"), "CET-1CEST,M3.5.0,M10.5.0/3")

    def test_arrow_keys_move_through_the_list(self):
        self.open_time_zones()
        self.browser.press_tab_until("#zone-search")
        self.browser.press("argentina", Keys.ARROW_DOWN)
        towns = sorted(zone for zone in self.zones if zone.startswith("America/Argentina/"))
        self.assert_chosen(towns[0])
        self.browser.press(Keys.ARROW_DOWN)
        self.assert_chosen(towns[1])
        active = self.browser.find("#zone-search").get_attribute("aria-activedescendant")
        self.assertEqual(self.browser.find("#" + active).get_attribute("aria-selected"), "true")
        self.browser.press(Keys.ARROW_UP, Keys.ARROW_UP)
        self.assert_chosen(towns[0])

    def test_the_chosen_option_is_scrolled_into_view(self):
        self.open_time_zones()
        self.browser.press_tab_until("#zone-search")
        self.browser.press(Keys.ARROW_UP)
        last = self.browser.find_all("[role=option]")[-1]
        inside = self.browser.run("""
            const option = arguments[0].getBoundingClientRect();
            const list = document.getElementById("zone-list").getBoundingClientRect();
            return option.top >= list.top && option.bottom <= list.bottom + 1""", last)
        self.assertTrue(inside)

    def test_arrow_keys_on_the_map_select_neighbours(self):
        self.open_time_zones("#Europe/Paris")
        self.assert_chosen("Europe/Paris")
        self.browser.press_tab_until(".map-world")
        self.browser.press(Keys.ARROW_RIGHT)
        self.browser.until(lambda: self.browser.text("[data-field=zone]") != "Europe/Paris", "another town")
        zone = self.browser.text("[data-field=zone]")
        self.assertGreater(self.zones[zone]["longitude"], self.zones["Europe/Paris"]["longitude"])
        self.assert_chosen(zone)

    def test_a_click_on_the_map_chooses_the_town_there(self):
        self.open_time_zones()
        self.browser.run("""
            const map = document.querySelector(".map-world"), box = map.getBoundingClientRect();
            const place = { bubbles: true, button: 0, pointerId: 1,
              clientX: box.x + box.width * (arguments[0] + 180) / 360,
              clientY: box.y + box.height * (90 - arguments[1]) / 180 };
            map.dispatchEvent(new PointerEvent("pointerdown", place));
            map.dispatchEvent(new PointerEvent("pointerup", place));
            """, self.zones["Atlantic/St_Helena"]["longitude"], self.zones["Atlantic/St_Helena"]["latitude"])
        self.assert_chosen("Atlantic/St_Helena")

    def test_zoom_keeps_the_chosen_town_in_view(self):
        self.open_time_zones("#Pacific/Auckland")
        self.assert_chosen("Pacific/Auckland")
        self.browser.press_tab_until(".map-world")
        self.browser.press("+", "+", "+")
        x, y, width, height = map(float, self.browser.find(".map-world").get_dom_attribute("viewBox").split())
        self.assertEqual((width, height), (45, 22.5))
        town = self.zones["Pacific/Auckland"]
        self.assertTrue(x < town["longitude"] < x + width and y < -town["latitude"] < y + height)

    def test_search_finds_by_every_field(self):
        self.open_time_zones()
        self.browser.press_tab_until("#zone-search")
        without_time_change = [zone for zone, town in self.zones.items() if town["timezoneCode"] == "<-03>3"]
        argentine = [zone for zone, town in self.zones.items() if town["countryCode"] == "AR"]
        cases = {
            "town": ("buenos_aires", ["America/Argentina/Buenos_Aires"]),
            "town with a blank and in capitals": ("BUENOS AIRES", ["America/Argentina/Buenos_Aires"]),
            "accents": ("Búenós", ["America/Argentina/Buenos_Aires"]),
            "words in any order": ("aires argentina buenos", ["America/Argentina/Buenos_Aires"]),
            "region": ("arctic/", ["Arctic/Longyearbyen"]),
            "country": ("argentina", argentine),
            "TZ string": ("<-03>3", [zone for zone, town in self.zones.items() if "<-03>3" in town["timezoneCode"]]),
            "comment": ("new south wales", [
                zone for zone, town in self.zones.items() if "new south wales" in town["comment"].lower()]),
            "nothing": ("no such town", []),
        }
        self.assertTrue(without_time_change)
        for name, (search, expected) in cases.items():
            with self.subTest(name):
                field = self.browser.find("#zone-search")
                field.send_keys(Keys.ESCAPE, search)
                shown = self.browser.run("""
                    return Array.from(document.querySelectorAll(".map-point:not(.map-point-dimmed)"),
                                      (point) => point.dataset.id)""")
                # In one call: the driver's own would be one for each of hundreds of options.
                listed = self.browser.run("""
                    return Array.from(document.querySelectorAll("[role=option]")).filter((option) =>
                      option.checkVisibility({ checkOpacity: true, checkVisibilityCSS: true })
                      && option.getBoundingClientRect().height > 0).length""")
                self.assertEqual(sorted(shown), sorted(expected))
                self.assertEqual(listed, len(expected))
        self.assertEqual(self.browser.text(".zone-count"), "No town matches.")

    def test_an_address_names_a_town_through_the_login_and_while_open(self):
        self.open_time_zones("#America/Argentina/Buenos_Aires")
        self.assert_chosen("America/Argentina/Buenos_Aires")
        self.browser.run("location.hash = '#Asia/Tokyo'")
        self.assert_chosen("Asia/Tokyo")
        self.browser.run("location.hash = '#No/Such_Town'")
        self.browser.until_text("#zone-name", "No town chosen")
        self.assertFalse(self.browser.shows("code[data-field=code]"))

    def test_version_and_date_of_the_database_are_shown(self):
        self.open_time_zones()
        with open("/usr/share/zoneinfo/tzdata.zi", encoding="ascii") as file:
            version = file.readline().split()[-1]
        self.assertEqual(self.browser.text("[data-field=version]"), version)
        self.assertRegex(self.browser.text("time"), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")

    def test_copy_puts_the_tz_string_into_the_clipboard(self):
        self.browser.driver.execute_cdp_cmd(
            "Browser.grantPermissions", {"permissions": ["clipboardReadWrite", "clipboardSanitizedWrite"]})
        self.open_time_zones("#Europe/Paris")
        self.assert_chosen("Europe/Paris")
        self.browser.press_tab_until("[data-action=copy]")
        self.browser.press(Keys.ENTER)
        self.browser.until_text("[data-action=copy]", "Copied")
        copied = self.browser.driver.execute_async_script("navigator.clipboard.readText().then(arguments[0])")
        self.assertEqual(copied, "CET-1CEST,M3.5.0,M10.5.0/3")

    def test_small_screens_need_no_horizontal_scrolling(self):
        for width, height in ((320, 568), (360, 740), (768, 1024)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.browser.open(self.demo.address + "/#America/North_Dakota/New_Salem")
                self.browser.until(
                    lambda: self.browser.shows("form.login") or self.browser.shows(".time-zones"), "the page")
                if self.browser.shows("form.login"):
                    self.assert_fits(width)
                    self.browser.log_in()
                self.browser.until_shown("code[data-field=code]")
                self.assert_fits(width)
                self.assertTrue(self.browser.shows(".map-world"))

    def assert_fits(self, width):
        self.assertEqual(self.browser.run("return window.innerWidth"), width)
        self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)

    def test_no_other_host_is_requested_and_the_security_policy_is_not_violated(self):
        self.open_time_zones("#Europe/Paris")
        self.assert_chosen("Europe/Paris")
        addresses = [url for url in self.browser.requested_addresses() if url.startswith("http")]
        self.assertTrue(addresses)
        self.assertEqual([url for url in addresses if not url.startswith(self.demo.address + "/")], [])
        # The one expected line: the first question, before the login, is answered 401.
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        self.assertEqual([message for message in messages if "401 (Unauthorized)" not in message], [])

    # The session

    def test_a_session_ended_elsewhere_leads_back_to_the_login_with_a_message(self):
        self.browser.set_faster_timers(5)
        self.open_time_zones("#Europe/Paris")
        cookies = "; ".join(f"{cookie['name']}={cookie['value']}" for cookie in self.browser.driver.get_cookies())
        self.assertTrue(cookies)
        Client(self.demo.address).post("/api/logout", {}, {"Cookie": cookies}).close()
        self.browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")
        self.assertFalse(self.browser.shows(".time-zones"))
        self.browser.log_in()
        self.assert_chosen("Europe/Paris")

    def test_a_lost_cookie_is_an_ended_session(self):
        self.open_time_zones()
        self.browser.driver.delete_all_cookies()
        self.browser.driver.refresh()
        self.browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")


class ExpiringSessionTest(PageTestCase):
    @classmethod
    def make_demo(cls):
        # Shorter than the time between two questions of the page.
        return cls.make_own_demo("--session-timeout", "2")

    def test_an_expired_session_leads_back_to_the_login_with_a_message(self):
        browser = self.browser
        browser.open(self.demo.address + "/#time-zones")
        browser.log_in()
        browser.until_shown(".time-zones")
        browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")


class DeadDeviceTest(PageTestCase):
    def setUp(self):
        super().setUp()
        self.browser.set_faster_timers(5)
        self.browser.open(self.demo.address + "/#time-zones")

    def test_a_device_program_that_has_ended_is_reported_and_so_is_its_return(self):
        browser = self.browser
        browser.log_in()
        browser.until_shown(".time-zones")
        os.kill(self.demo.process("device"), signal.SIGKILL)
        browser.until_text("#banner", "The device cannot be reached")
        self.assertTrue(browser.shows(".time-zones"))
        browser.press_tab_until("#banner-retry")
        browser.press(Keys.ENTER)
        browser.until_text("#banner", "The device cannot be reached")
        self.demo.restart()
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")
        # The device has forgotten its sessions with its restart.
        browser.until_text(".login [role=alert]", "Your session has ended.")

    def test_a_web_server_that_has_ended_is_reported(self):
        browser = self.browser
        browser.log_in()
        browser.until_shown(".time-zones")
        self.addCleanup(self.demo.restart)
        os.kill(self.demo.process("lighttpd"), signal.SIGKILL)
        browser.until_text("#banner", "The device cannot be reached")

    def test_a_login_at_a_dead_device_is_reported_and_can_be_tried_again(self):
        browser = self.browser
        browser.until_shown("form.login")
        os.kill(self.demo.process("device"), signal.SIGKILL)
        browser.log_in()
        browser.until_text("#banner", "The device cannot be reached")
        self.demo.restart()
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")
        browser.press_tab_until(".login button")
        browser.press(Keys.ENTER)
        browser.until_shown(".time-zones")

    def test_a_page_opened_at_a_dead_device_continues_when_it_is_back(self):
        browser = self.browser
        browser.log_in()
        browser.until_shown(".time-zones")
        os.kill(self.demo.process("device"), signal.SIGKILL)
        browser.driver.refresh()
        browser.until_text("#banner", "The device cannot be reached")
        self.demo.restart()
        browser.until_shown("form.login")


def write_screenshot(path):
    demo = Demo()
    browser = Browser()
    try:
        demo.start()
        browser.open(demo.address + "/#America/New_York")
        browser.log_in()
        browser.until_shown("code[data-field=code]")
        browser.press_tab_until("#zone-search")
        browser.until(lambda: browser.run("return document.querySelector('.map-land').getBBox().width > 0"), "the land")
        browser.screenshot(path)
    finally:
        browser.quit()
        demo.remove()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--screenshot"]:
        write_screenshot(sys.argv[2])
    else:
        unittest.main(verbosity=2)
