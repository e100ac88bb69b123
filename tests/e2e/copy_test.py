#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Whole disks through the driver, in both directions and with both ways of handing the disks over."""
import unittest

from harness import Case, Server, Station, stored_bytes


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

    def test_Disks_that_only_the_transport_knows_are_read_and_written(self):
        self.boot(handover="transport")
        self.client("qemu-img", "convert", "-n", "-f", "raw", "-O", "raw",
                    self.station.uri(0), self.station.uri(1))
        self.assert_same_content(self.image, self.target)


if __name__ == "__main__":
    unittest.main()
