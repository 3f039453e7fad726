"""A real browser for the tests of the demo device's page."""

import base64
import json
import os
import re
import subprocess
import tempfile
import unittest

from demo_device import SECONDS_TO_WAIT, Demo
from selenium import webdriver
from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

# The pipe, unlike a socket, works where the name "localhost" is unknown, as in a bare chroot.
BROWSER_OPTIONS = """--headless=new --remote-debugging-pipe --no-sandbox --disable-gpu --disable-quic --no-first-run
    --disable-background-networking --disable-component-update --disable-sync --disable-dev-shm-usage --hide-scrollbars
    --lang=en""".split()

# The browser resolves no other host than the demo's, so that a request to one fails.
NO_OTHER_HOSTS = "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1"


# The page asks the device every few seconds, and waits 15 seconds for an answer. Tests may shorten such times.
FASTER_TIMERS = """
    const setTimeoutOfBrowser = window.setTimeout;
    window.setTimeout = (action, delay, ...rest) =>
      setTimeoutOfBrowser(action, delay >= 1000 && delay <= LONGEST ? delay / FACTOR : delay, ...rest);"""


class DriverService(Service):
    """The driver on a port that it chooses itself, by its address: a bare system may not know the name localhost."""

    def __init__(self, path, environment):
        super().__init__(path, port=1, env=environment)  # the port is known after the start

    def start(self):
        self.process = subprocess.Popen([self.path, "--port=0"], env=self.env, stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            started = re.search(r"started successfully on port (\d+)", line)
            if started:
                self.port = int(started.group(1))
                return
        raise RuntimeError("chromedriver does not start")

    def stop(self):
        super().stop()
        self.process.stdout.close()

    @property
    def service_url(self):
        return f"http://127.0.0.1:{self.port}"


class Browser:
    """Chromium with an empty profile, and what a user does with it."""

    def __init__(self, width=1280, height=800):
        self.profile = tempfile.TemporaryDirectory(prefix="nbase-demo-browser-")
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for option in BROWSER_OPTIONS + [NO_OTHER_HOSTS, "--user-data-dir=" + self.profile.name]:
            options.add_argument(option)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        # Settings, caches and temporary files belong to the profile, not to the user.
        environment = {**os.environ, **dict.fromkeys(
            ("HOME", "TMPDIR", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"), self.profile.name)}
        service = DriverService("/usr/bin/chromedriver", environment)
        self.driver = webdriver.Chrome(service=service, options=options)
        self.driver.set_page_load_timeout(SECONDS_TO_WAIT)
        self.faster_timers = None
        self.resize(width, height)

    def quit(self):
        self.driver.quit()
        self.profile.cleanup()

    def resize(self, width, height):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})

    def open(self, address):
        # A change of the fragment alone would not load the page again.
        self.driver.get("about:blank")
        self.driver.get(address)

    def reset(self, address):
        """Makes it a browser that has never been at this address."""
        self.driver.get("about:blank")
        self.resize(1280, 800)
        self.limit_network()
        self.set_faster_timers(1)
        self.driver.execute_cdp_cmd("Storage.clearDataForOrigin", {"origin": address, "storageTypes": "all"})
        self.driver.execute_cdp_cmd("Network.clearBrowserCookies", {})
        for log in ("browser", "performance"):
            self.driver.get_log(log)

    def set_faster_timers(self, factor, longest=10):
        """Divides the timeouts, from one second to the longest, of pages that are opened from now on."""
        if self.faster_timers is not None:
            self.driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", {"identifier": self.faster_timers})
            self.faster_timers = None
        if factor != 1:
            self.faster_timers = self.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {
                "source": FASTER_TIMERS.replace("FACTOR", str(factor)).replace("LONGEST", str(1000 * longest))})["identifier"]

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def find_all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def shows(self, selector):
        return any(element.is_displayed() for element in self.find_all(selector))

    def text(self, selector):
        return self.find(selector).text

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def until(self, condition, what, seconds=SECONDS_TO_WAIT):
        # The page may replace the element at the same moment.
        waiting = WebDriverWait(self.driver, seconds, poll_frequency=0.05,
                                ignored_exceptions=[StaleElementReferenceException])
        return waiting.until(lambda driver: condition(), "timed out waiting for " + what)

    def until_shown(self, selector):
        self.until(lambda: self.shows(selector), selector)

    def until_text(self, selector, text):
        self.until(lambda: self.shows(selector) and text in self.text(selector), f'"{text}" in {selector}')

    def press(self, *keys):
        """Sends keys to the focused element."""
        for key in keys:
            self.driver.switch_to.active_element.send_keys(key)

    def press_tab_until(self, selector):
        for _ in range(40):
            if self.run("return document.activeElement.matches(arguments[0])", selector):
                return
            self.press(Keys.TAB)
        raise AssertionError(f"the Tab key does not reach {selector}")

    def log_in(self, user="demo", password="demo"):
        self.until_shown("form.login")
        self.press_tab_until("#login-user")
        self.press(user, Keys.TAB, password, Keys.ENTER)

    def network_events(self, name):
        """The network events of this name since the last query of the log."""
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network." + name:
                yield message["params"]

    def requested_addresses(self):
        return (event["request"]["url"] for event in self.network_events("requestWillBeSent"))

    def limit_network(self, download=-1, upload=-1):
        """In bytes per second; -1 is without a limit."""
        self.driver.execute_cdp_cmd("Network.emulateNetworkConditions", {
            "offline": False, "latency": 0, "downloadThroughput": download, "uploadThroughput": upload})

    def screenshot(self, path):
        picture = self.driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(picture))


class PageTestCase(unittest.TestCase):
    """Tests with one browser for all tests of the program and, unless a class makes its own, one demo device."""

    shared = {}

    @classmethod
    def share(cls, name, make, end):
        if name not in cls.shared:
            cls.shared[name] = make()
            unittest.addModuleCleanup(end, cls.shared[name])
        return cls.shared[name]

    @classmethod
    def setUpClass(cls):
        cls.demo = cls.make_demo()
        cls.browser = cls.share("browser", Browser, Browser.quit)

    @classmethod
    def make_demo(cls):
        def started():
            demo = Demo()
            demo.start()
            return demo
        return cls.share("demo", started, Demo.remove)

    @classmethod
    def make_own_demo(cls, *options, **attributes):
        """For a class that needs its demo with other options or attributes than the shared one."""
        demo = Demo()
        cls.addClassCleanup(demo.remove)
        vars(demo).update(attributes)
        demo.start(*options)
        return demo

    def setUp(self):
        self.browser.reset(self.demo.address)
