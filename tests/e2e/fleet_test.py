#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A server of many workstations, administered while they work; stations are real, each with a disk of its own."""
import hashlib
import json
import os
import random
import signal
import socket
import struct
import subprocess
import unittest
import urllib.request

from fleet_harness import FleetCase, FleetServer, FleetStation
from harness import BIN, MB, stored_bytes


class Fleet(FleetCase):
    def test_Workstations_keep_their_own_writes_over_one_image_even_when_the_server_is_killed(self):
        golden = self.golden()
        server = FleetServer(self, self.config('{ image = "golden", at_boot = "keep" }'))
        stations = [FleetStation(self, server, f"pc{n}") for n in range(self.STATIONS)]
        expected = [bytearray(golden) for _ in stations]
        source = random.Random(3)
        for round_number in range(2):
            for station, content in zip(stations, expected):
                for _ in range(4):
                    offset, data = source.randrange(15000) * 512, source.randbytes(512 * source.randrange(1, 60))
                    self.write(station, offset, data)
                    content[offset:offset + len(data)] = data
                self.write(station, 6 * MB, bytes(MB))
                content[6 * MB:7 * MB] = bytes(MB)
            if round_number == 0:
                server.kill()
                again = FleetServer(self, self.config('{ image = "golden", at_boot = "keep" }', port=server.port),
                                    name="again")
        for station, content in zip(stations, expected):
            self.assertEqual(self.read(station), content)
        with open(self.path("golden"), "rb") as file:
            self.assertEqual(hashlib.sha256(file.read()).digest(), hashlib.sha256(golden).digest())
        self.assertLess(stored_bytes(self.path("state/overlays/pc0.lun0")), 2 * MB)
        shown = again.ctl("show", "pc1")
        self.assertEqual(shown["state"], "running")
        self.assertEqual(shown["disks"][0]["image"], "golden@1")
        for station in stations:
            station.stop()
        again.stop()
        check = subprocess.run([f"{BIN}/qrn-ctl", "--json", "check-overlay", self.path("state/overlays/pc0.lun0")],
                               stdout=subprocess.PIPE, check=True)
        report = json.loads(check.stdout)
        self.assertEqual(report["blocks_flushed"], report["blocks_live"], "an orderly end leaves nothing to lose")

    def test_A_server_that_is_killed_under_load_loses_no_answered_write(self):
        self.golden()
        text = self.config('{ image = "golden", at_boot = "keep" }')
        server = FleetServer(self, text)
        stations = [FleetStation(self, server, f"pc{n}") for n in range(self.STATIONS)]
        sources = [self.random_disk(f"source{n}", 8, seed=10 + n) for n in range(self.STATIONS)]
        # Two seconds of writing, so that every life of the server sees some of it.
        writers = [self.start_client("nbdkit", "-U", "-", "--filter=rate", "file", source, "rate=32M", "burstiness=0.1",
                                     "--run", f'nbdcopy --flush "$uri" "{station.uri()}"')
                   for source, station in zip(sources, stations)]
        for life in range(2):
            written = lambda: sum(one["disks"][0]["written_bytes"] for one in server.ctl("list")["workstations"])
            self.wait_until(lambda: written() > MB, "writing is under way")
            server.kill()
            server = FleetServer(self, text.replace("127.0.0.1:0", f"127.0.0.1:{server.port}"), name=f"life{life}")
        for writer in writers:
            self.finish_client(writer)
        for source, station in zip(sources, stations):
            with open(source, "rb") as file:
                self.assertEqual(self.read(station), file.read())

    def test_What_one_wrote_is_committed_rolled_back_reset_and_forgotten_at_boot(self):
        golden = self.golden()
        server = FleetServer(self, self.config('{ image = "golden" }'))
        first = FleetStation(self, server, "pc0")
        self.write(first, 4096, b"committed" * 512)
        changed = bytearray(golden)
        changed[4096:4096 + 9 * 512] = b"committed" * 512
        self.assertIn("running", server.ctl("commit", "pc0", fails=True))
        first.stop()
        self.wait_until(lambda: server.ctl("show", "pc0")["state"] == "shut down", "the end of pc0")
        self.assertEqual(server.ctl("commit", "pc0")["version"], 2)
        second = FleetStation(self, server, "pc1")
        self.assertEqual(self.read(second), changed)
        self.assertIn("current", server.ctl("remove", "golden@2", fails=True))
        server.ctl("rollback", "golden")
        third = FleetStation(self, server, "pc2")
        self.assertEqual(self.read(third), golden)
        self.assertEqual(self.read(second), changed, "one that runs stays on its version")
        self.assertIn("used by pc1", server.ctl("remove", "golden@2", fails=True))
        self.write(second, 0, b"x" * 512)
        second.stop()
        second = FleetStation(self, server, "pc1")
        self.assertEqual(self.read(second), golden, "writes are thrown away at the next boot, which is of the current image")
        self.assertIn("running", server.ctl("reset", "pc1", fails=True))
        images = server.ctl("list")["images"][0]
        self.assertEqual((images["current"], len(images["versions"])), (1, 2))

    def test_A_reload_says_what_it_could_not_change_and_leaves_running_workstations_alone(self):
        golden = self.golden()
        other = self.random_disk("other", 8, seed=2)
        server = FleetServer(self, self.config('{ image = "golden" }'))
        station = FleetStation(self, server, "pc0")
        text = self.config('{ image = "golden" }, { image = "other", mode = "readonly" }',
                           images={"golden": self.path("golden"), "other": other}, more="threads = 4")
        with open(server.config_path, "w") as file:
            file.write(text)
        told = server.ctl("reload")
        self.assertIn("'threads'", " ".join(told["unchanged"]))
        self.assertEqual(self.read(station), golden)
        again = FleetStation(self, server, "pc1")
        with open(other, "rb") as file:
            self.assertEqual(self.read(again, 1), file.read())
        with open(server.config_path, "a") as file:
            file.write("[images.bad]\n")
        self.assertIn("'path' is missing", server.ctl("reload", fails=True))

    def test_A_second_writer_of_an_exclusive_disk_is_refused_until_the_first_is_gone(self):
        self.golden()
        server = FleetServer(self, self.config('{ image = "golden", mode = "exclusive", retry_mins = 1 }'))
        first, second = (FleetStation(self, server, name) for name in ("pc0", "pc1"))
        self.write(first, 0, b"1" * 512)
        intruder = self.start_client("qemu-io", "-f", "raw", "-c", "write -P 0x32 0 512", second.uri())
        self.wait_until(lambda: server.ctl("show", "pc1")["disks"][0]["store_errors"] > 0, "the write was refused")
        self.assertIn("is in use by pc0", server.output())
        with open(self.path("golden"), "rb") as file:
            self.assertEqual(file.read(512), b"1" * 512)
        first.stop()
        self.finish_client(intruder)
        with open(self.path("golden"), "rb") as file:
            self.assertEqual(file.read(512), b"2" * 512, "the first has shut down, and the second was still trying")

    def test_Strangers_get_no_answer_and_are_counted(self):
        self.golden()
        server = FleetServer(self, self.config('{ image = "golden" }').replace("127.0.0.0/8", "127.0.0.1/32"))
        request = b"QRNB\x01\x01\x00\x40" + b"\x01\x02\x03\x04" + bytes.fromhex("525400000000") + bytes(46)
        def ask(address, packet, wait_s=2):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
                client.bind((address, 0))
                client.settimeout(wait_s)
                client.sendto(packet, ("127.0.0.1", server.port))
                try:
                    return client.recv(2000)
                except socket.timeout:
                    return None
        dropped = lambda: server.ctl("list")["server"]["dropped"]
        self.assertIsNone(ask("127.0.0.2", request, 0.2))
        self.assertEqual(dropped()["strangers"], 1)
        answer = ask("127.0.0.1", request)
        self.assertEqual((len(answer), answer[5]), (464, 2))
        self.assertEqual(ask("127.0.0.1", request), answer, "asked again, it is the same boot")
        unknown = ask("127.0.0.1", request[:17] + b"\x77" + request[18:])
        self.assertEqual(unknown[5], 3, unknown)
        disk = answer[104 + 48:104 + 84]
        identity, parameter = disk[6:10], disk[10:14]
        read = identity + struct.pack(">BBH", 0, 0, 0)
        self.assertEqual(parameter[3], 0)
        self.assertEqual(parameter[2], 1, "the first boot")
        server.ctl("drain")
        other = request[:8] + b"\x09" + request[9:]
        self.assertEqual(ask("127.0.0.1", other)[5], 3, "no boots while draining")

    def test_Images_behind_NBD_servers_wait_while_those_are_away(self):
        golden = self.golden()
        sockets = [self.path("kit"), self.path("nbd")]
        subprocess.run(["qemu-img", "convert", "-O", "qcow2", self.path("golden"), self.path("golden.qcow2")], check=True)
        refused = self.config('{ image = "golden" }', images={"golden": self.path("golden.qcow2")})
        with open(self.path("refused.toml"), "w") as file:
            file.write(refused)
        check = subprocess.run([f"{BIN}/qrn-server", "--check-config", self.path("refused.toml")], stderr=subprocess.PIPE,
                               text=True)
        self.assertEqual(check.returncode, 2)
        self.assertIn("qcow2; serve it with: qemu-storage-daemon --blockdev driver=qcow2", check.stderr)

        def serve_raw():
            return self.start_client("nbdkit", "-f", "-U", sockets[0], "file", self.path("golden"))
        def serve_qcow2():
            return self.start_client("qemu-storage-daemon", "--blockdev",
                                     f"driver=qcow2,node-name=disk,file.driver=file,file.filename={self.path('golden.qcow2')}",
                                     "--nbd-server", f"addr.type=unix,addr.path={sockets[1]}",
                                     "--export", "type=nbd,id=disk,node-name=disk,name=disk,writable=on")
        kit, other = serve_raw(), serve_qcow2()
        self.wait_until(lambda: all(os.path.exists(path) for path in sockets), "NBD servers")
        server = FleetServer(self, self.config('{ image = "raw" }, { image = "cow", mode = "exclusive" }', images={
            "raw": f"nbd+unix:///?socket={sockets[0]}", "cow": f"nbd+unix:///disk?socket={sockets[1]}"}))
        station = FleetStation(self, server, "pc0")
        self.assertEqual(self.read(station), golden)
        self.write(station, 4096, b"over" * 1024)
        self.write(station, 8192, b"cow!" * 1024, lun=1)
        kit.kill()
        kit.wait()
        reader = self.start_client("nbdcopy", station.uri(0), self.path("late"))
        self.wait_until(lambda: "is gone, requests wait" in server.output(), "the loss was told")
        golden[8192:8192 + 4096] = b"cow!" * 1024
        self.assertEqual(self.read(station, 1), golden, "the other disk goes on")
        os.unlink(sockets[0])
        kit = serve_raw()
        self.finish_client(reader)
        self.assertIn("is back", server.output())
        with open(self.path("golden"), "rb") as file:
            golden[:] = file.read()
        golden[4096:8192] = b"over" * 1024
        with open(self.path("late"), "rb") as file:
            self.assertEqual(file.read(), golden)

    def test_A_store_that_stalls_hurts_its_disks_alone_and_reads_of_it_run_together(self):
        golden = self.golden()
        paths = self.path("kit"), self.path("kit.log")
        kit = self.start_client("nbdkit", "-f", "-U", paths[0], "--filter=log", "--filter=delay", "file",
                                self.path("golden"), f"logfile={paths[1]}", "rdelay=3ms")
        self.wait_until(lambda: os.path.exists(paths[0]), "the NBD server")
        text = self.config('{ image = "raw" }', images={"raw": f"nbd+unix:///?socket={paths[0]}", "golden": self.path("golden")})
        server = FleetServer(self, text.replace('52:54:00:00:00:01"\ngroup = "room"',
                                                '52:54:00:00:00:01"\ndisks = [{ image = "golden" }]'))
        station = FleetStation(self, server, "pc0")
        self.assertEqual(self.read(station), golden)
        most = waiting = 0
        with open(paths[1]) as file:
            for line in file:
                waiting += (" Read " in line) - ("...Read " in line)
                most = max(most, waiting)
        self.assertGreater(most, 1, "reads in flight at the NBD server")
        kit.send_signal(signal.SIGSTOP)
        reader = self.start_client("nbdcopy", station.uri(), self.path("late"))
        self.wait_until(lambda: server.ctl("show", "pc0")["disks"][0]["read_requests"] > 0, "reading")
        other = FleetStation(self, server, "pc1")
        self.assertEqual(self.read(other), golden, "boots and reads while the other's storage stalls")
        self.assertIsNone(reader.poll())
        kit.send_signal(signal.SIGCONT)
        self.finish_client(reader)
        with open(self.path("late"), "rb") as file:
            self.assertEqual(file.read(), golden)

    def test_A_page_shows_what_is_there_and_the_service_manager_hears_of_it(self):
        self.golden()
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(self.path("notify"))
        manager.settimeout(20)
        os.environ["NOTIFY_SOCKET"], os.environ["WATCHDOG_USEC"] = self.path("notify"), "600000"
        try:
            server = FleetServer(self, self.config('{ image = "golden" }', more='http = "127.0.0.1:0"'))
        finally:
            del os.environ["NOTIFY_SOCKET"], os.environ["WATCHDOG_USEC"]
        port = int(server.output().split("the page is at http://127.0.0.1:")[1].split("/")[0])
        self.assertEqual(manager.recv(100), b"READY=1")
        self.assertEqual(manager.recv(100), b"WATCHDOG=1")
        FleetStation(self, server, "pc1")

        def get(path):
            with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=10) as answer:
                return answer.read().decode()
        self.assertIn("<table", get("/"))
        self.assertEqual([one["state"] for one in json.loads(get("/api"))["workstations"]], ["off", "running", "off"])
        self.assertIn('qrn_running{workstation="pc1"} 1', get("/metrics"))
        with socket.create_connection(("127.0.0.1", port)) as silent:
            self.assertIn("qrn_boots_total 1", get("/metrics"), "a silent client keeps nobody waiting")
            silent.sendall(b"x" * 20000)
        server.stop()
        while manager.recv(100) != b"STOPPING=1":
            pass


if __name__ == "__main__":
    unittest.main()
