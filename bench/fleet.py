#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Several stations at once on one server: all that they read in a second, and what a read of 4 KB waits.

usage: bench/fleet.py [STATIONS...]      default: 1 4 10; 40 takes 8 GB of memory

Each row beside the same stations, each on a server of its own with the disk on the command line, and one client
beside nbdkit with the same file.
"""
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = os.environ.get("QRN_BIN", ROOT / "build/bin")
MB = 1 << 20
IMAGE_MB = 64


class Programs:
    def __init__(self):
        self.running = []

    def start(self, output, *arguments):
        with open(output, "w") as file:
            process = subprocess.Popen([str(a) for a in arguments], stdout=file, stderr=subprocess.STDOUT)
        self.running.append(process)
        while "ready" not in pathlib.Path(output).read_text():
            if process.poll() is not None:
                sys.exit(pathlib.Path(output).read_text())
            time.sleep(0.02)
        return pathlib.Path(output).read_text().split("ready ")[1].split()[0]

    def stop(self):
        for process in reversed(self.running):
            process.send_signal(signal.SIGTERM)
        for process in self.running:
            process.wait()
        self.running = []


def measure(uris, folder):
    """MB/s of all together reading everything twice, and the 99th percentile of single reads beside it."""
    begin = time.monotonic()
    clients = [subprocess.Popen(["nbdcopy", uri, "null:"]) for uri in uris for _ in range(2)]
    for client in clients:
        client.wait()
    rate = 2 * len(uris) * IMAGE_MB * MB / (time.monotonic() - begin) / 1e6
    jobs = []
    for number, uri in enumerate(uris):
        jobs.append(f"[j{number}]\nuri={uri}\n")
    job = folder / "job.fio"
    job.write_text("[global]\nioengine=nbd\nrw=randread\nbs=4k\niodepth=1\nruntime=3\ntime_based\n"
                   f"size={IMAGE_MB}m\ngroup_reporting\n" + "".join(jobs))
    done = subprocess.run(["fio", "--output-format=json", job], stdout=subprocess.PIPE, check=True)
    text = done.stdout.decode()
    read = json.loads(text[text.index("{"):])["jobs"][0]["read"]
    return rate, read["clat_ns"]["percentile"]["99.000000"] / 1e3, read["iops"]


def stations(programs, folder, blocks):
    uris = []
    for number, block in enumerate(blocks):
        path = folder / f"s{number}.nbd"
        programs.start(folder / f"s{number}.out", BIN / "qrn-station" if isinstance(BIN, pathlib.Path) else f"{BIN}/qrn-station",
                       "--boot-block", block, "--nbd", f"unix:{path}", "--memory", "128")
        uris.append(f"nbd+unix:///lun0?socket={path}")
    return uris


def fleet(programs, folder, count, mode):
    config = folder / "server.toml"
    text = (f'[server]\nlisten="127.0.0.1:0"\nstate="{folder}/state"\ncontrol="{folder}/ctl"\n'
            f'allow=["127.0.0.0/8"]\n[images.i]\npath="{folder}/image"\n'
            f'[groups.g]\ndisks=[{{image="i", mode="{mode}", at_boot="keep"}}]\n').replace(
                ', at_boot="keep"', ', at_boot="keep"' if mode == "overlay" else "")
    for number in range(count):
        text += f'[workstations.pc{number}]\nhardware="52:54:00:00:00:{number:02x}"\ngroup="g"\n'
    config.write_text(text)
    programs.start(folder / "server.out", f"{BIN}/qrn-server", "--config", config)
    blocks = []
    for number in range(count):
        blocks.append(folder / f"b{number}")
        subprocess.run([f"{BIN}/qrn-ctl", "--socket", folder / "ctl", "boot-block", f"pc{number}", blocks[-1]],
                       check=True, stdout=subprocess.DEVNULL)
    return stations(programs, folder, blocks)


def alone(programs, folder, count):
    blocks = []
    for number in range(count):
        blocks.append(folder / f"b{number}")
        programs.start(folder / f"server{number}.out", f"{BIN}/qrn-server", "--listen", "127.0.0.1:0", "--disk",
                       f"{folder}/image,readonly", "--boot-block", blocks[-1])
    return stations(programs, folder, blocks)


def nbdkit(folder):
    path = folder / "kit"
    process = subprocess.Popen(["nbdkit", "-f", "-r", "-U", path, "file", folder / "image"])
    while not path.exists():
        time.sleep(0.02)
    return process, [f"nbd+unix:///?socket={path}"]


def main():
    counts = [int(a) for a in sys.argv[1:]] or [1, 4, 10]
    print(f"{'':<34}{'MB/s':>8}{'p99 4 KB us':>13}{'reads/s':>9}")

    def row(name, figures):
        print(f"{name:<34}{figures[0]:>8.0f}{figures[1]:>13.0f}{figures[2]:>9.0f}", flush=True)

    for count in counts:
        for name, start in (("a server for each", alone), ("one server, read-only", lambda *a: fleet(*a, "readonly")),
                            ("one server, overlays", lambda *a: fleet(*a, "overlay"))):
            with tempfile.TemporaryDirectory(prefix="qrn-fleet-") as name_of_folder:
                folder, programs = pathlib.Path(name_of_folder), Programs()
                (folder / "image").write_bytes(os.urandom(IMAGE_MB * MB))
                try:
                    row(f"{count} stations, {name}", measure(start(programs, folder, count), folder))
                finally:
                    programs.stop()
    with tempfile.TemporaryDirectory(prefix="qrn-fleet-") as name_of_folder:
        folder = pathlib.Path(name_of_folder)
        (folder / "image").write_bytes(os.urandom(IMAGE_MB * MB))
        process, uris = nbdkit(folder)
        row("1 client, nbdkit", measure(uris, folder))
        process.terminate()


if __name__ == "__main__":
    main()
