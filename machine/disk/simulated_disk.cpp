// SPDX-License-Identifier: MIT
#include <algorithm>
#include <vector>

#include "machine/disk/disk_work.h"
#include "machine/scheduler/kernel_scheduler.h"

namespace machine {
namespace {

class SimulatedDisk final : public DiskWork {
public:
    explicit SimulatedDisk(std::shared_ptr<DiskState> state) : state_(std::move(state)) {}
    ~SimulatedDisk() override;

    NTSTATUS start(const DiskRequest& request) override;
    bool flush() override;

private:
    struct Pending {
        DiskRequest request;
        std::vector<std::uint8_t> at_start;  // of a write: what the buffer held
    };

    IO_STATUS_BLOCK serve(const DiskRequest& request);
    bool move_bytes(const DiskRequest& request, std::uint32_t bytes);
    NTSTATUS start_later(const DiskRequest& request, Ticks latency);
    void finish(const Pending* pending);

    const std::shared_ptr<DiskState> state_;
    std::vector<std::unique_ptr<Pending>> under_way_;  // in the order of their start
};

SimulatedDisk::~SimulatedDisk()
{
    state_->medium->settle(scheduler().now());
    for (const auto& pending : under_way_) {
        const DiskRequest& request = pending->request;
        if (request.write && !state_->bad(request.sector, request.count()))
            state_->medium->write_cached(request.sector, pending->at_start, never);
    }
}

NTSTATUS SimulatedDisk::start(const DiskRequest& request)
{
    const Ticks latency = state_->draw(state_->options.latency_min, state_->options.latency_max);
    if (latency > 0)
        return start_later(request, latency);
    return complete_disk_irp(request.irp, serve(request));
}

NTSTATUS SimulatedDisk::start_later(const DiskRequest& request, Ticks latency)
{
    under_way_.push_back(std::make_unique<Pending>(Pending{request, {}}));
    Pending* const pending = under_way_.back().get();
    if (request.write)
        pending->at_start.assign(request.buffer, request.buffer + request.bytes);
    IoMarkIrpPending(request.irp);
    scheduler().call_at(scheduler().now() + latency, [this, pending] { finish(pending); });
    return STATUS_PENDING;
}

void SimulatedDisk::finish(const Pending* pending)
{
    const PIRP irp = pending->request.irp;
    IO_STATUS_BLOCK result;
    {
        const auto place = std::ranges::find(under_way_, pending, &std::unique_ptr<Pending>::get);
        const std::unique_ptr<Pending> ending = std::move(*place);
        under_way_.erase(place);
        // The disk fetches the bytes when it likes.
        if (ending->request.write && state_->chance(0.5))
            ending->request.buffer = ending->at_start.data();
        result = serve(ending->request);
    }
    complete_disk_irp(irp, result);
}

IO_STATUS_BLOCK SimulatedDisk::serve(const DiskRequest& request)
{
    const DiskFate fate = draw_fate(*state_, request);
    return result_of(*state_, request, fate, move_bytes(request, fate.bytes));
}

bool SimulatedDisk::move_bytes(const DiskRequest& request, std::uint32_t bytes)
{
    DiskMedium& medium = *state_->medium;
    const LocalDiskOptions& options = state_->options;
    const Ticks now = scheduler().now();
    medium.settle(now);
    if (!request.write)
        return read_medium(medium, request, bytes);
    const std::span buffer(request.buffer, bytes);
    if (options.volatile_max == 0)
        return medium.write(request.sector, buffer);
    medium.write_cached(request.sector, buffer,
                        now + state_->draw(options.volatile_min, options.volatile_max));
    return true;
}

bool SimulatedDisk::flush()
{
    state_->medium->settle(never);
    return true;
}

}  // namespace

std::unique_ptr<DiskWork> make_simulated_disk(std::shared_ptr<DiskState> state)
{
    return std::make_unique<SimulatedDisk>(std::move(state));
}

}  // namespace machine
