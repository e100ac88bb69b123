// SPDX-License-Identifier: MIT
#include "tests/scsiport/test_miniport.h"

#include <algorithm>
#include <cstring>

#include "formats/endian.h"
#include "machine/machine.h"

namespace {
constexpr std::size_t sector_bytes = 512;
constexpr ULONG device_extension_bytes = 96;
}  // namespace

TestMiniport* TestMiniport::active = nullptr;

// One entry of the port driver; gives other threads every chance to break in.
class TestMiniport::Entered {
public:
    Entered(const char* call, PVOID extension, KIRQL irql)
    {
        if (++active->depth_ != 1)
            active->complaints += std::string(call) + " entered inside another call; ";
        if (KeGetCurrentIrql() != irql)
            active->complaints += std::string(call) + " at IRQL " + std::to_string(KeGetCurrentIrql()) + "; ";
        if (active->device_extension != nullptr && extension != active->device_extension)
            active->complaints += std::string(call) + " with another device extension; ";
        machine::Machine::current().scheduler().preempt();
    }
    ~Entered()
    {
        machine::Machine::current().scheduler().preempt();
        --active->depth_;
    }
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;
};

TestMiniport::TestMiniport(unsigned lun_count, std::uint32_t lun_sectors) : luns(lun_count)
{
    for (unsigned lun = 0; lun < lun_count; ++lun)
        disks[lun].resize(lun_sectors * sector_bytes);
    registration.HwInitializationDataSize = sizeof(registration);
    registration.AdapterInterfaceType = Isa;
    registration.HwInitialize = hw_initialize;
    registration.HwStartIo = hw_start_io;
    registration.HwFindAdapter = hw_find_adapter;
    registration.HwResetBus = hw_reset_bus;
    registration.DeviceExtensionSize = device_extension_bytes;
    registration.SrbExtensionSize = sizeof(Extension);
    registration.MapBuffers = TRUE;
    registration.TaggedQueuing = TRUE;
    registration.AutoRequestSense = TRUE;
    registration.MultipleRequestPerLu = TRUE;
}

machine::DriverImage::Entry TestMiniport::load()
{
    active = this;
    return entry;
}

NTSTATUS NTAPI TestMiniport::entry(PDRIVER_OBJECT driver_object, PUNICODE_STRING path)
{
    active->driver = driver_object;
    active->registration_status =
        static_cast<NTSTATUS>(ScsiPortInitialize(driver_object, path, &active->registration, nullptr));
    return STATUS_SUCCESS;
}

ULONG NTAPI TestMiniport::hw_find_adapter(PVOID extension, PVOID, PVOID, PCHAR,
                                          PPORT_CONFIGURATION_INFORMATION config, PBOOLEAN again)
{
    Entered entered("HwFindAdapter", extension, PASSIVE_LEVEL);
    active->device_extension = extension;
    const auto* bytes = static_cast<const std::uint8_t*>(extension);
    if (std::any_of(bytes, bytes + device_extension_bytes, [](std::uint8_t byte) { return byte != 0; }))
        active->complaints += "the device extension was not zeroed; ";
    config->MaximumTransferLength = active->maximum_transfer_bytes;
    config->AlignmentMask = 3;
    config->NumberOfBuses = 1;
    config->MaximumNumberOfTargets = 1;
    config->MaximumNumberOfLogicalUnits = 4;
    *again = FALSE;
    return active->find_adapter ? active->find_adapter(*config, *again) : SP_RETURN_FOUND;
}

BOOLEAN NTAPI TestMiniport::hw_initialize(PVOID extension)
{
    Entered entered("HwInitialize", extension, DISPATCH_LEVEL);
    return active->initialize();
}

BOOLEAN NTAPI TestMiniport::hw_start_io(PVOID extension, PSCSI_REQUEST_BLOCK srb)
{
    Entered entered("HwStartIo", extension, DISPATCH_LEVEL);
    active->seen.push_back(*srb);
    if (active->announce_next)
        active->next_request();
    machine::Machine::current().scheduler().preempt();
    active->start_io(srb);
    return TRUE;
}

BOOLEAN NTAPI TestMiniport::hw_reset_bus(PVOID extension, ULONG)
{
    Entered entered("HwResetBus", extension, DISPATCH_LEVEL);
    ++active->resets;
    active->reset_bus();
    return TRUE;
}

VOID NTAPI TestMiniport::hw_timer(PVOID extension)
{
    Entered entered("the timer", extension, DISPATCH_LEVEL);
    ++active->timer_calls;
    active->timer();
}

void TestMiniport::next_request()
{
    ScsiPortNotification(NextRequest, device_extension);
}

void TestMiniport::request_timer(ULONG delay_us)
{
    ScsiPortNotification(RequestTimerCall, device_extension, hw_timer, delay_us);
}

void TestMiniport::bus_change()
{
    ScsiPortNotification(BusChangeDetected, device_extension, 0);
}

void TestMiniport::complete(PSCSI_REQUEST_BLOCK srb, UCHAR srb_status)
{
    srb->SrbStatus = srb_status;
    ScsiPortNotification(RequestComplete, device_extension, srb);
}

void TestMiniport::answer(PSCSI_REQUEST_BLOCK srb)
{
    complete(srb, srb->Function == SRB_FUNCTION_EXECUTE_SCSI ? execute(*srb) : SRB_STATUS_SUCCESS);
}

void TestMiniport::hold(PSCSI_REQUEST_BLOCK srb)
{
    const bool transfers = srb->Function == SRB_FUNCTION_EXECUTE_SCSI &&
                           (srb->Cdb[0] == SCSIOP_READ || srb->Cdb[0] == SCSIOP_WRITE);
    if (transfers)
        held.push_back(srb);
    else
        answer(srb);
}

UCHAR TestMiniport::execute(SCSI_REQUEST_BLOCK& srb)
{
    if (srb.Lun >= luns)
        return SRB_STATUS_INVALID_LUN;
    auto* data = static_cast<std::uint8_t*>(srb.DataBuffer);
    switch (srb.Cdb[0]) {
    case SCSIOP_INQUIRY:
        std::memset(data, 0, srb.DataTransferLength);
        std::memcpy(data + 8, "Test    RAM disk        ", 24);
        return SRB_STATUS_SUCCESS;
    case SCSIOP_READ_CAPACITY: {
        if (disks[srb.Lun].empty())
            return check_condition(srb, 0x02, 0x3A);
        formats::Be32 last{}, size{};
        last.set(static_cast<std::uint32_t>(disks[srb.Lun].size() / sector_bytes) - 1);
        size.set(sector_bytes);
        std::memcpy(data, &last, sizeof(last));
        std::memcpy(data + 4, &size, sizeof(size));
        return SRB_STATUS_SUCCESS;
    }
    case SCSIOP_READ:
    case SCSIOP_WRITE:
        return transfer(srb);
    default:
        return check_condition(srb, 0x05, 0x20);
    }
}

UCHAR TestMiniport::transfer(SCSI_REQUEST_BLOCK& srb)
{
    formats::Be32 address{};
    std::memcpy(&address, &srb.Cdb[2], sizeof(address));
    std::vector<std::uint8_t>& disk = disks[srb.Lun];
    const std::size_t at = address.get() * sector_bytes;
    if (at + srb.DataTransferLength > disk.size())
        return check_condition(srb, 0x05, 0x21);
    if (srb.Cdb[0] == SCSIOP_READ)
        std::memcpy(srb.DataBuffer, disk.data() + at, srb.DataTransferLength);
    else
        std::memcpy(disk.data() + at, srb.DataBuffer, srb.DataTransferLength);
    return SRB_STATUS_SUCCESS;
}

UCHAR TestMiniport::check_condition(SCSI_REQUEST_BLOCK& srb, std::uint8_t key, std::uint8_t asc)
{
    std::uint8_t sense[18] = {0x70, 0, key, 0, 0, 0, 0, 10};
    sense[12] = asc;
    if (srb.SenseInfoBuffer != nullptr)
        std::memcpy(srb.SenseInfoBuffer, sense,
                    std::min<std::size_t>(srb.SenseInfoBufferLength, sizeof(sense)));
    srb.DataTransferLength = 0;
    srb.ScsiStatus = SCSISTAT_CHECK_CONDITION;
    return SRB_STATUS_ERROR | SRB_STATUS_AUTOSENSE_VALID;
}
