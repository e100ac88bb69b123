# SPDX-License-Identifier: MIT
"""Real programs on loopback: block servers, a workstation, and NBD clients that others wrote.

Every test boots its own, in a directory of its own. From the environment: QRN_BIN, where the programs
are, and QRN_DRIVER, "builtin" or the driver file to boot.
"""
import ctypes
import filecmp
import json
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

BIN = os.environ.get("QRN_BIN", "build/bin")
DRIVER = os.environ.get("QRN_DRIVER", "builtin")
MB = 1 << 20

READY_TIMEOUT_S = 15
CLIENT_TIMEOUT_S = 60


def die_with_parent():
    """A test that is killed leaves no server behind."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


class Program:
    """A server or a workstation: started until it says that it is ready, stopped at the test's end."""

    def __init__(self, case, name, arguments):
        self.case, self.name = case, name
        self.output_path = case.path(f"{name}.out")
        with open(self.output_path, "w") as output:
            self.process = subprocess.Popen(arguments, stdout=output, stderr=subprocess.STDOUT,
                                            stdin=subprocess.DEVNULL, preexec_fn=die_with_parent)
        case.addCleanup(self.kill)
        deadline = time.monotonic() + READY_TIMEOUT_S
        while not any(line.startswith("ready") for line in self.output().splitlines()):
            if self.process.poll() is not None or time.monotonic() > deadline:
                case.fail(f"{name} is not ready:\n{self.output()}")
            time.sleep(0.01)

    def output(self):
        with open(self.output_path, errors="replace") as file:
            return file.read()

    def kill(self):
        """Gone at once, as with a power failure."""
        self.process.kill()
        self.process.wait()

    def stop(self, with_signal=signal.SIGTERM):
        self.process.send_signal(with_signal)
        self.case.assertEqual(self.process.wait(timeout=20), 0, f"{self.name}:\n{self.output()}")


class Server(Program):
    def __init__(self, case, disks, name="server", port=0):
        self.boot_block_path = case.path(f"{name}.boot")
        self.statistics_path = case.path(f"{name}.json")
        arguments = [f"{BIN}/qrn-server", "--listen", f"127.0.0.1:{port}",
                     "--boot-block", self.boot_block_path, "--stats-json", self.statistics_path]
        for disk in disks:
            arguments += ["--disk", disk]
        super().__init__(case, name, arguments)
        self.port = port or self.port_in_boot_block()

    def port_in_boot_block(self):
        with open(self.boot_block_path, "rb") as file:
            block = file.read()
        self.case.assertEqual(len(block), 360)
        main_server_of_lun_0 = block[230:244]
        return int.from_bytes(main_server_of_lun_0[10:12], "big")

    def statistics(self):
        with open(self.statistics_path) as file:
            return json.load(file)


class Station(Program):
    def __init__(self, case, server, registry=(), handover="low-memory", options=()):
        self.socket_path = case.path("nbd.sock")
        self.statistics_path = case.path("station.json")
        self.log_path = case.path("station.log")
        arguments = [f"{BIN}/qrn-station", "--boot-block", server.boot_block_path, "--driver", DRIVER,
                     "--handover", handover, "--nbd", f"unix:{self.socket_path}",
                     "--log", self.log_path, "--stats-json", self.statistics_path, *options]
        for setting in registry:
            arguments += ["--reg", setting]
        super().__init__(case, "station", arguments)

    def uri(self, lun):
        return f"nbd+unix:///lun{lun}?socket={self.socket_path}"

    def statistics(self):
        with open(self.statistics_path) as file:
            return json.load(file)

    def log(self):
        with open(self.log_path, errors="replace") as file:
            return file.read()


class Case(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="qrn-e2e-")
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)

    def path(self, name):
        return os.path.join(self.directory, name)

    def random_disk(self, name, megabytes, seed=1):
        """Random data with stretches of zeros, some of them holes."""
        source = random.Random(seed)
        path = self.path(name)
        with open(path, "wb") as file:
            file.truncate(megabytes * MB)
            for unit in range(megabytes * 4):
                what = source.random()
                if what < 0.8:
                    file.seek(unit * MB // 4)
                    file.write(source.randbytes(MB // 4))
                elif what < 0.9:
                    file.seek(unit * MB // 4)
                    file.write(bytes(MB // 4))
        return path

    def empty_disk(self, name, megabytes):
        path = self.path(name)
        with open(path, "wb") as file:
            file.truncate(megabytes * MB)
        return path

    def start_client(self, *arguments, stdin=subprocess.DEVNULL):
        """A client that may still run while the test does something else."""
        process = subprocess.Popen(arguments, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                   stdin=stdin, cwd=self.directory, preexec_fn=die_with_parent)
        self.addCleanup(process.kill)
        return process

    def finish_client(self, process):
        output, _ = process.communicate(timeout=CLIENT_TIMEOUT_S)
        self.assertEqual(process.returncode, 0, f"{process.args}:\n{output}")
        return output

    def client(self, *arguments):
        return self.finish_client(self.start_client(*arguments))

    def assert_same_content(self, path_a, path_b):
        if filecmp.cmp(path_a, path_b, shallow=False):
            return
        with open(path_a, "rb") as a, open(path_b, "rb") as b:
            self.assertEqual(os.path.getsize(path_a), os.path.getsize(path_b))
            sector = 0
            while a.read(512) == b.read(512):
                sector += 1
        self.fail(f"{path_a} and {path_b} differ first in sector {sector}")

    def wait_until(self, condition, what, timeout_s=20):
        deadline = time.monotonic() + timeout_s
        while not condition():
            if time.monotonic() > deadline:
                self.fail(f"waited {timeout_s} s in vain: {what}")
            time.sleep(0.002)


def stored_bytes(path):
    """How much of a sparse file has been written."""
    return os.stat(path).st_blocks * 512 if os.path.exists(path) else 0
