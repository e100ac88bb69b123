// SPDX-License-Identifier: MIT
#include "boot/int13.h"

#include "boot/pc.h"
#include "boot/transfer.h"

namespace boot {

namespace {

constexpr std::uint8_t status_good = 0x00, status_invalid = 0x01, status_no_sector = 0x04,
                       status_time_out = 0x80;
constexpr std::uint8_t first_drive = 0x80;
constexpr FarAddress last_status = 0x00400074, drive_count = 0x00400075;

struct Drive {
    std::uint32_t sectors;
    Geometry geometry;
};
Drive drives[formats::disk_count_max];
unsigned drives_of_ours;

// At DS:SI of the extended calls.
struct DiskAddress {
    std::uint8_t Size, Zero;
    formats::Le16 Sectors, Offset, Segment;
    formats::Le32 Lba, Lba_High;
};
struct DriveParameters {
    formats::Le16 Size, Flags;
    formats::Le32 Cylinders, Heads, Track_Sectors, Sectors, Sectors_High;
    formats::Le16 Sector_Bytes;
    formats::Le32 Configuration;
};
static_assert(sizeof(DiskAddress) == 16 && sizeof(DriveParameters) == 30);
constexpr unsigned drive_parameters_bytes_min = 26;
constexpr std::uint16_t flag_dma_transparent = 1, flag_geometry_valid = 2;

constexpr std::uint8_t low(std::uint32_t value)
{
    return static_cast<std::uint8_t>(value);
}
constexpr std::uint8_t high(std::uint32_t value)
{
    return static_cast<std::uint8_t>(value >> 8);
}
constexpr std::uint16_t word(std::uint32_t value)
{
    return static_cast<std::uint16_t>(value);
}
void set_low(std::uint32_t& value, std::uint8_t byte)
{
    value = (value & ~0xFFu) | byte;
}
void set_high(std::uint32_t& value, std::uint8_t byte)
{
    value = (value & ~0xFF00u) | byte << 8;
}
void set_word(std::uint32_t& value, std::uint32_t half)
{
    value = (value & ~0xFFFFu) | (half & 0xFFFF);
}

void set_carry(bool carry)
{
    const FarAddress flags = static_cast<FarAddress>(caller_ss) << 16 | word(caller_esp + 4);
    const auto value = peek<std::uint16_t>(flags);
    poke<std::uint16_t>(flags, static_cast<std::uint16_t>(carry ? value | 1 : value & ~1));
}

constexpr std::uint32_t linear(std::uint32_t segment, std::uint32_t offset)
{
    return (segment & 0xFFFF) * 16 + (offset & 0xFFFF);
}

enum class Work { read, write, verify };

std::uint8_t work(unsigned lun, Work what, std::uint32_t lba, unsigned sectors, std::uint32_t address)
{
    if (!is_on_disk(drives[lun].sectors, lba, sectors))
        return status_no_sector;
    if (what == Work::verify)
        return status_good;
    const auto direction = what == Work::read ? Direction::read : Direction::write;
    return transfer(lun, direction, lba, sectors, address) ? status_good : status_time_out;
}

std::uint8_t by_geometry(unsigned lun, Registers& registers, Work what)
{
    std::uint32_t lba = 0;
    const unsigned sectors = low(registers.eax);
    if (sectors == 0 || sectors > 128)
        return status_invalid;
    if (!to_lba(drives[lun].geometry, word(registers.ecx), high(registers.edx), lba))
        return status_no_sector;
    const std::uint8_t status = work(lun, what, lba, sectors, linear(registers.es, registers.ebx));
    if (status != status_good)
        set_low(registers.eax, 0);
    return status;
}

std::uint8_t by_address(unsigned lun, Registers& registers, Work what)
{
    const FarAddress at = registers.ds << 16 | word(registers.esi);
    auto packet = peek<DiskAddress>(at);
    if (packet.Size < sizeof packet || packet.Lba_High.get() != 0 || packet.Sectors.get() > 127)
        return status_invalid;
    const std::uint8_t status = work(lun, what, packet.Lba.get(), packet.Sectors.get(),
                                     linear(packet.Segment.get(), packet.Offset.get()));
    if (status != status_good) {
        packet.Sectors.set(0);
        poke(at, packet);
    }
    return status;
}

std::uint8_t short_parameters(unsigned lun, Registers& registers)
{
    const Geometry& geometry = drives[lun].geometry;
    const unsigned last_cylinder = geometry.cylinders - 1u;
    set_word(registers.ecx, (last_cylinder & 0xFF) << 8 | (last_cylinder >> 8) << 6 | geometry.sectors);
    set_high(registers.edx, static_cast<std::uint8_t>(geometry.heads - 1));
    set_low(registers.edx, peek<std::uint8_t>(drive_count));
    set_low(registers.eax, 0);
    set_low(registers.ebx, 0);
    return status_good;
}

std::uint8_t long_parameters(unsigned lun, Registers& registers)
{
    const FarAddress at = registers.ds << 16 | word(registers.esi);
    auto parameters = peek<DriveParameters>(at);
    if (parameters.Size.get() < drive_parameters_bytes_min)
        return status_invalid;
    const Drive& drive = drives[lun];
    const bool with_configuration = parameters.Size.get() >= sizeof parameters;
    const unsigned bytes = with_configuration ? sizeof parameters : drive_parameters_bytes_min;
    parameters.Size.set(static_cast<std::uint16_t>(bytes));
    parameters.Flags.set(flag_dma_transparent | flag_geometry_valid);
    parameters.Cylinders.set(drive.geometry.cylinders);
    parameters.Heads.set(drive.geometry.heads);
    parameters.Track_Sectors.set(drive.geometry.sectors);
    parameters.Sectors.set(drive.sectors);
    parameters.Sectors_High.set(0);
    parameters.Sector_Bytes.set(formats::sector_bytes);
    parameters.Configuration.set(0xFFFFFFFF);  // none
    far_copy(at, far_of(&parameters), bytes);
    return status_good;
}

std::uint8_t serve(unsigned lun, Registers& registers)
{
    switch (high(registers.eax)) {
    case 0x02:
        return by_geometry(lun, registers, Work::read);
    case 0x03:
        return by_geometry(lun, registers, Work::write);
    case 0x04:
        return by_geometry(lun, registers, Work::verify);
    case 0x08:
        return short_parameters(lun, registers);
    case 0x42:
        return by_address(lun, registers, Work::read);
    case 0x43:
        return by_address(lun, registers, Work::write);
    case 0x44:
        return by_address(lun, registers, Work::verify);
    case 0x48:
        return long_parameters(lun, registers);
    case 0x00:  // reset, initialise, seek, alternate reset, test for ready, recalibrate, diagnose, extended
                // seek
    case 0x09:
    case 0x0C:
    case 0x0D:
    case 0x10:
    case 0x11:
    case 0x14:
    case 0x47:
        return status_good;
    default:
        return status_invalid;
    }
}

// The calls whose answer is not a status in AH. False: it is another one.
bool serve_special(unsigned lun, Registers& registers)
{
    constexpr std::uint8_t fixed_disk = 3, version = 0x21;
    constexpr std::uint32_t question = 0x55AA, answer = 0xAA55, packet_calls = 1;
    switch (high(registers.eax)) {
    case 0x01:
        set_high(registers.eax, peek<std::uint8_t>(last_status));
        set_carry(high(registers.eax) != 0);
        poke<std::uint8_t>(last_status, 0);
        return true;
    case 0x15:
        set_high(registers.eax, fixed_disk);
        set_word(registers.ecx, drives[lun].sectors >> 16);
        set_word(registers.edx, drives[lun].sectors);
        set_carry(false);
        return true;
    case 0x41:
        if (word(registers.ebx) != question)
            return false;
        set_high(registers.eax, version);
        set_word(registers.ebx, answer);
        set_word(registers.ecx, packet_calls);
        set_carry(false);
        return true;
    default:
        return false;
    }
}

// The BIOS's own disks have moved up.
void pass_on(Registers& registers)
{
    const std::uint8_t drive = low(registers.edx), function = high(registers.eax);
    if (drive - first_drive < static_cast<int>(drives_of_ours))
        return;
    set_low(registers.edx, static_cast<std::uint8_t>(drive - drives_of_ours));
    const bool failed = call_old_13(&registers);
    // Where DL is an answer, it is the count of disks, in which the BIOS looks up ours too.
    if (function == 0x08 && !failed)
        set_low(registers.edx, peek<std::uint8_t>(drive_count));
    else if (function != 0x15 || failed)
        set_low(registers.edx, drive);
    set_carry(failed);
}

}  // namespace

void add_drive(std::uint32_t sectors, const Geometry& geometry)
{
    drives[drives_of_ours++] = {sectors, geometry};
}

void announce_drives()
{
    poke<std::uint8_t>(drive_count,
                       static_cast<std::uint8_t>(peek<std::uint8_t>(drive_count) + drives_of_ours));
}

extern "C" void disk_call(Registers* registers)
{
    const unsigned lun = low(registers->edx) - first_drive;
    if (lun >= drives_of_ours)
        return pass_on(*registers);
    if (serve_special(lun, *registers))
        return;
    const std::uint8_t status = serve(lun, *registers);
    set_high(registers->eax, status);
    poke<std::uint8_t>(last_status, status);
    set_carry(status != status_good);
}

}  // namespace boot
