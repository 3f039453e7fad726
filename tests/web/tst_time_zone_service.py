#!/usr/bin/python3
"""Requests documents of the time zone service through the demo's real web server, with curl."""

import contextlib
import json
import os
import socket
import struct
import subprocess
import tempfile
import time
import unittest

from demo_device import SECONDS_TO_WAIT, Demo

ZONES = "/usr/share/zoneinfo"
SECTION_QUERIES = ("", "section=information", "section=content", "section=content&region=Europe",
                   "section=content&region=Europe&town=Paris", "section=nothing", "section=content&region=Atlantis")


def single_precision(number):
    return struct.unpack("f", struct.pack("f", number))[0]


def degrees(text, digits):
    """Decimal degrees of a coordinate in zone.tab; the sign is that of the whole degrees, so that -00 has none."""
    whole = int(text[:digits + 1])
    minutes = int(text[digits + 1:digits + 3])
    seconds = int(text[digits + 3:] or "0")
    value = abs(whole) + (minutes + seconds / 60) / 60
    return -value if whole < 0 else value


def coordinates(text):
    """Latitude and longitude: two digits of degrees for the first, three for the second."""
    second = max(text.rfind("+"), text.rfind("-"))
    return degrees(text[:second], 2), degrees(text[second:], 3)


def posix_string(zone):
    """The last line of a compiled zone file (tzfile(5))."""
    with open(os.path.join(ZONES, zone), "rb") as file:
        return file.read().split(b"\n")[-2].decode("ascii")


def zones_of_the_system():
    with open(os.path.join(ZONES, "zone.tab"), encoding="ascii") as table:
        for line in table:
            if line.startswith("#"):
                continue
            country, place, zone, comment = (line.rstrip("\n").split("\t") + [""])[:4]
            if os.path.isfile(os.path.join(ZONES, zone)):
                yield zone, country, coordinates(place), comment


class Answer:
    def __init__(self, output):
        header, _, self.body = output.partition(b"\r\n\r\n")
        lines = header.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split()[1])
        self.fields = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}

    def document(self):
        return json.loads(self.body.decode("utf-8"))


class TimeZoneServiceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.demo = Demo()
        cls.addClassCleanup(cls.demo.remove)
        cls.demo.start()
        cls.folder = tempfile.TemporaryDirectory(prefix="nbase-curl-test-")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.cookies = os.path.join(cls.folder.name, "cookies")
        cls.login = cls.curl("/api/login", "-c", cls.cookies, "-d", '{"user":"demo","password":"demo"}')

    @classmethod
    def curl(cls, path, *options):
        command = ["curl", "--silent", "--show-error", "--include", "--max-time", "30", "--noproxy", "*",
                   "--path-as-is", "--globoff", *options, cls.demo.address + path]
        return Answer(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)

    def ask(self, query, *options):
        return self.curl("/api/timezones" + ("?" + query if query else ""), "-b", self.cookies, *options)

    def document(self, query):
        answer = self.ask(query)
        self.assertEqual(answer.status, 200)
        self.assertEqual(answer.fields["content-type"], "application/json; charset=utf-8")
        return answer.document()

    def until_logged(self, remark, query):
        """The web server passes the remark on to the system log after it has answered."""
        end = time.monotonic() + SECONDS_TO_WAIT
        while True:
            with open(os.path.join(self.demo.run_directory(), "log", "messages"), "rb") as log:
                text = log.read()
            if remark in text or time.monotonic() > end:
                return self.assertIn(remark, text, query)
            time.sleep(0.02)

    def test_login_sets_a_cookie_that_scripts_and_other_sites_cannot_use(self):
        self.assertEqual(self.login.status, 200)
        cookie = self.login.fields["set-cookie"]
        self.assertRegex(cookie, r"^session=[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12};")
        self.assertIn("; HttpOnly", cookie)
        self.assertIn("; SameSite=Strict", cookie)

    def test_wrong_credentials_are_refused(self):
        for body, status in (('{"user":"demo","password":"Demo"}', 401), ('{"user":"demo"}', 400),
                             ('{"user":"demo","password":1}', 400), ("[]", 400), ("", 400), ("{", 400),
                             ('{"user":"demo","password":"demo"} x', 400), ("[" * 100000, 400)):
            answer = self.curl("/api/login", "-d", body)
            self.assertEqual(answer.status, status, body[:40])
            self.assertNotIn("set-cookie", answer.fields)
            # A challenge that makes no browser ask for a password by itself.
            self.assertEqual(answer.fields.get("www-authenticate"), "Cookie" if status == 401 else None)

    def test_every_document_needs_a_session(self):
        for query in SECTION_QUERIES:
            self.assertEqual(self.curl("/api/timezones?" + query).status, 401, query)
        forged = "session=00000000-0000-4000-8000-000000000000"
        self.assertEqual(self.curl("/api/timezones", "-b", forged).status, 401)

    def test_every_zone_of_the_system_is_served_as_the_system_has_it(self):
        content = self.document("section=content")
        expected = {}
        for zone, country, (latitude, longitude), comment in zones_of_the_system():
            region, _, town = zone.partition("/")
            expected[zone] = {
                "townName": town.replace("_", " "), "timezoneCode": posix_string(zone), "countryCode": country,
                "latitude": latitude, "longitude": longitude, "comment": comment}
        served = {region + "/" + town: document
                  for region in content for town, document in content[region]["towns"].items()}
        self.assertGreater(len(expected), 300)
        self.assertEqual(sorted(served), sorted(expected))
        for zone, town in expected.items():
            for field in ("latitude", "longitude"):
                self.assertAlmostEqual(
                    single_precision(served[zone].pop(field)), town.pop(field), delta=2e-5, msg=zone + " " + field)
            self.assertEqual(served[zone], town, zone)

    def test_the_whole_database_is_content_and_information(self):
        database = self.document("")
        self.assertEqual(sorted(database), ["content", "information"])
        self.assertEqual(database["content"], self.document("section=content"))
        self.assertEqual(database["information"], self.document("section=information"))
        self.assertRegex(database["information"]["dateTime"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
        with open(os.path.join(ZONES, "tzdata.zi"), encoding="ascii") as file:
            self.assertEqual("# version " + database["information"]["version"], file.readline().rstrip("\n"))

    def test_the_query_chooses_the_document(self):
        content = self.document("section=content")
        europe = content["Europe"]
        self.assertEqual(europe["regionName"], "Europe")
        buenos_aires = content["America"]["towns"]["Argentina/Buenos_Aires"]
        for query, document in (
                ("section=content&region=Europe", europe),
                ("section=content&region=Europe&town=Paris", europe["towns"]["Paris"]),
                ("town=Paris&region=Europe&section=content", europe["towns"]["Paris"]),
                ("section=%63ontent&region=%45urope&town=%50aris", europe["towns"]["Paris"]),
                ("section=content&region=America&town=Argentina/Buenos_Aires", buenos_aires),
                ("section=content&region=America&town=Argentina%2FBuenos_Aires", buenos_aires),
                ("section=content&region=Europe&town=Paris&town=Paris", europe),
                ("section=content&region=America&region=Europe", content),
                ("section=content&town=Paris", content)):
            self.assertEqual(self.document(query), document, query)
        database = self.document("")
        for query in ("section=nothing", "section=", "section=Content", "section=content&section=content",
                      "region=Europe&town=Paris", "SECTION=content", "%73ectio%6E=x", "&&a&=b"):
            self.assertEqual(self.document(query), database, query)

    def test_what_does_not_exist_is_answered_404_and_logged(self):
        for query, remark in (
                ("section=content&region=Atlantis", b'cannot read the region named "Atlantis" because'),
                ("section=content&region=europe", b'cannot read the region named "europe" because'),
                ("section=content&region=Europe&town=Pari", b'cannot read the town named "Pari" in region "Europe"'),
                ("section=content&region=America&town=Buenos%20Aires",
                 b'cannot read the town named "Buenos Aires" in region "America" because it does not exists'),
                ("section=content&region=America&town=New+York", b'the town named "New York" in region "America"'),
                # The device writes Latin-1; lighttpd spells out what is not ASCII.
                ("section=content&region=%C3%89urope", b'cannot read the region named "\\xc9urope" because'),
                ("section=content&region=%E2%82%AC", b'cannot read the region named "?" because'),
                ("section=content&region=a%0D%0AHTTP/1.1%20200%20OK", b'region named "a\\x0d\\x0aHTTP/1.1 200 OK"')):
            self.assertEqual(self.ask(query).status, 404, query)
            self.until_logged(
                b'Error in request processor for request to script "/api/timezones" with path info "": '
                + (remark if remark.startswith(b"cannot") else b""), query)
            self.until_logged(remark, query)

    def test_what_cannot_be_decoded_is_answered_400(self):
        for query in ("section=%", "section=%4", "section=%zz", "section=%FF", "section=%C3", "%C0%AF=1",
                      "a=%ED%A0%80"):
            self.assertEqual(self.ask(query).status, 400, query)

    def test_a_query_of_ten_megabytes_is_refused(self):
        answer = b""
        with socket.create_connection(("127.0.0.1", self.demo.port), timeout=30) as connection:
            # The web server may hang up in the middle.
            with contextlib.suppress(BrokenPipeError, ConnectionResetError):
                connection.sendall(b"GET /api/timezones?" + b"a" * 10_000_000 + b" HTTP/1.1\r\nHost: device\r\n\r\n")
            with contextlib.suppress(ConnectionResetError):
                answer = connection.recv(4096)
        self.assertIn(answer[9:12], (b"", b"400", b"413", b"414", b"431"))
        self.assertEqual(self.ask("section=information").status, 200)

    def test_other_methods_are_not_allowed(self):
        for method in ("POST", "PUT", "DELETE", "PATCH", "OPTIONS"):
            answer = self.ask("section=content", "-X", method, "-d", "")
            self.assertEqual(answer.status, 405, method)
            self.assertEqual(answer.fields["allow"], "GET, HEAD", method)
        answer = self.ask("section=content", "--head")
        self.assertEqual((answer.status, answer.body), (200, b""))

    def test_a_page_of_another_site_cannot_log_in_or_out(self):
        for path in ("/api/login", "/api/logout"):
            answer = self.curl(path, "-b", self.cookies, "-H", "Origin: http://evil.example", "-d", "{}")
            self.assertEqual(answer.status, 403, path)
        self.assertEqual(self.ask("section=information").status, 200)

    def test_logging_out_ends_the_session(self):
        cookies = os.path.join(self.folder.name, "other cookies")
        self.curl("/api/login", "-c", cookies, "-d", '{"user":"demo","password":"demo"}')
        self.assertEqual(self.curl("/api/timezones", "-b", cookies).status, 200)
        self.assertEqual(self.curl("/api/logout", "-b", cookies, "-d", "").status, 200)
        self.assertEqual(self.curl("/api/timezones", "-b", cookies).status, 401)

    def test_an_unknown_path_is_not_found(self):
        self.assertEqual(self.curl("/api/unknown", "-b", self.cookies).status, 404)
        self.assertEqual(self.curl("/../../etc/passwd").status, 404)


if __name__ == "__main__":
    unittest.main()
