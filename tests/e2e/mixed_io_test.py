#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Requests of odd sizes, many of them in flight, by clients that check what they read."""
import unittest

from harness import Case, MB, Server, Station


class Mixed(Case):
    def setUp(self):
        super().setUp()
        self.target = self.empty_disk("target", 64)
        self.server = Server(self, [self.random_disk("image", 8), self.target])
        self.station = Station(self, self.server)

    def qemu_io(self, *commands):
        arguments = ["qemu-io", "-f", "raw"]
        for command in commands:
            arguments += ["-c", command]
        output = self.client(*arguments, self.station.uri(1))
        self.assertNotIn("Pattern verification failed", output)
        self.assertNotIn("error", output)

    def test_Patterns_of_odd_sizes_at_odd_places_read_back_as_written(self):
        ranges = [(0, 512), (512, 1024), (1536, 1386 // 512 * 512), (4096 - 512, 1024), (65536 - 512, 65536),
                  (131072, 65536 + 512), (300 * 512, 513 * 512), (MB - 512, 2 * MB + 1536),
                  (64 * MB - 512, 512), (64 * MB - 70 * 1024, 69 * 1024)]
        for number, (offset, size) in enumerate(ranges, 1):
            self.qemu_io(f"write -P {number} {offset} {size}", f"read -P {number} {offset} {size}")
            with open(self.target, "rb") as file:
                file.seek(offset)
                self.assertEqual(file.read(size), bytes([number]) * size)

    def test_Sixty_requests_in_flight_each_reach_their_own_place(self):
        size = 20 * 1024 + 512
        writes = [f"aio_write -q -P {n} {n * 2 * size} {size}" for n in range(1, 61)]
        self.qemu_io(*writes, "aio_flush")
        reads = [f"aio_read -q -P {n} {n * 2 * size} {size}" for n in range(1, 61)]
        gaps = [f"aio_read -q -P 0 {n * 2 * size + size} {size}" for n in range(1, 61)]
        self.qemu_io(*reads, *gaps, "aio_flush")

    def test_Random_reads_and_writes_of_fio_verify_at_depth_16(self):
        self.client("fio", "--name=verify", "--ioengine=nbd", f"--uri={self.station.uri(1)}",
                    "--rw=randrw", "--bsrange=512-64k", "--blockalign=512", "--size=48m",
                    "--iodepth=16", "--verify=crc32c", "--verify_fatal=1", "--verify_state_save=0",
                    "--verify_backlog=256")


if __name__ == "__main__":
    unittest.main()
