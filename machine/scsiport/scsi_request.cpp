// SPDX-License-Identifier: MIT
// The class driver's half of one request: from ScsiRequest to the IRP and back.
#include <atomic>
#include <cstring>

#include "formats/endian.h"
#include "machine/scheduler/violation.h"
#include "machine/scsiport/internals.h"

namespace machine {
namespace {

constexpr std::uint32_t sector_bytes = 512;
constexpr CCHAR stack_size = 1;  // of the port driver's device objects
constexpr std::size_t sense_key_at = 2, sense_asc_at = 12, sense_ascq_at = 13;

NTSTATUS NTAPI completion_routine(PDEVICE_OBJECT, PIRP, PVOID context);

}  // namespace

struct ScsiRequest::Internals {
    ScsiRequest& owner;
    ScsiPort::Internals& port;
    // The IRP, with its one stack location behind it as the kernel lays it out.
    struct {
        IRP irp;
        IO_STACK_LOCATION location;
    } packet{};
    static_assert(sizeof(packet) == sizeof(IRP) + stack_size * sizeof(IO_STACK_LOCATION));
    SCSI_REQUEST_BLOCK srb{};
    KEVENT* waiter = nullptr;  // execute() waits on it
    std::atomic<bool> in_flight = false;

    Internals(ScsiRequest& request, ScsiPort& scsi_port) : owner(request), port(scsi_port.internals()) {}

    void submit();
    void finish();

private:
    PDEVICE_OBJECT device() const;
    void fill_srb();
    void fill_irp();
    void take_result();
};

namespace {

NTSTATUS NTAPI completion_routine(PDEVICE_OBJECT, PIRP, PVOID context)
{
    static_cast<ScsiRequest::Internals*>(context)->finish();
    return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

void ScsiRequest::Internals::submit()
{
    if (in_flight.exchange(true))
        violation("a ScsiRequest was submitted while it is in flight");
    fill_srb();
    PDEVICE_OBJECT target = device();
    if (target == nullptr) {
        srb.SrbStatus = SRB_STATUS_NO_HBA;
        srb.DataTransferLength = 0;
        finish();
        return;
    }
    fill_irp();
    IofCallDriver(target, &packet.irp);
}

// Requests to a LUN that a scan has found go to its own device object, others to the adapter's.
PDEVICE_OBJECT ScsiRequest::Internals::device() const
{
    const bool on_bus = owner.path == 0 && owner.target == 0;
    PDEVICE_OBJECT found = on_bus ? port.scan.device(owner.lun) : nullptr;
    return found != nullptr ? found : port.adapter.device();
}

void ScsiRequest::Internals::fill_srb()
{
    srb = {};
    srb.Length = sizeof(srb);
    srb.Function = owner.function;
    srb.PathId = owner.path;
    srb.TargetId = owner.target;
    srb.Lun = owner.lun;
    srb.QueueTag = SP_UNTAGGED;
    srb.SrbFlags = owner.srb_flags;
    if (owner.function == SRB_FUNCTION_EXECUTE_SCSI) {
        srb.SrbFlags |= SRB_FLAGS_QUEUE_ACTION_ENABLE;
        srb.QueueAction = SRB_SIMPLE_TAG_REQUEST;
        srb.CdbLength = owner.cdb_bytes;
        std::memcpy(srb.Cdb, owner.cdb.data(), sizeof(srb.Cdb));
    }
    srb.TimeOutValue = owner.timeout_seconds;
    srb.DataBuffer = owner.data;
    srb.DataTransferLength = owner.data_bytes;
    srb.SenseInfoBuffer = owner.sense_buffer_bytes == 0 ? nullptr : owner.sense_data.data();
    srb.SenseInfoBufferLength = owner.sense_buffer_bytes;
    srb.OriginalRequest = &packet.irp;
    owner.sense_data.fill(0);
}

void ScsiRequest::Internals::fill_irp()
{
    PIRP irp = &packet.irp;
    IoInitializeIrp(irp, sizeof(packet), stack_size);
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_SCSI;
    location->Parameters.Scsi.Srb = &srb;
    IoSetCompletionRoutine(irp, completion_routine, this, TRUE, TRUE, TRUE);
}

void ScsiRequest::Internals::take_result()
{
    owner.srb_status = srb.SrbStatus;
    owner.scsi_status = srb.ScsiStatus;
    owner.transferred = srb.DataTransferLength;
    for (std::size_t index = owner.sense_buffer_bytes; index < owner.sense_data.size(); ++index) {
        if (owner.sense_data[index] != 0)
            violation("sense data was written beyond the end of its buffer");
    }
}

// The request is complete. Nothing of it may be touched once its owner knows.
void ScsiRequest::Internals::finish()
{
    take_result();
    if ((srb.SrbStatus & SRB_STATUS_QUEUE_FROZEN) != 0 && port.auto_release)
        port.adapter.release_queue(srb.PathId, srb.TargetId, srb.Lun);
    KEVENT* event = waiter;
    waiter = nullptr;
    in_flight = false;
    if (event != nullptr)
        KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    else if (owner.done)
        owner.done(owner);
}

ScsiRequest::ScsiRequest(ScsiPort& port) : internals_(std::make_unique<Internals>(*this, port)) {}
ScsiRequest::~ScsiRequest() = default;

std::optional<Sense> ScsiRequest::sense() const
{
    if ((srb_status & SRB_STATUS_AUTOSENSE_VALID) == 0 || sense_buffer_bytes <= sense_key_at)
        return std::nullopt;
    return Sense{static_cast<std::uint8_t>(sense_data[sense_key_at] & 0x0F), sense_data[sense_asc_at],
                 sense_data[sense_ascq_at]};
}

namespace {

void set_transfer(ScsiRequest& request, std::uint8_t operation_code, std::uint8_t lun, std::uint32_t lba,
                  std::uint32_t bytes)
{
    request.function = SRB_FUNCTION_EXECUTE_SCSI;
    request.path = request.target = 0;
    request.lun = lun;
    formats::Be32 address{};
    address.set(lba);
    formats::Be16 blocks{};
    blocks.set(static_cast<std::uint16_t>(bytes / sector_bytes));
    request.cdb = {operation_code};
    std::memcpy(&request.cdb[2], &address, sizeof(address));
    std::memcpy(&request.cdb[7], &blocks, sizeof(blocks));
    request.cdb_bytes = 10;
    request.data_bytes = bytes;
}

}  // namespace

void ScsiRequest::set_read(std::uint8_t to_lun, std::uint32_t lba, void* buffer, std::uint32_t bytes)
{
    set_transfer(*this, SCSIOP_READ, to_lun, lba, bytes);
    data = buffer;
    srb_flags = SRB_FLAGS_DATA_IN;
}

void ScsiRequest::set_write(std::uint8_t to_lun, std::uint32_t lba, const void* buffer, std::uint32_t bytes)
{
    set_transfer(*this, SCSIOP_WRITE, to_lun, lba, bytes);
    data = const_cast<void*>(buffer);
    srb_flags = SRB_FLAGS_DATA_OUT;
}

void ScsiPort::submit(ScsiRequest& request)
{
    request.internals().submit();
}

void ScsiPort::execute(ScsiRequest& request)
{
    KEVENT end;
    KeInitializeEvent(&end, NotificationEvent, FALSE);
    request.internals().waiter = &end;
    request.internals().submit();
    KeWaitForSingleObject(&end, Executive, KernelMode, FALSE, nullptr);
}

}  // namespace machine
