#!/usr/bin/python3
"""Ping and traceroute on the page of the demo device, in a real browser.

    tst_network_tools_page.py [<unittest arguments>]
    tst_network_tools_page.py --screenshot <file.png>     writes a picture of the ping instead
"""

import os
import signal
import sys
import unittest
import urllib.request

from browser import Browser, PageTestCase
from demo_device import SECONDS_TO_WAIT, Client, Demo
from relay import Relay
from scripted_commands import ScriptedCommands
from selenium.webdriver.common.keys import Keys

PING = "/api/ping?section=state"


class NetworkToolsTestCase(PageTestCase):
    @classmethod
    def setUpClass(cls):
        cls.commands = cls.share("commands", ScriptedCommands, ScriptedCommands.remove)
        super().setUpClass()

    @classmethod
    def make_demo(cls):
        def started():
            demo = Demo()
            demo.commands = cls.commands.path
            demo.start()
            return demo
        return cls.share("demo", started, Demo.remove)

    def tearDown(self):
        # Its commands end with a session.
        self.end_session()

    def cookies(self):
        return "; ".join(f"{cookie['name']}={cookie['value']}" for cookie in self.browser.driver.get_cookies())

    def end_session(self):
        Client(self.demo.address).post("/api/logout", {}, {"Cookie": self.cookies()}).close()

    def open(self, view="ping", address=None):
        self.browser.open(f"{address or self.demo.address}/#{view}")
        self.browser.until(lambda: self.browser.shows("form.login") or self.browser.shows(".network-test"), "the page")
        if self.browser.shows("form.login"):
            self.browser.log_in()
            self.browser.until_shown(".network-test")

    def start_ping(self, host, *replies, **fields):
        """Fills in the form with the keyboard, from the host on, and sends it."""
        self.commands.reply(host, *replies)
        browser = self.browser
        for name, value in fields.items():
            self.fill_in(f"#ping-{name}", value)
        self.fill_in("#ping-host", host)
        browser.press(Keys.ENTER)

    def fill_in(self, field, value):
        self.browser.press_tab_until(field)
        self.browser.press(Keys.CONTROL + "a", value)

    def start_traceroute(self, host, *lines):
        self.commands.begin_route(host)
        self.commands.trace(host, *lines)
        self.fill_in("#traceroute-host", host)
        self.browser.press(Keys.ENTER)

    def block_stream(self):
        self.browser.driver.execute_cdp_cmd("Network.setBlockedURLs", {"urls": ["*/api/stream"]})
        self.addCleanup(self.browser.driver.execute_cdp_cmd, "Network.setBlockedURLs", {"urls": []})

    def field(self, name):
        return self.browser.run(
            "return document.querySelector(`[data-field='${arguments[0]}']`)?.textContent", name)

    def until_field(self, name, text):
        self.browser.until(lambda: self.field(name) == text, f'"{text}" in {name}, which is "{self.field(name)}"')

    def points(self):
        """What the chart shows, for example "Ping 1: 0.250 ms"."""
        return self.browser.run("return Array.from(document.querySelectorAll('.chart title'), (node) => node.textContent)")

    def until_point(self, text):
        self.browser.until(lambda: text in self.points(), f'"{text}" in the chart')

    def focused(self):
        return self.browser.run("return document.activeElement.textContent")

    def rows(self):
        return [" ".join(text.split()) for text in self.browser.run(
            "return Array.from(document.querySelectorAll('.hops tbody tr'), (row) => row.innerText)")]

    def until_rows(self, *rows):
        self.browser.until(lambda: self.rows() == list(rows), f"the rows {rows}")

    def requests(self):
        """What the page has requested since the last call, without its own files."""
        return [url for url in self.browser.requested_addresses() if "/api/" in url]


class PingTest(NetworkToolsTestCase):
    def test_a_ping_is_started_watched_and_stopped_by_keyboard(self):
        browser = self.browser
        self.open()
        self.assertTrue(browser.shows("[data-part=none]"))
        self.start_ping("router.lan", "0.250", "0.450", "0.350", "0.350")
        self.until_field("announcement", "Ping of router.lan started.")
        for point in ("Ping 1: 0.250 ms", "Ping 2: 0.450 ms", "Ping 3: 0.350 ms"):
            self.until_point(point)
        self.assertEqual(browser.text("#ping-title"), "router.lan")
        self.assertEqual(browser.text(".run-state"), "Running")
        self.assertEqual(browser.text("[data-field=parameters]"), "until stopped, one every second, 5 seconds for a reply")
        browser.press_tab_until("[data-action=stop]")
        browser.press(Keys.ENTER)
        self.until_field("run-state", "Stopped")
        self.assertEqual(self.focused(), "Start")
        self.assertRegex(self.field("announcement"), r"^Ping ended: (\d+) sent, \1 received, 0 % lost\.$")
        self.assertEqual(self.field("fastest"), "0.250 ms")
        self.assertEqual(self.field("slowest"), "0.450 ms")
        browser.press(Keys.ENTER)
        self.until_field("run-state", "Running")
        self.assertEqual(self.focused(), "Stop")

    def test_the_figures_are_those_of_the_replies(self):
        self.open()
        self.start_ping("router.lan", "1.000", "2.000", "lost", "1.500", count="4")
        self.until_field("run-state", "Finished")
        figures = {"sent": "4", "received": "3", "loss": "25 %", "fastest": "1.000 ms", "mean": "1.500 ms",
                   "slowest": "2.000 ms", "jitter": "0.750 ms", "last": "1.500 ms, TTL 64"}
        self.assertEqual({name: self.field(name) for name in figures}, figures)
        self.assertEqual(self.points(), ["Ping 1: 1.000 ms", "Ping 2: 2.000 ms", "Ping 3: lost", "Ping 4: 1.500 ms"])
        self.assertEqual(self.browser.find(".chart").get_dom_attribute("aria-label"),
                         "Pings 1 to 4: reply times from 1.000 ms to 2.000 ms, 1 lost, 0 without a time.")
        self.browser.press_tab_until(".point-list summary")
        self.browser.press(Keys.ENTER)
        self.browser.until_text(".point-list", "4 1.500 ms\n3 lost\n2 2.000 ms\n1 1.000 ms")

    def test_a_reply_without_a_time_is_shown_as_such(self):
        self.open()
        self.start_ping("router.lan", "untimed", "0.500", "untimed", "0.500", "0.500", count="5")
        self.until_field("run-state", "Finished")
        self.assertEqual(self.points(), ["Ping 1: no time", "Ping 2: 0.500 ms", "Ping 3: no time", "Ping 4: 0.500 ms",
                                         "Ping 5: 0.500 ms"])
        figures = {"sent": "5", "received": "5", "loss": "0 %", "fastest": "0.500 ms", "mean": "0.500 ms",
                   "slowest": "0.500 ms", "jitter": "0.000 ms"}
        self.assertEqual({name: self.field(name) for name in figures}, figures)
        self.browser.until_text("[data-part=untimed]", "no time that the device can read")

    def test_times_that_the_device_could_not_read_are_recognised_by_its_mean(self):
        replies = [500, 700, None, 500, 500, None, None, 700, None, 700, 700, None] * 4
        self.browser.open(self.demo.address)
        times = self.browser.driver.execute_async_script("""
            import("/scripts/ping-history.js").then(({ PingHistory }) => {
              const history = new PingHistory();
              let [sent, good, sum, replyTime] = [0, 0, 0, 0];
              const take = () => history.take({
                started: true, parameters: {}, last: { good: true, ttl: 64, replyTime },
                statistics: { sent, good, fastest: 0, slowest: 700, meanTime: good && Math.floor(sum / good) } }, true);
              take();
              for (const time of arguments[0]) {
                [sent, good, sum, replyTime] = [sent + 1, good + 1, sum + (time ?? 0), time ?? replyTime];
                take();
              }
              arguments[1](history.points.map((point) => point.time));
            })""", replies)
        self.assertEqual(times, replies)

    def test_replies_without_any_time_show_no_time(self):
        self.open()
        self.start_ping("router.lan", "untimed", count="2")
        self.until_field("run-state", "Finished")
        for name in ("last", "fastest", "mean", "slowest"):
            self.assertEqual(self.field(name), "no time", name)
        self.assertEqual(self.field("jitter"), "–")

    def test_a_command_that_fails_is_reported(self):
        self.open()
        self.start_ping("no.such.host", "lost", count="2", timeout="60")
        self.browser.until_text("[data-part=failing]", "The ping command ended without a reply before its timeout.")
        self.until_field("loss", "100 %")
        self.assertEqual(self.field("last"), "lost")

    def test_fields_are_checked_while_one_types(self):
        browser = self.browser
        self.open()
        host = "This is neither an IPv4 address, such as 192.168.0.1, nor a host name, such as router.lan."
        cases = {
            "#ping-host": {"10.0.0.1": "", "256.0.0.1": host, "a_b": host, "-a": host, "a-": host, "a..b": host, "a.b.": "",
                           "1.2.3": "", "1.2.3.4.example": host, "x" * 63: "", "x" * 64: host, "box!": host},
            "#ping-count": {"0": "", "17": "", "-1": "Enter a whole number, 0 or more.",
                            "1.5": "Enter a whole number, 0 or more."},
            "#ping-delay": {"0": "Enter a whole number, 1 or more.", "1": "", "4294967295": "",
                            "4294967296": "Enter a whole number, 1 or more."},
            "#ping-timeout": {"0": "Enter a whole number, 1 or more.", "5": "", "x": "Enter a whole number, 1 or more."},
        }
        for field, texts in cases.items():
            for text, fault in texts.items():
                with self.subTest(field=field, text=text):
                    self.fill_in(field, text)
                    self.assertEqual(browser.text(field + "-fault"), fault)
                    self.assertEqual(browser.find(field).get_dom_attribute("aria-invalid"), "true" if fault else None)
        self.fill_in("#ping-host", "10.0.0.1")
        browser.press(Keys.ENTER)
        self.assertTrue(browser.run("return document.activeElement.matches('#ping-count')"))
        self.fill_in("#ping-host", Keys.DELETE)
        self.assertEqual(browser.text("#ping-host-fault"), "")
        browser.press(Keys.ENTER)
        self.assertEqual(browser.text("#ping-host-fault"), "Enter an IPv4 address or a host name.")
        posted = [event["request"]["url"] for event in browser.network_events("requestWillBeSent")
                  if event["request"]["method"] == "POST"]
        self.assertEqual(posted, [self.demo.address + "/api/login"])

    def test_a_run_is_found_again_after_a_reload(self):
        self.open()
        self.start_ping("router.lan", "1.000", "2.000", "lost", count="3", timeout="7")
        self.until_field("run-state", "Finished")
        self.browser.driver.refresh()
        self.browser.until_shown("#ping-title")
        figures = {"title": "router.lan", "run-state": "Finished", "sent": "3", "received": "2", "loss": "33.3 %",
                   "fastest": "1.000 ms", "mean": "1.500 ms", "slowest": "2.000 ms", "jitter": "–", "last": "lost"}
        self.assertEqual({name: self.field(name) for name in figures}, figures)
        self.assertEqual(self.browser.find("#ping-host").get_property("value"), "router.lan")
        self.assertEqual(self.browser.find("#ping-timeout").get_property("value"), "7")
        self.browser.until_text("[data-part=incomplete]", "begin with the next ping")

    def test_the_result_is_copied_as_text(self):
        self.browser.driver.execute_cdp_cmd(
            "Browser.grantPermissions", {"permissions": ["clipboardReadWrite", "clipboardSanitizedWrite"]})
        self.open()
        self.start_ping("router.lan", "1.000", "lost", "2.000", count="3")
        self.until_field("run-state", "Finished")
        self.browser.press_tab_until("[data-action=copy]")
        self.browser.press(Keys.ENTER)
        self.browser.until_text("[data-action=copy]", "Copied")
        copied = self.browser.driver.execute_async_script("navigator.clipboard.readText().then(arguments[0])")
        self.assertEqual(copied, "Ping of router.lan\n3 sent, 2 received, 33.3 % lost\n"
                         "fastest 1.000 ms, mean 1.500 ms, slowest 2.000 ms, jitter 1.000 ms\n\n"
                         "1\t1.000 ms\n2\tlost\n3\t2.000 ms")


class TracerouteTest(NetworkToolsTestCase):
    def test_rows_grow_while_the_command_runs(self):
        self.open("traceroute")
        self.start_traceroute("far.example", "traceroute to far.example (10.9.9.9), 30 hops max, 46 byte packets",
                              " 1  10.0.0.1  0.512 ms  0.404 ms  0.398 ms")
        self.until_rows("1 10.0.0.1 0.512 ms 0.404 ms 0.398 ms")
        self.commands.trace("far.example", " 2  *  *  *")
        self.until_rows("1 10.0.0.1 0.512 ms 0.404 ms 0.398 ms", "2 no reply * * *")
        self.commands.trace("far.example", " 3  core (10.1.0.1)  8.201 ms !H  other (10.1.0.2)  8.940 ms  *", "end")
        self.until_rows("1 10.0.0.1 0.512 ms 0.404 ms 0.398 ms", "2 no reply * * *",
                        "3 core 10.1.0.1 other 10.1.0.2 8.201 ms !H 8.940 ms *")
        self.until_field("run-state", "Ended")
        self.assertEqual(self.browser.text("[data-field=notes]"), "*: no reply, !H: host unreachable")
        self.assertFalse(self.browser.shows("[data-part=messages]"))
        self.browser.press_tab_until(".raw-text summary")
        self.browser.press(Keys.ENTER)
        self.browser.until_text(".raw-text pre", " 2  *  *  *\n 3  core (10.1.0.1)  8.201 ms !H")

    def test_a_traceroute_is_stopped_by_keyboard_and_copied(self):
        browser = self.browser
        browser.driver.execute_cdp_cmd(
            "Browser.grantPermissions", {"permissions": ["clipboardReadWrite", "clipboardSanitizedWrite"]})
        self.open("traceroute")
        self.start_traceroute("far.example", " 1  10.0.0.1  0.512 ms")
        self.until_rows("1 10.0.0.1 0.512 ms")
        browser.press_tab_until("[data-action=stop]")
        browser.press(Keys.ENTER)
        self.until_field("run-state", "Ended")
        self.assertEqual(self.focused(), "Start")
        browser.press_tab_until("[data-action=copy]")
        browser.press(Keys.ENTER)
        browser.until_text("[data-action=copy]", "Copied")
        copied = browser.driver.execute_async_script("navigator.clipboard.readText().then(arguments[0])")
        self.assertEqual(copied, " 1  10.0.0.1  0.512 ms\n")

    def test_what_the_command_reports_is_shown_as_text(self):
        self.open("traceroute")
        self.start_traceroute("far.example", "traceroute: <b>bad</b> address", "end")
        self.browser.until_text("[data-part=messages]", "traceroute: <b>bad</b> address")
        self.assertFalse(self.browser.shows(".hops"))

    def test_a_command_without_any_text_is_reported(self):
        self.open("traceroute")
        self.start_traceroute("far.example", "end")
        self.browser.until_text("[data-part=silent]", "The traceroute command has ended without any text.")

    def test_text_too_long_for_an_event_is_read(self):
        self.open("traceroute")
        self.start_traceroute("far.example", "x" * 20000, " 1  10.0.0.1  0.512 ms", "end")
        self.until_rows("1 10.0.0.1 0.512 ms")
        self.until_field("run-state", "Ended")
        self.assertEqual(len(self.field("text")), 20001 + len(" 1  10.0.0.1  0.512 ms\n"))

    def test_a_run_is_found_again_after_a_reload(self):
        self.open("traceroute")
        self.browser.find("[name=names]").click()
        self.start_traceroute("far.example", " 1  10.0.0.1  0.512 ms")
        self.until_rows("1 10.0.0.1 0.512 ms")
        self.browser.driver.refresh()
        self.until_rows("1 10.0.0.1 0.512 ms")
        self.assertEqual(self.field("run-state"), "Running")
        self.assertTrue(self.browser.find("[name=names]").get_property("checked"))
        self.commands.trace("far.example", " 2  *", "end")
        self.until_rows("1 10.0.0.1 0.512 ms", "2 no reply *")
        self.until_field("run-state", "Ended")


class ReadTracerouteTest(NetworkToolsTestCase):
    """The reader of the command's text alone."""

    def read(self, *texts):
        """For each text its hops, as [number, routers, probes], and its other lines."""
        self.browser.open(self.demo.address)
        return self.browser.driver.execute_async_script("""
            import("/scripts/traceroute-text.js").then(({ readTraceroute }) => arguments[1](arguments[0].map((text) => {
              const { hops, messages } = readTraceroute(text);
              return [hops.map(({ number, routers, probes }) => [number,
                routers.map(({ name, address }) => `${name}/${address}`),
                probes.map(({ time, note, router }) => `${time}${note}@${router}`)]), messages];
            })))""", texts)

    def test_the_outputs_of_several_commands_are_read(self):
        cases = {
            "traceroute to a (10.0.0.9), 30 hops max, 46 byte packets\n 1  10.0.0.1  0.512 ms  *  0.398 ms\n":
                ([[1, ["/10.0.0.1"], ["0.512@0", "null@-1", "0.398@0"]]], []),
            " 9  gw (10.0.0.1)  0.5 ms !H  1 ms !<13>  2.25 ms !X\n10  *  *  *\n":
                ([[9, ["gw/10.0.0.1"], ["0.5!H@0", "1!<13>@0", "2.25!X@0"]], [10, [], ["null@-1"] * 3]], []),
            " 1  a (10.0.0.1)  1 ms b (10.0.0.2)  2 ms  3 ms\n":
                ([[1, ["a/10.0.0.1", "b/10.0.0.2"], ["1@0", "2@1", "3@1"]]], []),
            # A further line for another router of the same hop.
            " 1  a (10.0.0.1)  1 ms\n    b (10.0.0.2)  2 ms\n":
                ([[1, ["a/10.0.0.1", "b/10.0.0.2"], ["1@0", "2@1"]]], []),
            # The time to live of the reply, and the number of the network.
            " 1  10.0.0.1 (64)  1 ms\n 2  fe80::1 [AS64500]  2 ms\n":
                ([[1, ["/10.0.0.1"], ["1@0"]], [2, ["/fe80::1"], ["2@0"]]], []),
            "traceroute: bad address 'x'\r\nsecond line": ([], ["traceroute: bad address 'x'", "second line"]),
            "": ([], []),
            " 1": ([[1, [], []]], []),
            " 1  10.0.0.1  0.5": ([[1, ["/10.0.0.1"], []]], []),
            " 1  10.0.0.1  0.512 m": ([[1, ["/10.0.0.1"], []]], []),
        }
        for (text, expected), (hops, messages) in zip(cases.items(), self.read(*cases)):
            with self.subTest(text=text):
                self.assertEqual((hops, messages), expected)

    def test_no_part_of_a_text_has_a_host_that_is_a_number(self):
        text = " 1  gw (10.0.0.1)  12.512 ms  0.404 ms !H  *\n"
        for hops, _ in self.read(*(text[:length] for length in range(len(text)))):
            for _, routers, _ in hops:
                self.assertNotRegex(" ".join(routers), r"^\d+(\.\d*)?/")


class SessionsTest(NetworkToolsTestCase):
    def test_a_second_session_sees_only_its_own_ping(self):
        self.open()
        self.start_ping("one.lan", "0.100")
        self.until_point("Ping 1: 0.100 ms")
        first = {"Cookie": self.cookies()}
        self.browser.reset(self.demo.address)
        self.open()
        self.browser.until_text("[data-part=none]", "The device has no ping of this session.")
        self.start_ping("two.lan", "0.200", count="2")
        self.until_field("run-state", "Finished")
        self.assertEqual(self.points(), ["Ping 1: 0.200 ms", "Ping 2: 0.200 ms"])
        with Client(self.demo.address).post("/api/logout", {}, first):
            pass

    def test_two_pages_of_a_session_show_the_same_ping(self):
        browser = self.browser
        self.open()
        first = browser.driver.current_window_handle
        browser.driver.switch_to.new_window("tab")
        second = browser.driver.current_window_handle
        try:
            self.open()
            self.start_ping("one.lan", "0.100")
            self.until_point("Ping 1: 0.100 ms")
            # The first page gets the events again when the user comes back to it.
            browser.driver.switch_to.window(first)
            self.until_field("title", "one.lan")
            shown = int(self.field("sent"))
            browser.until(lambda: int(self.field("sent")) > shown, "news")
            browser.press_tab_until("[data-action=stop]")
            browser.press(Keys.ENTER)
            self.until_field("run-state", "Stopped")
            browser.driver.switch_to.window(second)
            self.until_field("run-state", "Stopped")
        finally:
            browser.driver.switch_to.window(second)
            browser.driver.close()
            browser.driver.switch_to.window(first)

    def test_a_page_whose_stream_another_one_has_taken_polls(self):
        self.browser.set_faster_timers(4)
        self.open()
        self.start_ping("one.lan", "0.100", count="5")
        self.until_point("Ping 1: 0.100 ms")
        request = urllib.request.Request(self.demo.address + "/api/stream", headers={"Cookie": self.cookies()})
        with Client(self.demo.address).opener.open(request, timeout=SECONDS_TO_WAIT) as stream:
            self.assertEqual(stream.readline(), b"retry: 2000\n")
            self.until_field("run-state", "Finished")
        self.assertEqual(self.field("sent"), "5")
        self.assertIn(PING, "".join(self.requests()))

    def test_a_ping_that_another_page_has_started_is_shown_instead_of_starting_a_second_one(self):
        self.block_stream()
        self.open()
        self.commands.reply("one.lan", "0.100")
        Client(self.demo.address).post(PING, {"host": "one.lan"}, {"Cookie": self.cookies()}).close()
        self.start_ping("two.lan", "0.200")
        self.browser.until_text("#ping-message", "A ping was running already, started by another page of this session.")
        self.until_field("title", "one.lan")
        self.assertEqual(self.browser.find("#ping-host").get_property("value"), "one.lan")

    def test_a_device_with_too_many_runs_refuses_a_further_one(self):
        clients = [Client(self.demo.address) for _ in range(32)]
        self.commands.reply("other.lan", "0.100")
        for client in clients:
            client.post("/api/login", {"user": "demo", "password": "demo"}).close()
            self.addCleanup(lambda client=client: client.post("/api/logout", {}).close())
            client.post(PING, {"host": "other.lan", "count": 1}).close()
        self.open()
        self.start_ping("one.lan", "0.100")
        self.browser.until_text("#ping-message", "the device has no room for a further ping")
        self.assertFalse(self.browser.shows("#banner"))

    def test_a_session_that_ends_leads_to_the_login(self):
        self.open()
        self.start_ping("one.lan", "0.100")
        self.until_point("Ping 1: 0.100 ms")
        self.end_session()
        self.browser.until_text(".login [role=alert]", "Your session has ended. Please sign in again.")


class ConnectionTest(NetworkToolsTestCase):
    def test_nothing_is_requested_while_events_come(self):
        self.browser.set_faster_timers(10, longest=30)
        self.open()
        self.start_ping("router.lan", "0.100")
        self.until_point("Ping 1: 0.100 ms")
        # Each second of the ping is ten of the page's.
        self.requests()
        self.until_point("Ping 6: 0.100 ms")
        self.assertEqual(self.requests(), [])

    def test_the_page_polls_where_there_is_no_stream(self):
        self.block_stream()
        self.browser.set_faster_timers(8)
        self.open()
        self.start_ping("router.lan", "0.100", count="4")
        self.until_field("run-state", "Finished")
        self.assertEqual(self.field("sent"), "4")
        self.browser.run("location.hash = '#traceroute'")
        self.browser.until_shown("#traceroute-host")
        self.start_traceroute("far.example", " 1  10.0.0.1  0.512 ms")
        self.until_rows("1 10.0.0.1 0.512 ms")
        self.commands.trace("far.example", " 2  *", "end")
        self.until_rows("1 10.0.0.1 0.512 ms", "2 no reply *")

    def test_a_lost_connection_is_shown_and_mended_without_a_gap(self):
        relay = Relay(self.demo.port)
        self.addCleanup(relay.cut)
        self.open(address=f"http://127.0.0.1:{relay.port}")
        self.start_ping("router.lan", "0.100")
        self.until_point("Ping 1: 0.100 ms")
        relay.cut()
        self.browser.until_text("#banner", "The device cannot be reached")
        known = len(self.points())
        relay.mend()
        self.browser.until(lambda: not self.browser.shows("#banner"), "the end of the banner")
        self.until_point(f"Ping {known + 3}: 0.100 ms")
        points = self.points()
        self.assertEqual(points, [f"Ping {number}: 0.100 ms" for number in range(1, len(points) + 1)])

    def test_a_device_that_falls_silent_is_noticed(self):
        self.browser.set_faster_timers(10, longest=60)
        self.open()
        device = self.demo.process("device")
        self.addCleanup(os.kill, device, signal.SIGCONT)
        os.kill(device, signal.SIGSTOP)
        self.browser.until_text("#banner", "The device cannot be reached")
        os.kill(device, signal.SIGCONT)
        self.browser.until(lambda: not self.browser.shows("#banner"), "the end of the banner")
        self.start_ping("router.lan", "0.100")
        self.until_point("Ping 2: 0.100 ms")


class RestartTest(NetworkToolsTestCase):
    @classmethod
    def make_demo(cls):
        return cls.make_own_demo(commands=cls.commands.path)

    def test_a_device_that_has_ended_is_reported_and_so_is_its_return(self):
        browser = self.browser
        browser.set_faster_timers(5)
        self.open()
        self.start_ping("router.lan", "0.100")
        self.until_point("Ping 1: 0.100 ms")
        os.kill(self.demo.process("device"), signal.SIGKILL)
        browser.until_text("#banner", "The device cannot be reached")
        self.assertTrue(browser.shows(".chart"))
        self.demo.restart()
        browser.until_text(".login [role=alert]", "Your session has ended.")
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")


class BusyBoxTest(PageTestCase):
    @classmethod
    def make_demo(cls):
        return cls.make_own_demo()

    def test_the_device_pings_itself_or_reports_that_this_fails(self):
        browser = self.browser
        browser.open(self.demo.address + "/#ping")
        browser.log_in()
        browser.until_shown("#ping-host")
        browser.press_tab_until("#ping-host")
        browser.press("127.0.0.1", Keys.TAB, Keys.CONTROL + "a", "2", Keys.ENTER)
        browser.until_text(".run-state", "Finished")
        if browser.text("[data-field=received]") == "0":
            self.assertNotEqual(os.getuid(), 0)
            browser.until_shown("[data-part=failing]")
        else:
            self.assertRegex(browser.text("[data-field=last]"), r"^\d+\.\d+ ms, TTL 64$")


class LayoutTest(NetworkToolsTestCase):
    def assert_fits(self):
        for width, height in ((320, 568), (375, 740), (768, 1024), (1280, 800)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.assertEqual(self.browser.run("return window.innerWidth"), width)
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)
        self.browser.resize(1280, 800)

    def test_small_screens_need_no_horizontal_scrolling(self):
        host = "x" * 60 + "." + "y" * 60 + ".example"
        self.open()
        self.start_ping(host, "1234.567", "lost", "untimed", count="3")
        self.until_field("run-state", "Finished")
        self.browser.find(".point-list summary").click()
        self.assert_fits()
        self.browser.run("location.hash = '#traceroute'")
        self.browser.until_shown("#traceroute-host")
        self.start_traceroute(host, f" 1  {host} (10.0.0.1)  1234.512 ms !H  3404.234 ms !H  3398.123 ms !H", "end")
        self.until_field("run-state", "Ended")
        self.browser.find(".raw-text summary").click()
        self.assert_fits()

    def test_the_security_policy_is_not_violated(self):
        self.open()
        self.start_ping("router.lan", "0.100", "lost", count="2")
        self.until_field("run-state", "Finished")
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        # Without a session, and without a run.
        expected = ("status of 401 (Unauthorized)", "section=state - Failed to load resource: the server responded with a "
                    "status of 404 (Not Found)")
        self.assertEqual([message for message in messages if not message.endswith(expected)], [])


def write_screenshot(path):
    demo = Demo()
    commands = ScriptedCommands()
    browser = Browser()
    try:
        demo.commands = commands.path
        demo.start()
        browser.open(demo.address + "/#ping")
        browser.log_in()
        browser.until_shown("#ping-host")
        commands.reply("router.lan", *"0.412 0.398 0.455 0.401 lost 0.433 1.210 0.420 0.390 0.402 0.417 0.444".split())
        browser.press_tab_until("#ping-host")
        browser.press("router.lan", Keys.ENTER)
        browser.until(lambda: browser.text("[data-field=sent]") == "12", "the pings")
        browser.screenshot(path)
    finally:
        browser.quit()
        demo.remove()
        commands.remove()


if __name__ == "__main__":
    if sys.argv[1:2] == ["--screenshot"]:
        write_screenshot(sys.argv[2])
    else:
        unittest.main(verbosity=2)
