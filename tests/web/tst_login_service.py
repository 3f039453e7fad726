#!/usr/bin/python3
"""Signs in at the running demo through its real web server, with right and with wrong passwords, from several addresses."""

import http.client
import json
import os
import select
import signal
import time
import unittest

from demo_device import SECONDS_TO_WAIT, Demo

RIGHT = {"user": "demo", "password": "demo"}
WRONG = {"user": "demo", "password": "wrong"}

# What the device promises: seconds after the first wrong password, doubled by each further one.
FIRST_DELAY = 0.5
WAITING_AT_ONCE = 4


class Login:
    """A login whose answer need not be waited for. The address is one of the loopback network, 127.0.0.0/8."""

    def __init__(self, port, address, credentials):
        self.connection = http.client.HTTPConnection(
            "127.0.0.1", port, timeout=SECONDS_TO_WAIT, source_address=(address, 0))
        self.sent = time.monotonic()
        self.connection.request("POST", "/api/login", json.dumps(credentials), {"Content-Type": "application/json"})

    def is_answered(self):
        return bool(select.select([self.connection.sock], [], [], 0)[0])

    def status(self):
        self.answer = self.connection.getresponse()
        self.seconds = time.monotonic() - self.sent
        self.text = self.answer.read()
        self.connection.close()
        return self.answer.status


class LoginServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()
        cls.last_address = 1

    def setUp(self):
        # What one test does wrong must not slow the next one down.
        LoginServiceTest.last_address += 1
        self.address = f"127.0.0.{self.last_address}"

    def login(self, credentials, address=None):
        login = Login(self.demo.port, address or self.address, credentials)
        self.addCleanup(login.connection.close)
        return login

    def status(self, credentials, address=None):
        return self.login(credentials, address).status()

    def log(self):
        with open(os.path.join(self.demo.run_directory(), "log", "messages"), encoding="latin-1") as file:
            return file.read()

    def until(self, condition, what):
        end = time.monotonic() + SECONDS_TO_WAIT
        while not condition():
            self.assertLess(time.monotonic(), end, f"never came: {what}")
            time.sleep(0.02)

    def until_logged(self, text):
        self.until(lambda: text in self.log(), f"the message {text}")

    def test_each_wrong_password_is_answered_later_than_the_one_before(self):
        self.assertEqual(self.status(WRONG), 401)
        delay = FIRST_DELAY
        for _ in range(3):
            login = self.login(WRONG)
            self.assertEqual(login.status(), 401)
            self.assertGreaterEqual(login.seconds, delay * 0.95)
            delay *= 2

    def test_the_right_password_waits_too_and_ends_the_waiting(self):
        self.assertEqual(self.status(WRONG), 401)
        self.assertEqual(self.status(WRONG), 401)
        login = self.login(RIGHT)
        self.assertEqual(login.status(), 200)
        self.assertGreaterEqual(login.seconds, 2 * FIRST_DELAY * 0.95)
        self.assertIn("Set-Cookie", login.answer.headers)
        # Without the success this would be the third in a row.
        self.assertEqual(self.status(WRONG), 401)
        self.until_logged(f'for "demo" from {self.address}, 2 in a row')
        self.assertNotIn(f"from {self.address}, 3 in a row", self.log())

    def test_neither_other_addresses_nor_other_requests_wait_with_a_guesser(self):
        for _ in range(3):
            self.assertEqual(self.status(WRONG), 401)
        guesses = [self.login(WRONG) for _ in range(WAITING_AT_ONCE)]
        self.assertEqual(self.status(RIGHT, "127.0.0.100"), 200)
        connection = http.client.HTTPConnection("127.0.0.1", self.demo.port, timeout=SECONDS_TO_WAIT)
        connection.request("GET", "/api/timezones")
        self.assertEqual(connection.getresponse().status, 401)
        connection.close()
        self.assertEqual([guess for guess in guesses if guess.is_answered()], [])

    def test_guesses_beyond_those_that_wait_are_refused_at_once(self):
        for _ in range(3):
            self.assertEqual(self.status(WRONG), 401)
        logins = [self.login(RIGHT) for _ in range(WAITING_AT_ONCE + 3)]
        # Any of those sent at once may arrive first.
        self.until(lambda: sum(login.is_answered() for login in logins) >= 3, "three answers")
        refused = [login for login in logins if login.is_answered()]
        self.assertEqual([login.status() for login in refused], [429, 429, 429])
        self.assertIn("Try again", json.loads(refused[0].text)["message"])
        self.assertGreater(int(refused[0].answer.headers["Retry-After"]), 0)

    def test_giving_up_early_gains_nothing(self):
        self.assertEqual(self.status(WRONG), 401)
        self.login(WRONG).connection.close()
        self.until_logged(f"from {self.address}, 2 in a row")

    def test_wrong_passwords_are_logged_in_one_line_without_the_password(self):
        self.assertEqual(self.status({"user": "eve\nforged: \x1b[1m" + "x" * 100, "password": "a secret"}), 401)
        self.until_logged('daemon.warn nbase-demo-device[')
        self.until_logged(f'"eve\\x0aforged: \\x1b[1m{"x" * 48}" from {self.address}, 1 in a row')
        self.assertNotIn("a secret", self.log())

    def test_what_is_no_login_is_refused_and_does_not_count(self):
        for value in ({}, {"user": "demo"}, {"user": "demo", "password": 1}, [], "demo"):
            self.assertEqual(self.status(value), 400)
        login = self.login(WRONG)
        self.assertEqual(login.status(), 401)
        self.until_logged(f"from {self.address}, 1 in a row")

    def test_the_device_ends_while_logins_wait(self):
        demo = Demo()
        self.addCleanup(demo.remove)
        demo.start()
        self.assertEqual(Login(demo.port, self.address, WRONG).status(), 401)
        waiting = [Login(demo.port, self.address, WRONG) for _ in range(3)]
        os.kill(demo.process("device"), signal.SIGTERM)
        for login in waiting:
            status = login.status()
            self.assertTrue(status == 401 or status >= 500, status)
        # A sanitizer would report there what it found.
        with open(os.path.join(demo.run_directory(), "device.log"), encoding="utf-8") as file:
            self.assertEqual(file.read(), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
