#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Whole boots in QEMU: the card's own ROM, the boot program, GRUB and Linux from LUN 0."""
import hashlib
import os
import pathlib
import random
import signal
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parent))
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "e2e"))
import guest
from harness import Program, Server

# Linux, started through the BIOS alone, shows what memory the BIOS left it and copies the rest to its own disk.
SCRIPT = """
echo KERNEL-UP
[ -b /dev/vda ] && dd if=/dev/mem of=/dev/vda bs=64k count=10 conv=fsync 2>/dev/null && echo MEMORY-COPIED
"""
LARGE_MB = int(os.environ.get("QRN_BOOT_LARGE_MB", "60"))


class Boot(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qrn-boot-"))
        self.addCleanup(guest.shutil.rmtree, self.folder)
        self.seed = random.SystemRandom().randrange(1 << 32)

    def path(self, name):
        return str(self.folder / name)

    def serve(self, *disks, port=0):
        server = Server.__new__(Server)
        server.boot_block_path, server.statistics_path = self.path("block"), self.path("stats")
        arguments = [f"{guest.BIN}/qrn-server", "--listen", f"127.0.0.1:{port}", "--advertise", "10.0.2.2",
                     "--boot-block", server.boot_block_path, "--stats-json", server.statistics_path]
        for disk in disks:
            arguments += ["--disk", str(disk)]
        super(Server, server).__init__(self, "server", arguments)
        server.port = server.port_in_boot_block()
        return server

    def make_system(self, *menu, size_mb=96, files=()):
        return guest.make_disk(self.folder, "system.img", size_mb, SCRIPT, guest.grub_menu(*menu), files)

    def large_file(self):
        data = random.Random(self.seed).randbytes(LARGE_MB << 20)
        return ("large", data), hashlib.sha256(data).hexdigest()

    def test_Linux_boots_and_finds_the_boot_record_where_the_driver_looks(self):
        image = self.make_system("lsmmap")
        memory = self.folder / "memory"
        with open(memory, "wb") as file:
            file.truncate(1 << 20)
        server = self.serve(image)
        pc = guest.PC(self, self.folder, server.port,
                      options=("-drive", f"file={memory},format=raw,if=virtio"))
        pc.wait_for("KERNEL-UP", 60)
        pc.wait_for("MEMORY-COPIED", 20)
        pc.wait_for_end(20)
        self.check_memory(memory.read_bytes(), server)
        self.check_driver_finds_its_disks_in(memory)

    def check_driver_finds_its_disks_in(self, memory):
        statistics, log = self.path("station.json"), self.path("station.log")
        station = Program(self, "station", [
            f"{guest.BIN}/qrn-station", "--handover", "low-memory", "--low-memory", str(memory), "--nbd",
            f"unix:{self.path('nbd')}", "--stats-json", statistics, "--log", log])
        station.kill()
        with open(log) as file:
            self.assertIn("QRN SCSI: Lun:0 30000(96M)", file.read())

    def check_memory(self, memory, server):
        top = int.from_bytes(memory[0x413:0x415], "little") * 1024
        found = [at for at in range(top, 0x9F4CA, 16)
                 if memory[at:at + 9] == b"KTWBSTRAP" and memory[at + 12:at + 14] == b"\x16\0"]
        self.assertEqual(len(found), 1, f"boot records from {top:x} on")
        at = found[0]
        with open(server.boot_block_path, "rb") as file:
            self.assertEqual(memory[at + 24:at + 384], file.read(), "the block in memory is the server's")
        network = memory[at + 384:at + 448]
        self.assertEqual(network[:8], b"QRNBTNET")
        self.assertEqual(sum(network) % 256, 0)
        self.assertEqual(network[12:34], bytes.fromhex("525400123456" "0a00020f" "ffffff00" "0a000202" "0a000202"))

    def test_Every_byte_arrives_through_a_network_that_loses_doubles_and_reorders(self):
        large, digest = self.large_file()
        image = self.make_system("hashsum --hash sha256 /large", size_mb=LARGE_MB + 96, files=[large])
        server = self.serve(image)
        relay = guest.Relay(server.port, random.Random(self.seed), 0.02 / 3)
        pc = guest.PC(self, self.folder, relay.port)
        pc.wait_for(digest, 240)
        pc.wait_for("KERNEL-UP", 60)
        self.assertTrue(all(relay.counts.values()), relay.counts)
        print(f"seed {self.seed}: {relay.counts}")

    def test_A_server_that_stands_still_for_10_s_is_told_of_and_waited_for(self):
        large, digest = self.large_file()
        image = self.make_system("echo READING", "hashsum --hash sha256 /large", size_mb=LARGE_MB + 96, files=[large])
        server = self.serve(image)
        pc = guest.PC(self, self.folder, server.port)
        pc.wait_for("READING", 60)
        server.process.send_signal(signal.SIGSTOP)
        pc.wait_for("silent since 10 s, still trying", 30)
        self.assertNotIn(digest, pc.console(), "the server stood still too late")
        server.process.send_signal(signal.SIGCONT)
        pc.wait_for("the server is back", 10)
        pc.wait_for(digest, 120)
        pc.wait_for("KERNEL-UP", 60)

    def test_What_GRUB_writes_reaches_the_server_also_through_losses(self):
        environment = b"# GRUB Environment Block\n" + b"#" * 999
        writes = [line for i in range(12) for line in (f"set mark=written-{i}", "save_env mark")]
        image = self.make_system(*writes, "echo WRITTEN", files=[("boot/grub/grubenv", environment)])
        before = image.read_bytes()
        at = before.index(environment)
        server = self.serve(image)
        relay = guest.Relay(server.port, random.Random(self.seed), 0.10)
        pc = guest.PC(self, self.folder, relay.port)
        pc.wait_for("WRITTEN", 120)
        pc.stop()
        server.stop()
        after = image.read_bytes()
        self.assertEqual(after[at:at + 1024], b"# GRUB Environment Block\nmark=written-11\n" + b"#" * 983)
        self.assertTrue(before[:at] == after[:at] and before[at + 1024:] == after[at + 1024:],
                        "nothing else was written")

    def test_A_second_LUN_is_the_second_drive_and_a_disk_of_the_PC_the_third(self):
        second, own = random.Random(self.seed).randbytes(3 << 20), random.Random(self.seed + 1).randbytes(1 << 20)
        (self.folder / "second.img").write_bytes(second)
        (self.folder / "own.img").write_bytes(own)
        image = self.make_system("hashsum --hash sha256 (hd1)0+6144", "hashsum --hash sha256 (hd2)0+2048")
        server = self.serve(image, self.folder / "second.img")
        pc = guest.PC(self, self.folder, server.port,
                      options=("-drive", f"file={self.folder}/own.img,format=raw,if=ide"))
        for data in (second, own):
            pc.wait_for(hashlib.sha256(data).hexdigest(), 60)
        pc.wait_for("KERNEL-UP", 60)

    def test_Cards_of_other_makes_do(self):
        for card in ("rtl8139", "virtio-net-pci"):
            with self.subTest(card):
                image = self.make_system()
                server = self.serve(image)
                pc = guest.PC(self, self.folder, server.port, card=card)
                pc.wait_for("KERNEL-UP", 90)
                pc.stop()
                server.stop()

    def test_Each_trouble_has_its_line_and_is_over_when_its_cause_is(self):
        image = self.path("empty.img")
        with open(image, "wb") as file:
            file.truncate(1 << 20)
        server = self.serve(image)
        server.stop()
        pc = guest.PC(self, self.folder, server.port)
        pc.wait_for(f"no answer from 10.0.2.2:{server.port} since", 60)
        again = self.serve(image, port=server.port)
        pc.wait_for("LUN 0 has no boot sector", 30)
        pc.wait_for("Ctrl-Alt-Del", 5)
        again.stop()

    def test_BIOS_calls_do_what_boot_loaders_expect(self):
        image, second = (guest.make_bios_check(self.folder / name, bootable=bootable)
                         for name, bootable in (("check.img", True), ("second.img", False)))
        before = image.read_bytes()
        server = self.serve(image, second)
        pc = guest.PC(self, self.folder, server.port)
        pc.wait_for("done", 120)
        pc.wait_for_end(20)
        console = pc.console()
        self.assertNotIn("BAD", console, console[-3000:])
        self.assertEqual(console.count("\nok "), 25, console[-3000:])
        server.stop()
        pattern = b"".join(guest.pattern(sector) for sector in range(1000, 1120))
        expected = bytearray(before)
        expected[5000 * 512:5120 * 512] = pattern
        expected[130 * 512:134 * 512] = pattern[:4 * 512]
        self.assertTrue(image.read_bytes() == expected, "the disk is as it was but for what was written")

    def test_A_refusal_is_on_the_screen_and_Ctrl_Alt_Del_restarts_the_PC(self):
        server = guest.AnsweringServer()
        server.next_answer = (3, "this PC is not known here\x1b", b"")
        pc = guest.PC(self, self.folder, server.port)
        pc.wait_for("the server refuses: this PC is not known here?", 60)
        server.next_answer = (2, "nothing for you", b"")
        pc.wait_for("the server has no disks for this PC", 60)
        huge = bytearray(360)
        huge[5 - 1] = 1
        huge[48 + 26:48 + 30] = b"\xff" * 4
        server.next_answer = (2, "a monster", bytes(huge))
        pc.wait_for("the server tells of a disk that cannot be", 60)
        server.next_answer = None
        pc.wait_for("no answer from", 60)
        self.assertIsNone(pc.process.poll())
        pc.press_ctrl_alt_del()
        pc.wait_for_end(20)

    def test_A_mirrored_disk_outlives_its_main_server(self):
        environment = b"# GRUB Environment Block\n" + b"#" * 999
        large, digest = self.large_file()
        image = self.make_system("set mark=both", "save_env mark", "echo READING", "hashsum --hash sha256 /large",
                                 "set mark=left", "save_env mark", "echo WRITTEN", size_mb=LARGE_MB + 96,
                                 files=[large, ("boot/grub/grubenv", environment)])
        copy = self.folder / "copy.img"
        guest.shutil.copy(image, copy)
        slave = self.serve(f"{copy},id=51521001")
        main = self.serve(f"{image},id=51521001,mirror=127.0.0.1:{slave.port}")
        pc = guest.PC(self, self.folder, main.port)
        pc.wait_for("READING", 60)
        main.kill()
        pc.wait_for("given up, its mirror takes over", 90)
        self.assertNotIn(digest, pc.console(), "the server was gone too late")
        pc.wait_for(digest, 180)
        pc.wait_for("WRITTEN", 30)
        pc.stop()
        slave.stop()
        for path, mark in ((image, b"mark=both"), (copy, b"mark=left")):
            self.assertIn(b"# GRUB Environment Block\n" + mark, path.read_bytes())


if __name__ == "__main__":
    unittest.main()
