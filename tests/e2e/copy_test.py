#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Whole disks through the driver, in both directions and with both ways of handing the disks over."""
import json
import random
import shutil
import subprocess
import unittest

from harness import MB, Case, Server, Station, stored_bytes


NBDSH = shutil.which("nbdsh") and not subprocess.run(["nbdsh", "-c", "pass"], stderr=subprocess.DEVNULL).returncode


class Copy(Case):
    def boot(self, handover="low-memory"):
        self.image = self.random_disk("image", 96)
        self.target = self.empty_disk("target", 96)
        self.server = Server(self, [self.image, self.target])
        self.station = Station(self, self.server, handover=handover)

    def test_Disk_read_by_qemu_img_equals_the_servers_image(self):
        self.boot()
        self.client("qemu-img", "convert", "-f", "raw", "-O", "raw", self.station.uri(0), self.path("copy"))
        self.assert_same_content(self.image, self.path("copy"))

    def test_What_qemu_img_wrote_is_on_the_server_once_it_is_done(self):
        self.boot()
        self.client("qemu-img", "convert", "-n", "-f", "raw", "-O", "raw", self.image, self.station.uri(1))
        self.assert_same_content(self.image, self.target)

    def test_Zeros_that_a_client_writes_give_their_room_at_the_server_back(self):
        disk = self.random_disk("disk", 24)
        before = stored_bytes(disk)
        station = Station(self, Server(self, [disk]))
        self.client("qemu-io", "-f", "raw", "-c", "write -z 2M 20M", "-c", "write -P 7 4M 64k", "-c", "flush",
                    station.uri(0))
        self.client("qemu-io", "-f", "raw", "-c", "read -P 0 2M 2M", "-c", "read -P 7 4M 64k", station.uri(0))
        with open(disk, "rb") as file:
            file.seek(2 * 1024 * 1024)
            zeros = file.read(20 * 1024 * 1024)
        self.assertEqual(zeros.count(0), len(zeros) - 65536)
        self.assertLess(stored_bytes(disk), min(before, 6 * 1024 * 1024))

    def test_What_a_client_trims_gives_its_room_at_the_server_back(self):
        disk = self.random_disk("disk", 24)
        station = Station(self, Server(self, [disk]))
        with open(disk, "rb") as file:
            rest = file.read(1024 * 1024)
        self.client("qemu-io", "-f", "raw", "-d", "unmap", "-c", "discard 1M 23M", station.uri(0))
        self.assertLessEqual(stored_bytes(disk), 1024 * 1024)
        with open(disk, "rb") as file:
            self.assertTrue(file.read() == rest + bytes(23 * 1024 * 1024))

    def island(self):
        """A disk of 64 MB that is empty but for 4 MB."""
        disk = self.empty_disk("disk", 64)
        with open(disk, "r+b") as file:
            file.seek(2 * MB)
            file.write(random.Random(3).randbytes(4 * MB))
        return disk, Station(self, Server(self, [disk]))

    def test_Clients_are_told_where_a_disk_has_zeros(self):
        disk, station = self.island()
        told = json.loads(self.client("qemu-img", "map", "--output=json", "-f", "raw", station.uri(0)))
        self.assertEqual([(each["start"], each["length"], each["zero"]) for each in told],
                         [(0, 2 * MB, True), (2 * MB, 4 * MB, False), (6 * MB, 58 * MB, True)])
        self.client("nbdcopy", "--sparse=65536", station.uri(0), self.path("copy"))
        self.assert_same_content(disk, self.path("copy"))
        self.assertLessEqual(stored_bytes(self.path("copy")), 4 * MB + 128 * 1024)

    def test_Being_told_of_zeros_costs_a_copy_little_more_to_read(self):
        disk = self.path("disk")
        with open(disk, "wb") as file:
            file.write(random.Random(4).randbytes(24 * MB))
        station = Station(self, Server(self, [disk]))
        self.client("nbdcopy", station.uri(0), self.path("copy"))
        self.assert_same_content(disk, self.path("copy"))
        station.stop()
        lun = station.statistics()["luns"][0]
        self.assertLessEqual(lun["sectors_read"] * 512, 24 * MB * 17 // 16)

    @unittest.skipUnless(NBDSH, "takes nbdsh")
    def test_Shell_of_others_reads_chunks_trims_and_writes_zeros_that_are_flushed(self):
        disk, station = self.island()
        self.client("nbdsh", "-u", station.uri(0), "-c", """
chunks, MB = [], 1 << 20
def note(data, offset, status, error):
    chunks.append((offset, len(data), status))
assert h.get_structured_replies_negotiated() and h.can_df() and h.can_fua() and h.can_trim() and h.can_zero()
h.pread_structured(MB, 0, note)
h.pread_structured(MB, 2 * MB, note, nbd.CMD_FLAG_DF)
assert chunks == [(0, MB, nbd.READ_HOLE), (2 * MB, MB, nbd.READ_DATA)], chunks
h.pwrite(b"x" * 512, 63 * MB, nbd.CMD_FLAG_FUA)
h.trim(MB, 2 * MB, nbd.CMD_FLAG_FUA)
h.zero(MB, 4 * MB, nbd.CMD_FLAG_NO_HOLE)
h.flush()
try:
    h.pread(512, 64 * MB)
    raise SystemExit("read beyond the end")
except nbd.Error:
    pass
""")
        with open(disk, "rb") as file:
            content = file.read()
        self.assertEqual(content[63 * MB:63 * MB + 513], b"x" * 512 + b"\0")
        for zeroed in (2, 4):
            self.assertEqual(content[zeroed * MB:(zeroed + 1) * MB].count(0), MB)
        self.assertNotEqual(content[3 * MB:4 * MB].count(0), MB)

    def test_Disks_that_only_the_transport_knows_are_read_and_written(self):
        self.boot(handover="transport")
        self.client("qemu-img", "convert", "-n", "-f", "raw", "-O", "raw",
                    self.station.uri(0), self.station.uri(1))
        self.assert_same_content(self.image, self.target)


if __name__ == "__main__":
    unittest.main()
