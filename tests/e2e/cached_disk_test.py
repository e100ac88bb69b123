#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A disk that the workstation caches in its memory."""
import json
import unittest

from harness import MB, Case, Server, Station

CACHE_MB = 24


class CachedDisk(Case):
    def boot(self, disk_mb):
        self.disk = self.empty_disk("disk", disk_mb)
        self.source = self.random_disk("source", disk_mb, seed=4)
        self.server = Server(self, [self.random_disk("system", 1), f"{self.disk},cache_mb={CACHE_MB}"])
        self.station = Station(self, self.server)

    def can_flush(self, lun):
        information = self.client("nbdinfo", "--no-content", "--json", self.station.uri(lun))
        return json.loads(information)["exports"][0]["can_flush"]

    def write_and_read_back(self):
        """Returns what the workstation's cache and what the server counted, at their end."""
        self.assertFalse(self.can_flush(1), "nothing would be flushed there")
        self.assertTrue(self.can_flush(0))
        self.client("nbdcopy", self.source, self.station.uri(1))
        self.client("nbdcopy", self.station.uri(1), self.path("copy"))
        self.assert_same_content(self.source, self.path("copy"))
        self.station.stop()
        self.server.stop()
        return self.station.statistics()["luns"][1]["cache"], self.server.statistics()["disks"][1]

    def test_What_fits_the_cache_is_written_and_read_there_alone(self):
        self.boot(CACHE_MB // 2)
        cache, served = self.write_and_read_back()
        self.assertGreater(cache["hits"], 0)
        self.assertEqual((cache["misses"], cache["write_backs"], cache["write_throughs"]), (0, 0, 0))
        self.assertEqual((served["write_fragments"], served["negotiations"]), (0, 1))
        with open(self.disk, "rb") as file:
            self.assertEqual(file.read(), bytes(CACHE_MB // 2 * MB), "the server's image has changed")

    def test_What_does_not_fit_the_cache_goes_to_the_server_and_comes_back(self):
        self.boot(CACHE_MB * 2)
        cache, served = self.write_and_read_back()
        self.assertGreater(cache["write_backs"], 0)
        self.assertGreater(cache["misses"], 0)
        self.assertGreaterEqual(served["written_bytes"], CACHE_MB * MB // 2)


if __name__ == "__main__":
    unittest.main()
