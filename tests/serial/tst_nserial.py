#!/usr/bin/python3
"""Runs the command nserial on pseudoterminals."""

import os
import re
import select
import signal
import subprocess
import tempfile
import termios
import unittest

from line import CONTROL_FLAGS, INPUT_FLAGS, INPUT_SPEED, OUTPUT_SPEED, SECONDS_TO_WAIT, Line, wait_until

PROGRAM = os.environ["NSERIAL"]
# With modem lines, of which CTS, DCD and RTS are on, and a driver that takes a byte at a time, is busy after each and never
# sends the last one. It prints the settings that it applies.
PROGRAM_WITH_HARDWARE = os.environ["NSERIAL_WITH_HARDWARE"]


def run(*arguments, program=PROGRAM, **options):
    """Runs the command until it ends."""
    return subprocess.run([program, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=SECONDS_TO_WAIT,
                          **options)


def handles(process, number):
    """Whether the process has a handler for the signal."""
    with open(f"/proc/{process.pid}/status", encoding="ascii", errors="replace") as file:
        return any(line.startswith("SigCgt:") and int(line.split()[1], 16) & 1 << (number - 1) for line in file)


def bytes_of_dump(dump):
    """The bytes that rows like "00000010  61 62 0a      |ab.|" show, after a check of the offsets and the text."""
    data = b""
    for row in dump.decode("ascii").splitlines():
        match = re.fullmatch(r"([0-9a-f]{8})  ((?:[0-9a-f]{2} ){1,16}) *\|(.*)\|", row)
        if not match or len(row) != 61 + len(match[3]):
            raise AssertionError(f"not a row of a dump: {row!r}")
        shown = bytes.fromhex(match[2])
        text = "".join(chr(byte) if 0x20 <= byte < 0x7f else "." for byte in shown)
        if int(match[1], 16) != len(data) or match[3] != text:
            raise AssertionError(f"wrong offset or text after {len(data)} bytes: {row!r}")
        data += shown
    return data


class PortTest(unittest.TestCase):
    def setUp(self):
        self.port = Line()
        self.addCleanup(self.port.close)

    def start(self, *arguments, stdin=subprocess.DEVNULL, program=PROGRAM):
        """Starts the command and waits until it has opened the port."""
        process = subprocess.Popen([program, self.port.name, *arguments], stdin=stdin, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.addCleanup(lambda: [file.close() for file in (process.stdin, process.stdout, process.stderr) if file])
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        wait_until(lambda: self.port.is_open() or process.poll() is not None, "the port to be open")
        return process

    def assert_ended(self, process, status, errors=""):
        self.assertEqual(process.wait(SECONDS_TO_WAIT), status)
        self.assertEqual(process.stderr.read().decode(), errors)
        self.assertEqual(self.port.attributes(), self.port.attributes_before)


class ListeningTest(PortTest):
    def receive(self, process, data, shown_size):
        os.write(self.port.device, data)
        output = b""
        while len(output) < shown_size:
            piece = os.read(process.stdout.fileno(), 65536)
            if not piece:
                break
            output += piece
        process.terminate()
        output += process.stdout.read()
        self.assert_ended(process, 0)
        return output

    def test_hexadecimal_rows_have_offset_and_text(self):
        data = bytes(range(256)) + b"end"
        # 17 rows, if the bytes arrive at once
        output = self.receive(self.start("--listen"), data, 16 * 78 + 64)
        self.assertEqual(bytes_of_dump(output), data)

    def test_a_short_row_is_filled_up(self):
        output = self.receive(self.start(), b"Hi\n", 65)
        self.assertEqual(output, b"00000000  48 69 0a" + b" " * 41 + b"|Hi.|\n")

    def test_offsets_continue_from_piece_to_piece(self):
        process = self.start()
        for piece, row in ((b"one", b"00000000  6f 6e 65"), (b"two", b"00000003  74 77 6f"),
                           (bytes(16), b"00000006  00 00 00"), (b"end", b"00000016  65 6e 64")):
            os.write(self.port.device, piece)
            self.assertTrue(process.stdout.readline().startswith(row))
        process.terminate()
        self.assert_ended(process, 0)

    def test_text_shows_control_characters_as_escape_sequences(self):
        data = "a\tb\r\n\x1b[2J\x00\x7f\\ä".encode()
        shown = b"a\tb\\r\n\\x1b[2J\\x00\\x7f\\\\" + "ä".encode()
        self.assertEqual(self.receive(self.start("--format", "text"), data, len(shown)), shown)

    def test_binary_is_what_has_arrived(self):
        data = bytes(range(256))
        self.assertEqual(self.receive(self.start("--format=binary"), data, len(data)), data)

    def test_both_signals_end_it_and_restore_the_line(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number.name):
                process = self.start()
                process.send_signal(number)
                self.assert_ended(process, 0)

    def test_a_hang_up_is_reported(self):
        process = self.start()
        self.port.hang_up()
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        # The command may still be opening the port a second time.
        self.assertIn(process.stderr.read().decode(), [f"nserial: {self.port.name}: {error}\n" for error in (
            "Input/output error", "No such file or directory", "Serial port hangs-up")])

    def test_a_closed_standard_output_is_reported_and_the_line_restored(self):
        process = self.start()
        process.stdout.close()
        os.write(self.port.device, b"data")
        self.assert_ended(process, 1, "nserial: standard output: Broken pipe\n")


class SendingTest(PortTest):
    def assert_sent(self, data, *arguments, **options):
        done = run(self.port.name, "--send", *arguments, **options)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))
        self.assertEqual(self.port.read(len(data)), data)
        self.assertFalse(self.port.has_more())
        self.assertEqual(self.port.attributes(), self.port.attributes_before)

    def test_arguments_are_text_with_escape_sequences(self):
        self.assert_sent(b"AT\r\n\t\\\x00\xffend", r"AT\r\n\t", r"\\\x00\xFFend")

    def test_arguments_that_are_no_valid_text_keep_their_bytes(self):
        self.assert_sent(b"\xe4\xff", b"\xe4\xff")

    def test_an_argument_after_two_hyphens_is_no_option(self):
        self.assert_sent(b"--list-", "--", "--list", "-")

    def test_hexadecimal_arguments(self):
        self.assert_sent(b"\x01\xa0\xff\x00", "--format", "hex", "01 A0", "ff00")

    def test_binary_arguments_have_no_escape_sequences(self):
        self.assert_sent(rb"a\n", "--format", "binary", r"a\n")

    def test_standard_input_is_sent_as_it_is(self):
        data = bytes(range(256)) + b"\\n\n"
        self.assert_sent(data, input=data)

    def test_empty_standard_input_sends_nothing(self):
        self.assert_sent(b"", input=b"")

    def test_standard_input_from_a_file(self):
        with tempfile.TemporaryFile() as file:
            file.write(b"from a file\n")
            file.seek(0)
            self.assert_sent(b"from a file\n", stdin=file)

    def test_lines_of_the_standard_input_may_have_another_format(self):
        self.assert_sent(b"AT\rlast", "--format", "text", input=b"AT\\r\n\nlast")
        self.assert_sent(b"\x01\x02", "--format", "hex", input=b"01\n02\n")

    def test_a_line_of_the_standard_input_in_a_wrong_format_is_reported(self):
        done = run(self.port.name, "--send", "--format=hex", input=b"0x1\n")
        self.assertEqual((done.returncode, done.stderr), (1, b"nserial: standard input: 0x1: not in this format\n"))
        self.assertFalse(self.port.has_more())

    def fill_line(self, process, data):
        """Sends the beginning of data, until the driver takes no more. Returns the rest."""
        while select.select([], [self.port.line], [], 0)[1]:
            if select.select([], [process.stdin], [], 0.01)[1]:
                data = data[os.write(process.stdin.fileno(), data[:select.PIPE_BUF]):]
        return data

    def test_more_than_the_driver_takes_at_once_is_sent_whole(self):
        data = os.urandom(1000000)
        process = self.start("--send", stdin=subprocess.PIPE)
        rest = self.fill_line(process, data)
        received = b""
        while rest:
            received += self.port.read(1)
            rest = self.fill_line(process, rest)
        process.stdin.close()
        received += self.port.read(len(data) - len(received))
        self.assertEqual(received, data)
        self.assert_ended(process, 0)

    def test_a_long_argument_is_sent_whole_to_a_slow_device(self):
        data = b"0123456789" * 10000
        process = subprocess.Popen([PROGRAM, self.port.name, "--send", data], stderr=subprocess.PIPE)
        self.addCleanup(process.stderr.close)
        received = b""
        while len(received) < len(data):
            self.assertTrue(select.select([self.port.device], [], [], SECONDS_TO_WAIT)[0])
            received += os.read(self.port.device, 999)
        self.assertEqual(received, data)
        self.assert_ended(process, 0)

    def test_the_answer_is_printed(self):
        process = self.start("--format", "text", "--listen", "--send", "question\\n")
        self.assertEqual(self.port.read(9), b"question\n")
        os.write(self.port.device, b"answer\n")
        self.assertEqual(process.stdout.readline(), b"answer\n")
        process.terminate()
        self.assert_ended(process, 0)

    def test_without_listening_nothing_is_printed(self):
        process = self.start("--send", stdin=subprocess.PIPE)
        os.write(self.port.device, b"noise\n")
        process.stdin.write(b"data")
        process.stdin.flush()
        self.assertEqual(self.port.read(4), b"data")
        process.stdin.close()
        self.assertEqual(process.stdout.read(), b"")
        self.assert_ended(process, 0)

    def test_interrupted_sending_is_a_failure_and_restores_the_line(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number.name):
                process = self.start("--send", stdin=subprocess.PIPE)
                process.send_signal(number)
                self.assert_ended(process, 1, "nserial: interrupted\n")

    def test_what_the_device_has_not_read_does_not_delay_an_interruption(self):
        process = self.start("--send", stdin=subprocess.PIPE)
        self.fill_line(process, bytes(1000000))
        process.terminate()
        self.assert_ended(process, 1, "nserial: interrupted\n")

    def test_a_busy_driver_is_tried_again(self):
        process = self.start("--send", "data", program=PROGRAM_WITH_HARDWARE)
        self.assertEqual(self.port.read(4), b"data")
        process.terminate()
        self.assertTrue(process.stderr.read().endswith(b"nserial: interrupted\n"))

    def test_output_that_the_driver_has_not_sent_is_waited_for_until_interrupted(self):
        process = self.start("--send", "data", program=PROGRAM_WITH_HARDWARE)
        self.assertEqual(self.port.read(4), b"data")
        self.assertIsNone(process.poll())
        process.terminate()
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        self.assertTrue(process.stderr.read().endswith(b"nserial: interrupted\n"))
        self.assertEqual(self.port.attributes(), self.port.attributes_before)

    def test_a_hang_up_is_reported(self):
        process = self.start("--send", stdin=subprocess.PIPE)
        self.fill_line(process, bytes(1000000))
        self.port.hang_up()
        self.assertEqual(process.wait(SECONDS_TO_WAIT), 1)
        self.assertTrue(process.stderr.read().decode().startswith(f"nserial: {self.port.name}: "))


class SettingsTest(PortTest):
    def attributes_with(self, *arguments):
        process = self.start(*arguments)
        attributes = self.port.attributes()
        process.terminate()
        self.assert_ended(process, 0)
        return attributes

    def test_baud_rates(self):
        for rate in (110, 300, 600, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400):
            speed = getattr(termios, f"B{rate}")
            for arguments in ([f"--baud-rate={rate}"], ["--settings", str(rate)], ["--settings", f"{rate},8N1"]):
                with self.subTest(arguments=arguments):
                    attributes = self.attributes_with(*arguments)
                    self.assertEqual((attributes[INPUT_SPEED], attributes[OUTPUT_SPEED]), (speed, speed))

    def test_the_default_is_9600_8n1_without_flow_control(self):
        attributes = self.attributes_with()
        self.assertEqual(attributes[OUTPUT_SPEED], termios.B9600)
        self.assertFalse(attributes[CONTROL_FLAGS] & (termios.CSTOPB | termios.CRTSCTS))
        self.assertFalse(attributes[INPUT_FLAGS] & termios.IXON)

    def test_stop_bits(self):
        for arguments in (["--stop-bits", "2"], ["--settings=9600,7E2"], ["--settings=9600,8o2"]):
            with self.subTest(arguments=arguments):
                self.assertTrue(self.attributes_with(*arguments)[CONTROL_FLAGS] & termios.CSTOPB)

    def test_data_bits_and_parity(self):
        for arguments, settings in (([], "8 data bits, parity none"),
                                    (["--data-bits=7"], "7 data bits, parity none"),
                                    (["--data-bits=7", "--data-bits=8"], "8 data bits, parity none"),
                                    (["--parity=even"], "8 data bits, parity even"),
                                    (["--parity=odd"], "8 data bits, parity odd"),
                                    (["--settings=9600,7E1"], "7 data bits, parity even"),
                                    (["--settings=9600,7o1"], "7 data bits, parity odd"),
                                    (["--settings=9600,7O2", "--parity=none"], "7 data bits, parity none")):
            with self.subTest(arguments=arguments):
                done = run(*arguments, "--status", self.port.name, program=PROGRAM_WITH_HARDWARE)
                self.assertEqual(done.returncode, 0)
                self.assertEqual(done.stderr.decode().splitlines()[0], settings)

    def test_flow_control(self):
        self.assertTrue(self.attributes_with("--flow-control", "hardware")[CONTROL_FLAGS] & termios.CRTSCTS)
        self.assertTrue(self.attributes_with("--flow-control", "xonxoff")[INPUT_FLAGS] & termios.IXON)
        attributes = self.attributes_with("--flow-control", "rs485")
        self.assertFalse(attributes[CONTROL_FLAGS] & termios.CRTSCTS)

    def test_all_values_are_accepted(self):
        for argument in ("--data-bits=7", "--data-bits=8", "--parity=none", "--parity=even", "--parity=odd",
                         "--stop-bits=1", "--flow-control=none", "--rts=on", "--rts=off", "--dtr=on", "--dtr=off",
                         "--timeout=1000"):
            with self.subTest(argument=argument):
                self.attributes_with(argument)


class StatusTest(PortTest):
    def test_lines_of_a_port_without_any_are_off(self):
        done = run("--status", self.port.name)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(done.stdout, b"CTS off\nDSR off\nDCD off\nRI  off\nRTS off\nDTR off\n")
        self.assertEqual(self.port.attributes(), self.port.attributes_before)


    def test_output_lines_are_set_before_the_lines_are_printed(self):
        for arguments, rts, dtr in (([], "on", "off"), (["--rts=off"], "off", "off"), (["--dtr", "on"], "on", "on"),
                                    (["--rts", "off", "--dtr", "on"], "off", "on"),
                                    (["--rts=on", "--dtr=off"], "on", "off")):
            with self.subTest(arguments=arguments):
                done = run(self.port.name, *arguments, "--status", program=PROGRAM_WITH_HARDWARE)
                self.assertEqual(done.returncode, 0)
                self.assertEqual(done.stdout.decode(),
                                 f"CTS on\nDSR off\nDCD on\nRI  off\nRTS {rts}\nDTR {dtr}\n")

    def test_lines_can_be_printed_before_sending(self):
        done = run("--status", self.port.name, "--send", "data")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertTrue(done.stdout.startswith(b"CTS off\n"))
        self.assertEqual(self.port.read(4), b"data")


class OpeningTest(unittest.TestCase):
    def assert_fails(self, path, reason):
        done = run(path)
        self.assertEqual((done.returncode, done.stdout), (1, b""))
        self.assertEqual(done.stderr.decode(), f"nserial: {path}: {reason}\n")

    def test_a_missing_device(self):
        self.assert_fails("/dev/no-such-port", "No such file or directory")

    def test_a_directory(self):
        self.assert_fails("/dev", "Is a directory")

    def test_a_device_that_is_no_port(self):
        self.assert_fails("/dev/null", "not a serial port")

    def test_a_file_is_not_written_to(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(b"content")
            file.flush()
            done = run(file.name, "--send", "data")
            self.assertEqual((done.returncode, done.stderr.decode()), (1, f"nserial: {file.name}: not a serial port\n"))
            with open(file.name, "rb") as unchanged:
                self.assertEqual(unchanged.read(), b"content")

    def test_a_device_that_blocks_is_not_waited_for_after_the_time_out(self):
        done = run("--timeout=50", "/dev/blocking-port", program=PROGRAM_WITH_HARDWARE)
        self.assertEqual((done.returncode, done.stderr), (1, b"nserial: /dev/blocking-port: opening timeout\n"))

    def test_opening_can_be_interrupted(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number.name):
                process = subprocess.Popen([PROGRAM_WITH_HARDWARE, "/dev/blocking-port"], stderr=subprocess.PIPE)
                self.addCleanup(process.stderr.close)
                wait_until(lambda process=process: handles(process, number), "the handler of the signal")
                process.send_signal(number)
                self.assertEqual((process.wait(SECONDS_TO_WAIT), process.stderr.read()), (1, b"nserial: interrupted\n"))


class CommandLineTest(unittest.TestCase):
    def assert_refused(self, arguments, reason):
        with self.subTest(arguments=arguments):
            done = run(*arguments)
            self.assertEqual((done.returncode, done.stdout), (2, b""))
            self.assertEqual(done.stderr.decode(), f'nserial: {reason}\nTry "nserial --help".\n')

    def test_wrong_arguments_are_refused(self):
        self.assert_refused([], "no port is given")
        self.assert_refused(["--send"], "no port is given")
        self.assert_refused(["--frobnicate", "/dev/null"], "unknown option --frobnicate")
        self.assert_refused(["-x=1", "/dev/null"], "unknown option -x")
        self.assert_refused(["--baud-rate"], "--baud-rate needs a value")
        self.assert_refused(["/dev/null", "more"], 'unexpected argument "more"')
        self.assert_refused(["--list", "/dev/null"], 'unexpected argument "/dev/null"')

    def test_values_that_are_not_listed_are_refused(self):
        rates = "110, 300, 600, 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400"
        for value in ("9601", "0", "", "fast", "09600", "9600 "):
            self.assert_refused(["--baud-rate", value, "/dev/null"], f'"{value}" is not one of {rates}')
        self.assert_refused(["--data-bits=5", "/dev/null"], '"5" is not one of 7, 8')
        self.assert_refused(["--parity=mark", "/dev/null"], '"mark" is not one of none, even, odd, N, E, O')
        self.assert_refused(["--stop-bits=1.5", "/dev/null"], '"1.5" is not one of 1, 2')
        self.assert_refused(["--flow-control=dtr", "/dev/null"],
                            '"dtr" is not one of none, hardware, xonxoff, rs485')
        self.assert_refused(["--rts=1", "/dev/null"], '"1" is not one of on, off')
        self.assert_refused(["--dtr=", "/dev/null"], '"" is not one of on, off')
        self.assert_refused(["--format=octal", "/dev/null"], '"octal" is not one of hex, text, binary')
        for value in ("-1", "1.5", "", "9999999999"):
            self.assert_refused(["--timeout", value, "/dev/null"], f'"{value}" is not a number of milliseconds')

    def test_settings_in_a_wrong_form_are_refused(self):
        for value in ("9600,", "9600,8N", "9600,8N11", "9600,8N1,none"):
            self.assert_refused(["--settings", value, "/dev/null"], f'"{value}" is not of the form 9600,8N1')
        self.assert_refused(["--settings=9600,6N1", "/dev/null"], '"6" is not one of 7, 8')
        self.assert_refused(["--settings=9600,8X1", "/dev/null"], '"X" is not one of none, even, odd, N, E, O')
        self.assert_refused(["--settings=9600,8N3", "/dev/null"], '"3" is not one of 1, 2')
        self.assert_refused(["--settings=9600,3X7", "/dev/null"], '"3" is not one of 7, 8')

    def test_data_in_a_wrong_format_are_refused(self):
        for text in ("\\", "\\q", "\\x", "\\x1", "\\x1g", "\\0"):
            self.assert_refused(["/dev/null", "--send", text], f'"{text}" cannot be sent: it is not in this format')
        for text in ("0", "0x10", "gg", "012"):
            self.assert_refused(["/dev/null", "--send", "--format=hex", text],
                                f'"{text}" cannot be sent: it is not in this format')

    def test_help_and_version_are_printed(self):
        for option in ("--help", "-h"):
            done = run(option)
            self.assertEqual((done.returncode, done.stderr), (0, b""))
            self.assertTrue(done.stdout.startswith(b"Usage: nserial --list\n"))
            self.assertIn(b"The exit status is 0 ", done.stdout)
        done = run("--version")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(done.stdout.decode(), f"nserial {os.environ['NSERIAL_VERSION']}\n")


if __name__ == "__main__":
    unittest.main()
