#!/usr/bin/python3
"""Firmware update on the page of the demo device, in a real browser."""

import os
import tempfile
import unittest

from browser import PageTestCase
from demo_device import Demo, device_program
from firmware_demo import MEBIBYTE, FirmwareClient, FirmwareDemo, make_package, package
from relay import Relay
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys
from swupdate_daemon import RECORDS, SwupdateDaemon
from tst_network_tools_service import Session

# Slow enough that a test sees an upload before its end. A package that is to be incomplete has to come from a slow browser:
# with a slow daemon, the sockets on the way and the files of the web server may already hold the rest.
SLOW_DAEMON = "image-rate 500000"
FAST_DAEMON = "image-rate 0"
UPLOAD_RATE = 1000000  # bytes per second


class FirmwareTestCase(FirmwareClient, PageTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.files = tempfile.TemporaryDirectory(prefix="nbase-packages-")
        cls.addClassCleanup(cls.files.cleanup)

    @classmethod
    def make_demo(cls):
        def started():
            demo = FirmwareDemo()
            demo.start()
            return demo
        return cls.share("firmware demo", started, Demo.remove)

    def setUp(self):
        super().setUp()
        self.session = Session(self.demo.port)
        self.addCleanup(self.session.send, "POST", "/api/logout", {})
        self.make_free()

    def tearDown(self):
        # Ends an upload of the page without its question.
        self.browser.run("onbeforeunload = null; window.stop()")

    def open(self, address=None):
        self.browser.open(f"{address or self.demo.address}/#firmware")
        self.browser.until(lambda: self.browser.shows("form.login") or self.browser.shows(".firmware"), "the page")
        if self.browser.shows("form.login"):
            self.browser.log_in()
            self.browser.until_shown(".firmware")

    # The driver takes keys that it sends to a field for a file as the name of a file, so it does not name the field.
    def press(self, *keys):
        ActionChains(self.browser.driver).send_keys(*keys).perform()

    def press_tab_until(self, selector):
        for _ in range(40):
            if self.browser.run("return document.activeElement.matches(arguments[0])", selector):
                return
            self.press(Keys.TAB)
        self.fail(f"the Tab key does not reach {selector}")

    def file(self, name="update.swu", size=3000000, text=b""):
        return make_package(self.files.name, name, size, text)

    def empty_file(self, name):
        path = os.path.join(self.files.name, name)
        open(path, "w", encoding="ascii").close()
        return path

    def choose(self, path):
        self.browser.find("#firmware-package").send_keys(path)

    def install(self, path):
        self.choose(path)
        self.press_tab_until(".package-upload [type=submit]")
        self.press(Keys.ENTER)

    def begin_slow_upload(self):
        self.browser.limit_network(upload=UPLOAD_RATE)
        self.install(self.file("large.swu", 64 * MEBIBYTE))
        self.until_state("Uploading")

    def until_broken_off(self):
        """Waits until the device has rejected what has been sent of the package."""
        self.assertEqual(self.until_finished()["success"], False)

    def field(self, name):
        return self.browser.run("return document.querySelector(`[data-field='${arguments[0]}']`)?.textContent", name)

    def until_field(self, name, text):
        self.browser.until(lambda: text in self.field(name), f'"{text}" in {name}, which is "{self.field(name)}"')

    def until_state(self, text):
        self.browser.until(lambda: self.browser.shows(".run-state") and self.browser.text(".run-state") == text,
                           f'the state "{text}"')

    def shown_messages(self):
        return self.browser.run(
            "return Array.from(document.querySelectorAll('.update-messages li'), (item) => item.textContent)")

    def until_message(self, text):
        self.browser.until(lambda: text in self.shown_messages(), f'the message "{text}"')

    def value_of(self, selector):
        """What a bar shows, from 0 to 1; None for one that shows only that something happens."""
        return self.browser.run(
            "const bar = document.querySelector(arguments[0]); return bar.position < 0 ? null : bar.position", selector)

    def block_stream(self):
        self.browser.driver.execute_cdp_cmd("Network.setBlockedURLs", {"urls": ["*/api/stream"]})
        self.addCleanup(self.browser.driver.execute_cdp_cmd, "Network.setBlockedURLs", {"urls": []})


class UploadTest(FirmwareTestCase):
    def test_a_package_is_uploaded_by_keyboard_and_its_steps_are_shown(self):
        browser = self.browser
        self.demo.configure("steps 3 step-time 1500", SLOW_DAEMON)
        self.open()
        self.choose(self.file(size=MEBIBYTE))
        self.assertEqual(self.field("chosen"), "Size: 1.0 MiB")
        self.press_tab_until(".package-upload [type=submit]")
        self.press(Keys.ENTER)
        self.until_state("Uploading")
        self.assertEqual(self.field("package-name"), "update.swu")
        self.assertTrue(browser.run("return document.activeElement.matches('[data-action=cancel]')"))
        self.until_field("installed", "The device receives the package")
        self.assertIsNone(self.value_of("#installed-bar") or None)
        self.until_state("Installing")
        self.assertEqual(self.field("sent"), "1.0 MiB of 1.0 MiB, 100 %")
        self.assertEqual(self.value_of("#sent-bar"), 1)
        self.assertFalse(browser.shows("[data-action=cancel]"))
        for number in (1, 2, 3):
            self.until_field("installed", f"Step {number} of 3: image-{number}.bin")
            self.until_field("announcement", f"Step {number} of 3, image-{number}.bin.")
            self.until_message(f"Installing image-{number}.bin")
            self.assertGreaterEqual(self.value_of("#installed-bar"), (number - 1) / 3 - 0.01)
        self.until_state("Installed")
        self.until_field("announcement", "The package has been installed.")
        self.assertTrue(browser.shows("[data-part=success]"))
        self.assertFalse(browser.shows("#update-fault"))
        self.assertEqual(self.value_of("#installed-bar"), 1)
        self.until_message("SWUPDATE successful !")

    def test_a_failed_update_shows_what_the_daemon_reports(self):
        self.demo.configure("fail-step 2", "message No_space_left_for_<b>image-2</b>.")
        self.open()
        self.install(self.file())
        self.until_state("Failed")
        self.browser.until_text(
            "#update-fault", "The installation failed. The device reports: No space left for <b>image-2</b>.")
        self.assertEqual(self.browser.find("#update-fault").get_dom_attribute("role"), "alert")
        self.until_message("Error: No space left for <b>image-2</b>.")
        self.assertRegex(self.field("installed"), r"^Ended at \d+ %$")
        self.assertFalse(self.browser.shows("[data-part=success]"))
        # The next package is installed without a trace of this failure.
        self.demo.configure()
        self.install(self.file())
        self.until_state("Installed")
        self.assertFalse(self.browser.shows("#update-fault"))
        self.assertNotIn("Error: No space left for <b>image-2</b>.", self.shown_messages())

    def test_a_file_that_is_no_package_is_not_sent(self):
        browser = self.browser
        self.open()
        self.press_tab_until(".package-upload [type=submit]")
        self.press(Keys.ENTER)
        browser.until_text("#firmware-message", "Choose a firmware package first.")
        self.assertTrue(browser.run("return document.activeElement.matches('#firmware-package')"))
        for path, message in ((self.file("notes.txt"), "“notes.txt” is not a firmware package"),
                              (self.empty_file("empty.swu"), "“empty.swu” is empty.")):
            self.choose(path)
            browser.until_text("#firmware-message", message)
            self.assertEqual(browser.find("#firmware-package").get_dom_attribute("aria-invalid"), "true")
        self.press_tab_until(".package-upload [type=submit]")
        self.press(Keys.ENTER)
        browser.until_text("#firmware-message", "Choose a firmware package first.")
        posted = [event["request"]["url"] for event in browser.network_events("requestWillBeSent")
                  if event["request"]["method"] == "POST"]
        self.assertEqual(posted, [self.demo.address + "/api/login"])

    def test_a_package_is_dropped_on_the_page(self):
        browser = self.browser
        self.open()
        for count, message in ((2, "Choose one package only."), (1, "")):
            browser.run("""
                const data = new DataTransfer();
                for (let number = 1; number <= arguments[0]; number += 1)
                  data.items.add(new File(["070701 dropped TRAILER!!!"], `dropped-${number}.swu`));
                for (const type of ["dragover", "drop"]) {
                  const event = new DragEvent(type, { dataTransfer: data, bubbles: true, cancelable: true });
                  document.querySelector("h1").dispatchEvent(event);
                  if (!event.defaultPrevented)
                    throw new Error("the browser would open the file");
                }""", count)
            self.assertEqual(browser.find("#firmware-message").text, message)
        self.press_tab_until(".package-upload [type=submit]")
        self.press(Keys.ENTER)
        self.until_state("Installed")
        self.assertEqual(self.field("package-name"), "dropped-1.swu")

    def test_an_upload_is_cancelled(self):
        self.open()
        self.begin_slow_upload()
        self.press(Keys.ENTER)
        self.browser.until_text("#update-fault", "The upload was cancelled.")
        self.until_broken_off()
        self.until_state("Not installed")
        self.demo.configure()
        self.install(self.file())
        self.until_state("Installed")
        self.assertFalse(self.browser.shows("#update-fault"))

    def test_a_package_that_was_sent_whole_before_it_was_cancelled_is_installed(self):
        self.open()
        self.demo.configure(SLOW_DAEMON)
        self.install(self.file(size=MEBIBYTE))
        self.until_field("sent", "100 %")
        self.press(Keys.ENTER)
        self.browser.until_text("#update-fault", "The upload was cancelled.")
        self.demo.change(FAST_DAEMON)
        self.until_state("Installed")
        self.assertFalse(self.browser.shows("#update-fault"))

    def test_leaving_the_page_during_an_upload_asks_first(self):
        self.open()
        self.assertFalse(self.asks_before_it_is_left())
        self.begin_slow_upload()
        self.assertTrue(self.asks_before_it_is_left())
        self.press_tab_until("[data-action=cancel]")
        self.press(Keys.ENTER)
        self.until_broken_off()
        self.until_state("Not installed")
        self.assertFalse(self.asks_before_it_is_left())

    def asks_before_it_is_left(self):
        # The driver answers the question of the browser itself, before a test could see it.
        return self.browser.run("""
            const event = new Event("beforeunload", { cancelable: true });
            window.dispatchEvent(event);
            return event.defaultPrevented;""")

    def test_signing_out_during_an_upload_asks_first(self):
        browser = self.browser
        self.open()
        self.begin_slow_upload()
        browser.find("#logout").click()
        question = browser.driver.switch_to.alert
        self.assertEqual(question.text, "Cancel the upload of large.swu and sign out?")
        question.dismiss()
        self.until_state("Uploading")
        browser.find("#logout").click()
        browser.driver.switch_to.alert.accept()
        browser.until_text(".login [role=alert]", "You have signed out.")
        self.until_broken_off()

    def test_an_upload_continues_while_another_view_is_shown(self):
        browser = self.browser
        self.open()
        self.demo.configure(SLOW_DAEMON)
        self.install(self.file("large.swu", 2 * MEBIBYTE))
        self.until_state("Uploading")
        browser.run("location.hash = '#ping'")
        browser.until_shown("#ping-host")
        browser.run("location.hash = '#firmware'")
        browser.until_shown(".firmware")
        self.until_state("Uploading")
        self.assertEqual(self.field("package-name"), "large.swu")
        self.demo.change(FAST_DAEMON)
        self.until_state("Installed")
        self.assertEqual(self.field("sent"), "2.0 MiB of 2.0 MiB, 100 %")


class RefusalTest(FirmwareTestCase):
    def test_a_daemon_that_refuses_is_reported(self):
        self.demo.configure("fault install=refuse")
        self.open()
        self.install(self.file())
        self.browser.until_text("#update-fault", "The device cannot start the installation")
        self.until_state("Not installed")
        self.assertFalse(self.browser.shows("#banner"))

    def test_a_package_that_is_too_large_is_refused(self):
        self.open()
        self.install(self.file("huge.swu", 513 * MEBIBYTE))
        self.browser.until_text("#update-fault", "The package is larger than this device accepts.")

    def test_nothing_is_sent_while_another_installation_is_in_progress(self):
        self.block_stream()
        self.demo.configure("step-time 5000")
        self.open()
        self.assertEqual(self.upload(package()), 200)
        self.install(self.file())
        self.browser.until_text("#firmware-message", "An installation is in progress already. It is shown above.")
        self.until_state("Installing")
        self.assertFalse(self.browser.find(".package-upload [type=submit]").is_enabled())

    def test_an_image_that_the_daemon_drops_ends_the_upload(self):
        self.demo.configure("fault image=disconnect after 20000", "message Wrong_signature")
        self.open()
        self.install(self.file("large.swu", 64 * MEBIBYTE))
        self.until_state_in("Failed", "Not installed")
        self.until_message("Error: Wrong signature")

    def until_state_in(self, *texts):
        self.browser.until(lambda: self.browser.shows(".run-state") and self.browser.text(".run-state") in texts,
                           f"one of the states {texts}")

    def test_a_daemon_that_stops_answering_leaves_the_result_unknown(self):
        self.demo.configure("step-time 2000")
        self.open()
        self.install(self.file())
        self.until_field("installed", "Step 1 of 2")
        self.demo.stop_updater(self)
        self.until_state("Unknown")
        self.browser.until_text("#update-fault", "The result of the installation is not known")
        self.browser.driver.refresh()
        self.until_state("Unknown")
        self.demo.continue_updater()
        self.until_field("installed", "Step 2 of 2")
        self.until_state("Installed")
        self.assertFalse(self.browser.shows("#update-fault"))


class FollowingTest(FirmwareTestCase):
    def test_a_reload_in_the_middle_finds_the_installation_again(self):
        self.demo.configure("steps 2 step-time 3000")
        self.open()
        self.install(self.file())
        self.until_field("installed", "Step 1 of 2: image-1.bin")
        self.browser.driver.refresh()
        self.until_state("Installing")
        self.until_field("installed", "image-")
        self.until_message("Installing image-1.bin")
        self.until_field("installed", "Step 2 of 2: image-2.bin")
        self.until_state("Installed")
        self.browser.driver.refresh()
        self.until_state("Installed")
        self.until_message("SWUPDATE successful !")

    def test_a_second_session_sees_the_same_installation(self):
        self.demo.configure("steps 2 step-time 2000")
        self.open()
        self.assertEqual(self.upload(package()), 200)
        self.until_state("Installing")
        self.assertEqual(self.field("package-name"), "Installation")
        self.assertFalse(self.browser.shows("[data-part=upload]"))
        self.assertFalse(self.browser.find(".package-upload [type=submit]").is_enabled())
        self.until_field("installed", "Step 2 of 2: image-2.bin")
        self.until_state("Installed")
        self.assertTrue(self.browser.find(".package-upload [type=submit]").is_enabled())

    def test_an_installation_of_another_session_follows_that_of_the_page(self):
        self.demo.configure("fail-step 1")
        self.open()
        self.install(self.file("own.swu"))
        self.until_state("Failed")
        self.assertEqual(self.field("package-name"), "own.swu")
        self.until_message("Waiting for requests...")
        self.demo.configure("step-time 1000")
        self.assertEqual(self.upload(package()), 200)
        self.until_state("Installing")
        self.assertEqual(self.field("package-name"), "Installation")
        self.assertFalse(self.browser.shows("[data-part=upload]"))
        self.until_state("Installed")

    def test_the_page_polls_where_there_is_no_stream(self):
        self.block_stream()
        self.browser.set_faster_timers(4)
        self.demo.configure("steps 2 step-time 2000")
        self.open()
        self.assertEqual(self.upload(package()), 200)
        self.until_field("installed", "Step 2 of 2: image-2.bin")
        self.until_state("Installed")
        self.until_message("SWUPDATE successful !")
        self.demo.insert("sdz1", label="UPDATES")
        self.addCleanup(self.demo.pull, "sdz1")
        self.browser.until_text(".media-list", "UPDATES")

    def test_a_connection_that_is_lost_during_an_upload_is_shown_and_mended(self):
        browser = self.browser
        relay = Relay(self.demo.port)
        self.addCleanup(relay.cut)
        self.open(f"http://127.0.0.1:{relay.port}")
        self.begin_slow_upload()
        relay.cut()
        browser.until_text("#banner", "The device cannot be reached")
        browser.until_text("#update-fault", "The upload broke off")
        relay.mend()
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")
        self.until_broken_off()
        self.demo.configure()
        browser.until(lambda: browser.find(".package-upload [type=submit]").is_enabled(), "the end of the installation")
        self.install(self.file())
        self.until_state("Installed")

    def test_a_connection_that_is_lost_during_an_installation_is_mended(self):
        browser = self.browser
        relay = Relay(self.demo.port)
        self.addCleanup(relay.cut)
        self.demo.configure("steps 2 step-time 2000")
        self.open(f"http://127.0.0.1:{relay.port}")
        self.assertEqual(self.upload(package()), 200)
        self.until_state("Installing")
        relay.cut()
        browser.until_text("#banner", "The device cannot be reached")
        self.until_finished()
        relay.mend()
        browser.until(lambda: not browser.shows("#banner"), "the end of the banner")
        self.until_state("Installed")
        self.until_message("Waiting for requests...")


class MediaTest(FirmwareTestCase):
    def test_media_come_and_go_with_what_identifies_them(self):
        browser = self.browser
        self.open()
        self.assertTrue(browser.shows("[data-part=no-media]"))
        self.demo.insert("sdz1", label="UPDATES", size="8m", read_only=True)
        try:
            browser.until_text(".media-list", "UPDATES")
            text = browser.text(".medium")
            self.assertFalse(browser.shows("[data-part=no-media]"))
            for part in ("USB, sdz1", "Write-protected", "8.0 MiB free of 8.0 MiB", "No firmware package (.swu)"):
                self.assertIn(part, text)
        finally:
            self.demo.pull("sdz1")
        browser.until_shown("[data-part=no-media]")
        self.assertEqual(browser.find_all(".medium"), [])

    def test_a_package_on_a_medium_is_installed_by_keyboard(self):
        browser = self.browser
        self.demo.configure("steps 2 step-time 1000")
        paths = [self.file(name) for name in ("one.swu", "two.swu")]
        self.open()
        self.demo.insert("sdz1", paths, size="16m")
        self.addCleanup(self.demo.pull, "sdz1")
        browser.until_shown("[data-package='sdz1/two.swu']")
        self.assertIn("Without a label", browser.text(".medium"))
        self.assertEqual(browser.find("[data-package='sdz1/two.swu']").get_property("textContent"),
                         "Install two.swu from sdz1")
        self.press_tab_until("[data-package='sdz1/two.swu']")
        self.press(Keys.ENTER)
        self.until_state("Installing")
        self.assertEqual(self.field("package-name"), "two.swu")
        self.assertTrue(browser.run("return document.activeElement.matches('#update-heading')"))
        self.assertFalse(browser.shows("[data-part=upload]"))
        self.assertFalse(browser.find("[data-package='sdz1/one.swu']").is_enabled())
        self.until_state("Installed")
        self.assertTrue(browser.find("[data-package='sdz1/one.swu']").is_enabled())


class SwupdateTest(FirmwareTestCase):
    """With the system's SWUpdate instead of the stand-in."""

    # Larger than what the sockets on the way hold, and not alike anywhere.
    PAYLOAD = os.urandom(4000000)

    @classmethod
    def make_demo(cls):
        cls.daemon = SwupdateDaemon()
        cls.addClassCleanup(cls.daemon.stop)
        device = os.path.join(cls.daemon.folder.name, "device")
        with open(device, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec "{device_program()}" "$@" --updater "{cls.daemon.control_socket}" '
                       f'--updater-progress "{cls.daemon.progress_socket}" --updater-records {RECORDS}\n')
        os.chmod(device, 0o755)
        return cls.make_own_demo(device=device)

    def setUp(self):
        PageTestCase.setUp(self)
        self.daemon.wait_until_it_sleeps()

    def test_a_package_is_installed(self):
        path = self.daemon.make_package("update.swu", self.PAYLOAD)
        self.open()
        self.install(path)
        self.until_state("Installed")
        self.until_message("SWUPDATE successful !")
        self.until_message("Waiting for requests...")
        self.assertFalse(self.browser.shows("#update-fault"))
        self.assertEqual(self.daemon.installed_bytes(), self.PAYLOAD)

    def test_a_package_whose_content_has_changed_fails_with_the_message_of_the_daemon(self):
        path = self.daemon.make_package("broken.swu", self.PAYLOAD[:-1] + b"x", described=self.PAYLOAD)
        self.open()
        self.install(path)
        self.until_state("Failed")
        self.browser.until_text(
            "#update-fault", "The device reports: Image invalid or corrupted. Not installing ...")
        self.until_message("Error: Image invalid or corrupted. Not installing ...")
        self.browser.until(lambda: any("HASH mismatch" in text for text in self.shown_messages()), "the reason")


class LayoutTest(FirmwareTestCase):
    def test_small_screens_need_no_horizontal_scrolling(self):
        name = "x" * 100 + ".swu"
        self.demo.configure("fail-step 1", "message " + "y" * 250)
        self.open()
        self.demo.insert("sdz1", [self.file(name)], label="UPDATES", size="16m", read_only=True)
        self.addCleanup(self.demo.pull, "sdz1")
        self.browser.until_shown(".medium-packages")
        self.install(self.file(name))
        self.until_message("Error: " + "y" * 250)
        for width, height in ((320, 568), (375, 740), (768, 1024), (1280, 800)):
            with self.subTest(width=width):
                self.browser.resize(width, height)
                self.assertLessEqual(self.browser.run("return document.documentElement.scrollWidth"), width)

    def test_the_security_policy_is_not_violated(self):
        self.open()
        self.install(self.file())
        self.until_state("Installed")
        messages = [entry["message"] for entry in self.browser.driver.get_log("browser")]
        self.assertEqual([message for message in messages if "401 (Unauthorized)" not in message], [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
