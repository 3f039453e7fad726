#!/usr/bin/python3
"""The inputs and outputs on the page of the demo device, in a real browser.

    tst_io_page.py [<unittest arguments>]
    tst_io_page.py --screenshot <file.png>     writes the picture for the guide instead
"""

import sys
import unittest

from browser import Browser, PageTestCase
from demo_device import Demo
from relay import Relay
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.common.keys import Keys
from tst_io_service import RESET, path
from tst_network_tools_service import Session

# Requests that change something wait for release(), before they are sent or before their answer is passed on.
HOLD = """
    const fetchOfBrowser = window.fetch;
    window.changeCount = 0;
    window.fetch = async (path, options) => {
      if (options.method !== "PUT")
        return fetchOfBrowser(path, options);
      window.changeCount += 1;
      const answer = arguments[0] === "answer" ? await fetchOfBrowser(path, options) : null;
      await new Promise((resolve) => { window.release = resolve; });
      return answer ?? fetchOfBrowser(path, options);
    };"""

STATES = """
    return Object.fromEntries(Array.from(document.querySelectorAll(".io-point"), (point) => [
      point.querySelector("h3").textContent,
      [point.querySelector(".io-state").innerText.trim(), point.querySelector("[data-field=level]").textContent]]));"""

CONTROL = """
    const point = Array.from(document.querySelectorAll(".io-point"))
      .find((each) => each.querySelector("h3").textContent === arguments[0]);
    return point.querySelector(`input[name=${arguments[1]}], input[value=${arguments[1]}]`);"""


class IoPageTestCase(PageTestCase):
    def setUp(self):
        super().setUp()
        self.other = Session(self.demo.port)
        self.addCleanup(self.other.send, "POST", "/api/logout", {})
        for name, change in RESET.items():
            self.change(name, **change)

    def tearDown(self):
        # The browser keeps the pages that were left, and their streams, which end with their sessions. A seventh
        # connection would wait for the end of another.
        self.end_session()

    def end_session(self):
        cookies = "; ".join(f"{each['name']}={each['value']}" for each in self.browser.driver.get_cookies())
        Session(self.demo.port, user=None).open("POST", "/api/logout", {}, {"Cookie": cookies}).close()

    def change(self, name, **change):
        """Changes an input or output in another session than that of the page."""
        self.assertEqual(self.other.send("PUT", path(name), change)[0], 200)

    def open(self, address=None):
        browser = self.browser
        browser.open(f"{address or self.demo.address}/#io")
        browser.log_in()
        browser.until_shown(".io")

    def block_stream(self):
        self.browser.driver.execute_cdp_cmd("Network.setBlockedURLs", {"urls": ["*/api/stream"]})
        self.addCleanup(self.browser.driver.execute_cdp_cmd, "Network.setBlockedURLs", {"urls": []})

    def states(self):
        """The words for the state and for the level by name."""
        return {name: tuple(texts) for name, texts in self.browser.run(STATES).items()}

    def until_state(self, name, state, level):
        try:
            self.browser.until(lambda: self.states()[name] == (state, level), name)
        except TimeoutException:
            self.assertEqual(self.states()[name], (state, level), name)

    def until_live(self):
        """The page has begun to follow the stream when it shows a change of another session."""
        self.change("Output 2", active=True)
        self.until_state("Output 2", "Active", "Low")

    def control(self, name, control):
        return self.browser.run(CONTROL, name, control)

    def press(self, name, control, key=Keys.SPACE):
        """Changes a control by keyboard."""
        self.browser.run("arguments[0].focus()", self.control(name, control))
        self.browser.press(key)

    def is_checked(self, name, control):
        return self.control(name, control).get_property("checked")

    def is_disabled(self, name, control):
        return self.control(name, control).get_dom_attribute("aria-disabled") == "true"

    def has_focus(self, name, control):
        return self.browser.run("return document.activeElement === arguments[0]", self.control(name, control))

    def until_idle(self, name):
        self.browser.until(lambda: not self.is_disabled(name, "NO"), "the end of the change")

    def message(self, name):
        return self.browser.run(CONTROL.replace("return point", "return point.querySelector('.message').innerText; point"),
                                name, "NO")

    def announcement(self):
        return self.browser.run("return document.querySelector('[data-field=announcement]').textContent")


class StateTest(IoPageTestCase):
    def test_inputs_and_outputs_are_shown_with_their_state_and_level(self):
        self.open()
        self.assertEqual(self.states(), {"Input 1": ("Inactive", "Low"), "Input 2": ("Inactive", "High"),
                                         "Output 1": ("Inactive", "Low"), "Output 2": ("Inactive", "High")})
        self.assertEqual([each.text for each in self.browser.find_all("[data-field=wired-to]")], ["Output 1", "Input 1"])
        self.assertTrue(self.is_checked("Input 1", "NO"))
        self.assertTrue(self.is_checked("Output 2", "NC"))
        # The level of a wired contact is not the user's.
        self.assertIsNone(self.control("Input 1", "level"))
        self.assertIsNone(self.control("Output 1", "level"))
        self.assertIsNone(self.control("Input 2", "active"))

    def test_each_state_has_a_symbol_of_its_own(self):
        self.open()
        self.change("Output 1", active=True)
        self.change("Input 2", valid=False)
        self.until_state("Input 1", "Active", "High")
        self.until_state("Input 2", "Cannot be read", "Not known")
        symbols = self.browser.run("""
            return Array.from(document.querySelectorAll(".io-point"), (point) =>
              Array.from(point.querySelectorAll(".io-state svg"))
                .filter((symbol) => symbol.getClientRects().length > 0)
                .map((symbol) => symbol.innerHTML.trim()));""")
        self.assertEqual([len(each) for each in symbols], [1, 1, 1, 1])
        input_1, input_2, output_1, output_2 = [each[0] for each in symbols]
        self.assertEqual(input_1, output_1)
        self.assertEqual(len({input_1, input_2, output_2}), 3)

    def test_controls_are_named_with_what_they_belong_to(self):
        self.open()
        groups = self.browser.run("""
            return Array.from(document.querySelectorAll(".io-point fieldset"), (group) => [
              group.querySelector("legend").textContent,
              ...Array.from(group.querySelectorAll("label"), (label) => label.textContent.replace(/\\s+/g, " ").trim())])""")
        polarities = ["Normally open active when high", "Normally closed active when low"]
        self.assertEqual(groups, [
            ["Simulated contact of Input 1", "Wire broken"], ["Polarity of Input 1", *polarities],
            ["Simulated contact of Input 2", "High level", "Wire broken"], ["Polarity of Input 2", *polarities],
            ["Switch of Output 1", "Active"], ["Polarity of Output 1", *polarities],
            ["Switch of Output 2", "Active"], ["Polarity of Output 2", *polarities]])


class ChangeTest(IoPageTestCase):
    def test_an_output_is_switched_by_keyboard_and_its_input_follows(self):
        self.open()
        self.browser.press_tab_until("[name=active]")
        self.browser.press(Keys.SPACE)
        self.until_state("Output 1", "Active", "High")
        self.until_state("Input 1", "Active", "High")
        self.assertEqual(self.announcement(), "Input 1: active, Output 1: active")
        self.until_idle("Output 1")
        self.assertTrue(self.has_focus("Output 1", "active"))
        self.browser.press(Keys.SPACE)
        self.until_state("Output 1", "Inactive", "Low")
        self.until_state("Input 1", "Inactive", "Low")

    def test_a_polarity_changes_the_state_and_not_the_level(self):
        self.open()
        self.press("Output 1", "NO", Keys.ARROW_RIGHT)
        self.until_state("Output 1", "Active", "Low")
        self.assertEqual(self.states()["Input 1"], ("Inactive", "Low"))
        self.until_idle("Output 1")
        self.assertTrue(self.has_focus("Output 1", "NC"))
        self.assertTrue(self.is_checked("Output 1", "active"))
        self.press("Input 2", "NC", Keys.ARROW_LEFT)
        self.until_state("Input 2", "Active", "High")

    def test_the_contact_and_the_wire_of_an_input_are_simulated(self):
        self.open()
        self.press("Input 2", "level")
        self.until_state("Input 2", "Active", "Low")
        self.until_idle("Input 2")
        self.press("Input 2", "broken")
        self.until_state("Input 2", "Cannot be read", "Not known")
        self.assertEqual(self.announcement(), "Input 2: cannot be read")
        self.until_idle("Input 2")
        self.press("Input 2", "level")
        self.browser.until(lambda: self.is_checked("Input 2", "level") and not self.is_disabled("Input 2", "level"),
                           "the level of the contact")
        self.assertEqual(self.states()["Input 2"], ("Cannot be read", "Not known"))
        self.press("Input 2", "broken")
        self.until_state("Input 2", "Inactive", "High")

    def test_controls_take_nothing_while_a_change_is_on_its_way(self):
        self.open()
        self.browser.run(HOLD, "request")
        self.press("Output 1", "active")
        self.assertTrue(all(self.is_disabled("Output 1", control) for control in ("active", "NO", "NC")))
        self.assertFalse(self.is_disabled("Output 2", "active"))
        self.browser.press(Keys.SPACE)
        self.press("Output 1", "NO", Keys.ARROW_RIGHT)
        self.control("Output 1", "active").click()
        # What happens elsewhere is shown, but does not undo what the user has chosen.
        self.change("Output 1", polarity="NC")
        self.change("Output 1", active=False)
        self.until_state("Output 1", "Inactive", "High")
        self.assertTrue(self.is_checked("Output 1", "active"))
        self.browser.run("release()")
        self.until_state("Output 1", "Active", "Low")
        self.until_idle("Output 1")
        self.assertTrue(self.is_checked("Output 1", "NC"))
        self.assertEqual(self.browser.run("return changeCount"), 1)

    def test_an_answer_that_is_older_than_an_event_is_not_shown(self):
        self.open()
        self.until_live()
        self.browser.run(HOLD, "answer")
        self.press("Output 1", "active")
        self.until_state("Output 1", "Active", "High")
        self.change("Output 1", active=False)
        self.until_state("Output 1", "Inactive", "Low")
        self.browser.run("release()")
        self.until_idle("Output 1")
        self.assertEqual(self.states()["Output 1"], ("Inactive", "Low"))
        self.assertFalse(self.is_checked("Output 1", "active"))

    def test_a_refused_change_is_explained_and_taken_back(self):
        self.open()
        self.browser.run("""
            const fetchOfBrowser = window.fetch;
            window.fetch = (path, ...rest) => fetchOfBrowser(path.replace("Output", "Outlet"), ...rest);
            window.heal = () => { window.fetch = fetchOfBrowser; };""")
        self.press("Output 1", "active")
        self.browser.until(lambda: self.message("Output 1") == "There is no input or output of this name.", "the reason")
        self.until_idle("Output 1")
        self.assertFalse(self.is_checked("Output 1", "active"))
        self.assertEqual(self.states()["Output 1"], ("Inactive", "Low"))
        self.assertEqual(self.message("Output 2"), "")
        self.browser.run("heal()")
        self.browser.press(Keys.SPACE)
        self.until_state("Output 1", "Active", "High")
        self.assertEqual(self.message("Output 1"), "")


class LiveTest(IoPageTestCase):
    def requests(self):
        return [url for url in self.browser.requested_addresses() if "/api/" in url]

    def test_changes_of_another_session_are_shown_without_a_request(self):
        self.open()
        self.until_live()
        self.requests()
        for active, state in ((True, ("Active", "High")), (False, ("Inactive", "Low"))) * 3:
            self.change("Output 1", active=active)
            self.until_state("Output 1", *state)
            self.until_state("Input 1", *state)
        self.change("Input 2", valid=False)
        self.until_state("Input 2", "Cannot be read", "Not known")
        self.change("Input 2", polarity="NO")
        self.browser.until(lambda: self.is_checked("Input 2", "NO"), "the polarity")
        self.assertEqual(self.requests(), [])

    def test_the_page_polls_where_there_is_no_stream(self):
        self.block_stream()
        self.browser.set_faster_timers(8)
        self.open()
        self.change("Output 1", active=True)
        self.until_state("Input 1", "Active", "High")
        self.assertIn(self.demo.address + "/api/io?passive=yes", self.requests())
        self.press("Output 1", "active")
        self.until_state("Input 1", "Inactive", "Low")

    def test_a_state_that_cannot_be_read_is_reported_until_it_can(self):
        self.block_stream()
        self.browser.set_faster_timers(8)
        self.open()
        self.browser.run("""
            const fetchOfBrowser = window.fetch;
            window.fetch = (path, ...rest) => fetchOfBrowser(path.replace("/api/io", "/api/nothing"), ...rest);
            window.heal = () => { window.fetch = fetchOfBrowser; };""")
        self.browser.until_text("#io-message", "The device refused the request (status 404).")
        self.browser.run("heal()")
        self.browser.until(lambda: not self.browser.shows("#io-message"), "the end of the message")

    def test_what_changed_while_the_connection_was_broken_is_shown_afterwards(self):
        relay = Relay(self.demo.port)
        self.addCleanup(relay.cut)
        self.open(f"http://127.0.0.1:{relay.port}")
        relay.cut()
        self.browser.until_text("#banner", "The device cannot be reached")
        self.press("Output 2", "active")
        self.until_idle("Output 2")
        self.assertFalse(self.is_checked("Output 2", "active"))
        self.change("Output 1", active=True)
        relay.mend()
        self.until_state("Output 1", "Active", "High")
        self.browser.until(lambda: not self.browser.shows("#banner"), "the end of the banner")
        self.assertEqual(self.states()["Output 2"], ("Inactive", "High"))

    def test_a_session_that_ends_leads_to_the_login(self):
        self.open()
        self.end_session()
        self.browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")


class LayoutTest(IoPageTestCase):
    def test_small_screens_need_no_horizontal_scrolling(self):
        self.open()
        self.change("Input 2", valid=False)
        self.until_state("Input 2", "Cannot be read", "Not known")
        for width, height in ((320, 568), (375, 740), (768, 1024), (1280, 800)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.assertEqual(self.browser.run("return window.innerWidth"), width)
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)

    def test_the_security_policy_is_not_violated(self):
        self.open()
        self.press("Output 1", "active")
        self.until_state("Output 1", "Active", "High")
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        # Before the login.
        self.assertEqual([text for text in messages if "status of 401 (Unauthorized)" not in text], [])


def write_screenshot(file):
    demo = Demo()
    browser = Browser()
    try:
        demo.start()
        browser.open(demo.address + "/#io")
        browser.log_in()
        browser.until_shown(".io")
        browser.find("[name=active]").click()
        browser.until_text("[data-list=inputs] .io-state", "Active")
        browser.resize(1280, 640)
        browser.screenshot(file)
    finally:
        browser.quit()
        demo.remove()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--screenshot"]:
        write_screenshot(sys.argv[2])
    else:
        unittest.main(verbosity=2)
