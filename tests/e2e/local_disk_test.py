#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A workstation that boots from its local disk, where the driver keeps a copy of LUN 0."""
import random
import unittest

from harness import BIN, MB, Case, Server, Station

DISK_MB = 48


class LocalDisk(Case):
    def setUp(self):
        super().setUp()
        self.image = self.random_disk("image", DISK_MB)
        with open(self.image, "r+b") as file:
            file.seek(-MB, 2)
            file.write(random.Random(3).randbytes(MB))
        self.area, self.disk = self.path("area"), self.path("disk")
        self.qrn_image("create", self.area, "--from", self.image)
        self.qrn_image("disk", self.disk, "--size", "140M", "--system", "70M", "--temporary", "60M")

    def qrn_image(self, *arguments):
        return self.client(f"{BIN}/qrn-image", *arguments)

    def boot(self, server):
        return Station(self, server, options=["--local-disk", self.disk])

    def fill(self):
        """A server and a station whose local image is complete."""
        server = Server(self, [f"{self.image},image={self.area}"])
        station = self.boot(server)
        self.wait_until(lambda: station.statistics()["synchronisation"]["state"] == "complete",
                        "the local image is filled")
        return server, station

    def assert_reads(self, station, expected):
        self.client("nbdcopy", station.uri(0), self.path("copy"))
        self.assert_same_content(self.path("copy"), expected)

    def test_Disk_is_read_from_the_local_image_once_that_is_filled_whatever_becomes_of_the_server(self):
        server, station = self.fill()
        sync = station.statistics()["synchronisation"]
        self.assertEqual(sync["chunks_done"], DISK_MB * MB // 65536)
        self.assertEqual(sync["chunks_total"], sync["chunks_done"])
        server.stop()
        self.assertGreater(server.statistics()["disks"][0]["sync_bytes"], DISK_MB * MB // 2)
        self.assertLess(server.statistics()["disks"][0]["read_bytes"], MB)
        self.assert_reads(station, self.image)
        station.stop()
        self.assertIn("clean", self.qrn_image("check", f"{self.disk}:system"))
        self.qrn_image("diff", f"{self.disk}:system", self.area)

        with self.subTest("the next start, without a server"):
            station = self.boot(server)
            self.assertIn("no server answers", station.output())
            self.assert_reads(station, self.image)

    def test_Update_of_the_servers_image_sends_the_changed_chunks_only(self):
        server, station = self.fill()
        station.stop()
        server.stop()
        with open(self.image, "r+b") as file:
            for chunk in (3, 100, 767):
                file.seek(chunk * 65536 + 65535)
                file.write(b"!")
        self.assertIn("3 of", self.qrn_image("update", self.area, "--from", self.image))
        server, station = self.fill()
        with self.subTest("the local disk is in use"):
            refused = self.start_client(f"{BIN}/qrn-image", "create", f"{self.disk}:system", "--from", self.image,
                                        "--force")
            self.assertIn("in use", refused.communicate()[0])
            self.assertEqual(refused.returncode, 2)
        self.qrn_image("compare", station.uri(0), self.area)
        server.stop()
        moved = server.statistics()["disks"][0]["sync_bytes"]
        self.assertGreater(moved, 3 * 65536)
        self.assertLess(moved, 2 * MB)
        self.assert_reads(station, self.image)

    def test_What_is_written_stays_on_the_local_disk_until_the_next_start(self):
        server, station = self.fill()
        with open(self.image, "rb") as file:
            before = file.read()
        pattern = ["qemu-io", "-f", "raw", "-c", "write -P 7 0 300k", "-c", "read -P 7 0 300k"]
        self.assertNotIn("failed", self.client(*pattern, station.uri(0)))
        station.stop()
        station = self.boot(server)
        self.assert_reads(station, self.image)
        with open(self.image, "rb") as file:
            self.assertEqual(file.read(), before)

    def test_Image_made_anew_on_the_server_replaces_the_local_one(self):
        server, station = self.fill()
        station.stop()
        server.stop()
        with open(self.image, "r+b") as file:
            file.seek(10 * MB)
            file.write(b"new" * 1000)
        self.qrn_image("create", self.area, "--from", self.image, "--force")
        _, station = self.fill()
        self.assert_reads(station, self.image)


if __name__ == "__main__":
    unittest.main()
