#!/usr/bin/python3
"""Runs the programs of the guide to serial ports on pseudoterminals."""

import os
import subprocess
import tempfile
import unittest

from line import SECONDS_TO_WAIT, Line, wait_until

QUESTION = os.environ["NBASE_EXAMPLE_QUESTION"]
RS485 = os.environ["NBASE_EXAMPLE_RS485"]
LISTENER = os.environ["NBASE_EXAMPLE_LISTENER"]


class ExampleTest(unittest.TestCase):
    def new_line(self):
        line = Line()
        self.addCleanup(line.close)
        return line

    def start(self, *command):
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process


class QuestionTest(ExampleTest):
    def assert_ended(self, process, status, output, errors):
        self.assertEqual(process.wait(SECONDS_TO_WAIT), status)
        self.assertEqual((process.stdout.read(), process.stderr.read()), (output, errors))

    def test_the_answer_is_printed(self):
        line = self.new_line()
        process = self.start(QUESTION, line.name, "who?")
        self.assertEqual(line.read(5), b"who?\n")
        os.write(line.device, b"no")
        os.write(line.device, b"body\nand more")
        self.assert_ended(process, 0, b"nobody\n", b"")
        self.assertEqual(line.attributes(), line.attributes_before)

    def test_silence_is_reported(self):
        line = self.new_line()
        self.assert_ended(self.start(QUESTION, line.name, "who?"), 1, b"", b"there is no answer\n")

    def test_a_missing_port_is_reported(self):
        self.assert_ended(self.start(QUESTION, "/dev/no-such-port", "who?"), 1, b"", b"No such file or directory\n")

    def test_a_hang_up_is_reported(self):
        line = self.new_line()
        process = self.start(QUESTION, line.name, "who?")
        self.assertEqual(line.read(5), b"who?\n")
        line.hang_up()
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        self.assertIn(process.stderr.read(), (b"Input/output error\n", b"Serial port hangs-up\n"))


class ListenerTest(ExampleTest):
    def assert_received(self, process, name, line, data):
        wait_until(line.is_open, "the port to be open")
        os.write(line.device, data.encode())
        expected = f'"{name}" "{data}"'
        while True:
            row = process.stderr.readline().decode().strip()
            self.assertTrue(row, "the program has ended")
            if row == expected:
                break

    def test_all_ports_are_listened_on(self):
        lines = [self.new_line() for _ in range(3)]
        process = self.start(LISTENER, *(line.name for line in lines))
        for line in lines:
            self.assert_received(process, line.name, line, "hello")

    def test_a_device_that_is_plugged_in_again_is_listened_on(self):
        with tempfile.TemporaryDirectory() as folder:
            name = os.path.join(folder, "port")
            unplugged = self.new_line()
            os.symlink(unplugged.name, name)
            process = self.start(LISTENER, name)
            self.assert_received(process, name, unplugged, "before")
            os.remove(name)
            unplugged.hang_up()
            plugged_in = self.new_line()
            os.symlink(plugged_in.name, name)
            self.assert_received(process, name, plugged_in, "after")


class Rs485Test(ExampleTest):
    def test_a_port_without_rs485_is_reported(self):
        line = self.new_line()
        process = self.start(RS485, line.name)
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        self.assertRegex(process.stderr.read().decode(), f"^{line.name}: (Inappropriate ioctl|Invalid argument)")

    def test_a_missing_port_is_reported(self):
        process = self.start(RS485, "/dev/no-such-port")
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        self.assertEqual(process.stderr.read(), b"/dev/no-such-port: No such file or directory\n")


if __name__ == "__main__":
    unittest.main()
