#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Several stations at once on one server: all that they read in a second, and what a read of 4 KB waits.

usage: bench/fleet.py [STATIONS...]      default: 1 4 10; 40 takes 4 GB of memory

Each row beside the same stations, each on a server of its own with the disk on the command line, and beside as many
clients of nbdkit and, where it is installed and one is root, of tgt with the same file.
"""
import json
import os
import pathlib
import shutil
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

    def start_quietly(self, *arguments):
        self.running.append(subprocess.Popen([str(a) for a in arguments], stdout=subprocess.DEVNULL,
                                             stderr=subprocess.DEVNULL))

    def wait_for(self, path):
        while not path.exists():
            if self.running[-1].poll() is not None:
                sys.exit(f"{self.running[-1].args} has ended")
            time.sleep(0.02)

    def stop(self):
        for process in reversed(self.running):
            process.send_signal(signal.SIGTERM)
        for process in self.running:
            try:
                process.wait(timeout=5)
            except subprocess.TimeoutExpired:  # tgtd stays
                process.kill()
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
                       "--boot-block", block, "--nbd", f"unix:{path}", "--memory", "64")
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


def nbdkit(programs, folder, count):
    path = folder / "kit"
    programs.start_quietly("nbdkit", "-f", "-r", "-U", path, "file", folder / "image")
    programs.wait_for(path)
    return [f"nbd+unix:///?socket={path}"] * count


def tgt(programs, folder, count):
    """Each client speaks NBD to an iSCSI initiator of its own, as to a station."""
    control, port = "77", 32601
    programs.start_quietly("tgtd", "-f", "-C", control, "--iscsi", f"portal=127.0.0.1:{port}")
    tell = ["tgtadm", "-C", control, "--lld", "iscsi", "--op"]
    while subprocess.run([*tell, "show", "--mode", "target"], stdout=subprocess.DEVNULL,
                         stderr=subprocess.DEVNULL).returncode != 0:
        time.sleep(0.1)
    for command in (("new", "--mode", "target", "--tid", "1", "-T", "iqn.2026-01.bench:image"),
                    ("new", "--mode", "logicalunit", "--tid", "1", "--lun", "1", "-b", folder / "image"),
                    ("bind", "--mode", "target", "--tid", "1", "-I", "ALL")):
        subprocess.run([*tell, *command], check=True)
    uris = []
    for number in range(count):
        path = folder / f"t{number}.nbd"
        programs.start_quietly(
            "qemu-storage-daemon", "--blockdev", "driver=iscsi,node-name=disk,transport=tcp,cache.direct=on,read-only=on,"
            f"portal=127.0.0.1:{port},target=iqn.2026-01.bench:image,lun=1,initiator-name=iqn.2026-01.bench:c{number}",
            "--nbd-server", f"addr.type=unix,addr.path={path}", "--export", "type=nbd,id=disk,node-name=disk,name=disk")
        programs.wait_for(path)
        uris.append(f"nbd+unix:///disk?socket={path}")
    return uris


def main():
    counts = [int(a) for a in sys.argv[1:]] or [1, 4, 10]
    print(f"{'':<34}{'MB/s':>8}{'p99 4 KB us':>13}{'reads/s':>9}")
    kinds = [("stations, a server for each", alone),
             ("stations, one server, read-only", lambda *a: fleet(*a, "readonly")),
             ("stations, one server, overlays", lambda *a: fleet(*a, "overlay")), ("clients, nbdkit", nbdkit)]
    if shutil.which("tgtd") and os.geteuid() == 0:
        kinds.append(("clients, tgt", tgt))
    for count in counts:
        for name, start in kinds:
            with tempfile.TemporaryDirectory(prefix="qrn-fleet-") as name_of_folder:
                folder, programs = pathlib.Path(name_of_folder), Programs()
                (folder / "image").write_bytes(os.urandom(IMAGE_MB * MB))
                try:
                    figures = measure(start(programs, folder, count), folder)
                finally:
                    programs.stop()
                print(f"{f'{count} {name}':<34}{figures[0]:>8.0f}{figures[1]:>13.0f}{figures[2]:>9.0f}", flush=True)


if __name__ == "__main__":
    main()
