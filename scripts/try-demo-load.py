#!/usr/bin/env python3
"""Starts the demo device and requests its documents over many connections at once, see try-server-load.py.

    try-demo-load.py <device program> [<seconds>]

The demo listens on a free port and is stopped in any case.
"""

import os
import subprocess
import sys

SCRIPTS = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(SCRIPTS, "..", "tests", "web"))

from demo_device import Client, Demo  # noqa: E402, the folder is added above

DOCUMENTS = ["/api/timezones?section=information", "/api/timezones?section=content", "/api/timezones"]
CONNECTIONS = 64


def session_cookie(address):
    """The name and the value of the session's cookie, as a request sends them."""
    with Client(address).post("/api/login", {"user": "demo", "password": "demo"}) as response:
        return response.headers["Set-Cookie"].split(";")[0]


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: try-demo-load.py <device program> [<seconds>]")
    seconds = sys.argv[2] if len(sys.argv) == 3 else "60"
    demo = Demo()
    try:
        subprocess.run(demo.start_command(device=sys.argv[1]), check=True)
        result = subprocess.run([
            os.path.join(SCRIPTS, "try-server-load.py"), "--connections", str(CONNECTIONS), "--duration", seconds,
            "--header", "Cookie: " + session_cookie(demo.address), "--pid", str(demo.process("device")),
            *(demo.address + document for document in DOCUMENTS)]).returncode
    finally:
        demo.remove()
    sys.exit(result)


if __name__ == "__main__":
    main()
