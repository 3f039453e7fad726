#!/usr/bin/python3
"""What the views of the demo device's page have in common, in a real browser: focus and titles, refused fields, times in 24
hours, borders that can be seen, texts that do not break, and lists that fit their contents."""

import json
import os
import unittest

from browser import PageTestCase
from demo_device import Client, Demo
from selenium.webdriver.common.keys import Keys

VIEWS = {"#device": "Device", "#time-zones": "Time zones", "#timetable": "Timetable", "#io": "Inputs and outputs",
         "#proxy": "Proxy", "#ping": "Ping", "#traceroute": "Traceroute", "#firmware": "Firmware", "#packages": "Packages"}
PACKAGE_COUNT = 500
SECTIONS = {"#device": ".device", "#time-zones": ".time-zones", "#timetable": ".timetable", "#io": ".io",
            "#proxy": ".proxy", "#ping": ".network-test", "#traceroute": ".network-test", "#firmware": ".firmware",
            "#packages": ".packages"}

# The services of ping and traceroute answer so while there is no run.
NO_RUN = "section=state - Failed to load resource: the server responded with a status of 404 (Not Found)"

# The contrast of each button's border with what is around the button (WCAG 2.1, 1.4.11), by the button's text.
BORDER_CONTRASTS = """
    const channels = (colour) => colour.match(/[0-9.]+/g).map(Number);
    const luminance = (colour) => channels(colour).slice(0, 3)
      .map((value) => value / 255)
      .map((value) => (value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4))
      .reduce((sum, value, index) => sum + value * [0.2126, 0.7152, 0.0722][index], 0);
    const background = (node) => {
      const colour = getComputedStyle(node).backgroundColor;
      return (channels(colour)[3] ?? 1) > 0 ? colour : background(node.parentElement);
    };
    const contrast = (one, other) => {
      const [dark, light] = [luminance(one), luminance(other)].sort((a, b) => a - b);
      return (light + 0.05) / (dark + 0.05);
    };
    return Array.from(document.querySelectorAll("button, input:not([type=radio], [type=checkbox]), select, .chip span"))
      .filter((node) => node.offsetParent && !node.disabled && getComputedStyle(node).borderTopWidth !== "0px")
      .map((node) => [node.textContent || node.id,
                      contrast(getComputedStyle(node).borderTopColor, background(node.parentElement))]);"""


def make_packages(folder):
    with open(os.path.join(folder, "manifest.csv"), "w", encoding="latin-1") as file:
        file.write('"PACKAGE","VERSION","LICENSE","LICENSE FILES","SOURCE ARCHIVE","SOURCE SITE"\n')
        for number in range(PACKAGE_COUNT):
            file.write(f'"{package(number)}","1.{number}","{"MIT" if number % 2 else "BSD"}","","",""\n')


def package(number):
    return f"package-{number:03}"


class SignedInTestCase(PageTestCase):
    """All tests share the demo and stay signed in."""

    @classmethod
    def make_demo(cls):
        def started():
            demo = Demo()
            make_packages(demo.packages)
            demo.start()
            return demo
        return cls.share("demo", started, Demo.remove)

    def setUp(self):
        self.browser.resize(1280, 800)
        self.client = Client(self.demo.address)
        self.client.post("/api/login", {"user": "demo", "password": "demo"}).close()

    def open(self, address):
        browser = self.browser
        section = SECTIONS.get(address.split("/")[0], ".time-zones")
        browser.open(f"{self.demo.address}/{address}")
        browser.until(lambda: browser.shows("form.login") or browser.shows(section), "the page")
        if browser.shows("form.login"):
            browser.log_in()
            browser.until_shown(section)

    def focused(self, script="return document.activeElement.textContent"):
        return self.browser.run(script)


class ViewsTest(SignedInTestCase):
    def test_after_a_change_of_view_the_focus_is_on_its_heading_and_the_title_names_it(self):
        browser = self.browser
        browser.reset(self.demo.address)
        browser.open(self.demo.address)
        browser.until_shown("form.login")
        self.assertEqual(browser.driver.title, "Sign in – Demo device")
        browser.log_in()
        browser.until_shown(".device")
        for address, name in [*VIEWS.items(), ("#device", "Device")]:
            with self.subTest(view=name):
                if browser.run("return location.hash") != address and browser.driver.title != f"{name} – Demo device":
                    browser.press_tab_until("#views a")
                    browser.press_tab_until(f'#views a[href="{address}"]')
                    browser.press(Keys.ENTER)
                browser.until(lambda: browser.driver.title == f"{name} – Demo device", f"the title of {name}")
                browser.until(lambda: self.focused("return document.activeElement.tagName") == "H1", "the focus")
                self.assertEqual(self.focused(), name)
                self.assertEqual(browser.text("#views [aria-current]"), name)
                # From the heading back to the links of the views.
                browser.press(*[Keys.SHIFT + Keys.TAB] * (len(VIEWS) + 1))

    def test_a_view_that_cannot_be_shown_has_a_heading_too(self):
        self.open("#device")
        browser = self.browser
        browser.run("""
            const fetchOfBrowser = window.fetch;
            window.fetch = (path, ...rest) => fetchOfBrowser(path === "/api/events" ? "/api/nothing" : path, ...rest);
            location.hash = "#timetable";""")
        browser.until_text("main [role=alert]", "Timetable cannot be shown.")
        self.assertEqual(self.focused(), "Timetable")

    def test_borders_of_controls_can_be_seen(self):
        browser = self.browser
        for address in ("#device", "#time-zones/", "#Europe/Paris", "#timetable", "#io", "#proxy", "#ping", "#traceroute",
                        "#firmware", "#packages"):
            self.open(address)
            for scheme in ("light", "dark"):
                with self.subTest(scheme=scheme, view=address):
                    # Without motion the colours of the other scheme are there at once.
                    browser.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
                        {"name": "prefers-color-scheme", "value": scheme},
                        {"name": "prefers-reduced-motion", "value": "reduce"}]})
                    contrasts = browser.run(BORDER_CONTRASTS)
                    self.assertTrue(contrasts)
                    self.assertEqual([each for each in contrasts if each[1] < 3], [])
        browser.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})

    def test_nothing_is_refused_by_the_page_s_own_rules(self):
        self.browser.driver.get_log("browser")
        for address in VIEWS:
            self.open(address)
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        self.assertEqual([message for message in messages
                          if "401 (Unauthorized)" not in message and not message.endswith(NO_RUN)], [])


class RefusedFieldsTest(SignedInTestCase):
    def message_of(self, selector):
        """What a screen reader reads with a field that is marked as invalid."""
        return self.browser.run("""
            const field = document.querySelector(arguments[0]);
            if (field.getAttribute("aria-invalid") !== "true")
              return null;
            return field.getAttribute("aria-describedby").split(" ").map((id) => document.getElementById(id).textContent)
              .join(" ").trim();""", selector)

    def test_a_wrong_password_marks_both_fields_until_one_is_changed(self):
        browser = self.browser
        browser.reset(self.demo.address)
        browser.open(self.demo.address)
        browser.log_in(password="wrong")
        browser.until_text(".login [role=alert]", "The user name or the password is wrong.")
        for field in ("#login-user", "#login-password"):
            self.assertEqual(self.message_of(field), "The user name or the password is wrong.")
        browser.press("x")
        for field in ("#login-user", "#login-password"):
            self.assertIsNone(self.message_of(field))

    def test_missing_and_wrong_values_of_an_entry_mark_their_field(self):
        self.open("#timetable")
        browser = self.browser
        rule = "A time has hours and minutes, from 00:00 to 23:59, for example 06:30."
        for message, field, keys in (
                ("Give the entry a title.", "#entry-title", ["Light"]),
                ("Choose at least one day.", "[name=day]", [Keys.SPACE]),
                ("Say when it starts.", "#entry-start", ["25:00"]),
                (rule, "#entry-start", [Keys.CONTROL + "a", "0100"]),
                ("Say when it ends.", "#entry-end", ["12:60"]),
                (rule, "#entry-end", [Keys.CONTROL + "a", "3.05"])):
            with self.subTest(message=message, field=field):
                browser.press_tab_until("form [type=submit]")
                browser.press(Keys.ENTER)
                browser.until_text("form [role=alert]", message)
                self.assertEqual(self.message_of(field), message)
                self.assertTrue(browser.run("return document.activeElement.matches(arguments[0])", field))
                self.assertEqual(len({node.get_attribute("name") for node in browser.find_all("[aria-invalid]")}), 1)
                browser.press(*keys)
                self.assertIsNone(self.message_of(field))
        self.assertEqual(browser.find("#entry-end").get_dom_attribute("aria-describedby"), "entry-hint")

    def test_what_the_device_refuses_marks_its_field(self):
        self.open("#timetable")
        browser = self.browser
        browser.press_tab_until("#entry-title")
        browser.press("a")
        # A character that cannot be printed, as it may come with the clipboard.
        browser.run("document.getElementById('entry-title').value = 'a\\u0007b'")
        browser.press_tab_until("[name=day]")
        browser.press(Keys.SPACE)
        browser.press_tab_until("#entry-start")
        browser.press("01:00", Keys.TAB, "02:00", Keys.ENTER)
        browser.until_text("form [role=alert]", "The title must be")
        self.assertIn("The title must be", self.message_of("#entry-title"))
        self.assertEqual(self.focused("return document.activeElement.id"), "entry-title")


class TimesTest(SignedInTestCase):
    def test_times_are_typed_and_shown_in_24_hours(self):
        self.open("#timetable")
        browser = self.browser
        for field in ("#entry-start", "#entry-end"):
            self.assertEqual(browser.find(field).get_property("type"), "text")
        for typed, shown in (("1830", "18:30"), ("6:05", "06:05"), ("605", "06:05"), ("23.59", "23:59"), ("0:00", "00:00"),
                             (" 7:15", "07:15"), ("24:00", "24:00"), ("7", "7"), ("noon", "noon")):
            with self.subTest(typed=typed):
                browser.find("#entry-start").clear()
                browser.find("#entry-start").send_keys(typed, Keys.TAB)
                self.assertEqual(browser.find("#entry-start").get_property("value"), shown)
        browser.find("#entry-start").clear()
        browser.find("#entry-title").send_keys("Evening")
        browser.find("[name=day]").send_keys(Keys.SPACE)
        browser.find("#entry-start").send_keys("1830")
        browser.find("#entry-end").send_keys("2215", Keys.ENTER)
        browser.until_text(".entry-list", "Evening")
        row = [each for each in browser.find_all(".entry-open") if "Evening" in each.text][0]
        self.assertIn("Mon 18:30–22:15", row.text)
        row.click()
        self.assertEqual(browser.find("#entry-start").get_property("value"), "18:30")
        self.assertEqual(browser.find("#entry-end").get_property("value"), "22:15")


class TimeZonesTest(SignedInTestCase):
    def until_chosen(self, zone):
        self.browser.until_text("[data-field=zone]", zone)

    def test_the_tz_string_stands_in_one_line(self):
        with self.client.get("/api/timezones?section=content") as response:
            content = json.load(response)
        zones = {f"{region}/{name}": town["timezoneCode"] for region in content
                 for name, town in content[region]["towns"].items()}
        longest = max(zones, key=lambda zone: len(zones[zone]))
        self.open("#" + longest)
        self.until_chosen(longest)
        for width in (320, 390, 768, 1280):
            with self.subTest(width=width):
                self.browser.resize(width, 800)
                lines, text = self.browser.run("""
                    const code = document.querySelector("code[data-field=code]");
                    const range = document.createRange();
                    range.selectNodeContents(code);
                    return [new Set(Array.from(range.getClientRects(), (box) => box.top)).size, code.textContent];""")
                self.assertEqual((lines, text), (1, zones[longest]))
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)

    def test_the_list_on_a_phone_takes_the_room_of_its_towns_only(self):
        self.browser.resize(390, 844)
        self.open("#time-zones")
        self.browser.press_tab_until("#zone-search")
        self.browser.press("tokyo")
        self.assertEqual(self.browser.text(".zone-count").split(" ")[0], "1")
        empty = self.browser.run("""
            const list = document.getElementById("zone-list").getBoundingClientRect();
            return list.bottom - document.querySelector("[role=option]:not([hidden])").getBoundingClientRect().bottom;""")
        self.assertLess(empty, 5)
        self.browser.press(Keys.ESCAPE)
        self.assertTrue(self.browser.run("""
            const list = document.getElementById("zone-list");
            return list.clientHeight < innerHeight / 2 && list.scrollHeight > 5000"""))


class PackagesTest(SignedInTestCase):
    def rows(self):
        return self.browser.run("""
            return Array.from(document.querySelectorAll(".package-name"), (button) => button.textContent)""")

    def height(self):
        return self.browser.run("return document.documentElement.scrollHeight")

    def test_rows_are_added_while_one_scrolls(self):
        self.open("#packages")
        browser = self.browser
        first = len(self.rows())
        self.assertLess(first, 200)
        self.assertLess(self.height(), 8000)
        self.assertEqual(browser.text(".package-count"), f"{PACKAGE_COUNT} packages")
        self.assertEqual(browser.find("table").get_dom_attribute("aria-rowcount"), str(PACKAGE_COUNT + 1))
        browser.run("scrollTo(0, document.documentElement.scrollHeight)")
        browser.until(lambda: len(self.rows()) > first, "more rows")
        self.assertLess(len(self.rows()), PACKAGE_COUNT)

        def is_complete():
            browser.run("scrollTo(0, document.documentElement.scrollHeight)")
            return not browser.shows("[data-action=more]")
        browser.until(is_complete, "the last row")
        self.assertEqual(self.rows(), [package(number) for number in range(PACKAGE_COUNT)])
        indices = browser.run("""
            return Array.from(document.querySelectorAll("tbody tr"), (row) => row.getAttribute("aria-rowindex"))""")
        self.assertEqual(indices, [str(index) for index in range(2, PACKAGE_COUNT + 2)])

    def test_the_keyboard_reaches_rows_that_have_not_been_made_yet(self):
        self.open("#packages")
        browser = self.browser
        browser.press_tab_until("#package-search")
        browser.press(Keys.ARROW_DOWN, Keys.END)
        self.assertEqual(self.focused(), package(PACKAGE_COUNT - 1))
        browser.press(Keys.HOME)
        self.assertEqual(self.focused(), package(0))
        self.assertEqual(len(browser.find_all(".package-name[tabindex='0']")), 1)

    def test_the_button_for_more_rows_leads_to_the_first_of_them(self):
        self.open("#packages")
        browser = self.browser
        # Without the observer, as for a screen reader that scrolls nothing.
        count = browser.run("""
            const more = document.querySelector("[data-action=more]");
            more.focus({ preventScroll: true });
            const count = document.querySelectorAll(".package-name").length;
            more.click();
            return count;""")
        self.assertEqual(self.focused(), package(count))
        self.assertRegex(browser.find("[data-action=more]").get_property("textContent"),
                         rf"^Show more \(\d+ of {PACKAGE_COUNT} are shown\)$")

    def test_search_and_order_hold_for_all_packages(self):
        self.open("#packages")
        browser = self.browser
        browser.press_tab_until("#package-search")
        browser.press("package-49")
        self.assertEqual(self.rows(), [package(number) for number in range(490, 500)])
        browser.press_tab_until("[data-sort=name]")
        browser.press(Keys.ENTER)
        self.assertEqual(self.rows(), [package(number) for number in range(499, 489, -1)])
        self.assertEqual(browser.find("th[aria-sort]").get_dom_attribute("aria-sort"), "descending")
        browser.press_tab_until("[data-sort=licenses]")
        browser.press(Keys.ENTER)
        self.assertEqual(self.rows(), [package(number) for number in (*range(490, 500, 2), *range(491, 500, 2))])
        self.assertEqual([each.text.split()[0] for each in browser.find_all("th[aria-sort]")], ["Licences"])
        browser.find("#package-search").send_keys(Keys.ESCAPE)
        self.assertEqual(self.rows()[:2], [package(0), package(2)])
        self.assertLess(len(self.rows()), 200)

    def test_an_open_package_stays_open_when_the_order_changes(self):
        self.open(f"#packages/{package(400)}")
        browser = self.browser
        browser.until_shown(".package-details")
        self.assertEqual(browser.text(".package-chosen .package-name"), package(400))
        browser.find("[data-sort=name]").click()
        browser.until(lambda: self.rows()[0] == package(499), "the other order")
        self.assertFalse(browser.shows(".package-details"))
        browser.run("scrollTo(0, document.documentElement.scrollHeight)")
        browser.until(lambda: package(400) in self.rows(), "the open package")
        above = browser.run("""
            const details = document.querySelector(".package-details");
            return details.previousSibling.querySelector(".package-name").textContent""")
        self.assertEqual(above, package(400))


if __name__ == "__main__":
    unittest.main(verbosity=2)
