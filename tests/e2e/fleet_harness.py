# SPDX-License-Identifier: MIT
"""A server of many workstations and the stations that boot from it, for tests."""
import json
import subprocess

from harness import BIN, DRIVER, Case, Program


class FleetServer(Program):
    def __init__(self, case, text, name="server"):
        self.state, self.control = case.path("state"), case.path("control")
        self.config_path = case.path("server.toml")
        if text:
            with open(self.config_path, "w") as file:
                file.write(text)
        super().__init__(case, name, [f"{BIN}/qrn-server", "--config", self.config_path])
        self.port = int(self.output().split("ready ")[1].split()[0].split(":")[1])

    def ctl(self, *arguments, fails=False):
        done = subprocess.run([f"{BIN}/qrn-ctl", "--socket", self.control, "--json", *arguments],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60)
        self.case.assertEqual(done.returncode, 1 if fails else 0, done.stdout + done.stderr)
        return done.stderr if fails else json.loads(done.stdout)


class FleetStation(Program):
    def __init__(self, case, server, name, memory_mb=128):
        block = case.path(f"{name}.block")
        server.ctl("boot-block", name, block)
        self.socket_path = case.path(f"{name}.nbd")
        super().__init__(case, f"station-{name}",
                         [f"{BIN}/qrn-station", "--boot-block", block, "--driver", DRIVER,
                          "--nbd", f"unix:{self.socket_path}", "--memory", str(memory_mb)])

    def uri(self, lun=0):
        return f"nbd+unix:///lun{lun}?socket={self.socket_path}"


class FleetCase(Case):
    STATIONS = 3

    def config(self, disks, port=0, images=None, more=""):
        text = f"""[server]
listen = "127.0.0.1:{port}"
state = "{self.path('state')}"
control = "{self.path('control')}"
allow = ["127.0.0.0/8"]
{more}
"""
        for name, path in (images or {"golden": self.path("golden")}).items():
            text += f'[images.{name}]\npath = "{path}"\n'
        text += f"[groups.room]\ndisks = [{disks}]\n"
        for number in range(self.STATIONS):
            text += f'[workstations.pc{number}]\nhardware = "52:54:00:00:00:{number:02x}"\ngroup = "room"\n'
        return text

    def read(self, station, lun=0):
        target = self.path("read")
        self.client("nbdcopy", station.uri(lun), target)
        with open(target, "rb") as file:
            return file.read()

    def write(self, station, offset, data, lun=0):
        source = self.path("source")
        with open(source, "wb") as file:
            file.write(data)
        self.client("qemu-io", "-f", "raw", "-c", f"write -s {source} {offset} {len(data)}", "-c", "flush",
                    station.uri(lun))

    def golden(self):
        with open(self.random_disk("golden", 8), "rb") as file:
            return bytearray(file.read())
