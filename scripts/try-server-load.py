#!/usr/bin/env python3
"""Requests documents from a web server over many connections at once and checks that the program behind it does not grow.

    try-server-load.py [--connections N] [--duration SECONDS] [--header "Name: value"]... --pid PID URL...

Every connection requests the given URLs (http, all of one host) in turn, repeatedly. The test fails when a status is not
200, when the program has more open descriptors at the end than at the beginning, or when it occupies more memory at the
end than after the first second. Memory is measured while no request is open. A difference of a few pages is allowed:
malloc() keeps memory according to the largest number of requests open at once, which the first second need not reach.
"""

import argparse
import os
import selectors
import socket
import sys
import time
import urllib.parse

ALLOWED_PAGES = 64


class Connection:
    """One kept connection that sends its next request when the previous one is answered."""

    def __init__(self, address, requests, offset):
        self.address = address
        self.requests = requests
        self.next = offset
        self.socket = None
        self.answers = 0

    def send(self):
        if self.socket is None:
            self.socket = socket.create_connection(self.address)
        self.socket.sendall(self.requests[self.next % len(self.requests)])
        self.next += 1
        self.received = b""
        self.size = None

    def receive(self):
        """Returns whether the answer is complete."""
        data = self.socket.recv(1 << 18)
        if not data:
            raise RuntimeError("the web server closed a connection before an answer was complete")
        if self.size is None:
            self.received += data
            header, end, rest = self.received.partition(b"\r\n\r\n")
            if not end:
                return False
            self.begin(header, rest)
        else:
            self.take(data)
        return self.complete

    def begin(self, header, rest):
        lines = header.decode("latin-1").split("\r\n")
        if lines[0].split(" ")[1] != "200":
            raise RuntimeError("unexpected status: " + lines[0])
        fields = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        self.chunked = fields.get("transfer-encoding", "") == "chunked"
        self.size = 0 if self.chunked else int(fields["content-length"])
        self.closes = fields.get("connection", "") == "close"
        self.tail = b""
        self.taken = 0
        self.take(rest)

    def take(self, data):
        self.taken += len(data)
        if self.chunked:
            self.tail = (self.tail + data)[-7:]
            self.complete = self.tail.endswith(b"\r\n0\r\n\r\n")
        else:
            self.complete = self.taken >= self.size
        if self.complete:
            self.answers += 1
            if self.closes:
                self.close()

    def close(self):
        if self.socket is not None:
            self.socket.close()
            self.socket = None


def memory(pid):
    """The bytes that the process occupies; exact, unlike the batched counters of /proc/<pid>/status."""
    with open("/proc/%d/smaps_rollup" % pid) as file:
        for line in file:
            if line.startswith("Rss:"):
                return int(line.split()[1]) * 1024
    raise RuntimeError("no memory figure of process %d" % pid)


def descriptors(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


def load(connections, duration):
    """Keeps all connections busy for the given seconds, then waits for the outstanding answers."""
    selector = selectors.DefaultSelector()
    end = time.monotonic() + duration

    def start(connection):
        connection.send()
        selector.register(connection.socket, selectors.EVENT_READ, connection)

    for connection in connections:
        start(connection)
    while selector.get_map():
        events = selector.select(timeout=30)
        if not events:
            raise RuntimeError("no answer within 30 seconds")
        for key, _ in events:
            if key.data.receive():
                selector.unregister(key.fileobj)
                if time.monotonic() < end:
                    start(key.data)


def settled(figure, goal):
    """The figure as soon as it is at most the goal, after one second at the latest."""
    end = time.monotonic() + 1
    while figure() > goal and time.monotonic() < end:
        time.sleep(0.01)
    return figure()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--connections", type=int, default=64)
    parser.add_argument("--duration", type=float, default=60)
    parser.add_argument("--header", action="append", default=[])
    parser.add_argument("--pid", type=int, required=True)
    parser.add_argument("urls", nargs="+", metavar="URL")
    arguments = parser.parse_args()

    urls = [urllib.parse.urlsplit(url) for url in arguments.urls]
    fields = "".join(field + "\r\n" for field in ["Host: " + urls[0].netloc] + arguments.header)
    requests = [("GET %s HTTP/1.1\r\n%s\r\n" % (urllib.parse.urlunsplit(("", "", url.path, url.query, "")), fields))
                .encode("ascii") for url in urls]
    address = (urls[0].hostname, urls[0].port or 80)
    connections = [Connection(address, requests, index) for index in range(arguments.connections)]

    descriptors_before = descriptors(arguments.pid)
    load(connections, min(1, arguments.duration / 2))
    memory_before = memory(arguments.pid)
    load(connections, arguments.duration - min(1, arguments.duration / 2))
    allowed = memory_before + ALLOWED_PAGES * os.sysconf("SC_PAGE_SIZE")
    memory_after = settled(lambda: memory(arguments.pid), allowed)
    for connection in connections:
        connection.close()
    descriptors_after = settled(lambda: descriptors(arguments.pid), descriptors_before)

    print("%d answers, memory %d then %d kB, descriptors %d then %d" % (
        sum(connection.answers for connection in connections), memory_before // 1024, memory_after // 1024,
        descriptors_before, descriptors_after))
    if memory_after > allowed:
        sys.exit("the program occupies more memory than after the first second")
    if descriptors_after > descriptors_before:
        sys.exit("the program leaks descriptors")


if __name__ == "__main__":
    try:
        main()
    except (OSError, RuntimeError) as error:
        sys.exit("try-server-load.py: %s" % error)
