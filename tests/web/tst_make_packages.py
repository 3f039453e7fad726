#!/usr/bin/python3
"""Runs examples/device/make-packages.sh on artificial systems."""

import os
import resource
import signal
import subprocess
import tempfile
import time
import unittest

from demo_device import SECONDS_TO_WAIT, SOURCE_DIRECTORY

SCRIPT = os.path.join(SOURCE_DIRECTORY, "examples", "device", "make-packages.sh")
HEADER = b'"PACKAGE","VERSION","LICENSE","LICENSE FILES","SOURCE ARCHIVE","SOURCE SITE"\n'


def stanza(name, version, status="install ok installed", **fields):
    lines = {"Package": name, "Status": status, "Architecture": "all", "Maintainer": "Somebody <nobody@example.org>",
             "Version": version, "Description": "something", **fields}
    return "".join(f"{key.replace('_', '-')}: {value}\n" for key, value in lines.items()) + "\n"


def contents(folder):
    """The bytes of each file below the folder by its path; nothing else may be there but folders."""
    found = {}
    for path, _, files in os.walk(folder):
        for name in files:
            file = os.path.join(path, name)
            assert not os.path.islink(file) and os.path.isfile(file), file
            with open(file, "rb") as opened:
                found[os.path.relpath(file, folder)] = opened.read()
    return found


def names_of_children(process):
    names = []
    with open(f"/proc/{process}/task/{process}/children", encoding="ascii") as file:
        for child in file.read().split():
            try:
                with open(f"/proc/{child}/comm", encoding="utf-8") as name:
                    names.append(name.read().strip())
            except (FileNotFoundError, ProcessLookupError):  # gone before the file was opened, or read
                pass
    return names


class MakePackagesTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory(prefix="nbase-make-packages-")
        self.addCleanup(self.folder.cleanup)
        # Blanks and what the tools used by the script could take for something else.
        self.root = os.path.join(self.folder.name, "a root=\\n")
        self.target = os.path.join(self.folder.name, "the target=\\n")
        os.makedirs(os.path.join(self.root, "var/lib/dpkg/info"))
        os.makedirs(os.path.join(self.root, "var/lib/dpkg/updates"))
        self.stanzas = b""

    def file(self, path):
        return os.path.join(self.root, path.lstrip("/"))

    def copyright_of(self, name):
        path = self.file(f"usr/share/doc/{name}/copyright")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        return path

    def write_status(self, text):
        with open(self.file("var/lib/dpkg/status"), "wb") as file:
            file.write(text)

    def install(self, name, version="1.0-1", text=None, **fields):
        self.stanzas += stanza(name, version, **fields).encode()
        self.write_status(self.stanzas)
        if text is not None:
            with open(self.copyright_of(name), "wb") as file:
                file.write(text)

    def run_script(self, *arguments, **options):
        return subprocess.run([SCRIPT, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)

    def make(self):
        made = self.run_script("--root", self.root, self.target)
        self.assertEqual((made.returncode, made.stdout, made.stderr), (0, "", ""))

    def manifest(self):
        """The records, which are checked to be well-formed, by package."""
        with open(os.path.join(self.target, "manifest.csv"), "rb") as file:
            header, *lines = file.read().splitlines(keepends=True)
        self.assertEqual(header, HEADER)
        records = {}
        for line in lines:
            self.assertTrue(line.startswith(b'"') and line.endswith(b'"\n'), line)
            fields = line[1:-2].decode("latin-1").split('","')
            self.assertEqual(len(fields), 6, line)
            self.assertNotIn(fields[0], records)
            records[fields[0]] = fields[1:]
        return records

    def text_of(self, folder):
        with open(os.path.join(self.target, "licenses", folder, "copyright"), "rb") as file:
            return file.read()

    def assert_fails_and_leaves_all_as_it_was(self, message, **options):
        before = contents(self.target)
        made = self.run_script("--root", self.root, self.target, **options)
        self.assertNotEqual(made.returncode, 0)
        self.assertIn(message, made.stderr)
        self.assertEqual(contents(self.target), before)
        self.assertEqual([name for name in os.listdir(self.target) if name.startswith(".")], [])

    # What is in the list

    def test_a_package_becomes_a_record_and_a_text(self):
        self.install("zlib1g", "1:1.2.13-1", b"License: Zlib\n text\n", Homepage="http://zlib.net/", Source="zlib (1:1.2.13)")
        self.make()
        self.assertEqual(contents(self.target), {
            "manifest.csv": HEADER + b'"zlib1g","1:1.2.13-1","Zlib","copyright","zlib_1:1.2.13","http://zlib.net/"\n',
            "licenses/zlib1g-1:1.2.13-1/copyright": b"License: Zlib\n text\n"})

    def test_odd_names_and_versions(self):
        packages = {"libstdc++6": "12.2.0-14", "0ad": "0~rc1+git2026.1-1", "a.b-c": "1:2", "f_s": "1.0+dfsg~1"}
        for name, version in packages.items():
            self.install(name, version, name.encode() + b"\n")
        self.make()
        self.assertEqual({name: record[0] for name, record in self.manifest().items()}, packages)
        for name, version in packages.items():
            self.assertEqual(self.text_of(f"{name}-{version}"), name.encode() + b"\n")

    def test_only_installed_packages_are_listed_and_each_once(self):
        with open(self.file("var/lib/dpkg/arch"), "w", encoding="ascii") as file:
            file.write("amd64\narmhf\n")
        self.install("there", text=b"text\n", Multi_Arch="same", Architecture="amd64")
        self.install("there", text=b"text\n", Multi_Arch="same", Architecture="armhf")
        self.install("removed", text=b"text\n", status="deinstall ok config-files")
        self.install("unpacked", text=b"text\n", status="install ok unpacked")
        self.make()
        self.assertEqual(list(self.manifest()), ["there"])
        self.assertEqual(os.listdir(os.path.join(self.target, "licenses")), ["there-1.0-1"])

    def test_licences_are_those_the_text_names_once_each(self):
        for name, text, licenses in (
                ("several", b"License: MIT\nLicense:  GPL-2+\t or \tMIT \nlicense: BSD\r\nLicense: MIT\n", "MIT, GPL-2+ or MIT, BSD"),
                ("quotes", b'License: "A", B\n', "A B"),
                ("inside", b"License: MIT\n License: not this\nThe License: nor this\nLicenses: nor this\n", "MIT"),
                ("no-value", b"License:\nLicense: \n", ""),
                ("no-line", b"Everybody may.\n", "")):
            with self.subTest(name):
                self.install(name, text=text)
                self.make()
                self.assertEqual(self.manifest()[name][1], licenses)

    def test_quotes_cannot_break_a_record(self):
        self.install("p", Homepage='http://example.org/?a="b","c"&d=%s')
        self.make()
        self.assertEqual(self.manifest()["p"][4], "http://example.org/?a='b','c'&d=%s")

    # Copyright files

    def test_a_package_without_a_text_has_none(self):
        self.install("missing")
        self.install("folder")
        os.makedirs(os.path.join(self.copyright_of("folder")))
        self.install("pipe")
        os.mkfifo(self.copyright_of("pipe"))
        self.install("broken")
        os.symlink("nowhere", self.copyright_of("broken"))
        self.make()
        self.assertEqual({name: record[1:3] for name, record in self.manifest().items()},
                         {name: ["", ""] for name in ("missing", "folder", "pipe", "broken")})
        self.assertEqual(list(contents(self.target)), ["manifest.csv"])

    def test_a_link_is_followed_inside_the_root_only(self):
        self.install("original", text=b"License: MIT\n")
        self.install("link")
        os.symlink("../original/copyright", self.copyright_of("link"))
        self.install("linked-folder")
        os.symlink("original", self.file("usr/share/doc/linked-folder"))
        outside = os.path.join(self.folder.name, "a root=\\n-beside")
        with open(outside, "wb") as file:
            file.write(b"secret\n")
        self.install("out")
        os.symlink(outside, self.copyright_of("out"))
        self.make()
        self.assertEqual({name: record[1:3] for name, record in self.manifest().items()}, {
            "original": ["MIT", "copyright"], "link": ["MIT", "copyright"], "linked-folder": ["MIT", "copyright"],
            "out": ["", ""]})
        self.assertEqual(set(contents(self.target)), {"manifest.csv"} | {
            f"licenses/{name}-1.0-1/copyright" for name in ("original", "link", "linked-folder")})

    def test_texts_become_latin1(self):
        for name, text, latin1 in (
                ("utf8", "© café – “q”\n".encode(), b'\xa9 caf\xe9 - "q"\n'),
                ("beyond", "漢 €\n".encode(), b"? EUR\n"),
                ("latin1", b"\xa9 caf\xe9\n", b"\xa9 caf\xe9\n"),
                ("mixed", "é".encode() + b" \xe9\n", "é".encode() + b" \xe9\n"),
                ("cut", "é".encode()[:1], "é".encode()[:1] + b"\n"),
                ("bytes", b"a\0b\x01\r\n\x1b[0m\t\\ %s\n", b"a\0b\x01\r\n\x1b[0m\t\\ %s\n"),
                ("like-a-mark", b"Fother\n F\n\n", b"Fother\n F\n\n"),
                ("empty", b"", b"")):
            with self.subTest(name):
                self.install(name, text=text)
                self.make()
                self.assertEqual(self.text_of(name + "-1.0-1"), latin1)

    def test_the_list_becomes_latin1(self):
        self.install("p", text="License: Café’s\n".encode(), Homepage="http://exämple.org/漢")
        self.make()
        self.assertEqual(self.manifest()["p"][1], "Café's")
        self.assertEqual(self.manifest()["p"][4], "http://exämple.org/?")

    def test_long_texts_and_lines_are_kept_whole(self):
        text = b"x" * 1000000 + b"\n" + b"line\n" * 200000
        self.install("p", text=text)
        self.make()
        self.assertEqual(self.text_of("p-1.0-1"), text)

    # Replacing a list

    def test_a_second_run_changes_nothing(self):
        self.install("p", text="License: MIT\n é\n".encode())
        self.install("q")
        self.make()
        before = contents(self.target)
        self.make()
        self.assertEqual(contents(self.target), before)
        self.assertEqual(sorted(os.listdir(self.target)), ["licenses", "manifest.csv"])

    def test_a_package_that_is_gone_goes_with_its_text(self):
        self.install("p", text=b"p\n")
        self.make()
        self.stanzas = b""
        self.install("q", text=b"q\n")
        self.make()
        self.assertEqual(set(contents(self.target)), {"manifest.csv", "licenses/q-1.0-1/copyright"})
        self.assertEqual(list(self.manifest()), ["q"])

    def test_a_failure_leaves_the_old_list(self):
        self.install("p", text=b"p\n")
        self.make()
        good = self.stanzas
        for status, message in (
                (b"", "dpkg-query knows of no installed package"),
                (stanza("p", "1", "deinstall ok config-files").encode(), "dpkg-query knows of no installed package"),
                (good + b"Package: q\nrubbish\n\n", "dpkg-query cannot list the packages"),
                (good + stanza("q", "1/../../../x").encode(), 'no folder can be named after the package "q" "1/../../../x"'),
                (good + stanza("q", "1", Homepage="x").encode().replace(b"x\n", b"\xff\n"), "is not UTF-8")):
            with self.subTest(message):
                self.write_status(status)
                self.assert_fails_and_leaves_all_as_it_was(message)
        os.unlink(self.file("var/lib/dpkg/status"))
        self.assert_fails_and_leaves_all_as_it_was("no installed package")

    def test_a_full_disk_leaves_the_old_list(self):
        self.install("p", text=b"p\n")
        self.make()
        self.install("q", text=b"long\n" * 100000)
        # To a process that may write no large file, the disk is full.
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))
        self.assert_fails_and_leaves_all_as_it_was("", preexec_fn=limit)

    def test_a_target_that_cannot_be_replaced_keeps_its_texts(self):
        self.install("p", text=b"p\n")
        self.make()
        os.unlink(os.path.join(self.target, "manifest.csv"))
        os.makedirs(os.path.join(self.target, "manifest.csv", "folder"))
        self.install("q", text=b"q\n")
        self.assert_fails_and_leaves_all_as_it_was("cannot be written")

    def test_an_interrupted_run_leaves_the_old_list(self):
        self.install("p", text=b"p\n")
        self.make()
        before = contents(self.target)
        os.unlink(self.file("var/lib/dpkg/status"))
        os.mkfifo(self.file("var/lib/dpkg/status"))  # without a writer, so that dpkg-query waits
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number.name):
                run = subprocess.Popen([SCRIPT, "--root", self.root, self.target], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL, start_new_session=True)
                end = time.monotonic() + SECONDS_TO_WAIT
                while "dpkg-query" not in names_of_children(run.pid):
                    self.assertLess(time.monotonic(), end, "dpkg-query has not been started")
                    time.sleep(0.01)
                os.killpg(run.pid, number)
                self.assertNotEqual(run.wait(SECONDS_TO_WAIT), 0)
                self.assertEqual(contents(self.target), before)
                self.assertEqual(sorted(os.listdir(self.target)), ["licenses", "manifest.csv"])

    def test_wrong_arguments_are_reported(self):
        for arguments in ((), ("--root", self.root), ("a", "b"), ("--root", self.root, "a", "b")):
            with self.subTest(arguments):
                self.assertIn("usage: make-packages.sh", self.run_script(*arguments).stderr)
        missing = self.file("missing")
        self.assertIn(f'there is no folder "{missing}"', self.run_script("--root", missing, self.target).stderr)

    def test_without_a_root_it_is_this_machine(self):
        made = self.run_script(self.target)
        self.assertEqual((made.returncode, made.stderr), (0, ""))
        installed = subprocess.run(["dpkg-query", "-W", "-f", "${db:Status-Status} ${Package}\n"], check=True,
                                   stdout=subprocess.PIPE, text=True).stdout.splitlines()
        self.assertEqual(set(self.manifest()), {line.split()[1] for line in installed if line.startswith("installed ")})


if __name__ == "__main__":
    unittest.main(verbosity=2)
