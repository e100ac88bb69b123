# SPDX-License-Identifier: MIT
"""How fast the boot program reads, in QEMU without hardware assistance, beside a program that only has the card's ROM give
it datagrams, and the same PC with the disk through QEMU's own NBD client; and how long a boot takes. See bench/run."""
import argparse
import pathlib
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/boot"))
sys.path.insert(0, str(ROOT / "tests/e2e"))
import guest

TICKS_PER_SECOND = 18.2065
SECTORS = 65536
FRAGMENT_BYTES = 1386  # of data in a datagram


def said_by(command, folder, pattern, seconds=120):
    """What a PC's console says, and the seconds until then."""
    begin = time.monotonic()
    console = folder / "console"
    with open(console, "wb") as output:
        pc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                              preexec_fn=guest.die_with_parent)
    try:
        while time.monotonic() < begin + seconds:
            match = re.search(pattern, console.read_bytes().decode(errors="replace"))
            if match:
                return match, time.monotonic() - begin
            if pc.poll() is not None:
                break
            time.sleep(0.02)
        raise RuntimeError(f"the PC does not say {pattern!r}:\n{console.read_text(errors='replace')[-2000:]}")
    finally:
        pc.kill()
        pc.wait()


def server(folder, image):
    output = folder / "server"
    with open(output, "w") as file:
        process = subprocess.Popen([guest.BIN / "qrn-server", "--listen", "127.0.0.1:0", "--advertise", "10.0.2.2",
                                    "--disk", image], stdout=file, stderr=subprocess.STDOUT,
                                   preexec_fn=guest.die_with_parent)
    while "ready" not in output.read_text():
        if process.poll() is not None:
            raise RuntimeError(output.read_text())
        time.sleep(0.05)
    return process, int(output.read_text().split("ready ")[1].split()[0].split(":")[1])


def rate_pattern():
    return r"rate: (\d+) sectors in (\d+) ticks"


def bytes_per_second(match):
    return int(match[1]) * 512 * TICKS_PER_SECOND / int(match[2])


def through_boot_program(folder, image, card):
    process, port = server(folder, image)
    try:
        return bytes_per_second(said_by(guest.pc_command(folder, port, card), folder, rate_pattern())[0])
    finally:
        process.terminate()
        process.wait()


def through_nbd(folder, image, kind):
    path = folder / "nbd"
    with subprocess.Popen(["qemu-nbd", "-f", "raw", "-k", str(path), "-t", "-e", "4", str(image)],
                          preexec_fn=guest.die_with_parent) as nbd:
        while not path.exists():
            time.sleep(0.02)
        try:
            command = ["qemu-system-x86_64", "-accel", "tcg", "-m", "384", "-boot", "c", "-no-reboot", "-nic", "none",
                       "-drive", f"file=nbd:unix:{path},format=raw,if={kind}", "-nographic"]
            return bytes_per_second(said_by(command, folder, rate_pattern())[0])
        finally:
            nbd.terminate()


class Datagrams(threading.Thread):
    """Sends BURST datagrams as long as a fragment, each a header and its data, for every one that comes."""
    BURST = 6

    def __init__(self):
        super().__init__(daemon=True)
        self.end = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.end.bind(("127.0.0.1", 0))
        self.port = self.end.getsockname()[1]
        self.start()

    def run(self):
        datagram = bytes(32 + FRAGMENT_BYTES)
        while True:
            address = self.end.recvfrom(2000)[1]
            for _ in range(self.BURST):
                self.end.sendto(datagram, address)


def bare_loop(folder):
    """Datagrams a second that the card's ROM gives a program which does nothing with them."""
    datagrams = Datagrams()
    command = guest.pc_command(folder, datagrams.port, "e1000", program=ROOT / "build/host/boot/pc/read_loop.pxe")
    match = said_by(command, folder, r"loop: (\d+) datagrams in (\d+) ticks")[0]
    return int(match[1]) * TICKS_PER_SECOND / int(match[2])


def boot_seconds(folder):
    image = guest.make_disk(folder, "system.img", 96, "", guest.grub_menu().replace(" quiet", ""))
    process, port = server(folder, image)
    try:
        return said_by(guest.pc_command(folder, port), folder, r"Linux version")[1]
    finally:
        process.terminate()
        process.wait()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=3)
    rounds = parser.parse_known_args()[0].rounds
    with tempfile.TemporaryDirectory(prefix="qrn-bench-boot-") as name:
        folder = pathlib.Path(name)
        image = guest.make_bios_check(folder / "check.img", SECTORS)
        measure = {
            "boot program": lambda: through_boot_program(folder, image, "e1000") / FRAGMENT_BYTES,
            "bare UDP read loop": lambda: bare_loop(folder),
            "NBD, IDE": lambda: through_nbd(folder, image, "ide") / FRAGMENT_BYTES,
            "NBD, virtio": lambda: through_nbd(folder, image, "virtio") / FRAGMENT_BYTES,
        }
        results = {what: [] for what in measure}
        boots = []
        for _ in range(rounds):
            for what, one in measure.items():
                results[what].append(one())
            boots.append(boot_seconds(folder))
        print("\nPC in QEMU (tcg, e1000), reads of 32 KB in order through INT 13h")
        mine = statistics.median(results["boot program"])
        for what, figures in results.items():
            each = statistics.median(figures)
            print(f"{what:<26}{each:>9.0f} datagrams/s {each * FRAGMENT_BYTES / 1e6:7.2f} MB/s"
                  f"{'' if what == 'boot program' else f'   boot program: {mine / each:.2f} of it'}")
        print(f"{'power-on to kernel line 1':<26}{statistics.median(boots):>9.1f} s")


main()
