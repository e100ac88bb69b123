#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Looks at the finished qrndisk.sys or qrnnet.sys as a kernel's loader would.

    check_driver_file.py FILE.sys

Prints every fault found; exit status 1 when there is one.
"""
import os
import re
import struct
import subprocess
import sys

# What the driver may import: routines that every 32-bit kernel from 5.1 on exports. One unknown name,
# and the machine does not boot; so a new one is added only after a look at what the oldest exports.
EXPORTED = {
    "ntoskrnl.exe": """
        DbgPrint ExAllocatePoolWithTag ExFreePool ExFreePoolWithTag ExSystemTimeToLocalTime
        ExfInterlockedInsertTailList ExfInterlockedRemoveHeadList IoAllocateIrp
        IoBuildDeviceIoControlRequest IoBuildSynchronousFsdRequest IoCreateDevice IoCreateSymbolicLink IoDeleteDevice IoFreeMdl
        IoGetDeviceObjectPointer IoGetRelatedDeviceObject IoRegisterBootDriverReinitialization
        IoReuseIrp IofCallDriver KeBugCheck KeClearEvent KeDelayExecutionThread KeGetCurrentThread
        KeInitializeEvent KeInitializeSemaphore KeQueryInterruptTime KeQuerySystemTime
        KeReadStateEvent KeReadStateSemaphore KeReleaseSemaphore KeResetEvent KeSetEvent KeSetPriorityThread KeWaitForSingleObject
        KefAcquireSpinLockAtDpcLevel KefReleaseSpinLockFromDpcLevel Mm64BitPhysicalAddress
        MmAllocatePagesForMdl MmFreePagesFromMdl MmGetPhysicalMemoryRanges MmMapIoSpace
        MmMapLockedPagesSpecifyCache MmUnmapIoSpace MmUnmapLockedPages ObReferenceObjectByHandle
        ObfDereferenceObject PsCreateSystemThread PsTerminateSystemThread RtlAnsiStringToUnicodeString
        IofCompleteRequest RtlCompareMemory RtlFreeUnicodeString RtlInitAnsiString RtlInitString RtlInitUnicodeString
        ZwClose ZwCreateFile ZwOpenKey ZwQueryValueKey memcpy memmove memset
        """.split(),
    "hal.dll": """
        KeGetCurrentIrql KeStallExecutionProcessor KfAcquireSpinLock KfLowerIrql KfRaiseIrql
        KfReleaseSpinLock READ_PORT_UCHAR WRITE_PORT_UCHAR
        """.split(),
    "scsiport.sys": ["ScsiPortInitialize", "ScsiPortNotification"],
    "ndis.sys": """
        NdisAllocateBuffer NdisAllocateBufferPool NdisAllocatePacket NdisAllocatePacketPool NdisCloseAdapter
        NdisFreeBufferPool NdisFreePacket NdisFreePacketPool NdisOpenAdapter NdisRegisterProtocol NdisRequest
        NdisSendPackets NdisTransferData
        """.split(),
}
DESCRIPTIONS = {"qrndisk.sys": "qrndisk SCSI miniport driver", "qrnnet.sys": "qrndisk transport driver"}
# The library that only this driver may know.
OWN_LIBRARY = {"scsiport.sys": "qrndisk.sys", "ndis.sys": "qrnnet.sys"}
# What it may offer: data for whoever measures it.
OFFERED = ["QRN_Cache_Stats", "QRN_Sync_Stats"]
SECTIONS = [".text", ".data", ".rdata", ".bss", ".edata", ".idata", ".rsrc", ".reloc"]
SIZE_MAX_BYTES = 256 * 1024

DIRECTORY_EXPORT, DIRECTORY_IMPORT, DIRECTORY_RESOURCE, DIRECTORY_RELOCATION, DIRECTORY_TLS = 0, 1, 2, 5, 9
SECTION_EXECUTE, SECTION_WRITE = 0x20000000, 0x80000000
DYNAMIC_BASE, NX_COMPATIBLE = 0x40, 0x100
RT_VERSION = 16

# Beyond a Pentium's integer unit: x87, MMX, SSE, conditional moves. PAUSE is a no-operation there.
FOREIGN_MNEMONIC = re.compile(r"f[a-z0-9]+|emms|cmov\w+|[lms]fence|prefetch\w*|movnti|ldmxcsr|stmxcsr")
FOREIGN_REGISTER = re.compile(r"%(st|mm[0-7]|[xyz]mm)")

faults = []


def expect(good, message):
    if not good:
        faults.append(message)


class Image:
    def __init__(self, data):
        self.data = data
        (self.pe,) = struct.unpack_from("<I", data, 0x3C)
        if data[:2] != b"MZ" or data[self.pe:self.pe + 4] != b"PE\0\0":
            sys.exit("no PE file")
        self.machine, count, _, _, _, optional_size, self.characteristics = \
            struct.unpack_from("<HHIIIHH", data, self.pe + 4)
        self.optional = self.pe + 24
        self.magic = self.u16(self.optional)
        self.entry = self.u32(self.optional + 16)
        self.alignment = self.u32(self.optional + 32)
        self.size_of_image = self.u32(self.optional + 56)
        self.checksum_offset = self.optional + 64
        self.subsystem = self.u16(self.optional + 68)
        self.dll_characteristics = self.u16(self.optional + 70)
        self.directories = [struct.unpack_from("<II", data, self.optional + 96 + 8 * n) for n in range(16)]
        self.sections = []
        for n in range(count):
            name, size, rva, raw_size, raw, _, _, _, _, flags = \
                struct.unpack_from("<8sIIIIIIHHI", data, self.optional + optional_size + 40 * n)
            self.sections.append((name.rstrip(b"\0").decode("ascii"), rva, size, raw, raw_size, flags))

    def u16(self, offset):
        return struct.unpack_from("<H", self.data, offset)[0]

    def u32(self, offset):
        return struct.unpack_from("<I", self.data, offset)[0]

    def offset(self, rva):
        for _, start, _, raw, raw_size, _ in self.sections:
            if start <= rva < start + raw_size:
                return raw + rva - start
        raise ValueError(f"address {rva:#x} is in no section's data")

    def text_at(self, rva):
        start = self.offset(rva)
        return self.data[start:self.data.index(b"\0", start)].decode("ascii")

    def imports(self):
        """Pairs of module and routine name; None for an import by number."""
        descriptor = self.offset(self.directories[DIRECTORY_IMPORT][0])
        while self.u32(descriptor + 12):
            module = self.text_at(self.u32(descriptor + 12))
            thunk = self.offset(self.u32(descriptor) or self.u32(descriptor + 16))
            while self.u32(thunk):
                value = self.u32(thunk)
                yield module, None if value & 0x80000000 else self.text_at(value + 2)
                thunk += 4
            descriptor += 20

    def exports(self):
        """Pairs of name and address; None for an export without a name."""
        start, size = self.directories[DIRECTORY_EXPORT]
        if size == 0:
            return
        directory = self.offset(start)
        addresses, names, indexes = (self.offset(self.u32(directory + at)) for at in (28, 32, 36))
        named = {self.u16(indexes + 2 * n): self.text_at(self.u32(names + 4 * n))
                 for n in range(self.u32(directory + 24))}
        for n in range(self.u32(directory + 20)):
            yield named.get(n), self.u32(addresses + 4 * n)

    def checksum(self):
        data = self.data[:self.checksum_offset] + bytes(4) + self.data[self.checksum_offset + 4:]
        data += bytes(len(data) % 2)
        total = 0
        for (word,) in struct.iter_unpack("<H", data):
            total += word
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)

    def version_resource(self):
        """The data of the first version resource: three levels of directories, then the leaf."""
        root = self.offset(self.directories[DIRECTORY_RESOURCE][0])
        directory, wanted = root, RT_VERSION
        for _ in range(3):
            count = self.u16(directory + 12) + self.u16(directory + 14)
            entries = [(self.u32(directory + 16 + 8 * n), self.u32(directory + 20 + 8 * n)) for n in range(count)]
            found = [target for ident, target in entries if wanted in (None, ident)]
            if not found:
                return None
            directory, wanted = root + (found[0] & 0x7FFFFFFF), None
        start = self.offset(self.u32(directory))
        return self.data[start:start + self.u32(directory + 4)]


def check_headers(image):
    expect(image.machine == 0x14C and image.magic == 0x10B, "not a 32-bit x86 image")
    expect(image.subsystem == 1, f"subsystem {image.subsystem}, not native")
    expect(not image.characteristics & 0x2000, "marked as a DLL")
    expect(image.characteristics & 1 == 0, "relocations stripped")
    expect(image.dll_characteristics & DYNAMIC_BASE, "no dynamic base")
    expect(image.dll_characteristics & NX_COMPATIBLE, "not marked compatible with no-execute memory")
    expect(len(image.data) < SIZE_MAX_BYTES, f"{len(image.data)} bytes are too many")
    stored = image.u32(image.checksum_offset)
    expect(stored == image.checksum(), f"checksum {stored:#x}, should be {image.checksum():#x}")
    expect(image.directories[DIRECTORY_TLS] == (0, 0), "has thread-local storage")


def check_sections(image):
    names = [section[0] for section in image.sections]
    expect(names == [name for name in SECTIONS if name in names], f"sections {names}")
    for name in (".text", ".idata", ".rsrc", ".reloc"):
        expect(name in names, f"no {name} section")
    next_rva = image.alignment
    for name, rva, size, raw, raw_size, flags in image.sections:
        expect(not (flags & SECTION_EXECUTE and flags & SECTION_WRITE), f"{name} is writable and executable")
        expect(bool(flags & SECTION_EXECUTE) == (name == ".text"), f"{name}: wrong execute permission")
        expect(rva == next_rva, f"{name} at {rva:#x} does not follow its predecessor at {next_rva:#x}")
        expect(raw + raw_size <= len(image.data), f"{name} reaches beyond the file")
        next_rva = (rva + size + image.alignment - 1) // image.alignment * image.alignment
        if name == ".text":
            expect(rva <= image.entry < rva + size, f"entry point {image.entry:#x} is not in .text")
            expect(not flags & SECTION_WRITE, ".text is writable")
    expect(next_rva == image.size_of_image, f"image size {image.size_of_image:#x}, sections end at {next_rva:#x}")


def check_relocations(image):
    rva, size = image.directories[DIRECTORY_RELOCATION]
    expect(size >= 12, "no relocations")
    base = image.u32(image.optional + 28)
    offset, end, count = image.offset(rva), image.offset(rva) + size, 0
    while offset < end:
        page, block = image.u32(offset), image.u32(offset + 4)
        if block < 8 or offset + block > end:
            faults.append("damaged relocation block")
            return
        for n in range((block - 8) // 2):
            kind, at = divmod(image.u16(offset + 8 + 2 * n), 0x1000)
            expect(kind in (0, 3), f"relocation of kind {kind}")
            if kind == 3:
                count += 1
                target = image.u32(image.offset(page + at)) - base
                expect(0 <= target < image.size_of_image, f"relocation at {page + at:#x} points outside")
        offset += block
    expect(count > 0, "no relocation entry")


def check_imports(image, file_name):
    for module, name in image.imports():
        known = EXPORTED.get(module.lower())
        if known is None or OWN_LIBRARY.get(module.lower(), file_name) != file_name:
            faults.append(f"imports from {module}")
        elif name is None:
            faults.append(f"imports from {module} by number")
        else:
            expect(name in known, f"imports {name} from {module}, which no list says every kernel has")


def check_exports(image):
    data = [(rva, rva + size) for name, rva, size, _, _, _ in image.sections if name in (".data", ".bss")]
    for name, address in image.exports():
        expect(name in OFFERED, f"exports {name}")
        expect(any(start <= address < end for start, end in data), f"exports {name}, which is no variable")


def check_constructors(image):
    """The linker leaves the lists of static constructors and destructors in .text: -1, entries, 0 each."""
    _, _, size, raw, _, _ = image.sections[0]
    empty_lists = struct.pack("<iiii", -1, 0, -1, 0)
    expect(empty_lists in image.data[raw:raw + size], "has static constructors, which nobody would run")


def check_version(image, file_name):
    version = image.version_resource()
    if version is None:
        faults.append("no version resource")
        return
    fixed = version.find(struct.pack("<I", 0xFEEF04BD))
    expect(fixed > 0, "version resource without its fixed part")
    kind, subtype = struct.unpack_from("<II", version, fixed + 36)
    expect((kind, subtype) == (3, 7), f"version resource: file type {kind}, subtype {subtype}")
    for text in ("qrndisk project", DESCRIPTIONS[file_name], file_name):
        expect(text.encode("utf-16-le") in version, f"version resource lacks '{text}'")


def check_instructions(path):
    listing = subprocess.run(["i686-w64-mingw32-objdump", "-d", "--no-show-raw-insn", path],
                             check=True, capture_output=True, text=True).stdout
    count = 0
    for line in listing.splitlines():
        match = re.match(r"\s*([0-9a-f]+):\s+(.*)", line)
        if not match:
            continue
        count += 1
        words = [w for w in match[2].split() if w not in ("lock", "rep", "repz", "repnz", "data16", "cs")]
        foreign = words and FOREIGN_MNEMONIC.fullmatch(words[0]) or FOREIGN_REGISTER.search(match[2])
        expect(not foreign, f"instruction at {match[1]}: {match[2].strip()}")
    expect(count > 100, f"only {count} instructions found")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with open(sys.argv[1], "rb") as file:
        image = Image(file.read())
    file_name = os.path.basename(sys.argv[1])
    check_headers(image)
    check_sections(image)
    check_relocations(image)
    check_imports(image, file_name)
    check_exports(image)
    check_constructors(image)
    check_version(image, file_name)
    check_instructions(sys.argv[1])
    for fault in faults:
        print(f"{sys.argv[1]}: {fault}")
    if not faults:
        print(f"{sys.argv[1]}: {len(image.data)} bytes, {len(list(image.imports()))} imports, all well")
    return 1 if faults else 0


sys.exit(main())
