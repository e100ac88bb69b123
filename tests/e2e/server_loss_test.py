#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Servers that go away: for a while, and for good."""
import time
import unittest

from harness import MB, Case, Server, Station, stored_bytes

OUTAGE_S = 4
DISK_MB = 24
# Slow enough to be in the middle of it when the server goes.
ONE_BY_ONE = ["--connections=1", "--requests=1", "--request-size=4096"]


class ServerLoss(Case):
    def test_Reading_waits_for_a_killed_server_and_goes_on_when_it_is_back(self):
        image = self.random_disk("image", DISK_MB)
        server = Server(self, [image])
        station = Station(self, server)
        copy = self.path("copy")
        reader = self.start_client("nbdcopy", *ONE_BY_ONE, station.uri(0), copy)
        self.wait_until(lambda: stored_bytes(copy) > 2 * MB, "the copy has begun")
        server.kill()
        self.assertIsNone(reader.poll(), "the copy was over before the server was killed")
        time.sleep(OUTAGE_S)
        self.assertIsNone(reader.poll(), "the client did not wait")
        Server(self, [image], name="again", port=server.port)
        self.finish_client(reader)
        self.assert_same_content(image, copy)
        self.assertIn("Time Out", station.log())

    def mirrored(self):
        """A main server and its mirror, each with a file of its own for LUN 1."""
        system = self.random_disk("system", 1) + ",readonly"
        self.on_main, self.on_mirror = (self.empty_disk(name, DISK_MB) for name in ("on-main", "on-mirror"))
        identity = "id=31001002,retry_mins=1"
        self.mirror = Server(self, [system, f"{self.on_mirror},{identity}"], name="mirror")
        self.main = Server(self, [system, f"{self.on_main},{identity},mirror=127.0.0.1:{self.mirror.port}"],
                           name="main")

    def station_that_writes_while_one_goes(self, lost, kept):
        station = Station(self, self.main, registry=["HOT_RETRYS=1"])
        self.source = self.random_disk("source", DISK_MB, seed=2)
        writer = self.start_client("nbdcopy", "--flush", *ONE_BY_ONE, self.source, station.uri(1))
        self.wait_until(lambda: stored_bytes(kept) > 2 * MB, "writing has begun")
        lost.kill()
        self.assertIsNone(writer.poll(), "writing was over before the server was killed")
        self.finish_client(writer)
        self.assert_same_content(self.source, kept)
        return station

    def test_Mirrored_disk_goes_on_writing_when_its_main_server_is_gone(self):
        self.mirrored()
        station = self.station_that_writes_while_one_goes(self.main, self.on_mirror)
        self.assertEqual(station.log().count("Main Server Error, Try Use Slave"), 1)
        self.client("nbdcopy", station.uri(1), self.path("copy"))
        self.assert_same_content(self.source, self.path("copy"))

    def test_Mirrored_disk_goes_on_writing_when_its_slave_server_is_gone(self):
        self.mirrored()
        station = self.station_that_writes_while_one_goes(self.mirror, self.on_main)
        self.assertIn("Slave Server Error", station.log())


if __name__ == "__main__":
    unittest.main()
