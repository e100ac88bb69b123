#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the seeds of the corpora: well-formed inputs from which the fuzzer finds its way.

usage: fuzz/make_corpus.py [DRIVER.sys...]    (driver files for the loader's corpus)
"""
import pathlib
import struct
import sys

CORPUS = pathlib.Path(__file__).parent / "corpus"
READ, DATA, WRITE, DONE, ACK, SYNC, SHUTDOWN, LIMIT = 0x5C, 0x5D, 0x5E, 0x5F, 0x5B, 0x8C, 0xA4, 0x55


def seed(target, name, *pieces):
    (CORPUS / target).mkdir(parents=True, exist_ok=True)
    (CORPUS / target / name).write_bytes(b"".join(pieces))


def packet(kind, sub=0, disk=b"QR\0\1", tag=0, seq=1, mask=0, sector=1, length=512, fragment=None, data=b""):
    """A request, or with a fragment (offset, size, number, count) a data packet."""
    head = disk + bytes([sub, kind]) + struct.pack(">H", tag) + struct.pack("<H", seq) + bytes(6)
    head += struct.pack(">H", mask) + (sector * 512).to_bytes(6, "big") + struct.pack(">H", length)
    if fragment:
        offset, size, number, count = fragment
        head += struct.pack(">HHBBH", offset, size, 0, number, count)
    return head + data


def fragments(kind, length, **fields):
    count = (length + 1385) // 1386
    for number in range(1, count + 1):
        offset = (number - 1) * 1386
        size = min(1386, length - offset)
        yield packet(kind, length=length, fragment=(offset, size, number, count), data=bytes([number]) * size, **fields)


def step(control, content):
    return bytes([control]) + struct.pack("<H", len(content)) + content


def receive():
    def worker(state, length):
        return struct.pack("<BHHBH", state, length, 0, 59, 0)

    three = bytes([3]) + worker(0, 4096) + worker(1, 6144) + worker(2, 512)
    data = [step(8, part) for part in fragments(DATA, 4096)]
    poll = b"\1\x38" + bytes(20) + bytes(218)
    seed("receive", "read", three, *data)
    seed("receive", "read_with_gap", three, data[0], data[2], data[1])
    seed("receive", "zeros", three, step(8, packet(DATA, length=4096, fragment=(0, 0, 1, 0))))
    seed("receive", "write", three, step(9, packet(ACK, mask=5)), step(9, packet(ACK, mask=0xFFFF)), step(9, packet(DONE)))
    seed("receive", "sync_read", three, step(10, packet(DATA, length=512, fragment=(0, 512, 1, 1), data=bytes(512))))
    seed("receive", "others", three, step(8, packet(LIMIT, sub=0xAA)), step(0, poll), step(0, bytes(25)))


def server():
    write = [step(2, part) for part in fragments(WRITE, 3072, tag=12)]
    seed("server", "read", step(2, packet(READ, sector=3, length=8192)))
    seed("server", "last_sectors", step(2, packet(READ, sector=96)), step(2, packet(READ, sector=81, length=8192)),
         *(step(2, part) for part in fragments(WRITE, 512, sector=96)), step(2, packet(SYNC, sector=96)))
    seed("server", "negotiation", step(2, packet(READ, sector=0)))
    seed("server", "write", *write, write[0], step(2, packet(WRITE, sub=1, tag=12, length=3072)))
    seed("server", "write_with_query", write[0], step(2, packet(WRITE, sub=1, tag=12, length=3072)), *write[1:])
    seed("server", "image", step(2, packet(SYNC, sector=8, length=4096)), step(3, packet(SYNC)))
    seed("server", "others", step(3, packet(WRITE)), step(0xE2, packet(SHUTDOWN)), step(0, b"\2\x38" + bytes(224)))


def exchange():
    honest, lost = b"\0", b"\5"
    answers = [step(6, packet(DATA, length=8192, fragment=(0, 512, 1, 6), data=bytes(512))), step(6, packet(DONE)),
               step(6, packet(ACK, mask=1)), step(6, packet(LIMIT, sub=0xAA))]
    for flags in (0, 0x22, 0x2F):
        seed("exchange", f"flags_{flags:02x}", bytes([flags]), honest, lost, *answers, honest * 3, lost * 5)


def negotiation():
    def reply(word):
        return struct.pack("<I", 7) + b"RAM cache".ljust(128, b"\0") + struct.pack("<I", word)

    for how, word in ((0, 0), (0, 8), (1, 4), (3, 0xFFFF), (2, 64), (0x22, 1)):
        seed("negotiation", f"{how:x}_{word}", bytes([how, 0, 0]), reply(word))
    seed("negotiation", "fragments", b"\0", *(struct.pack("<H", len(part)) + part for part in fragments(DATA, 512)),
         bytes(2), reply(3))


def boot_block(mode, disks):
    block = bytearray(360)
    struct.pack_into("<IBBBB", block, 0, mode, disks, 0, disks, 0)
    struct.pack_into("<H", block, 46, 0x705)
    for lun in range(disks):
        struct.pack_into("<I2s4s4s12sIBBBB", block, 48 + 36 * lun, lun, b"", b"QR\0" + bytes([lun]), b"", b"", 4096,
                         0x70, 0x70, 4, 1)
        block[230 + 14 * lun:244 + 14 * lun] = bytes([10, 0, 0, 1]) + bytes(6) + b"\x17\x70\0\0"
    return bytes(block)


def boot_record():
    def record(block):
        return b"KTWBSTRAP\0" + struct.pack("<HHH", 256, 22, 0x705) + bytes(8) + block

    start = struct.pack("<BH", 0, 600)
    for mode, disks in ((0, 1), (0, 4), (7, 1), (3, 2)):
        seed("boot_record", f"mode_{mode}_disks_{disks}", start, struct.pack("<BH", 0, 0), record(boot_block(mode, disks)))
    seed("boot_record", "transport", struct.pack("<BH", 0, 600), struct.pack("<BH", 3, 0), boot_block(0, 2))
    seed("boot_record", "searching", struct.pack("<BH", 0x10, 600), struct.pack("<BH", 3, 0), bytes(6) + b"\xff")
    descriptor = b"\xeb" + struct.pack("<H", 64) + b"\0QRNH" + struct.pack("<I", 0x1044)
    table = bytes(454) + struct.pack("<II", 63, 5000)
    seed("boot_record", "descriptor", start, struct.pack("<BH", 1, 5), descriptor, struct.pack("<BH", 14, 9), table)


def status_poll():
    poll = (b"\1\x38" + bytes(4) + b"ck" + bytes([10, 0, 0, 1]) + bytes(6) + b"\x17\x70\0\0").ljust(240, b"\0")
    seed("status_poll", "plain", b"\0", poll, boot_block(0, 2))
    seed("status_poll", "caches_and_image", b"\x1f", poll, boot_block(7, 4), bytes(range(128)), image_header())


def image_header():
    header = bytearray(1024)
    struct.pack_into("<I8s", header, 0, 78, b"QRNMDISK")
    struct.pack_into("<I", header, 30, 1000)
    struct.pack_into("<II", header, 244, 1, 5)
    return bytes(header)


def images():
    def change(control, place, value):
        return struct.pack("<BHI", control, place, value)

    def changes(*all_of_them):
        return bytes([len(all_of_them)]) + b"".join(all_of_them)

    none = changes()
    some = {"none": none, "size": changes(change(0, 30, 0xFFFFFFFF)), "used": changes(change(0, 536, 16)),
            "shift": changes(change(0x40, 520, 0)), "loop": changes(change(2, 0, 16), change(3, 0, 16)),
            "entry": changes(change(4, 0, 1020)), "past_end": changes(change(0, 536, 2000), change(4, 0, 1016)), "flags": changes(change(4, 16, 0x5555)),
            "sync": changes(change(0, 248, 6), change(0, 244, 1), change(0, 70, 9))}
    steps = b"".join(struct.pack("<BHBB", what, sector, 0, count) for what, sector, count in (
        (0, 1, 7), (3, 1, 7), (0, 120, 100), (3, 600, 127), (0, 500, 127), (6, 3, 3), (7, 1, 0), (15, 0, 0), (3, 900, 60)))
    for name, content in some.items():
        for how in (0, 1, 2, 8):
            seed("driver_image", f"{name}_{how}", bytes([how]), content, none, steps)
        seed("driver_image", f"source_{name}", b"\x08", none, content)
        for how in (0, 1, 0x28):
            seed("area_tool", f"{name}_{how}", bytes([how]), content)

    def table(*entries):
        return b"".join(struct.pack("<B3sB3sII", 0, b"", kind, b"", start, count) for kind, start, count in entries)

    writes = struct.pack("<B", 0) + struct.pack("<HB", 1, 7) * 8
    for name, entries in {"both": ((0x51, 16, 1024), (0x52, 1040, 900), (0, 0, 0), (0, 0, 0)),
                          "past_end": ((0x51, 16, 4000), (0x52, 0xFFFFFFF0, 32), (0x52, 0, 100), (0x52, 2000, 48)),
                          "overlap": ((7, 1, 10), (0x51, 16, 1024), (0x52, 16, 1024), (0, 0, 0))}.items():
        seed("partition_table", name, b"\0", table(*entries), none, writes, writes)
        seed("partition_table", name + "_synchronised", b"\1", table(*entries), some["sync"], writes, writes)
        for how in (1, 2, 4):
            seed("area_tool", f"table_{name}_{how}", bytes([how]), none, table(*entries))


def nbd():
    def option(number, data=b""):
        return b"IHAVEOPT" + struct.pack(">II", number, len(data)) + data

    def request(command, offset=0, length=0, flags=0, data=b""):
        return struct.pack(">IHHQQI", 0x25609513, flags, command, 7, offset, length) + data

    go = option(7, struct.pack(">I", 4) + b"lun0" + struct.pack(">HH", 1, 3))
    work = (request(0, 512, 4096) + request(1, 0, 512, data=b"x" * 512) + request(6, 1024, 2048, 2) + request(3) +
            request(1, 65536, 512, data=b"y" * 512) + request(9))
    for piece in (0, 16, 200):
        seed("nbd", f"go_{piece}", bytes([piece]), struct.pack(">I", 3), option(3), option(6, go[16:]), go, work, request(2))
    seed("nbd", "export_name", b"\7", struct.pack(">I", 1), option(1, b"lun1"), work)
    seed("nbd", "abort", b"\1", struct.pack(">I", 3), option(99, b"abc"), option(2))


def smallest_driver():
    """Headers, a section of code and imports, and its relocations, on boundaries of 32 bytes."""
    base, text, reloc = 0x1C0, 0x1C0, 0x260
    dos = b"MZ".ljust(60, b"\0") + struct.pack("<I", 64)
    file = b"PE\0\0" + struct.pack("<HHIIIHH", 0x14C, 2, 0, 0, 0, 96 + 128, 0x0102)
    optional = struct.pack("<HBBIIIIIIIIIHHHHHHIIIIHHIIIIII", 0x10B, 0, 0, 160, 0, 0, text, text, 0, 0x10000, 32, 32,
                           4, 0, 0, 0, 4, 0, 0, 0x280, base, 0, 1, 0, 0, 0, 0, 0, 0, 16)
    directories = [(0, 0)] * 16
    directories[1], directories[5] = (text + 32, 40), (reloc, 12)
    tables = b"".join(struct.pack("<II", *directory) for directory in directories)

    def section(name, address, size, flags):
        return struct.pack("<8sIIIIIIHHI", name, size, address, size, address, 0, 0, 0, 0, flags)

    headers = dos + file + optional + tables + section(b".text", text, 160, 0xE0000020) + section(b".reloc", reloc, 32, 0x42000040)
    names, slots, routine, module = text + 80, text + 96, text + 112, text + 128
    imports = struct.pack("<IIIII", names, 0, 0, module, slots) + bytes(20)
    code = struct.pack("<I", 0x10000 + text).ljust(32, b"\xC3") + imports.ljust(48, b"\0")
    code += struct.pack("<II", routine, 0).ljust(16, b"\0") * 2 + b"\0\0DbgPrint".ljust(16, b"\0") + b"ntoskrnl.exe".ljust(32, b"\0")
    relocations = struct.pack("<IIHH", text & ~0xFFF, 12, 0x3000 | text, 0).ljust(32, b"\0")
    return headers.ljust(base, b"\0") + code + relocations


def driver_file(paths):
    seed("driver_file", "smallest", smallest_driver())
    for path in map(pathlib.Path, paths):
        content = bytearray(path.read_bytes())
        checksum = struct.unpack_from("<I", content, 0x3C)[0] + 24 + 64
        content[checksum:checksum + 4] = bytes(4)  # a changed file would have to hit it
        seed("driver_file", path.stem, bytes(content))


def boot_program():
    options = b"\1\4\xff\xff\xff\0\3\4\n\0\2\2\x11\x15qrn:10.0.2.2:65535" + b"\0\0\0\xff"
    dhcp = bytes(16) + b"\n\0\2\x0f\n\0\2\2" + bytes(212) + b"\x63\x82\x53\x63" + options
    block = bytearray(360)
    block[4] = block[6] = 2
    block[48 + 26:48 + 30] = b"\0\x10\0\0"
    answer = b"QRNB\1\2\1\xd0" + bytes(16) + b"disks".ljust(80, b"\0") + bytes(block)
    table = bytearray(512)
    table[446:462] = bytes([0x80, 1, 1, 0, 7, 15, 63, 99]) + struct.pack("<II", 63, 100737)
    table[510:] = b"\x55\xaa"
    seed("boot_program", "start", step(0, dhcp), step(0x81, answer), step(3, bytes(table)))
    data = [step(0x82, part) for part in fragments(DATA, 4096)]
    seed("boot_program", "read", *data)
    seed("boot_program", "written", step(0x82, packet(ACK, mask=1)), step(0x82, packet(DONE)))


def boot_transfer():
    for lun, write, mirror in ((0, 0, 0), (1, 0, 4), (0, 2, 4), (1, 2, 0)):
        what = lun | write | mirror | 8 | 16
        silence = bytes([0xFC]) * (40 if mirror else 4)
        lie = bytes([2, 10]) + packet(ACK if write else DATA, mask=1).ljust(80, b"\0")[:80]
        seed("boot_transfer", f"lun{lun}-{'write' if write else 'read'}",
             bytes([what, 0x77, 40, 16]) + bytes([3]) * 2 + lie + bytes([3]) * 3 + silence + lie + bytes([3]) * 9)


def transport_frames():
    us, they, our_ip, their_ip = b"\2\0\0\0\0\x09", b"\2\0\0\0\0\7", b"\n\0\0\x09", b"\n\0\0\7"

    def datagram(payload, options=b""):
        ip = bytes([0x45 + len(options) // 4, 0]) + struct.pack(">H", 28 + len(options) + len(payload)) + b"\0\1\x40\0\x40\x11\0\0"
        udp = struct.pack(">HHHH", 8520, 6001, 8 + len(payload), 0)
        return us + they + b"\x08\0" + ip + their_ip + our_ip + options + udp + payload

    def arp(operation, target=us):
        return target + they + b"\x08\x06\0\1\x08\0\6\4\0" + bytes([operation]) + they + their_ip + us + our_ip

    block = bytearray(360)
    block[6] = 2
    answer = b"QRNB\1\2\1\xd0\1\2\3\4" + us + b"\7\5" + bytes(4) + bytes(80) + bytes(block)
    seed("transport_frames", "read_data", *(step(3, datagram(part)) for part in fragments(DATA, 4096)))
    seed("transport_frames", "options", step(7, datagram(packet(DONE), b"\1\1\1\0")))
    seed("transport_frames", "arp", step(8, arp(2)), step(0, arp(2)), step(0, arp(1, b"\xff" * 6)))
    seed("transport_frames", "disks", step(0x13, datagram(answer)))


def fleet_input():
    config = b"""[server]
listen = "0.0.0.0:8520"
advertise = "10.0.0.2"
state = "/s"
allow = ["10.0.0.0/24"]
http = "10.0.0.2:8521"
[images.w]
path = "w"
[groups.g]
disks = [{ image = "w", at_boot = "keep", sync = "interval", id = "51520009" }, { image = "w", mode = "readonly" }]
[workstations.p]
hardware = "52:54:00:12:34:56"
group = "g"
[unknown]
policy = "group"
group = "g"
"""
    seed("fleet_input", "config", b"\0", config)
    for block_bytes in (512, 4096):
        header = struct.pack("<8sIIQQQQ16s256s", b"QRNOVLAY", 1, block_bytes, 32768, 4096, 8192, 12288, bytes(16), b"w@1")
        seed("fleet_input", f"overlay_{block_bytes}", b"\1", header.ljust(512, b"\0"))
    for path in ("", "api", "metrics", "x"):
        seed("fleet_input", f"web_{path or 'page'}", b"\2", f"GET /{path} HTTP/1.1\r\nHost: h\r\n\r\n".encode())


for make in (fleet_input, boot_transfer, receive, server, exchange, negotiation, boot_record, status_poll, images, nbd, boot_program,
             transport_frames):
    make()
driver_file(sys.argv[1:])
