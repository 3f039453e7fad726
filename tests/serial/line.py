"""Serial lines made of pseudoterminals."""

import os
import select
import termios
import time
import tty

SECONDS_TO_WAIT = 60

# Indexes of the list that termios.tcgetattr() returns.
INPUT_FLAGS, CONTROL_FLAGS, INPUT_SPEED, OUTPUT_SPEED = 0, 2, 4, 5


def wait_until(condition, what):
    end = time.monotonic() + SECONDS_TO_WAIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(0.01)


class Line:
    """A port whose other end is a descriptor of the test, which stands for the device."""

    def __init__(self):
        self.device, self.line = os.openpty()
        self.name = os.ttyname(self.line)
        tty.setraw(self.line)
        # A speed that no test asks for, and a flag that raw mode clears.
        attributes = termios.tcgetattr(self.line)
        attributes[INPUT_SPEED] = attributes[OUTPUT_SPEED] = termios.B1800
        attributes[INPUT_FLAGS] |= termios.ISTRIP
        termios.tcsetattr(self.line, termios.TCSANOW, attributes)
        self.attributes_before = termios.tcgetattr(self.line)

    def attributes(self):
        return termios.tcgetattr(self.line)

    def is_open(self):
        return self.attributes() != self.attributes_before

    def read(self, size):
        """What the device receives, at least size bytes of it."""
        data = b""
        while len(data) < size:
            if not select.select([self.device], [], [], SECONDS_TO_WAIT)[0]:
                raise AssertionError(f"only {len(data)} of {size} bytes have arrived")
            data += os.read(self.device, 65536)
        return data

    def has_more(self):
        return bool(select.select([self.device], [], [], 0)[0])

    def hang_up(self):
        os.close(self.device)
        self.device = -1

    def close(self):
        for descriptor in (self.device, self.line):
            if descriptor >= 0:
                os.close(descriptor)
