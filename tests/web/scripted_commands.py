"""Commands ping and traceroute whose output a test decides, in place of those that the demo device runs otherwise."""

import os
import tempfile

# The host is the last argument.
PING = """#!/bin/sh
for host; do :; done
cd "$(dirname "$0")"
echo >>"$host.pings"
number=$(wc -l <"$host.pings")
reply=$(sed -n "${number}p" "$host.replies")
[ -n "$reply" ] || reply=$(tail -n 1 "$host.replies")
echo "PING $host: 56 data bytes"
case "$reply" in
    lost) exit 1 ;;
    untimed) echo "64 bytes from $host: seq=0 ttl=64" ;;
    never) exec sleep 1000 ;;
    *) echo "64 bytes from $host: seq=0 ttl=64 time=$reply ms" ;;
esac
"""

TRACEROUTE = """#!/bin/sh
for host; do :; done
cd "$(dirname "$0")"
number=1
while :; do
    line=$(sed -n "${number}p" "$host.route")
    case "$line" in
        end) exit 0 ;;
        '') sleep 0.1 ;;
        *)
            echo "$line"
            number=$((number + 1))
            ;;
    esac
done
"""


class ScriptedCommands:
    """A folder with the commands."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-commands-")
        self.path = self.folder.name
        # The device may have another user's rights.
        os.chmod(self.path, 0o755)
        for name, text in (("ping", PING), ("traceroute", TRACEROUTE)):
            self.write(name, text)
            os.chmod(os.path.join(self.path, name), 0o755)

    def write(self, name, text, mode="w"):
        with open(os.path.join(self.path, name), mode, encoding="latin-1") as file:
            file.write(text)

    def reply(self, host, *replies):
        """What the next pings of the host have as result: milliseconds as "0.123", "lost", "untimed" for a reply without
        a time, or "never", which lasts until the ping is stopped. The last one is that of all further pings."""
        self.write(host + ".pings", "")
        self.write(host + ".replies", "".join(reply + "\n" for reply in replies))

    def begin_route(self, host):
        self.write(host + ".route", "")

    def trace(self, host, *lines):
        """What a traceroute to the host writes next. After the line "end" it ends."""
        self.write(host + ".route", "".join(line + "\n" for line in lines), "a")

    def remove(self):
        self.folder.cleanup()
