#!/usr/bin/python3
"""The packages on the page of the demo device, in a real browser: those that are installed on this machine."""

import json
import os
import signal
import sys
import tempfile
import unittest

from browser import Browser, PageTestCase
from demo_device import Client, output_of
from process_tree import descendants
from selenium.webdriver.common.keys import Keys


def packages_of(client):
    client.post("/api/login", {"user": "demo", "password": "demo"}).close()
    with client.get("/api/packages") as response:
        return json.load(response)


class PackagesPageTest(PageTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.packages = packages_of(Client(cls.demo.address))

    @classmethod
    def make_demo(cls):
        return cls.make_own_demo(packages=None)

    def open_packages(self, address="#packages"):
        self.browser.open(self.demo.address + "/" + address)
        self.browser.log_in()
        self.browser.until_shown(".packages")

    def shown_names(self):
        # Rows are added while the page is scrolled.
        self.browser.until(lambda: self.browser.run("""
            scrollTo(0, document.documentElement.scrollHeight);
            return document.querySelector("[data-action=more]").hidden"""), "the last rows")
        return self.browser.run("""
            return Array.from(document.querySelectorAll(".packages tbody tr:not([hidden]) .package-name"),
                              (button) => button.textContent)""")

    def search(self, text):
        self.browser.press_tab_until("#package-search")
        self.browser.press(text)

    def test_the_list_is_what_is_installed_on_this_machine(self):
        installed = output_of(["dpkg-query", "-W", "-f", "${db:Status-Status} ${Package} ${Version}\n"])
        words = [line.split() for line in installed.splitlines()]
        versions = {name: version for status, name, version in (each for each in words if len(each) == 3)
                    if status == "installed"}
        self.assertEqual(set(self.packages), set(versions))
        self.assertEqual(self.packages["dpkg"]["version"], versions["dpkg"])
        with open("/usr/share/doc/dpkg/copyright", encoding="utf-8") as file:
            lines = file.read().splitlines()
        shown = self.packages["dpkg"]["licenseFiles"]["copyright"].splitlines()
        self.assertEqual(len(shown), len(lines))
        # Latin-1 has no letter for some names.
        for line, shown_line in zip(lines, shown):
            if not any(letter > "\xff" for letter in line):
                self.assertEqual(shown_line, line)

    def test_every_package_is_a_row(self):
        self.open_packages()
        self.assertEqual(sorted(self.shown_names()), sorted(self.packages))
        self.assertEqual(self.browser.text(".package-count"), f"{len(self.packages)} packages")

    def test_search_finds_by_name_version_and_licence(self):
        self.open_packages()
        version = self.packages["dpkg"]["version"]
        for text, matches in {
            "dpkg": lambda name, package: "dpkg" in name or "dpkg" in package["version"]
                    or any("dpkg" in each.lower() for each in package["licenses"]),
            f"dpkg {version}": lambda name, package: "dpkg" in name and version in package["version"],
            "no such package": lambda name, package: False,
        }.items():
            with self.subTest(text):
                self.browser.press_tab_until("#package-search")
                self.browser.press(Keys.ESCAPE, text)
                expected = [name for name, package in self.packages.items() if matches(name, package)]
                self.assertEqual(sorted(self.shown_names()), sorted(expected))
        self.assertEqual(self.browser.text(".package-count"), "No package matches.")
        self.browser.press(Keys.ESCAPE)
        self.assertEqual(len(self.shown_names()), len(self.packages))

    def test_the_licence_text_is_reached_by_keyboard_and_loaded_on_demand(self):
        self.open_packages()
        self.search("dpkg")
        self.browser.press(Keys.ARROW_DOWN)
        names = self.shown_names()
        for _ in range(names.index("dpkg")):
            self.browser.press(Keys.ARROW_DOWN)
        self.browser.press(Keys.ENTER)
        self.browser.until_shown(".package-details")
        self.assertEqual(self.browser.find_all("pre"), [])
        self.assertTrue(self.browser.driver.current_url.endswith("#packages/dpkg"))
        self.browser.press_tab_until(".package-text summary")
        self.browser.press(Keys.ENTER)
        self.browser.until_shown("pre")
        shown = self.browser.find("pre").get_property("textContent")
        self.assertEqual(shown, self.packages["dpkg"]["licenseFiles"]["copyright"])
        site = self.browser.find(".package-details a")
        self.assertEqual(site.get_dom_attribute("href"), self.packages["dpkg"]["sourceSite"])
        self.assertEqual(site.get_dom_attribute("rel"), "noopener noreferrer")

    def test_arrow_keys_move_through_the_rows_and_back_to_the_search(self):
        self.open_packages()
        self.search("lib")
        names = self.shown_names()
        focused = lambda: self.browser.run("return document.activeElement.textContent")
        self.browser.press(Keys.ARROW_DOWN)
        self.assertEqual(focused(), names[0])
        self.browser.press(Keys.ARROW_DOWN, Keys.ARROW_DOWN)
        self.assertEqual(focused(), names[2])
        self.browser.press(Keys.END)
        self.assertEqual(focused(), names[-1])
        self.browser.press(Keys.HOME, Keys.ARROW_UP)
        self.assertEqual(self.browser.run("return document.activeElement.id"), "package-search")

    def test_an_address_names_a_package(self):
        self.open_packages("#packages/dpkg")
        self.browser.until_shown(".package-details")
        self.assertEqual(self.browser.text(".package-chosen .package-name"), "dpkg")
        self.browser.run("location.hash = '#packages/no-such-package'")
        self.browser.until(lambda: not self.browser.shows(".package-details"), "the end of the details")

    def test_only_web_addresses_become_links(self):
        self.open_packages()
        made = self.browser.driver.execute_async_script("""
            const done = arguments[0];
            import("/scripts/packages-view.js").then(async ({ packagesView }) => {
              const container = document.createElement("div");
              const sites = ["http://a.example/", "https://a.example/", "ftp://a.example/", "javascript:alert(1)",
                             "data:text/html,x", "file:///etc/passwd", "git://a.example/", "no address", ""];
              const packages = Object.fromEntries(sites.map((sourceSite, index) => [`p${index}`,
                { version: "1", licenses: ["<b>MIT</b>"], licenseFiles: {}, sourceSite, sourceArchive: "<i>" }]));
              const client = { async *members() { yield* Object.entries(packages); } };
              const view = await packagesView.open(container, client, { report() {} });
              done(sites.map((site, index) => {
                view.show(`p${index}`);
                return container.querySelector(".package-details a")?.getAttribute("href") ?? null;
              }).concat(container.querySelectorAll("b, i").length));
            })""")
        self.assertEqual(made, ["http://a.example/", "https://a.example/", "ftp://a.example/"] + 6 * [None] + [0])

    def test_small_screens_need_no_horizontal_scrolling(self):
        for width, height in ((320, 568), (360, 740), (768, 1024)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.browser.open(self.demo.address + "/#packages/dpkg")
                self.browser.until(
                    lambda: self.browser.shows("form.login") or self.browser.shows(".packages"), "the page")
                if self.browser.shows("form.login"):
                    self.browser.log_in()
                self.browser.until_shown(".package-details")
                self.browser.find(".package-text summary").click()
                self.browser.until_shown("pre")
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)

    def test_thousands_of_packages_can_be_searched(self):
        self.open_packages()
        found = self.browser.driver.execute_async_script("""
            const done = arguments[0];
            import("/scripts/packages-view.js").then(async ({ packagesView }) => {
              const container = document.querySelector(".view");
              const packages = Object.fromEntries(Array.from({ length: 5000 }, (_, index) => [`package-${index}`,
                { version: "1", licenses: ["MIT"], licenseFiles: {}, sourceSite: "", sourceArchive: "" }]));
              const client = { async *members() { yield* Object.entries(packages); } };
              await packagesView.open(container, client, { report() {} });
              const input = container.querySelector("#package-search");
              input.value = "499";
              input.dispatchEvent(new Event("input"));
              done(container.querySelector(".package-count").textContent);
            })""")
        self.assertEqual(found, "15 of 5000 packages")

    def test_a_document_is_parsed_as_it_arrives(self):
        documents = ["{}", " { } ", '{"a":{}}', '{"a":{"b":[1,{"c":"]}"}]},"d":"x,y"}\n', r'{"q\"\\":"\\","\u007b":"\\\""}',
                     '{"\u00e9":{"\u6f22":"\U0001f600"},"__proto__":{"a":1},"7":[],"n":null,"t":true,"f":-1.5e3}']
        self.open_packages()
        for document in documents:
            with self.subTest(document):
                self.assertEqual(self.members_in_pieces(document), [json.loads(document)] * (len(document.encode("utf-16-le")) // 2 + 1))

    def test_an_invalid_document_is_refused_wherever_it_is_split(self):
        self.open_packages()
        for text in ("", " ", "[]", "1", '"a"', "{", '{"a":{}', '{"a":{}]', '{"a":[}', '{"a":}', '{"a":1,}', "{,}", '{"a"}',
                     '{"a":1 "b":2}', '{"a":1}}', '{"a":1}{"b":2}', 'x{"a":1}', '{"a":1}x', '{"a":"}', '{"a":1,,"b":2}'):
            with self.subTest(text):
                self.assertEqual(self.members_in_pieces(text), ["refused"] * (len(text) + 1))

    def members_in_pieces(self, text):
        """The result of the page's reader for each position at which the text can be split in two."""
        return json.loads(self.browser.driver.execute_async_script("""
            const [text, done] = arguments;
            import("/scripts/json-members.js").then(({ JsonMembers }) => {
              const membersOf = (pieces) => {
                try {
                  const reader = new JsonMembers();
                  const members = pieces.flatMap((piece) => Array.from(reader.read(piece)));
                  reader.end();
                  return Object.fromEntries(members);
                } catch {
                  return "refused";
                }
              };
              done(JSON.stringify(Array.from({ length: text.length + 1 },
                (_, place) => membersOf([text.slice(0, place), text.slice(place)]))));
            })""", text))


MEGABYTE = 1000 * 1000


class ManyPackages:
    """The list of a firmware with 2,000 packages and 200 MB of licence texts."""

    COUNT = 2000
    TEXT_SIZE = 100 * 1000

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-packages-")
        lines = ['"PACKAGE","VERSION","LICENSE","LICENSE FILES","SOURCE ARCHIVE","SOURCE SITE"']
        common = self.path("text")
        with open(common, "wb") as file:
            file.write((b"Everybody may do \"anything\" \\ with it, \xa9 nobody.\n" * self.TEXT_SIZE)[:self.TEXT_SIZE])
        for index in range(self.COUNT):
            name = self.name(index)
            os.makedirs(self.path("licenses", f"{name}-1.{index}"))
            os.link(common, self.path("licenses", f"{name}-1.{index}", "COPYING"))
            lines.append(f'"{name}","1.{index}","MIT, GPL-2.0","COPYING","{name}.tar.gz","https://example.org/{name}"')
        # These differ from all others.
        for index in (0, self.COUNT - 1):
            path = self.path("licenses", f"{self.name(index)}-1.{index}", "COPYING")
            os.unlink(path)
            with open(path, "wb") as file:
                file.write(self.text(index).encode("latin-1"))
        with open(self.path("manifest.csv"), "w", encoding="latin-1") as file:
            file.write("\n".join(lines) + "\n")

    def path(self, *names):
        return os.path.join(self.folder.name, *names)

    def name(self, index):
        return f"package-{index:04}"

    def text(self, index):
        return (f"{self.name(index)} is \xa9 by \"somebody\" \\\n" * self.TEXT_SIZE)[:self.TEXT_SIZE]


def memory_of_pages(browser):
    """The peak memory, in bytes, of the browser's largest page process."""
    most = 0
    for process in descendants(browser.driver.service.process.pid):
        try:
            with open(f"/proc/{process}/cmdline", "rb") as file:
                is_page = b"--type=renderer" in file.read()
            with open(f"/proc/{process}/status", encoding="ascii", errors="replace") as file:
                peaks = [int(line.split()[1]) * 1024 for line in file if line.startswith("VmHWM:")]
        except (FileNotFoundError, ProcessLookupError):  # helpers of the browser come and go
            continue
        most = max([most] + peaks) if is_page else most
    assert most > 0, "no page process of this browser was found"
    return most


class ManyPackagesTest(PageTestCase):
    @classmethod
    def make_demo(cls):
        cls.packages = ManyPackages()
        cls.addClassCleanup(cls.packages.folder.cleanup)
        return cls.make_own_demo(packages=cls.packages.folder.name)

    def open(self):
        self.browser.open(self.demo.address + "/#time-zones")
        self.browser.log_in()
        self.browser.until_shown(".time-zones")

    def show_packages(self):
        self.browser.find_all("#views a")[-1].click()

    def show_package(self, index):
        self.browser.run("location.hash = arguments[0]", "#packages/" + self.packages.name(index))
        self.browser.until_shown(".package-details")

    def show_text(self, index):
        self.show_package(index)
        self.browser.find(".package-text summary").click()
        self.browser.until_shown(".package-text pre")
        return self.browser.find(".package-text pre").get_property("textContent")

    def document_requests(self):
        return [address for address in self.browser.requested_addresses() if address.endswith("/api/packages")]

    def until_download_is_cancelled(self):
        self.browser.until(lambda: any(event.get("canceled") for event in self.browser.network_events("loadingFailed")),
                           "the end of the download")

    def test_list_and_texts_are_shown_without_being_kept(self):
        # A new browser, because the most memory that a page has had is compared.
        self.browser = Browser()
        self.addCleanup(self.browser.quit)
        self.open()
        before = memory_of_pages(self.browser)
        self.show_packages()
        self.browser.until_shown(".packages")
        self.assertEqual(self.browser.text(".package-count"), "2000 packages")
        self.assertEqual(len(self.document_requests()), 1)
        last = self.packages.COUNT - 1
        self.assertEqual(self.show_text(last), self.packages.text(last))
        self.assertEqual(len(self.document_requests()), 1)
        self.assertEqual(self.show_text(0), self.packages.text(0))
        self.assertEqual(self.document_requests(), [])
        # The browser collects garbage when it chooses; a page that holds the whole document takes 700 MB more.
        growth = memory_of_pages(self.browser) - before
        self.browser.driver.execute_cdp_cmd("HeapProfiler.collectGarbage", {})
        kept = self.browser.run("return performance.memory.usedJSHeapSize")
        print(f"the page grew by {growth // MEGABYTE} MB and keeps {kept // MEGABYTE} MB", file=sys.stderr)
        self.assertLess(kept, 50 * MEGABYTE)
        self.assertLess(growth, 550 * MEGABYTE)

    def test_a_slow_connection_is_waited_for_as_long_as_something_comes(self):
        # All of it takes longer than the page waits for an answer: 8 seconds instead of 5.
        self.browser.set_faster_timers(3, longest=15)
        self.open()
        self.browser.limit_network(download=25 * MEGABYTE)
        self.show_packages()
        self.browser.until_text(".loading-progress", "MB of licence texts")
        self.assertEqual(self.browser.text("#views [aria-current]"), "Packages")
        self.browser.until(lambda: self.browser.shows(".packages"), "the list", seconds=120)
        self.assertEqual(self.browser.text(".package-count"), "2000 packages")
        self.assertFalse(self.browser.shows("#banner"))
        # A text that is not needed any more is not read to its end.
        self.show_package(self.packages.COUNT - 1)
        self.browser.find(".package-text summary").click()
        self.browser.until_text(".package-text", "Reading the text from the device")
        self.browser.find(".package-text summary").click()
        self.until_download_is_cancelled()
        self.assertFalse(self.browser.shows("#banner"))

    def test_a_list_that_is_left_is_not_loaded_to_its_end(self):
        self.open()
        self.browser.limit_network(download=8 * MEGABYTE)
        self.show_packages()
        self.browser.until_text(".loading-progress", "MB of licence texts")
        self.browser.find("#views a").click()
        self.until_download_is_cancelled()
        self.browser.limit_network()
        self.browser.until_shown(".device")
        self.assertFalse(self.browser.shows("#banner"))

    def test_a_device_that_stops_in_the_middle_of_the_list_is_reported(self):
        self.browser.set_faster_timers(5, longest=15)
        self.open()
        self.browser.limit_network(download=8 * MEGABYTE)
        self.show_packages()
        self.browser.until_text(".loading-progress", "MB of licence texts")
        os.kill(self.demo.process("device"), signal.SIGSTOP)
        self.addCleanup(os.kill, self.demo.process("device"), signal.SIGCONT)
        self.browser.until_text(".notice", "Packages cannot be shown. The device cannot be reached: it does not answer.")

    def test_a_device_that_dies_in_the_middle_of_the_list_is_reported(self):
        self.addCleanup(self.demo.restart)
        self.open()
        self.browser.limit_network(download=8 * MEGABYTE)
        self.show_packages()
        self.browser.until_text(".loading-progress", "MB of licence texts")
        os.kill(self.demo.process("device"), signal.SIGKILL)
        self.browser.until_text(".notice", "Packages cannot be shown. The device cannot be reached")

    def test_a_text_that_cannot_be_read_is_reported_and_can_be_requested_again(self):
        self.browser.set_faster_timers(5, longest=15)
        self.open()
        self.show_packages()
        self.browser.until_shown(".packages")
        last = self.packages.COUNT - 1
        self.show_package(last)
        device = self.demo.process("device")
        os.kill(device, signal.SIGSTOP)
        self.browser.find(".package-text summary").click()
        self.browser.until_text(".package-text", "The device cannot be reached")
        os.kill(device, signal.SIGCONT)
        self.browser.find(".package-text summary").click()
        self.browser.find(".package-text summary").click()
        self.browser.until_shown(".package-text pre")


if __name__ == "__main__":
    unittest.main()
