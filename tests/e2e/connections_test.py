#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Many clients at once, some of them hostile; and the end of the programs."""
import json
import os
import random
import signal
import socket
import struct
import subprocess
import unittest

from harness import BIN, DRIVER, MB, Case, Server, Station

NBD_MAGIC, OPTION_MAGIC, REQUEST_MAGIC = b"NBDMAGIC", b"IHAVEOPT", 0x25609513
OPTION_EXPORT_NAME, COMMAND_READ, COMMAND_WRITE = 1, 0, 1


def request(command, offset, length, magic=REQUEST_MAGIC):
    return struct.pack(">IHHQQI", magic, 0, command, 7, offset, length)


def hostile_openings():
    """What a client sends instead of, or after, a proper handshake."""
    noise = random.Random(5)
    flags = struct.pack(">I", 1)
    transmission = flags + OPTION_MAGIC + struct.pack(">II", OPTION_EXPORT_NAME, 4) + b"lun0"
    yield b""
    yield noise.randbytes(100_000)
    yield flags + OPTION_MAGIC + struct.pack(">II", OPTION_EXPORT_NAME, 0xFFFFFFFF) + bytes(1000)
    yield flags + OPTION_MAGIC + struct.pack(">II", 0x7777, 16) + noise.randbytes(16) + b"no option"
    yield flags + OPTION_MAGIC + struct.pack(">II", OPTION_EXPORT_NAME, 7) + b"lun\xff\x00/9"
    yield transmission + noise.randbytes(5000)
    yield transmission + request(COMMAND_READ, 0, 512, magic=0xDEADBEEF)
    yield transmission + request(COMMAND_READ, 1 << 62, 0xFFFFFFFF)
    yield transmission + request(COMMAND_WRITE, 0, 0xFFFFFFFF) + noise.randbytes(1000)
    yield transmission + request(0x4444, 0, 512)
    # leaves with many answers on their way
    yield transmission + b"".join(request(COMMAND_READ, n * 65536, 65536) for n in range(100))


class Connections(Case):
    def setUp(self):
        super().setUp()
        self.image = self.random_disk("image", 64)
        self.targets = [self.empty_disk(f"target{n}", 64) for n in (1, 2, 3)]
        self.server = Server(self, [self.image, *self.targets])
        self.station = Station(self, self.server)

    def test_Four_disks_are_read_and_written_at_once(self):
        clients = [self.start_client("nbdcopy", "--flush", self.image, self.station.uri(lun)) for lun in (1, 2, 3)]
        copies = [self.path(f"copy{n}") for n in range(3)]
        clients += [self.start_client("nbdcopy", self.station.uri(0), copy) for copy in copies]
        for client in clients:
            self.finish_client(client)
        for path in self.targets + copies:
            self.assert_same_content(self.image, path)

    def test_A_reader_of_the_status_that_leaves_ends_nothing(self):
        socket_path, statistics = self.path("other.sock"), self.path("other.json")
        station = subprocess.Popen(
            [f"{BIN}/qrn-station", "--boot-block", self.server.boot_block_path, "--driver", DRIVER, "--status",
             "--nbd", f"unix:{socket_path}", "--stats-json", statistics], stdout=subprocess.PIPE)
        self.addCleanup(station.kill)
        self.assertTrue(station.stdout.readline().startswith(b"ready"))
        station.stdout.close()

        def uptime_s():
            with open(statistics) as file:
                return json.load(file)["uptime_ms"] / 1000
        begin_s = uptime_s()
        self.wait_until(lambda: uptime_s() > begin_s + 2.5, "statistics were shown twice")
        self.assertIsNone(station.poll(), "it died of its output")
        before = self.server.statistics()["disks"][0]["shutdowns"]
        station.terminate()
        self.assertEqual(station.wait(timeout=20), 0)
        self.assertFalse(os.path.exists(socket_path))
        self.wait_until(lambda: self.server.statistics()["disks"][0]["shutdowns"] > before, "the disks were told")

    def test_Clients_of_a_read_only_disk_learn_it_and_read(self):
        self.station.stop()
        station = Station(self, self.server, options=["--read-only", "0"])
        info = json.loads(self.client("nbdinfo", "--no-content", "--json", station.uri(0)))["exports"][0]
        self.assertTrue(info["is_read_only"])
        self.assertFalse(json.loads(self.client("nbdinfo", "--no-content", "--json", station.uri(1)))["exports"][0]
                         ["is_read_only"])
        self.client("nbdcopy", station.uri(0), self.path("copy"))
        self.assert_same_content(self.image, self.path("copy"))

    def test_Hostile_clients_cost_only_their_own_connections(self):
        reader = self.start_client("nbdcopy", self.station.uri(0), self.path("copy"))
        left_open = []
        for opening in hostile_openings():
            with self.subTest(opening=opening[:60]):
                client = socket.socket(socket.AF_UNIX)
                client.settimeout(5)
                client.connect(self.station.socket_path)
                greeting = client.recv(18, socket.MSG_WAITALL)
                self.assertEqual(greeting[:16], NBD_MAGIC + OPTION_MAGIC)
                try:
                    client.sendall(opening)
                except (BrokenPipeError, ConnectionResetError):
                    pass  # the answer to nonsense may be to hang up
                if len(left_open) % 2:
                    client.close()
                left_open.append(client)
        self.finish_client(reader)
        self.assert_same_content(self.image, self.path("copy"))
        self.client("nbdcopy", self.station.uri(0), self.path("again"))
        self.assert_same_content(self.image, self.path("again"))
        for client in left_open:
            client.close()

    def test_Unknown_export_is_refused(self):
        client = self.start_client("nbdinfo", "--no-content", self.station.uri(7))
        client.communicate(timeout=10)
        self.assertNotEqual(client.returncode, 0)
        self.assertIn(f"{64 * MB}", self.client("nbdinfo", "--no-content", self.station.uri(3)))


class End(Case):
    def check_end(self, with_signal):
        server = Server(self, [self.random_disk("image", 8)])
        station = Station(self, server)
        self.client("nbdcopy", "--no-extents", station.uri(0), self.path("copy"))
        station.stop(with_signal)
        server.stop(with_signal)
        return station.statistics(), server.statistics()

    def test_SIGTERM_ends_both_programs_with_status_0_and_statistics(self):
        station, server = self.check_end(signal.SIGTERM)
        self.assertEqual(station["luns"][0]["sectors_read"], 8 * MB // 512)
        self.assertEqual(station["luns"][0]["errors"], 0)
        self.assertGreaterEqual(server["disks"][0]["read_bytes"], 8 * MB)
        self.assertGreaterEqual(server["disks"][0]["shutdowns"], 1)

    def test_SIGINT_ends_both_programs_with_status_0_and_statistics(self):
        self.check_end(signal.SIGINT)


if __name__ == "__main__":
    unittest.main()
