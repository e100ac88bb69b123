#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What is meant for Windows, held against each other and against the driver.

usage: windows_media_test.py FOLDER; FOLDER has files/, and with mtools and xorriso the two images."""
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

FOLDER = sys.argv.pop(1)
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
IMPORTED_MODULES = {"ntoskrnl.exe", "hal.dll", "scsiport.sys"}


def text(name):
    with open(f"{FOLDER}/files/{name}", "rb") as file:
        return file.read().decode("ascii")


def sections(name):
    """Of an INF or txtsetup.oem: lower-case section names, lines as pairs of what stands before and behind '='."""
    result, lines = {}, None
    for line in text(name).splitlines():
        line = line.split(";")[0].strip()
        if line.startswith("["):
            lines = result.setdefault(line.strip("[]").lower(), [])
        elif line:
            before, _, behind = line.partition("=")
            lines.append((before.strip(), behind.strip()))
    return result


def words(value):
    return [word.strip() for word in value.split(",")]


def driver_settings():
    """Names that the driver reads, with the defaults of those that it has as constants."""
    with open(f"{ROOT}/driver/state/settings.cpp") as file:
        source = file.read()
    names = set(re.findall(r'L"([A-Z_]+)"', source))
    defaults = {}
    for name, value in re.findall(r"^U?LONG (\w+) = (\d+)", source, re.M):
        defaults[name] = int(value)
    return names, defaults


def imported_modules():
    with open(f"{FOLDER}/files/qrndisk.sys", "rb") as file:
        data = file.read()
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    count, optional_bytes = struct.unpack_from("<H12xH", data, pe + 6)
    at = struct.unpack_from("<I", data, pe + 24 + 96 + 8)[0]
    places = [struct.unpack_from("<8xIIII", data, pe + 24 + optional_bytes + 40 * i) for i in range(count)]

    def offset(address):
        for size, start, raw_bytes, raw in places:
            if start <= address < start + max(size, raw_bytes):
                return raw + address - start
        raise ValueError(address)

    modules = set()
    at = offset(at)
    while (name := struct.unpack_from("<12xI4x", data, at)[0]) != 0:
        start = offset(name)
        modules.add(data[start:data.index(b"\0", start)].decode().lower())
        at += 20
    return modules


class WindowsMedia(unittest.TestCase):
    def setUp(self):
        self.inf, self.oem = sections("qrndisk.inf"), sections("txtsetup.oem")
        self.strings = {name.lower(): value.strip('"') for name, value in self.inf["strings"]}

    def expand(self, value):
        return re.sub(r"%([A-Za-z]+)%", lambda m: self.strings[m[1].lower()], value).strip('"')

    def service_of_inf(self):
        name, flags, section = words(dict(self.inf["defaultinstall.services"])["AddService"])
        self.assertEqual(flags, "0", "no Plug and Play device comes with it")
        return name, {key: self.expand(value) for key, value in self.inf[section.lower()]}

    def test_Every_section_that_is_named_is_there_and_every_file_too(self):
        inf = self.inf
        self.assertEqual(dict(inf["version"])["Signature"], '"$Windows NT$"')
        files = {name for name, _ in inf["sourcedisksfiles"]}
        self.assertEqual(files, {"qrndisk.sys"})
        for name, disk in inf["sourcedisksfiles"]:
            self.assertIn(disk, dict(inf["sourcedisksnames"]))
            self.assertTrue(os.path.exists(f"{FOLDER}/files/{name}"))
        self.assertEqual(dict(inf["destinationdirs"])["DefaultDestDir"], "12", "system32\\drivers")
        for section in ("defaultinstall", "defaultuninstall"):
            for _, value in inf[section]:
                self.assertEqual({name for name, _ in inf[value.lower()]}, files)
        for value in re.findall(r"%([A-Za-z]+)%", text("qrndisk.inf")):
            self.assertIn(value.lower(), self.strings)
        self.assertRegex(dict(inf["version"])["DriverVer"], r"^\d\d/\d\d/\d{4},\d+\.\d+\.\d+\.\d+$")

        disks = {name: words(value) for name, value in self.oem["disks"]}
        for name, (title, tag, folder) in disks.items():
            self.assertEqual(title.strip('"'), self.strings["disk"])
            self.assertTrue(os.path.exists(f"{FOLDER}/files/{tag.lstrip(chr(92))}"), tag)
            self.assertEqual(folder, "\\")
        chosen = dict(self.oem["defaults"])["scsi"]
        self.assertEqual(dict(self.oem["scsi"])[chosen].strip('"'), self.strings["adapter"])
        for kind, value in self.oem[f"files.scsi.{chosen}"]:
            disk, name, *key = words(value)
            self.assertIn(disk, disks)
            self.assertTrue(os.path.exists(f"{FOLDER}/files/{name}"), name)
            if kind == "driver":
                self.assertIn(f"config.{key[0]}", self.oem)

    def test_All_ways_to_install_make_the_same_service(self):
        name, service = self.service_of_inf()
        self.assertEqual(service["ServiceType"], "1")
        self.assertEqual(service["StartType"], "0", "the boot loader loads it")
        self.assertEqual(service["LoadOrderGroup"], "SCSI Miniport")
        kind, value = next((k, v) for k, v in self.oem["files.scsi.qrndisk"] if k == "driver")
        self.assertEqual(words(value)[1:], ["qrndisk.sys", name])

        reg = text("qrndisk.reg")
        self.assertTrue(reg.startswith("Windows Registry Editor Version 5.00\r\n\r\n"))
        key = re.search(r"^\[(HKEY.*)\]\r$", reg, re.M)[1]
        self.assertEqual(key.split("\\")[-2:], ["Services", name])
        values = dict(re.findall(r'^"(\w+)"=(.*)\r$', reg, re.M))
        for ours, theirs in (("Type", "ServiceType"), ("Start", "StartType"), ("ErrorControl", "ErrorControl")):
            self.assertEqual(int(values[ours].removeprefix("dword:"), 16), int(service[theirs]))
        self.assertEqual(values["Group"].strip('"'), service["LoadOrderGroup"])
        self.assertEqual(values["DisplayName"].strip('"'), service["DisplayName"])
        path = bytes(int(byte, 16) for byte in values["ImagePath"].removeprefix("hex(2):").split(","))
        self.assertEqual(path.decode("utf-16-le"), "system32\\drivers\\qrndisk.sys\0")
        self.assertIn(f"[-{key}]\r\n", text("remove.reg"))
        self.assertEqual(dict(self.inf["defaultuninstall.services"])["DelService"], name)

    def test_Settings_are_those_that_the_driver_reads_with_its_own_defaults(self):
        names, defaults = driver_settings()
        from_inf = {}
        for line, _ in self.inf[self.service_of_inf()[1]["AddReg"].lower()]:
            root, subkey, name, flags, value = words(line)
            self.assertEqual((root, subkey), ("HKR", ""))
            self.assertEqual(int(flags, 16), 0x00010003, f"{name}: a DWORD, and what is there stays")
            from_inf[name] = int(value)
        from_oem = {}
        for _, value in self.oem["config.qrndisk"]:
            subkey, name, kind, number = words(value)
            self.assertEqual((subkey, kind), ('""', "REG_DWORD"))
            from_oem[name] = int(number, 16)
        self.assertEqual(from_inf, from_oem)
        self.assertLessEqual(set(from_inf), names)
        self.assertEqual(from_inf["HOT_RETRYS"], defaults["HOT_RETRYS"])
        self.assertEqual(from_inf["TRANS_SIZE"], defaults["TRANS_SIZE"])
        for name in names:
            self.assertNotIn(f'"{name}"', text("qrndisk.reg"), "what a system has set stays")

    def test_Driver_needs_only_what_is_loaded_before_its_group(self):
        self.assertEqual(imported_modules(), IMPORTED_MODULES)

    def test_Scripts_use_only_files_that_are_there(self):
        for script in ("install.cmd", "remove.cmd"):
            for name in re.findall(r"%~dp0([\w.]+)", text(script)):
                self.assertTrue(os.path.exists(f"{FOLDER}/files/{name}"), f"{script}: {name}")
            for label in re.findall(r"goto (\w+)", text(script)):
                self.assertIn(f"\r\n:{label}\r\n", text(script))

    def test_Texts_are_plain_with_line_ends_of_Windows_and_short_names(self):
        for name in os.listdir(f"{FOLDER}/files"):
            self.assertRegex(name, r"^[a-z]{1,8}\.[a-z]{3}$")
            if name != "qrndisk.sys":
                self.assertEqual(text(name).count("\n"), text(name).count("\r\n"))

    @unittest.skipUnless(shutil.which("mcopy") and shutil.which("xorriso"), "takes mtools and xorriso")
    def test_Images_hold_these_files(self):
        expected = sorted(os.listdir(f"{FOLDER}/files"))
        self.assertEqual(os.path.getsize(f"{FOLDER}/qrndisk.img"), 1440 * 1024)
        commands = {"img": ["mcopy", "-i", f"{FOLDER}/qrndisk.img", "-s", "::*"],
                    "iso": ["xorriso", "-indev", f"{FOLDER}/qrndisk.iso", "-osirrox", "on", "-extract", "/"]}
        for name, command in commands.items():
            with self.subTest(name), tempfile.TemporaryDirectory() as out:
                subprocess.run([*command, out], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                self.assertEqual(sorted(os.listdir(out)), expected)
                for file in expected:
                    with open(f"{out}/{file}", "rb") as one, open(f"{FOLDER}/files/{file}", "rb") as other:
                        self.assertEqual(one.read(), other.read(), file)


if __name__ == "__main__":
    unittest.main()
