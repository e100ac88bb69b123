// SPDX-License-Identifier: MIT
// A system of its own in a few sectors: calls the BIOS for disks and memory, checks what comes back, and says
// it on the serial line. Disks are two, and sector i of each is filled by pattern(); boot_test.py makes them
// so.
#include <cstdint>

namespace {

struct Registers {
    std::uint32_t edi, esi, ebp, esp, ebx, edx, ecx, eax;
    std::uint16_t fs, gs, es, ds, flags;
};
static_assert(sizeof(Registers) == 44);

extern "C" {
void bios_call(Registers* registers, unsigned number);
std::uint8_t byte_at(std::uint32_t linear);
void put_byte(std::uint32_t linear, std::uint8_t value);
void hook_timer();
void unhook_timer();
extern volatile std::uint8_t in_call;
extern volatile std::uint16_t nested_refused, nested_other;
}

constexpr std::uint16_t carry = 1, interrupts = 0x200, direction = 0x400;
constexpr std::uint32_t buffer = 0x30000, other_buffer = 0x50000;

void out_byte(std::uint16_t port, std::uint8_t value)
{
    asm volatile("outb %0, %1" : : "a"(value), "Nd"(port));
}

void say(const char* text)
{
    for (; *text != 0; ++text)
        out_byte(0x3F8, static_cast<std::uint8_t>(*text));
}

void say_number(std::uint32_t number)
{
    char digits[11];
    unsigned at = 10;
    digits[at] = 0;
    do {
        digits[--at] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    say(digits + at);
}

void check(bool good, const char* what)
{
    say(good ? "ok " : "BAD ");
    say(what);
    say("\r\n");
}

std::uint8_t pattern(std::uint32_t sector, unsigned byte)
{
    return static_cast<std::uint8_t>(sector * 7 + (sector >> 8) * 3 + byte);
}

bool has_pattern(std::uint32_t linear, std::uint32_t sector, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
        for (unsigned byte = 0; byte < 512; ++byte)
            if (byte_at(linear + i * 512 + byte) != pattern(sector + i, byte))
                return false;
    return true;
}

struct DiskAddress {
    std::uint8_t size, zero;
    std::uint16_t sectors, offset, segment;
    std::uint32_t lba, lba_high;
};
DiskAddress address;

Registers disk(unsigned ax, unsigned drive = 0x80)
{
    Registers registers{};
    registers.eax = 0xA5A50000 | ax;
    registers.edx = drive;
    registers.flags = interrupts;
    bios_call(&registers, 0x13);
    return registers;
}

unsigned ah(const Registers& registers)
{
    return registers.eax >> 8 & 0xFF;
}

Registers extended(unsigned function, std::uint32_t lba, unsigned sectors, std::uint32_t linear,
                   unsigned drive = 0x80, unsigned offset_more = 0)
{
    address = {16,
               0,
               static_cast<std::uint16_t>(sectors),
               static_cast<std::uint16_t>((linear & 15) + offset_more),
               static_cast<std::uint16_t>((linear >> 4) - offset_more / 16),
               lba,
               0};
    Registers registers{};
    registers.eax = function << 8;
    registers.edx = drive;
    registers.esi = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&address));
    registers.flags = interrupts;
    in_call = 1;
    bios_call(&registers, 0x13);
    in_call = 0;
    return registers;
}

Registers by_geometry(unsigned ax, unsigned cylinder, unsigned head, unsigned sector, std::uint32_t linear)
{
    Registers registers{};
    registers.eax = ax;
    registers.ecx = (cylinder & 0xFF) << 8 | (cylinder >> 8) << 6 | sector;
    registers.edx = head << 8 | 0x80;
    registers.ebx = linear & 15;
    registers.es = static_cast<std::uint16_t>(linear >> 4);
    registers.flags = interrupts;
    bios_call(&registers, 0x13);
    return registers;
}

bool failed(const Registers& registers, unsigned status)
{
    return (registers.flags & carry) != 0 && ah(registers) == status;
}

bool went_well(const Registers& registers)
{
    return (registers.flags & carry) == 0 && ah(registers) == 0;
}

std::uint32_t parameter(unsigned offset)
{
    std::uint32_t value = 0;
    for (unsigned i = 4; i-- > 0;)
        value = value << 8 | byte_at(other_buffer + offset + i);
    return value;
}

Registers long_parameters(unsigned size)
{
    for (unsigned i = 0; i < 64; ++i)
        put_byte(other_buffer + i, 0xEE);
    put_byte(other_buffer, static_cast<std::uint8_t>(size));
    put_byte(other_buffer + 1, 0);
    Registers registers{};
    registers.eax = 0x4800;
    registers.edx = 0x80;
    registers.ds = other_buffer >> 4;
    registers.flags = interrupts;
    bios_call(&registers, 0x13);
    return registers;
}

std::uint32_t check_parameters()
{
    Registers registers{};
    registers.eax = 0x4100;
    registers.ebx = 0x55AA;
    registers.edx = 0x80;
    registers.flags = interrupts | carry;
    bios_call(&registers, 0x13);
    check(ah(registers) == 0x21 && registers.ebx == 0xAA55 && registers.ecx == 1 &&
              (registers.flags & carry) == 0,
          "41h");
    check(went_well(long_parameters(26)) && parameter(26) == 0xEEEEEEEE && (parameter(24) & 0xFFFF) == 512 &&
              parameter(20) == 0 && failed(long_parameters(25), 1),
          "48h, in the room it is given");
    long_parameters(30);
    const std::uint32_t sectors = parameter(16);
    check((parameter(0) & 0xFFFF) == 30 && parameter(26) == 0xFFFFFFFF && parameter(30) == 0xEEEEEEEE,
          "48h, longer");
    const Registers kind = disk(0x1500);
    check(ah(kind) == 3 && (kind.ecx << 16 | (kind.edx & 0xFFFF)) == sectors && (kind.flags & carry) == 0,
          "15h");
    check(went_well(disk(0x0000)) && went_well(disk(0x4700)), "00h, 47h");
    return sectors;
}

void check_geometry(std::uint32_t sectors)
{
    const Registers told = disk(0x0800);
    const unsigned heads = (told.edx >> 8 & 0xFF) + 1, track = told.ecx & 63,
                   cylinders = ((told.ecx >> 8 & 0xFF) | (told.ecx & 0xC0) << 2) + 1;
    check(went_well(told) && (told.edx & 0xFF) == 2 && cylinders * heads * track <= sectors &&
              (cylinders + 1) * heads * track > sectors && parameter(8) == heads && parameter(12) == track,
          "08h agrees with 48h and the disks are two");
    const unsigned lba = (heads + 3) * track + 4;
    check(went_well(by_geometry(0x0209, 1, 3, 5, buffer)) && has_pattern(buffer, lba, 9),
          "02h reads what 42h reads");
    check(went_well(by_geometry(0x0409, 1, 3, 5, buffer)), "04h");
    check(failed(by_geometry(0x0201, 0, 0, 0, buffer), 4) && failed(disk(0x0100), 4) &&
              !failed(disk(0x0100), 4),
          "a sector 0 is none, and 01h says so once");
    check(failed(by_geometry(0x0201, cylinders, 0, 1, buffer), 4) &&
              failed(by_geometry(0x0200, 0, 0, 1, buffer), 1),
          "no cylinder behind the last, no read of nothing");
    check(failed(disk(0x7F00), 1), "unknown function");
}

void check_transfers(std::uint32_t sectors)
{
    check(went_well(extended(0x42, 100, 127, 0x3F203)) && has_pattern(0x3F203, 100, 127),
          "42h across 64 KB, at an odd address");
    check(went_well(extended(0x42, 1000, 100, buffer, 0x80, 0x8000)) && has_pattern(buffer, 1000, 100),
          "42h, large offset");
    check(went_well(extended(0x42, sectors - 127, 127, buffer)) && has_pattern(buffer, sectors - 127, 127),
          "the disk's end");
    check(failed(extended(0x42, sectors - 126, 127, buffer), 4) && address.sectors == 0 &&
              failed(extended(0x44, sectors, 1, buffer), 4) &&
              went_well(extended(0x44, sectors - 1, 1, buffer)),
          "behind the disk's end");
    check(failed(extended(0x42, 0, 128, buffer), 1), "128 sectors in an extended call are refused");
    extended(0x42, 1000, 120, buffer);
    check(went_well(extended(0x43, 5000, 120, buffer)) && went_well(by_geometry(0x0304, 0, 2, 5, buffer)) &&
              went_well(extended(0x42, 5000, 120, other_buffer)) && has_pattern(other_buffer, 1000, 120) &&
              went_well(extended(0x42, 2 * 63 + 4, 4, other_buffer)) && has_pattern(other_buffer, 1000, 4),
          "43h and 03h write what is read back");
    check(went_well(extended(0x42, 300, 20, buffer, 0x81)) && has_pattern(buffer, 300, 20),
          "the second disk");
    check((extended(0x42, 0, 1, buffer, 0x82).flags & carry) != 0, "no third disk");
}

void check_registers()
{
    address = {16, 0, 3, 0, buffer >> 4, 70, 0};
    const std::uint16_t given = interrupts | direction | carry | 0x46;
    Registers before{
        0x11112222, 0x33330000 | static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&address)),
        0x55556666, 0,
        0x77778888, 0x9999AA80,
        0xBBBBCCCC, 0xDDDD42EE,
        0x1234,     0x2345,
        0x3456,     0,
        given};
    Registers after = before;
    bios_call(&after, 0x13);
    check(after.edi == before.edi && after.esi == before.esi && after.ebp == before.ebp &&
              after.ebx == before.ebx && after.edx == before.edx && after.ecx == before.ecx &&
              after.eax == 0xDDDD00EE && after.fs == before.fs && after.gs == before.gs &&
              after.es == before.es && after.ds == before.ds,
          "all registers but AH stay");
    check((after.flags ^ given) == carry, "all flags but carry stay");
    check(has_pattern(buffer, 70, 3), "and it reads");
}

void check_nesting()
{
    hook_timer();
    bool good = true;
    for (unsigned i = 0; i < 20000 && nested_refused == 0; ++i)
        good &= went_well(extended(0x42, 200, 127, buffer));
    unhook_timer();
    check(good && nested_refused != 0 && nested_other == 0 && has_pattern(buffer, 200, 127),
          "a call out of a call is refused and harms nothing");
}

void check_memory()
{
    Registers registers{};
    registers.flags = interrupts;
    bios_call(&registers, 0x12);
    const std::uint32_t base_kb = registers.eax & 0xFFFF, word = byte_at(0x413) | byte_at(0x414) << 8;
    bool good = base_kb == word && base_kb < 620 && base_kb > 560, seen = false;
    registers = {};
    do {
        registers.eax = 0xE820;
        registers.edx = 0x534D4150;
        registers.ecx = 20;
        registers.edi = 0;
        registers.es = other_buffer >> 4;
        registers.flags = interrupts | carry;
        bios_call(&registers, 0x15);
        good &= (registers.flags & carry) == 0 && registers.eax == 0x534D4150 && registers.ecx == 20;
        if (parameter(16) == 1 && parameter(0) < 0x100000 && parameter(4) == 0) {
            seen = true;
            good &= parameter(0) + parameter(8) <= base_kb * 1024;
        }
    } while (good && registers.ebx != 0);
    check(good && seen, "0413h, INT 12h and E820h tell the same");
    registers = {};
    registers.eax = 0xE801;
    registers.flags = interrupts;
    bios_call(&registers, 0x15);
    const std::uint32_t high_kb = registers.eax & 0xFFFF;
    check((registers.flags & carry) == 0 && high_kb == 15 * 1024, "E801h tells of memory above 1 MB alone");
}

std::uint32_t ticks()
{
    std::uint32_t value = 0;
    for (unsigned i = 4; i-- > 0;)
        value = value << 8 | byte_at(0x46C + i);
    return value;
}

void tell_rate(std::uint32_t sectors)
{
    const std::uint32_t begin = ticks();
    std::uint32_t read = 0;
    for (; read + 64 <= sectors && went_well(extended(0x42, read, 64, buffer)); read += 64) {
    }
    const std::uint32_t end = ticks();
    say("rate: ");
    say_number(read);
    say(" sectors in ");
    say_number(end - begin);
    say(" ticks\r\n");
}

}  // namespace

extern "C" void check_main()
{
    say("\r\nchecking\r\n");
    const std::uint32_t sectors = check_parameters();
    tell_rate(sectors);
    check_geometry(sectors);
    check_transfers(sectors);
    check_registers();
    check_nesting();
    check_memory();
    say("done\r\n");
}
