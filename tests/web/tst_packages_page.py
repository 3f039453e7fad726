#!/usr/bin/python3
"""The packages on the page of the demo device, in a real browser: those that are installed on this machine."""

import json
import unittest

from demo_device import Client, Demo, output_of
from selenium.webdriver.common.keys import Keys
from tst_demo_page import Browser


def packages_of(client):
    client.post("/api/login", {"user": "demo", "password": "demo"}).close()
    with client.get("/api/packages") as response:
        return json.load(response)


class PackagesPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()
        cls.packages = packages_of(Client(cls.demo.address))
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.quit)

    def setUp(self):
        self.browser.forget(self.demo.address)
        self.browser.resize(1280, 800)

    def open_packages(self, address="#packages"):
        self.browser.open(self.demo.address + "/" + address)
        self.browser.log_in()
        self.browser.until_shown(".packages")

    def shown_names(self):
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
        with open("/usr/share/doc/dpkg/copyright", encoding="latin-1") as file:
            self.assertEqual(self.packages["dpkg"]["licenseFiles"], {"copyright": file.read()})

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

    def test_the_licence_text_is_reached_by_keyboard_alone_and_comes_on_demand(self):
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

    def test_arrow_keys_go_through_the_rows_and_back_to_the_search(self):
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
              const view = await packagesView.open(container, { get: async () => packages });
              done(sites.map((site, index) => {
                view.show(`p${index}`);
                return container.querySelector(".package-details a")?.getAttribute("href") ?? null;
              }).concat(container.querySelectorAll("b, i").length));
            })""")
        self.assertEqual(made, ["http://a.example/", "https://a.example/", "ftp://a.example/"] + 6 * [None] + [0])

    def test_small_screens_need_no_scrolling_sideways(self):
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
              await packagesView.open(container, { get: async () => packages });
              const input = container.querySelector("#package-search");
              input.value = "499";
              input.dispatchEvent(new Event("input"));
              done(container.querySelector(".package-count").textContent);
            })""")
        self.assertEqual(found, "15 of 5000 packages")


if __name__ == "__main__":
    unittest.main()
