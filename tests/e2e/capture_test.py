#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Captured packets, as the Wireshark dissector shows them."""
import os
import shutil
import struct
import subprocess
import unittest

from harness import BIN, MB, Case, Server, Station

DISSECTOR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/wireshark/qrndisk.lua")
DISK = bytes.fromhex("51520001")


def packet(kind, sub=0, length=4096, seq=1, offset=512, disk=DISK, mask=0):
    return (disk + bytes([sub, kind]) + struct.pack(">H", length // 256) + struct.pack("<H", seq) + bytes(2) + b"PARM" +
            struct.pack(">H", mask) + offset.to_bytes(6, "big") + struct.pack(">H", length))


def fragment(kind, number, count, data, at, **fields):
    return packet(kind, **fields) + struct.pack(">HHBBH", at, len(data), 0, number, count) + data


def boot_request():
    return (b"QRNB\1\1" + struct.pack(">HI", 64, 77) + b"\2\0\0\0\0\1" + bytes([10, 0, 0, 9, 0, 1]) + bytes(40))


def boot_answer(kind):
    return (b"QRNB\1" + bytes([kind]) + struct.pack(">HI", 464, 77) + b"\2\0\0\0\0\1\7\5" + bytes(4) +
            b"no such PC".ljust(80, b"\0") + bytes(360))


def poll():
    return b"\1\x38AB\0\0CD" + bytes([10, 0, 0, 1]) + bytes(6) + struct.pack(">HH", 8520, 0) + bytes(4)


def poll_reply():
    return b"\2\x38ABCD\5\4" + bytes(34) + struct.pack("<7I", 0, 5, 80, 3, 6, 96, 1) + bytes(226 - 42 - 28)


@unittest.skipUnless(shutil.which("tshark") and os.environ.get("QRN_LONG_TESTS"), "only with --long, and with tshark")
class Capture(Case):
    def tshark(self, path, *arguments):
        done = subprocess.run(["tshark", "-2", "-r", path, "-X", f"lua_script:{DISSECTOR}", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("Lua Error", done.stdout + done.stderr)
        return done.stdout

    def fields(self, path, *names, only="qrndisk"):
        options = [word for name in names for word in ("-e", name)]
        text = self.tshark(path, "-Y", only, "-T", "fields", *options)
        return [dict(zip(names, line.split("\t"))) for line in text.splitlines()]

    def count(self, path, only):
        return len(self.tshark(path, "-Y", only).splitlines())

    def write(self, packets):
        """A capture of what this test makes up: pairs of direction and contents."""
        path = self.path("made.pcap")
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))
            for number, (direction, data) in enumerate(packets):
                ends = [(bytes([10, 0, 0, 9]), 5000), (bytes([10, 0, 0, 1]), 8520)]
                (source, sport), (target, dport) = ends if direction == ">" else ends[::-1]
                ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 28 + len(data), 0, 0, 64, 17, 0, source, target)
                frame = ip + struct.pack(">HHHH", sport, dport, 8 + len(data), 0) + data
                file.write(struct.pack("<IIII", 1000 + number, 250000, len(frame), len(frame)) + frame)
        return path

    def test_Station_captures_what_a_client_made_it_send(self):
        image, empty = self.random_disk("image", 1), self.empty_disk("empty", 1)
        server = Server(self, [image, empty])
        path = self.path("capture.pcapng")
        station = Station(self, server, options=["--capture", path])
        self.client("nbdcopy", station.uri(0), self.path("copy"))
        self.client("nbdcopy", "--flush", image, station.uri(1))
        station.stop()
        server.stop()
        packets = server.statistics()["packets"]
        first_sector_of_each_disk = 2 * 2  # asked for by the station, not by its driver
        self.assertEqual(self.count(path, "qrndisk") + first_sector_of_each_disk,
                         packets["packets_received"] + packets["packets_sent"])
        self.assertEqual(self.count(path, "udp and not qrndisk"), 0)
        self.assertEqual(self.count(path, "_ws.expert.severity >= 0x600000"), 0)
        reads = self.fields(path, "frame.number", "qrndisk.answer_in", only="qrndisk.kind == 0x5c && !qrndisk.resend")
        self.assertGreaterEqual(len(reads), MB // 16384)
        self.assertTrue(all(int(read["qrndisk.answer_in"]) > int(read["frame.number"]) for read in reads))
        self.assertTrue(all(0 < float(time["qrndisk.time"]) < 60 for time in
                            self.fields(path, "qrndisk.time", only="qrndisk.time")))

        # What was written is what the reassembled packets hold.
        written = {}
        for one in self.fields(path, "qrndisk.lba", "qrndisk.reassembled",
                               only="qrndisk.kind == 0x5e && qrndisk.reassembled"):
            written[int(one["qrndisk.lba"])] = bytes.fromhex(one["qrndisk.reassembled"])
        with open(image, "rb") as file:
            for lba, data in written.items():
                file.seek(lba * 512)
                self.assertEqual(file.read(len(data)), data, f"LBA {lba}")
        self.assertGreater(sum(map(len, written.values())), MB // 2)

    def test_Campaign_captures_a_network_that_loses_packets(self):
        path = self.path("seed.pcapng")
        self.client(f"{BIN}/qrn-campaign", "--seeds", "1", "--first-seed", "37", "--capture", path)
        total = self.count(path, "qrndisk")
        self.assertGreater(total, 100)
        self.assertEqual(self.count(path, "_ws.expert.severity == 0x800000"), 0)
        self.assertEqual(self.count(path, "_ws.malformed"), 0)
        self.assertGreater(self.count(path, "qrndisk.resend"), 0)
        self.assertGreater(self.count(path, "qrndisk.time"), total // 50)
        # A resend is of an earlier packet of the same kind and place.
        shown = self.fields(path, "frame.number", "qrndisk.kind", "qrndisk.lba", "qrndisk.fragment.number",
                            "qrndisk.resend_of")
        by_number = {one["frame.number"]: one for one in shown}
        for one in shown:
            if one["qrndisk.resend_of"]:
                first = by_number[one["qrndisk.resend_of"]]
                self.assertLess(int(first["frame.number"]), int(one["frame.number"]))
                for field in ("qrndisk.kind", "qrndisk.lba", "qrndisk.fragment.number"):
                    self.assertEqual(first[field], one[field])

    def test_What_is_wrong_is_said(self):
        data = bytes(range(256)) * 16
        cases = [  # the packets, and what the last one says
            ([(">", packet(0x5C)), (">", packet(0x5C))], "sent_again"),
            ([(">", packet(0x5C))], "no_answer"),
            ([("<", packet(0x5F))], "no_request"),
            ([(">", packet(0x5C, length=0))], "bad_length"),
            ([(">", packet(0x5C, offset=700))], "bad_offset"),
            ([("<", fragment(0x5D, 4, 3, data[:100], 0))], "bad_fragment"),
            ([("<", fragment(0x5D, 0, 3, data[:100], 0))], "bad_fragment"),
            ([("<", fragment(0x5D, 3, 3, data[:1386], 4000))], "bad_fragment"),
            ([("<", fragment(0x5D, 1, 3, data[:100], 0) + b"more")], "bad_size"),
            ([(">", packet(0x5E))], "short"),
            ([(">", packet(0x5C)[:20])], "short"),
            ([(">", packet(0x5C)), (">", packet(0x5C, sub=1))], "asked"),
            ([("<", packet(0x5B, mask=0xFFFB))], "missing"),
            ([("<", packet(0x55, sub=0xAA))], "retry_limited"),
            ([(">", packet(0x5C)), ("<", fragment(0x5D, 1, 0, b"", 0))], "zeros"),
            ([("<", boot_answer(3))], "boot_refused"),
            ([(">", boot_request()[:30])], "bad_boot"),
        ]
        for packets, expected in cases:
            with self.subTest(expected):
                path = self.write(packets)
                last = f"qrndisk.{expected} && frame.number == {len(packets)}"
                self.assertEqual(self.count(path, last), 1, self.tshark(path, "-V"))

    def test_Questions_and_answers_find_each_other(self):
        data = bytes(range(256)) * 16
        parts = [(1, data[:1386], 0), (3, data[2772:], 2772), (2, data[1386:2772], 1386)]
        path = self.write([(">", boot_request()), ("<", boot_answer(2)), ("<", poll()), (">", poll_reply()),
                           (">", packet(0x5C)), *[("<", fragment(0x5D, n, 3, part, at)) for n, part, at in parts]])
        shown = self.fields(path, "frame.number", "qrndisk.answer_in", "qrndisk.request_in", "qrndisk.time",
                            "qrndisk.reassembled", "qrndisk.poll.read_time_outs")
        links = {one["frame.number"]: (one["qrndisk.answer_in"], one["qrndisk.request_in"]) for one in shown}
        self.assertEqual(links, {"1": ("2", ""), "2": ("", "1"), "3": ("4", ""), "4": ("", "3"), "5": ("8", ""),
                                 "6": ("", "5"), "7": ("", "5"), "8": ("", "5")})
        self.assertEqual(float(shown[7]["qrndisk.time"]), 3)
        self.assertEqual(bytes.fromhex(shown[7]["qrndisk.reassembled"]), data)
        self.assertEqual(shown[3]["qrndisk.poll.read_time_outs"].split(",")[0], "3")
        self.assertEqual(self.count(path, "_ws.expert.severity >= 0x600000"), 0)


if __name__ == "__main__":
    unittest.main()
