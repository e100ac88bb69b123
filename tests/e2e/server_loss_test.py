#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Servers that go away: for a while, and for good."""
import resource
import subprocess
import threading
import time
import unittest

from harness import CLIENT_TIMEOUT_S, MB, Case, Server, Station, die_with_parent, stored_bytes

OUTAGE_S = 4
DISK_MB = 24
# Clients copy through pipes, of which the test holds the other end: they are in the middle of it for as long as
# the test wants.
BEGIN_BYTES = 2 * MB


class ServerLoss(Case):
    def test_Reading_waits_for_a_killed_server_and_goes_on_when_it_is_back(self):
        image = self.random_disk("image", DISK_MB)
        server = Server(self, [image])
        station = Station(self, server)
        reader = subprocess.Popen(["nbdcopy", station.uri(0), "-"], stdout=subprocess.PIPE,
                                  preexec_fn=die_with_parent)
        self.addCleanup(reader.stdout.close)
        self.addCleanup(reader.kill)
        copy = reader.stdout.read(BEGIN_BYTES)
        answered = f"lun0: server 127.0.0.1:{server.port} has answered\n"
        self.wait_until(lambda: answered in station.output(), "the station tells that its server has answered")
        server.kill()
        rest = []
        collector = threading.Thread(target=lambda: rest.append(reader.stdout.read()))
        collector.start()
        time.sleep(OUTAGE_S)
        self.assertIsNone(reader.poll(), "the client did not wait")
        Server(self, [image], name="again", port=server.port)
        collector.join(CLIENT_TIMEOUT_S)
        self.assertEqual(reader.wait(timeout=CLIENT_TIMEOUT_S), 0)
        with open(image, "rb") as file:
            self.assertTrue(file.read() == copy + rest[0], "the copy differs")
        self.assertIn("Time Out", station.log())

    def test_A_full_disk_at_the_server_stops_its_own_writes_alone_and_no_shutdown(self):
        system = self.random_disk("system", 4)
        server = Server(self, [system, self.empty_disk("full", DISK_MB)])
        resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (8 * MB, 8 * MB))
        station = Station(self, server)
        writer = self.start_client("nbdcopy", self.random_disk("source", DISK_MB, seed=2), station.uri(1))
        self.wait_until(lambda: "Time Out" in station.log(), "a write that found no room has its time-outs")
        self.client("nbdcopy", station.uri(0), self.path("copy"))
        self.assert_same_content(system, self.path("copy"))
        station.stop()
        writer.communicate(timeout=CLIENT_TIMEOUT_S)
        self.assertNotEqual(writer.returncode, 0)
        self.assertIn(f"{self.path('full')}: cannot write for 127.0.0.1:", server.output())
        self.assertEqual(server.output().count("File too large (errno 27)"), 1)

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
        writer = self.start_client("nbdcopy", "--flush", "-", station.uri(1), stdin=subprocess.PIPE)
        with open(self.source, "rb") as source:
            writer.stdin.buffer.write(source.read(BEGIN_BYTES))
            writer.stdin.flush()
            self.wait_until(lambda: stored_bytes(kept) > BEGIN_BYTES // 2, "writing has begun")
            lost.kill()
            writer.stdin.buffer.write(source.read())
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
