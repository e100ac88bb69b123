// SPDX-License-Identifier: MIT
#include "machine/disk/disk_request.h"

#include "machine/executive/executive.h"
#include "machine/executive/threads.h"
#include "machine/scheduler/kernel_scheduler.h"

namespace machine {

DiskFate draw_fate(DiskState& state, const DiskRequest& request)
{
    const auto asked = [&](Operation operation) {
        return executive().faults.hit_sectors(operation, request.sector, request.count());
    };
    const bool asked_to_fail = asked(request.write ? Operation::disk_write : Operation::disk_read);
    const bool fails = asked_to_fail || state.bad(request.sector, request.count());
    const bool whole =
        !fails && !asked(request.write ? Operation::disk_write_short : Operation::disk_read_short);
    if (whole)
        return {.fails = false, .bytes = request.bytes};
    return {.fails = fails,
            .bytes = static_cast<std::uint32_t>(state.draw(0, request.count() - 1) * disk_sector_bytes)};
}

bool read_medium(const DiskMedium& medium, const DiskRequest& request, std::uint32_t bytes)
{
    const std::span buffer(request.buffer, bytes);
    if (medium.read_at_hand(request.sector, buffer))
        return true;
    wake_waiters();  // this can take a while
    return medium.read(request.sector, buffer);
}

IO_STATUS_BLOCK result_of(DiskState& state, const DiskRequest& request, const DiskFate& fate, bool moved)
{
    IO_STATUS_BLOCK result{};
    result.Status = !moved ? STATUS_IO_DEVICE_ERROR : fate.fails ? STATUS_DEVICE_DATA_ERROR : STATUS_SUCCESS;
    result.Information = NT_SUCCESS(result.Status) ? fate.bytes : 0;
    if (!NT_SUCCESS(result.Status))
        ++(request.write ? state.write_errors : state.read_errors);
    (request.write ? state.bytes_written : state.bytes_read) += result.Information;
    return result;
}

NTSTATUS complete_disk_irp(PIRP irp, const IO_STATUS_BLOCK& result)
{
    irp->IoStatus = result;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return result.Status;
}

}  // namespace machine
