# SPDX-License-Identifier: MIT
"""Disks that a PC can boot from, and the PC: made and run without privileges.

A guest's system is a Debian kernel with an initial RAM disk of busybox whose script is the test's own. GRUB loads both
from LUN 0 through the BIOS. The packages are unpacked or used as they are installed; see packages().
"""
import ctypes
import gzip
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import threading
import time

MB = 1 << 20
KERNEL_FOLDER = pathlib.Path(os.environ.get("QRN_BOOT_KERNEL", "build/boot/kernel"))
BIN = pathlib.Path(os.environ.get("QRN_BIN", "build/bin"))
GRUB = pathlib.Path("/usr/lib/grub/i386-pc")
MODULES = "virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci virtio_blk".split()
BIOS_CHECK = BIN.parent / "host/tests/pc/bios_check"
BIOS_CHECK_SECTORS = 2 * 255 * 63
PARTITION_SECTOR = 2048


def die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


def run(*command, **options):
    subprocess.run([str(part) for part in command], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                   **options)


def initial_ram_disk(folder, script):
    """Of busybox, the modules for a virtio disk, and the script, which runs once they are loaded."""
    root = folder / "initrd"
    (root / "bin").mkdir(parents=True)
    for name in ("dev", "proc", "sys", "modules"):
        (root / name).mkdir()
    shutil.copy("/bin/busybox", root / "bin/busybox")
    available = {path.stem: path for path in KERNEL_FOLDER.rglob("*.ko")}
    for name in MODULES:
        shutil.copy(available[name], root / "modules")
    lines = ["#!/bin/busybox sh", "/bin/busybox --install -s /bin", "mount -t proc none /proc",
             "mount -t sysfs none /sys", "mount -t devtmpfs none /dev", "exec </dev/console >/dev/console 2>&1"]
    lines += [f"insmod /modules/{name}.ko" for name in MODULES]
    (root / "init").write_text("\n".join(lines) + "\n" + script + "\npoweroff -f\n")
    (root / "init").chmod(0o755)
    names = sorted(str(path.relative_to(root)) for path in root.rglob("*"))
    archive = subprocess.run(["cpio", "-o", "-H", "newc", "--quiet", "-R", "0:0"], cwd=root, check=True,
                             input="\n".join(names).encode(), stdout=subprocess.PIPE).stdout
    shutil.rmtree(root)
    return gzip.compress(archive, 1)


def make_disk(folder, name, size_mb, script, menu, files=()):
    """A disk image with a partition table, GRUB with the menu's lines, the kernel, the RAM disk, and files."""
    content, image, partition = folder / "content", folder / name, folder / "partition"
    (content / "boot/grub").mkdir(parents=True)
    kernel = next((KERNEL_FOLDER / "boot").glob("vmlinuz-*"))
    shutil.copy(kernel, content / "boot/vmlinuz")
    (content / "boot/initrd").write_bytes(initial_ram_disk(folder, script))
    (content / "boot/grub/grub.cfg").write_text(menu)
    for file_name, data in files:
        (content / file_name).write_bytes(data)
    core = folder / "core.img"
    run("grub-mkimage", "-O", "i386-pc", "-o", core, "-p", "(hd0,msdos1)/boot/grub",
        "biosdisk", "part_msdos", "ext2", "linux", "serial", "terminal", "normal", "echo", "test", "hashsum",
        "gcry_sha256", "loadenv", "cat", "lsmmap", "ls", "halt", "configfile")
    with open(partition, "wb") as file:
        file.truncate(size_mb * MB - PARTITION_SECTOR * 512)
    run("mkfs.ext4", "-q", "-F", "-O", "^metadata_csum,^64bit", "-d", content, partition)
    with open(image, "wb") as file:
        file.truncate(size_mb * MB)
    run("sfdisk", "-q", image, input=f"label: dos\nstart={PARTITION_SECTOR}, type=83, bootable\n".encode())
    with open(image, "r+b") as file:
        file.write((GRUB / "boot.img").read_bytes()[:440])
        file.seek(512)
        file.write(core.read_bytes())
        file.seek(PARTITION_SECTOR * 512)
        with open(partition, "rb") as source:
            shutil.copyfileobj(source, file, MB)
    shutil.rmtree(content)
    partition.unlink()
    return image


def pattern(sector):
    first = (sector * 7 + (sector >> 8) * 3) % 256
    return (bytes(range(256)) * 3)[first:first + 512]


def make_bios_check(path, sectors=BIOS_CHECK_SECTORS, bootable=True):
    """A disk that starts bios_check.cpp, or one that it reads; every sector has the pattern that it knows."""
    program = BIOS_CHECK.read_bytes() if bootable else b""
    with open(path, "wb") as file:
        file.write(program)
        file.write(b"".join(pattern(sector) for sector in range(len(program) // 512, sectors)))
    return path


def grub_menu(*lines):
    return "\n".join(("serial --unit=0", "terminal_input serial", "terminal_output serial", "set timeout=0") + lines
                     + ("linux /boot/vmlinuz console=ttyS0 panic=-1 quiet", "initrd /boot/initrd", "boot")) + "\n"


class Relay(threading.Thread):
    """Between one PC and a server; loses, doubles and reorders a part of the packets, by a seed's choice."""

    def __init__(self, server_port, choose, part):
        super().__init__(daemon=True)
        self.server, self.choose, self.part = ("127.0.0.1", server_port), choose, part
        self.inside, self.outside = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
        for end in (self.inside, self.outside):
            end.bind(("127.0.0.1", 0))
            end.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 * MB)
        self.port = self.inside.getsockname()[1]
        self.counts = {"passed": 0, "lost": 0, "doubled": 0, "reordered": 0}
        self.pc = None
        self.start()

    def run(self):
        threading.Thread(target=self.forward, args=(self.inside, True), daemon=True).start()
        self.forward(self.outside, False)

    def forward(self, source, to_server):
        held = None
        while True:
            packet, address = source.recvfrom(65535)
            if not to_server and packet[:4] == b"QRNB":
                packet = self.with_own_port(packet)
            if to_server:
                self.pc = address
            fate = self.choose.random() / self.part if self.part else 9
            kind = ("lost", "doubled", "reordered")[int(fate)] if fate < 3 else "passed"
            self.counts[kind] += 1
            if kind == "lost":
                continue
            if kind == "reordered" and held is None:
                held = packet
                continue
            for one in [packet, packet] if kind == "doubled" else [packet]:
                self.send(one, to_server)
            if held is not None:
                self.send(held, to_server)
                held = None

    def with_own_port(self, answer):
        """The answer to a boot request, with every server's port ours."""
        answer = bytearray(answer)
        block = 104
        for record in [216] + [230 + 14 * lun for lun in range(4)]:
            at = block + record + 10
            if any(answer[at:at + 2]):
                answer[at:at + 2] = self.port.to_bytes(2, "big")
        return bytes(answer)

    def send(self, packet, to_server):
        if to_server:
            self.outside.sendto(packet, self.server)
        elif self.pc:
            self.inside.sendto(packet, self.pc)


def pc_command(folder, server_port, card="e1000", options=(), program=BIN / "qrnboot.pxe"):
    """QEMU with a card and no disk, which loads the boot program and is told of the server."""
    tftp = folder / "tftp"
    tftp.mkdir(exist_ok=True)
    shutil.copy(program, tftp / "qrnboot.pxe")
    (tftp / "start").write_text(f"#!ipxe\nset net0/root-path qrn:10.0.2.2:{server_port}\nchain qrnboot.pxe\n")
    return ["qemu-system-x86_64", "-accel", "tcg", "-m", "384", "-boot", "n", "-no-reboot", "-netdev",
            f"user,id=n,tftp={tftp},bootfile=start", "-device", f"{card},netdev=n", *(options or ("-nographic",))]


class AnsweringServer(threading.Thread):
    """Answers boot requests with what next_answer says: kind, text, boot parameter block."""

    def __init__(self):
        super().__init__(daemon=True)
        self.end = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.end.bind(("127.0.0.1", 0))
        self.port = self.end.getsockname()[1]
        self.next_answer = None
        self.start()

    def run(self):
        while True:
            request, address = self.end.recvfrom(2000)
            if request[:4] == b"QRNB" and self.next_answer:
                kind, text, block = self.next_answer
                self.end.sendto(b"QRNB" + bytes((1, kind)) + (464).to_bytes(2, "big") + request[8:18] + bytes(6)
                                + text.encode().ljust(80, b"\0") + block.ljust(360, b"\0"), address)


def plain(text):
    """Without a terminal's control sequences."""
    return re.sub(r"\x1b(\[[0-9;?=]*[A-Za-z]|c)", "", text).replace("\r", "")


class PC:
    """QEMU with a card and no disk, unless options say so; its console's text as it comes."""

    def __init__(self, case, folder, server_port, card="e1000", options=()):
        self.output_path, self.monitor_path = folder / "console", folder / "monitor"
        self.begin = time.monotonic()
        with open(self.output_path, "wb") as output:
            self.process = subprocess.Popen(
                pc_command(folder, server_port, card, ("-nographic", "-monitor", f"unix:{self.monitor_path},server,nowait", *options)),
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, preexec_fn=die_with_parent)
        self.case = case
        case.addCleanup(self.stop)

    def console(self):
        return self.output_path.read_bytes().decode(errors="replace")

    def wait_for(self, text, seconds):
        deadline = time.monotonic() + seconds
        while text not in self.console():
            if self.process.poll() is not None or time.monotonic() > deadline:
                if text in self.console():
                    break
                self.case.fail(f"no {text!r} in\n{self.console()[-3000:]}")
            time.sleep(0.05)
        return time.monotonic() - self.begin

    def wait_for_end(self, seconds):
        try:
            self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.case.fail(f"the PC does not end:\n{self.console()[-3000:]}")

    def press_ctrl_alt_del(self):
        with socket.socket(socket.AF_UNIX) as monitor:
            monitor.connect(str(self.monitor_path))
            monitor.recv(100)
            monitor.sendall(b"sendkey ctrl-alt-delete\n")
            time.sleep(0.2)

    def stop(self):
        self.process.kill()
        self.process.wait()
