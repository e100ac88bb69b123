# SPDX-License-Identifier: MIT
"""Runs the benchmark programs and the references, and prints the table of ratios. See bench/run."""
import argparse
import contextlib
import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

IMAGE_MB = 256
SPARSE_GB = 32  # of a disk for caches
# name, fio's and iscsi-perf's way to say it, as in workload.h
WORKLOADS = [
    ("read 64K seq depth 8", "read", "64k", 8),
    ("write 64K seq depth 8", "write", "64k", 8),
    ("read 4K random depth 1", "randread", "4k", 1),
    ("read 4K random depth 8", "randread", "4k", 8),
    ("write 4K random depth 1", "randwrite", "4k", 1),
    ("write 4K random depth 8", "randwrite", "4k", 8),
]
# What is measured beside them with SRBs alone.
OTHER_DEPTHS = ["read 64K seq depth 1", "read 64K seq depth 32", "read 4K random depth 4", "read 4K random depth 32"]


def progress(text):
    print(text, file=sys.stderr, flush=True)


@contextlib.contextmanager
def running(command, ready=None, log=None):
    """A program that runs for a while; waits until its output has a line that begins with ready."""
    with open(log, "w+") as output:
        process = subprocess.Popen(command, stdout=output, stderr=subprocess.STDOUT)
        try:
            deadline = time.monotonic() + 15
            while ready is not None:
                output.seek(0)
                if any(line.startswith(ready) for line in output):
                    break
                if process.poll() is not None or time.monotonic() > deadline:
                    output.seek(0)
                    raise RuntimeError(f"{command[0]} did not start: {output.read()}")
                time.sleep(0.05)
            yield process
        finally:
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


def json_lines(command):
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    result = {}
    for row in map(json.loads, output.splitlines()):
        result[row["workload"]] = row["requests_per_s"]
        for cost in ("cpu_us_per_request", "switches_per_request"):
            result[f"{row['workload']}, {cost}"] = row[cost]
    return result


def figures(command):
    """By name, what a program measures; of workloads the microseconds of a request."""
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    result = {}
    for row in map(json.loads, output.splitlines()):
        if "workload" in row:
            result[row["workload"]] = row["us_per_request"]
        else:
            result[row["measure"]] = next(value for key, value in row.items() if key != "measure")
    return result


def fio(uri, pattern, size, depth, seconds):
    """Requests per second of one workload through an NBD server."""
    output = subprocess.run(
        ["fio", "--name=job", "--ioengine=nbd", f"--uri={uri}", f"--rw={pattern}", f"--bs={size}",
         f"--iodepth={depth}", f"--runtime={seconds}", "--time_based", "--output-format=json", "--norandommap"],
        check=True, capture_output=True, text=True).stdout
    job = json.loads(output[output.index("{"):])["jobs"][0]
    return job["write" if "write" in pattern else "read"]["iops"]


def fio_all(uri, seconds):
    return {name: fio(uri, pattern, size, depth, seconds) for name, pattern, size, depth in WORKLOADS}


class Driver:
    """A block server on the image, and what runs against it."""

    def __init__(self, programs, directory, bench):
        self.programs, self.directory, self.bench = programs, directory, bench

    @contextlib.contextmanager
    def server(self, *disks):
        block = f"{self.directory}/boot.block"
        command = [f"{self.programs}/qrn-server", "--listen", "127.0.0.1:0", "--boot-block", block,
                   *(part for disk in disks or ("disk.img,slots=8",)
                     for part in ("--disk", f"{self.directory}/{disk}"))]
        with running(command, "ready", f"{self.directory}/server.out"):
            yield block

    def through_srbs(self, seconds, *options):
        with self.server() as block:
            return json_lines([f"{self.bench}/qrn-bench-srb", *options, block, str(seconds)])

    def bare(self, seconds):
        """The reference: the same packets to the same server, with no driver in between."""
        with self.server() as block:
            return json_lines([f"{self.bench}/qrn-bench-exchange", block, str(seconds)])

    def cached(self, seconds, cache_mb):
        """Figures of a disk that is cached."""
        with self.server(f"sparse.img,slots=8,cache_mb={cache_mb}") as block:
            return figures([f"{self.bench}/qrn-bench-cache", block, str(seconds), str(cache_mb)])

    def local(self, seconds):
        """Figures of a local disk, made anew, whose system image is filled from the server."""
        area, disk = f"{self.directory}/disk.area", f"{self.directory}/local.disk"
        tool = f"{self.programs}/qrn-image"
        for command in ([tool, "create", area, "--from", f"{self.directory}/disk.img", "--force"],
                        [tool, "disk", disk, "--size", f"{3 * IMAGE_MB}M", "--system", f"{IMAGE_MB * 5 // 4}M",
                         "--temporary", f"{IMAGE_MB}M", "--force"]):
            subprocess.run(command, check=True, capture_output=True)
        with self.server(f"disk.img,slots=8,image={area}", "plain.img,slots=8") as block:
            return figures([f"{self.bench}/qrn-bench-image", block, str(seconds), disk])

    def through_nbd(self, seconds):
        socket = f"{self.directory}/station.sock"
        with self.server() as block, running(
                [f"{self.programs}/qrn-station", "--boot-block", block, "--nbd", f"unix:{socket}"], "ready",
                f"{self.directory}/station.out"):
            return fio_all(f"nbd+unix:///lun0?socket={socket}", seconds)


def plain_nbd(directory, seconds):
    socket = f"{directory}/nbdkit.sock"
    if os.path.exists(socket):
        os.unlink(socket)
    with running(["nbdkit", "--foreground", "--exit-with-parent", "-U", socket, "file", f"{directory}/plain.img"],
                 log=f"{directory}/nbdkit.out"):
        while not os.path.exists(socket):
            time.sleep(0.05)
        return fio_all(f"nbd+unix:///?socket={socket}", seconds)


def iscsi(directory, seconds):
    """Reads through an iSCSI target on loopback; its client only reads. Empty when it does not run here."""
    portal, control, name = "127.0.0.1:13260", "77", "iqn.2026-01.bench:disk"
    admin = ["tgtadm", "-C", control, "--lld", "iscsi"]
    steps = (["--op", "new", "--mode", "target", "--tid", "1", "-T", name],
             ["--op", "new", "--mode", "logicalunit", "--tid", "1", "--lun", "1", "-b", f"{directory}/plain.img"],
             ["--op", "bind", "--mode", "target", "--tid", "1", "-I", "ALL"])
    results = {}
    try:
        with running(["tgtd", "-f", "-C", control, "--iscsi", f"portal={portal}"], log=f"{directory}/tgtd.out"):
            time.sleep(1)
            for step in steps:
                subprocess.run(admin + step, check=True, capture_output=True)
            for workload, pattern, size, depth in WORKLOADS:
                if "read" in pattern:
                    blocks = int(size[:-1]) * 2
                    command = ["iscsi-perf", "-m", str(depth), "-b", str(blocks), "-t", str(max(1, int(seconds)))]
                    command += (["-r"] if "rand" in pattern else []) + [f"iscsi://{portal}/{name}/1"]
                    output = subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout
                    results[workload] = last_iops(output)
    except (OSError, subprocess.SubprocessError, ValueError, IndexError, RuntimeError) as error:
        progress(f"no iSCSI reference: {error}")
    return results


def last_iops(output):
    """The average that iscsi-perf prints last: "iops average 12345 (...)"."""
    return float(output.replace("\r", "\n").split("iops average ")[-1].split()[0])


def median_of(rounds, workload):
    values = [figures[workload] for figures in rounds if workload in figures]
    return statistics.median(values) if values else None


def describe(workload, per_second):
    size, depth = next((size, depth) for name, _, size, depth in WORKLOADS if name == workload)
    kilobytes = int(size[:-1])
    return f"{per_second * kilobytes * 1024 / 1e6:9.0f} MB/s {1e6 * depth / per_second:9.1f} us"


def print_table(rounds):
    pairs = (("SRB", "bare UDP"), ("NBD", "nbdkit file"), ("NBD", "iSCSI target"))
    print(f"{'workload':<26}{'driver through':<16}{'':>23}  {'reference':<14}{'':>23}  {'ratio':>6}")
    for workload, *_ in WORKLOADS:
        for ours, reference in pairs:
            mine, theirs = median_of(rounds[ours], workload), median_of(rounds[reference], workload)
            if mine and theirs:
                print(f"{workload:<26}{ours:<16}{describe(workload, mine):>23}  {reference:<14}"
                      f"{describe(workload, theirs):>23}  {mine / theirs:6.2f}")


def print_thread_table(rounds):
    """The machine's threads as fibers, and as host threads; and what either costs the host for a request."""
    ways = (("SRB", "fibers"), ("SRB, host threads", "host threads"), ("bare UDP", "bare UDP"))
    print(f"\n{'threads of the machine':<26}{'fibers : bare':>14}{'host : bare':>14}"
          + "".join(f"{name + ': CPU, switches':>30}" for _, name in ways))
    for workload in [name for name, *_ in WORKLOADS] + OTHER_DEPTHS:
        per_second = {way: median_of(rounds[way], workload) for way, _ in ways}
        costs = "".join(f"{median_of(rounds[way], f'{workload}, cpu_us_per_request'):>21.1f} us"
                        f"{median_of(rounds[way], f'{workload}, switches_per_request'):6.1f}" for way, _ in ways)
        print(f"{workload:<26}{per_second['SRB'] / per_second['bare UDP']:>14.2f}"
              f"{per_second['SRB, host threads'] / per_second['bare UDP']:>14.2f}{costs}")


def print_feeding_table(rounds):
    """Disks that get their next request when one is complete or drawn, beside such that get all at once."""
    print(f"\n{'feeding of a disk':<26}{'held back':>26}{'eager':>27}{'ratio':>8}")
    for workload, _, _, depth in WORKLOADS:
        held_back, eager = median_of(rounds["SRB"], workload), median_of(rounds["SRB, fed eagerly"], workload)
        if depth == 8:
            print(f"{workload:<26}{describe(workload, held_back):>26}{describe(workload, eager):>27}"
                  f"{held_back / eager:8.2f}")


SMALL_CACHE_MB, LARGE_CACHE_MB = 16, 16384
CACHE_HITS = [("hit read 64K depth 1", 1), ("hit read 64K depth 8", 8), ("hit write 64K depth 8", 8)]


def print_cache_table(rounds):
    """What a RAM cache costs and gives; times are of one request, at depth 8 of an eighth of eight."""
    sizes = {"small": SMALL_CACHE_MB, "large": LARGE_CACHE_MB}

    def figure(size, name):
        return median_of(rounds[f"{size} cache"], name)

    print(f"\n{'RAM cache of':<42}" + "".join(f"{f'{mb} MB':>14}" for mb in sizes.values()) + f"{'ratio':>8}")
    for name, depth in CACHE_HITS:
        each = {size: figure(size, name) / depth for size in sizes}
        print(f"{name:<42}" + "".join(f"{us:>11.1f} us" for us in each.values())
              + f"{each['large'] / each['small']:8.2f}")
        copies = {size: figure(size, "two copies of 64K") / each[size] for size in sizes}
        print(f"{'  against two copies of 64K':<42}" + "".join(f"{ratio:>14.2f}" for ratio in copies.values()))
    for name in ("hit read 4K depth 1", "4K: a command alone", "4K: the cache layer alone"):
        us = [figure(size, name) for size in sizes]
        print(f"{name:<42}" + "".join(f"{value:>11.2f} us" for value in us) + f"{us[1] / us[0]:8.2f}")
    for name, unit in (("set-up", "ms"), ("bookkeeping", "KB/GB"), ("bookkeeping in non-paged pool", "KB/GB")):
        print(f"{name:<42}" + "".join(f"{figure(size, name):>{13 - len(unit)}.1f} {unit}" for size in sizes))


def print_image_table(rounds):
    def figure(name):
        return median_of(rounds["local images"], name)

    print(f"\n{'local images':<42}{'driver':>14}{'reference':>14}{'ratio':>8}")
    sync, network = figure("synchronisation"), figure("network reads, one after another")
    print(f"{'synchronisation, network reads in order':<42}{sync:>9.0f} MB/s{network:>9.0f} MB/s{sync / network:8.2f}")
    for what in ("reads", "writes"):
        theirs = figure(f"local {what} of 64K, the file alone")
        for depth in (1, 8):
            mine = figure(f"local {what} of 64K, depth {depth}")
            print(f"{f'local {what} of 64K, depth {depth}, the file':<42}{mine:>11.1f} us{theirs:>11.1f} us"
                  f"{theirs / mine:8.2f}")
    for order in ("in order", "at random"):
        large, small = figure(f"look-up, 2 TB, {order}"), figure(f"look-up, 2 GB, {order}")
        print(f"{f'look-up {order}, of 2 TB and of 2 GB':<42}{large:>11.0f} ns{small:>11.0f} ns{large / small:8.2f}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("bench")
    parser.add_argument("programs")
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    seconds = options.seconds

    directory = tempfile.mkdtemp(prefix="qrn-bench-")
    try:
        for image in ("disk.img", "plain.img"):
            with open(f"{directory}/{image}", "wb") as file:
                for _ in range(IMAGE_MB):
                    file.write(os.urandom(1 << 20))
        with open(f"{directory}/sparse.img", "wb") as file:
            file.truncate(SPARSE_GB << 30)
        driver = Driver(options.programs, directory, options.bench)
        measurements = {
            "bare UDP": lambda: driver.bare(seconds),
            "SRB": lambda: driver.through_srbs(seconds),
            "SRB, host threads": lambda: driver.through_srbs(seconds, "--host-threads"),
            "SRB, fed eagerly": lambda: driver.through_srbs(seconds, "--eager"),
            "NBD": lambda: driver.through_nbd(seconds),
            "nbdkit file": lambda: plain_nbd(directory, seconds),
            "iSCSI target": lambda: iscsi(directory, seconds),
            "small cache": lambda: driver.cached(seconds, SMALL_CACHE_MB),
            "large cache": lambda: driver.cached(seconds, LARGE_CACHE_MB),
            "local images": lambda: driver.local(seconds),
        }
        rounds = {name: [] for name in measurements}
        for number in range(options.rounds):
            for name, measure in measurements.items():
                progress(f"round {number + 1} of {options.rounds}: {name}")
                rounds[name].append(measure())
        print_table(rounds)
        print_thread_table(rounds)
        print_feeding_table(rounds)
        print_cache_table(rounds)
        print_image_table(rounds)
    finally:
        shutil.rmtree(directory, ignore_errors=True)


main()
