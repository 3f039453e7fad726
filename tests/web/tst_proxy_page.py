#!/usr/bin/python3
"""Drives the proxy settings on the page of the demo device in a real browser."""

import json
import os
import shutil
import unittest
import urllib.error
import urllib.request

from browser import PageTestCase
from demo_device import SECONDS_TO_WAIT, Client
from selenium.webdriver.common.keys import Keys

DEFAULTS = {"enabled": False, "http": {"host": "0.0.0.0", "port": 1080}, "exceptions": ["127.0.0.1", "localhost"],
            "proxyDns": False}
SETTINGS = {"enabled": True, "http": {"host": "web.example", "port": 3128, "username": "device", "password": "p%20'\u00e9"},
            "exceptions": ["192.168.0.0/16"], "proxyDns": False}
SAVE = "[data-action=save]"
DISCARD = "[data-action=discard]"
STATUS = "[data-field=proxy-status]"


class DeviceClient(Client):
    """Another client, with a session of its own."""

    def __init__(self, address):
        super().__init__(address)
        self.post("/api/login", {"user": "demo", "password": "demo"}).close()

    def settings(self):
        with self.get("/api/proxy") as response:
            return json.load(response)

    def change(self, settings):
        request = urllib.request.Request(
            self.address + "/api/proxy", json.dumps(settings).encode(), {"Content-Type": "application/json"}, method="PUT")
        self.opener.open(request, timeout=SECONDS_TO_WAIT).close()

    def choice(self, host):
        with self.get(f"/api/proxy-choice?address={host}:25") as response:
            return json.load(response)


class ProxyTestCase(PageTestCase):
    settings_before = DEFAULTS

    def setUp(self):
        super().setUp()
        self.client = DeviceClient(self.demo.address)
        self.client.change(self.settings_before)
        self.browser.open(self.demo.address + "/#proxy")
        self.browser.log_in()
        self.browser.until_shown(".proxy")
        self.addCleanup(self.forget_changes)

    def forget_changes(self):
        """The browser would ask whether to leave the page with changes that have not been saved."""
        if self.browser.shows(DISCARD):
            self.browser.run("document.querySelector(arguments[0]).click()", DISCARD)

    def field(self, server, name):
        return f"#proxy-{server}-{name}"

    def value(self, selector):
        return self.browser.find(selector).get_property("value")

    def type(self, selector, text):
        """Replaces the text of a field by keyboard."""
        field = self.browser.find(selector)
        field.send_keys(Keys.CONTROL, "a")
        field.send_keys(Keys.BACKSPACE, text)

    def message(self, selector):
        """The message beside a field that it is marked with; None while the field is valid."""
        return self.browser.run("""
            const field = document.querySelector(arguments[0]);
            const ids = field.getAttribute("aria-describedby").split(" ");
            const message = ids.map((id) => document.getElementById(id)).find((node) => node.className === "field-message");
            return field.getAttribute("aria-invalid") === "true" ? message.innerText : null;""", selector)

    def focused(self):
        return "#" + self.browser.run("return document.activeElement.id")

    def press_on(self, selector, key=Keys.ENTER):
        self.browser.find(selector).send_keys(key)

    def save(self):
        self.press_on(SAVE)

    def until_saved(self):
        self.browser.until(lambda: self.browser.text(STATUS) == "Saved.", "the settings to be saved")

    def add_exception(self, text):
        self.type("#proxy-exception", text)
        self.browser.press(Keys.ENTER)

    def exceptions(self):
        """The texts of the list with their explanations."""
        return self.browser.run("""
            return Array.from(document.querySelectorAll(".exception-list li"),
              (item) => [item.querySelector("code").innerText, item.querySelector("p").innerText])""")

    def ask(self, address):
        self.type("#proxy-address", address)
        self.browser.press(Keys.ENTER)

    def until_answer(self, text):
        self.browser.until(lambda: self.browser.text(".proxy-answer") == text, text)

    def go_to(self, view, shown):
        self.browser.find(f'#views a[href="#{view}"]').click()
        self.browser.until_shown(shown)

    def put_requests(self):
        return [event for event in self.browser.network_events("requestWillBeSent")
                if event["request"]["method"] == "PUT"]


class SettingsTest(ProxyTestCase):
    def test_settings_are_filled_in_and_saved_by_keyboard(self):
        browser = self.browser
        browser.press_tab_until("[name=enabled]")
        browser.press(Keys.SPACE)
        browser.press_tab_until(self.field("http", "host"))
        browser.press("web.example", Keys.TAB, "3128", Keys.TAB, Keys.ENTER, Keys.TAB, "device", Keys.TAB, "secret")
        browser.press_tab_until(self.field("ssl", "host"))
        browser.press("10.0.0.20", Keys.TAB, "3129")
        browser.press_tab_until(self.field("socks5", "host"))
        browser.press("socks.example.", Keys.TAB, "1081")
        browser.press_tab_until("[name=proxyDns]")
        browser.press(Keys.SPACE)
        browser.press_tab_until(".exception-list li:nth-child(2) button")
        browser.press(Keys.ENTER)
        browser.press_tab_until("#proxy-exception")
        browser.press("local", Keys.ENTER)
        self.assertEqual(browser.text(STATUS), "Not saved yet.")
        browser.press_tab_until(SAVE)
        browser.press(Keys.ENTER)
        self.until_saved()
        self.assertFalse(browser.shows(DISCARD))
        self.assertEqual(self.client.settings(), {
            "enabled": True, "http": {"host": "web.example", "port": 3128, "username": "device", "password": "secret"},
            "ssl": {"host": "10.0.0.20", "port": 3129}, "socks5": {"host": "socks.example.", "port": 1081},
            "exceptions": ["127.0.0.1", "local"], "proxyDns": True})

    def test_the_enter_key_saves_from_the_fields_of_a_server(self):
        self.type(self.field("ftp", "host"), "files.example")
        self.type(self.field("ftp", "port"), "21")
        self.browser.press(Keys.ENTER)
        self.until_saved()
        self.assertEqual(self.client.settings()["ftp"], {"host": "files.example", "port": 21})

    def test_unchanged_settings_show_no_messages(self):
        browser = self.browser
        self.assertEqual(browser.text(STATUS), "")
        self.assertFalse(browser.shows(DISCARD))
        self.assertEqual(browser.find_all(".proxy [aria-invalid=true]"), [])
        self.assertIn("no server has been set", browser.text("#proxy-http-host-note"))
        self.assertEqual(browser.text("#proxy-ftp-host-note"), "Empty: the HTTP server is used.")

    def test_hosts_are_checked_while_one_types(self):
        field = self.field("http", "host")
        for text, words in (
                ("", "There must be an HTTP server"), ("a_b", "no “_”"), ("http://a", "Only the host belongs here"),
                ("a:80", "The port has a field of its own"), ("::1", "IPv6"), ("1.2.3.256", "four numbers from 0 to 255"),
                ("1.2.3.4.5", "four numbers"), ("-a", "hyphen"), ("a-", "hyphen"), ("a-.b", "hyphen"), ("a..b", "1 to 63"),
                (".a", "1 to 63"), ("a" * 64, "1 to 63"), ("\u00e4", "no “\u00e4”"), ("a b", "no blanks"),
                ("a." * 126 + "a", "fewer than 253"), (".", "1 to 63")):
            with self.subTest(text=text):
                self.type(field, text)
                self.assertIn(words, self.message(field))
        for text in ("a", "a.", "1", "a-b.c", "1.2.3.4", "001.2.3.4", "a" * 63, "a." * 125 + "a", " web.example "):
            with self.subTest(text=text):
                self.type(field, text)
                self.assertIsNone(self.message(field))

    def test_what_the_page_accepts_as_a_host_the_device_accepts_as_well(self):
        field = self.field("http", "host")
        for host in ("a_b", "1.2.3.256", "1.2.3.4.5", "-a", "a-", "a..b", "a" * 64, "a" * 63, "a-b.c", "a.", "1.2.3.4",
                     "a." * 125 + "a", "a." * 126 + "a"):
            with self.subTest(host=host):
                self.type(field, host)
                accepted = True
                try:
                    self.client.change({**SETTINGS, "http": {"host": host, "port": 1}})
                except urllib.error.HTTPError as error:
                    error.close()
                    self.assertEqual(error.code, 400)
                    accepted = False
                self.assertEqual(self.message(field) is None, accepted)

    def test_ports_are_checked_while_one_types(self):
        field = self.field("http", "port")
        self.type(self.field("http", "host"), "a")
        self.type(field, "")
        self.assertEqual(self.message(field), "Give the port.")
        for text in ("0", "65536", "-1", "1.5", "80x", "0x50", "1e3"):
            self.type(field, text)
            self.assertEqual(self.message(field), "A port is a number from 1 to 65535.", text)
        for text in ("1", "65535", "0080"):
            self.type(field, text)
            self.assertIsNone(self.message(field), text)

    def test_other_servers_may_be_empty_but_not_in_part(self):
        browser = self.browser
        self.type(self.field("ftp", "port"), "21")
        self.assertIn("clear the other fields", self.message(self.field("ftp", "host")))
        self.assertFalse(browser.shows("#proxy-ftp-host-note [data-part=http-instead]"))
        self.type(self.field("ftp", "host"), "files.example")
        self.assertIsNone(self.message(self.field("ftp", "host")))
        self.type(self.field("ftp", "port"), "")
        self.assertEqual(self.message(self.field("ftp", "port")), "Give the port.")
        self.type(self.field("ftp", "host"), "")
        self.assertIsNone(self.message(self.field("ftp", "port")))
        self.assertTrue(browser.shows("#proxy-ftp-host-note [data-part=http-instead]"))

    def test_invalid_settings_are_not_sent_and_the_first_fault_gets_the_focus(self):
        list(self.browser.network_events("requestWillBeSent"))
        self.type(self.field("ssl", "host"), "a_b")
        self.type(self.field("http", "port"), "0")
        self.save()
        self.assertEqual(self.focused(), self.field("http", "port"))
        self.assertIn("not valid", self.browser.text(STATUS))
        self.type(self.field("http", "port"), "1")
        self.save()
        self.assertEqual(self.focused(), self.field("ssl", "host"))
        self.type(self.field("ssl", "host"), "")
        self.type("#proxy-exception", "lan")
        self.save()
        self.assertEqual(self.focused(), "#proxy-exception")
        self.assertIn("not in the list yet", self.message("#proxy-exception"))
        self.assertEqual(self.put_requests(), [])
        self.assertEqual(self.client.settings(), DEFAULTS)

    def test_a_fault_in_a_closed_part_opens_it(self):
        opener = ".proxy-servers form:nth-child(2) summary"
        self.type(self.field("ssl", "host"), "a")
        self.type(self.field("ssl", "port"), "1")
        self.press_on(opener)
        self.type(self.field("ssl", "username"), "\u20ac")
        self.press_on(opener)
        self.assertFalse(self.browser.run("return document.querySelector('.proxy-servers form:nth-child(2) details').open"))
        self.save()
        self.assertEqual(self.focused(), self.field("ssl", "username"))
        self.assertTrue(self.browser.run("return document.querySelector('.proxy-servers form:nth-child(2) details').open"))
        self.assertIn("cannot store “\u20ac”", self.message(self.field("ssl", "username")))


class SavedSettingsTest(ProxyTestCase):
    settings_before = SETTINGS

    def test_passwords_are_hidden_until_asked_for_and_sent_back_as_they_were(self):
        browser = self.browser
        password = self.field("http", "password")
        self.assertEqual(browser.find(password).get_attribute("type"), "password")
        self.assertEqual(browser.text(".proxy-server [data-field=credentials]"), "device")
        browser.find(".proxy-server summary").click()
        reveal = ".proxy-server [data-action=reveal]"
        self.press_on(reveal)
        self.assertEqual(browser.find(password).get_attribute("type"), "text")
        self.assertEqual(browser.find(reveal).get_attribute("aria-pressed"), "true")
        self.press_on(reveal)
        self.assertEqual(browser.find(password).get_attribute("type"), "password")
        self.type(self.field("http", "port"), "3129")
        self.save()
        self.until_saved()
        self.assertEqual(self.client.settings(), {**SETTINGS, "http": {**SETTINGS["http"], "port": 3129}})

    def test_cleared_credentials_are_removed(self):
        self.browser.find(".proxy-server summary").click()
        self.type(self.field("http", "username"), "")
        self.type(self.field("http", "password"), "")
        self.assertEqual(self.browser.text(".proxy-server [data-field=credentials]"), "none")
        self.save()
        self.until_saved()
        self.assertEqual(self.client.settings()["http"], {"host": "web.example", "port": 3128})

    def test_discarded_changes_leave_everything_as_it_was(self):
        self.type(self.field("http", "host"), "a_b")
        self.add_exception("local")
        self.press_on(DISCARD)
        self.assertEqual(self.value(self.field("http", "host")), "web.example")
        self.assertIsNone(self.message(self.field("http", "host")))
        self.assertEqual([text for text, _ in self.exceptions()], ["192.168.0.0/16"])
        self.assertFalse(self.browser.shows(DISCARD))
        self.assertTrue(self.browser.run("return document.activeElement.matches(arguments[0])", SAVE))
        self.assertEqual(self.client.settings(), SETTINGS)

    def test_a_change_taken_back_is_none(self):
        self.type(self.field("http", "port"), "1")
        self.assertTrue(self.browser.shows(DISCARD))
        self.type(self.field("http", "port"), "3128")
        self.assertFalse(self.browser.shows(DISCARD))
        self.assertEqual(self.browser.text(STATUS), "")

    def test_unsaved_changes_are_kept_when_the_view_changes(self):
        browser = self.browser
        self.type(self.field("ssl", "host"), "a_b")
        self.add_exception("local")
        self.type("#proxy-exception", "half an ex")
        self.go_to("timetable", ".timetable")
        self.go_to("proxy", ".proxy")
        self.assertEqual(browser.text(STATUS), "These changes have not been saved yet.")
        self.assertEqual(self.value(self.field("ssl", "host")), "a_b")
        self.assertEqual([text for text, _ in self.exceptions()], ["192.168.0.0/16", "local"])
        self.assertEqual(self.value("#proxy-exception"), "half an ex")
        # Another session changes the settings in the meantime.
        self.go_to("timetable", ".timetable")
        self.client.change({**SETTINGS, "enabled": False})
        self.go_to("proxy", ".proxy")
        browser.until_text(STATUS, "The device’s settings have changed since")
        self.press_on(DISCARD)
        self.assertFalse(browser.find("[name=enabled]").is_selected())
        self.go_to("timetable", ".timetable")
        self.go_to("proxy", ".proxy")
        self.assertEqual(browser.text(STATUS), "")

    def test_the_browser_asks_before_it_leaves_the_page_with_unsaved_changes(self):
        def asks():
            return self.browser.run("return !dispatchEvent(new Event('beforeunload', { cancelable: true }))")
        self.assertFalse(asks())
        self.type(self.field("http", "host"), "mine.example")
        self.assertTrue(asks())
        self.go_to("timetable", ".timetable")
        self.assertTrue(asks())
        self.go_to("proxy", ".proxy")
        self.save()
        self.until_saved()
        self.assertFalse(asks())
        self.type(self.field("http", "host"), "other.example")
        self.press_on(DISCARD)
        self.assertFalse(asks())

    def test_unsaved_changes_end_with_the_session(self):
        browser = self.browser
        for end in ("a logout", "the device"):
            with self.subTest(ended_by=end):
                self.type(self.field("http", "host"), "mine.example")
                if end == "a logout":
                    browser.find("#logout").click()
                else:
                    # As by another page of the browser; the next request learns of it.
                    browser.driver.execute_async_script("""
                        const done = arguments[0];
                        fetch("/api/logout", { method: "POST", headers: { "Content-Type": "application/json" }, body: "{}" })
                          .then(done, done);""")
                    self.save()
                browser.until_shown("form.login")
                browser.log_in()
                browser.until_shown(".proxy")
                self.assertEqual(self.value(self.field("http", "host")), "web.example")
                self.assertEqual(browser.text(STATUS), "")

    def test_what_cannot_be_stored_is_reported_and_can_be_tried_again(self):
        browser = self.browser
        blocker = os.path.join(self.demo.run_directory(), "configuration", ".proxy.uci-new")
        os.mkdir(blocker)
        self.addCleanup(shutil.rmtree, blocker, ignore_errors=True)
        self.type(self.field("http", "host"), "other.example")
        self.save()
        browser.until_text("#proxy-message", "could not be stored")
        self.assertFalse(browser.shows("#banner"))
        self.assertEqual(self.value(self.field("http", "host")), "other.example")
        self.assertEqual(self.client.settings(), SETTINGS)
        os.rmdir(blocker)
        self.save()
        self.until_saved()
        self.assertFalse(browser.shows("#proxy-message"))
        self.assertEqual(self.client.settings()["http"]["host"], "other.example")

    def test_what_the_device_refuses_is_reported(self):
        browser = self.browser
        # The first request reaches the device with a port that the page does not send. The second answer does not come
        # from the demo device, where every session may change everything.
        for answer, words in (("originalFetch(path, { ...options, body: options.body.replace('3128', '0') })",
                               "The device refuses these settings"),
                              ("Promise.resolve(new Response('', { status: 403 }))",
                               "You are not allowed to change the proxy settings.")):
            with self.subTest(words=words):
                browser.run("""
                    window.originalFetch ??= window.fetch;
                    window.fetch = (path, options) => (options.method === "PUT" ? %s : originalFetch(path, options));"""
                            % answer)
                self.type(self.field("ssl", "host"), "tls.example")
                self.type(self.field("ssl", "port"), "1")
                self.save()
                browser.until_text("#proxy-message", words)
                self.assertFalse(browser.shows("#banner"))
                self.assertEqual(self.value(self.field("ssl", "host")), "tls.example")
        self.assertEqual(self.client.settings(), SETTINGS)

    def test_a_lost_device_leaves_the_changes_in_the_form(self):
        browser = self.browser
        self.type(self.field("http", "host"), "other.example")
        browser.driver.execute_cdp_cmd("Network.emulateNetworkConditions", {
            "offline": True, "latency": 0, "downloadThroughput": -1, "uploadThroughput": -1})
        self.addCleanup(browser.limit_network)
        self.save()
        browser.until_text("#banner", "The device cannot be reached")
        self.assertEqual(self.value(self.field("http", "host")), "other.example")
        browser.limit_network()
        self.save()
        self.until_saved()
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")

    def test_each_session_sees_what_the_other_one_has_saved(self):
        self.client.change({**SETTINGS, "http": {"host": "other.example", "port": 1}})
        self.go_to("timetable", ".timetable")
        self.go_to("proxy", ".proxy")
        self.assertEqual(self.value(self.field("http", "host")), "other.example")
        self.type(self.field("http", "host"), "mine.example")
        self.save()
        self.until_saved()
        self.assertEqual(self.client.settings()["http"], {"host": "mine.example", "port": 1})


class ExceptionsTest(ProxyTestCase):
    settings_before = {**SETTINGS, "exceptions": []}

    def test_each_exception_says_what_the_device_does_with_it(self):
        # The exception, its explanation, hosts that it covers, and hosts that it does not cover.
        for exception, words, covered, others in (
                ("10.0.0.1", ["10.0.0.1 alone", "Not host names that resolve to it"], ["10.0.0.1"], ["10.0.0.2"]),
                ("010.0.0.1", ["10.0.0.1 alone"], ["10.0.0.1"], ["8.0.0.1"]),
                ("192.168.3.4/16", ["from 192.168.0.0 to 192.168.255.255", "Not host names"],
                 ["192.168.0.0", "192.168.255.255"], ["192.169.0.0", "192.167.255.255"]),
                ("10.0.0.0/255.255.255.248", ["from 10.0.0.0 to 10.0.0.7"], ["10.0.0.7"], ["10.0.0.8"]),
                ("10.0.0.9/32", ["10.0.0.9 alone"], ["10.0.0.9"], ["10.0.0.8"]),
                ("200.0.0.0/1", ["from 128.0.0.0 to 255.255.255.255"], ["128.0.0.0"], ["127.255.255.255"]),
                ("1.2.3.4/0", ["from 0.0.0.0 to 255.255.255.255"], ["9.9.9.9"], ["printer"]),
                ("10.0.0.0/255.0.255.0", ["Covers nothing", "holes"], [], ["10.0.0.0"]),
                ("local", ["without a dot", "“printer”", "IPv6", "Not “printer.lan”"], ["printer", "[2001:db8::1]"],
                 ["printer.lan", "10.0.0.1"]),
                ("plant.lan", ["“plant.lan”", "“cam.plant.lan”", "“badplant.lan”"],
                 ["plant.lan", "cam.plant.lan", "badplant.lan"], ["plant.lan.example", "10.0.0.1"]),
                (".plant.lan", ["“cam.plant.lan”", "Not “plant.lan” itself"], ["cam.plant.lan"],
                 ["plant.lan", "badplant.lan"]),
                ("Plant.lan", ["Covers nothing", "lower case", "“plant.lan”"], [], ["cam.Plant.lan", "cam.plant.lan"]),
                ("*.plant.lan", ["Covers nothing", "“.plant.lan”"], [], ["cam.plant.lan"]),
                ("10.0.0.0/33", ["Covers nothing", "no range"], [], ["10.0.0.0"]),
                ("a b", ["Covers nothing", "blank"], [], ["a", "b"])):
            with self.subTest(exception=exception):
                self.type("#proxy-exception", exception)
                typed = self.browser.text("#proxy-exception-explanation")
                for word in words:
                    self.assertIn(word, typed)
                self.client.change({**SETTINGS, "exceptions": [exception]})
                for host in covered:
                    self.assertEqual(self.client.choice(host)["exception"], exception, host)
                for host in others:
                    self.assertIsNone(self.client.choice(host)["exception"], host)
        self.type("#proxy-exception", "")
        self.assertEqual(self.browser.text("#proxy-exception-explanation"), "")

    def test_exceptions_are_added_and_removed_by_keyboard(self):
        browser = self.browser
        self.assertTrue(browser.shows("[data-part=no-exceptions]"))
        browser.press_tab_until("#proxy-exception")
        for text in ("10.0.0.0/8", "lan", "<b>&amp;"):
            browser.press(text, Keys.ENTER)
        self.assertEqual([text for text, _ in self.exceptions()], ["10.0.0.0/8", "lan", "<b>&amp;"])
        self.assertIn("from 10.0.0.0 to 10.255.255.255", self.exceptions()[0][1])
        self.assertFalse(browser.shows("[data-part=no-exceptions]"))
        self.assertEqual(self.focused(), "#proxy-exception")
        self.save()
        self.until_saved()
        self.assertEqual(self.client.settings()["exceptions"], ["10.0.0.0/8", "lan", "<b>&amp;"])
        self.press_on("#proxy-exception", Keys.SHIFT + Keys.TAB)
        for expected in (["10.0.0.0/8", "lan"], ["10.0.0.0/8"], []):
            # The focus moves to the button of the next exception, or the last one.
            browser.press(Keys.ENTER)
            self.assertEqual([text for text, _ in self.exceptions()], expected)
        self.assertEqual(self.focused(), "#proxy-exception")
        self.save()
        self.until_saved()
        self.assertEqual(self.client.settings()["exceptions"], [])

    def test_what_cannot_be_added_is_reported_at_the_field(self):
        self.add_exception("lan")
        self.type("#proxy-exception", "lan")
        self.assertEqual(self.message("#proxy-exception"), "“lan” is in the list already.")
        self.browser.press(Keys.ENTER)
        self.type("#proxy-exception", "\u20ac")
        self.assertIn("cannot store “\u20ac”", self.message("#proxy-exception"))
        self.browser.press(Keys.ENTER)
        self.assertEqual([text for text, _ in self.exceptions()], ["lan"])
        self.type("#proxy-exception", " ")
        self.assertIsNone(self.message("#proxy-exception"))
        self.browser.press(Keys.ENTER)
        self.assertEqual(self.message("#proxy-exception"), "Type an exception first.")


class QuestionTest(ProxyTestCase):
    settings_before = {**SETTINGS, "exceptions": ["192.168.0.0/16", "local"], "ssl": {"host": "10.0.0.20", "port": 3129}}

    def test_the_answer_names_the_way_and_the_rule(self):
        for address, answer in (
                ("http://192.168.3.4/", "Direct, because the exception 192.168.0.0/16 covers 192.168.3.4."),
                ("printer:9100", "Direct, because the exception local covers printer."),
                ("http://a.example", "Through web.example:3128, because this is the HTTP server."),
                ("https://a.example", "Through 10.0.0.20:3129, because this is the SSL server."),
                ("ftp://a.example", "Through web.example:3128, the HTTP server, because no FTP server is set."),
                ("a.example:25", "Through web.example:3128, the HTTP server, because no SOCKS5 server is set. "
                                 "It is used as a SOCKS5 server.")):
            with self.subTest(address=address):
                self.ask(address)
                self.until_answer(answer)

    def test_a_text_that_is_not_an_address_is_reported_at_the_field(self):
        browser = self.browser
        self.ask("http://a.example")
        self.until_answer("Through web.example:3128, because this is the HTTP server.")
        for address, words in (("", "not an address"), ("a b", "not an address"), ("cam.plant.lan", "http://cam.plant.lan/")):
            with self.subTest(address=address):
                self.ask(address)
                browser.until_text("#proxy-question-message", words)
                self.assertEqual(browser.find("#proxy-address").get_attribute("aria-invalid"), "true")
                self.assertEqual(browser.text(".proxy-answer"), "")

    def test_the_answer_follows_the_saved_settings_and_says_that_changes_do_not_count_yet(self):
        browser = self.browser
        note = ".proxy-question [data-part=unsaved]"
        self.ask("http://a.example")
        self.until_answer("Through web.example:3128, because this is the HTTP server.")
        self.assertFalse(browser.shows(note))
        self.add_exception("example")
        self.assertTrue(browser.shows(note))
        self.press_on("#proxy-address")
        self.until_answer("Through web.example:3128, because this is the HTTP server.")
        self.save()
        self.until_answer("Direct, because the exception example covers a.example.")
        self.assertFalse(browser.shows(note))
        browser.find("[name=enabled]").click()
        self.save()
        self.until_answer("Direct, because proxy servers are switched off.")


class LayoutTest(ProxyTestCase):
    settings_before = {**SETTINGS, "exceptions": ["x" * 300, "10.0.0.0/255.0.255.0"],
                       "http": {"host": "a." * 120 + "a", "port": 1}}

    def test_small_screens_need_no_scrolling_sideways(self):
        browser = self.browser
        self.type("#proxy-exception", "y" * 300)
        self.type(self.field("ssl", "host"), "_" * 100)
        self.ask("http://" + "z." * 100)
        browser.until_text(".proxy-answer", "Through")
        for width, height in ((320, 568), (360, 740), (768, 1024), (1280, 800)):
            with self.subTest(width=width):
                browser.resize(width, height)
                self.assertEqual(browser.run("return window.innerWidth"), width)
                self.assertLessEqual(browser.run("return document.documentElement.scrollWidth"), width)

    def test_every_field_has_a_name_and_ids_are_not_used_twice(self):
        self.assertEqual(self.browser.run("""
            return Array.from(document.querySelectorAll(".proxy input"))
              .filter((field) => field.labels.length !== 1 || field.labels[0].textContent.trim() === "")
              .map((field) => field.id)"""), [])
        ids = self.browser.run("return Array.from(document.querySelectorAll('[id]'), (node) => node.id)")
        self.assertEqual(len(ids), len(set(ids)))
        self.assertEqual([name for name in self.browser.run("""
            return Array.from(document.querySelectorAll("[aria-describedby]"))
              .flatMap((node) => node.getAttribute("aria-describedby").split(" "))""") if name not in ids], [])


if __name__ == "__main__":
    unittest.main()
