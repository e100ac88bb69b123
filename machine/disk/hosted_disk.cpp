// SPDX-License-Identifier: MIT
#include <deque>
#include <mutex>
#include <string>

#include "machine/disk/disk_work.h"
#include "machine/executive/threads.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

IO_STATUS_BLOCK serve(DiskState& state, const DiskRequest& request)
{
    const DiskFate fate = draw_fate(state, request);
    const bool moved = request.write ? state.medium->write(request.sector, {request.buffer, fate.bytes})
                                     : read_medium(*state.medium, request, fate.bytes);
    return result_of(state, request, fate, moved);
}

// One request, or a flush that its caller waits for.
struct Flush {
    KEVENT done;
    bool flushed = false;
};

struct Work {
    DiskRequest request;
    Flush* flush = nullptr;
};

// The threads hold it beyond the end of the machine, parked.
struct WorkQueue {
    explicit WorkQueue(std::shared_ptr<DiskState> disk) : state(std::move(disk))
    {
        KeInitializeSemaphore(&queued, 0, MAXLONG);
    }

    const std::shared_ptr<DiskState> state;
    KSEMAPHORE queued{};
    std::mutex lock;  // a leaf; for what follows
    std::deque<Work> work;

    void add(const Work& each)
    {
        {
            std::lock_guard guard(lock);
            work.push_back(each);
        }
        KeReleaseSemaphore(&queued, IO_NO_INCREMENT, 1, FALSE);
    }
};

void work(WorkQueue& queue)
{
    for (;;) {
        KeWaitForSingleObject(&queue.queued, Executive, KernelMode, FALSE, nullptr);
        Work next;
        {
            std::lock_guard guard(queue.lock);
            next = queue.work.front();
            queue.work.pop_front();
        }
        if (Flush* flush = next.flush) {
            flush->flushed = queue.state->medium->flush();
            KeSetEvent(&flush->done, IO_NO_INCREMENT, FALSE);
        } else {
            complete_disk_irp(next.request.irp, serve(*queue.state, next.request));
        }
    }
}

class HostedDisk final : public DiskWork {
public:
    explicit HostedDisk(std::shared_ptr<DiskState> state);

    NTSTATUS start(const DiskRequest& request) override;
    bool flush() override;

private:
    const std::shared_ptr<DiskState> state_;
    std::shared_ptr<WorkQueue> queue_;  // null: no threads
};

HostedDisk::HostedDisk(std::shared_ptr<DiskState> state) : state_(std::move(state))
{
    if (state_->options.volatile_max != 0)
        violation("a local disk with a volatile cache needs the simulated scheduler");
    if (state_->options.workers == 0)
        return;
    queue_ = std::make_shared<WorkQueue>(state_);
    for (unsigned index = 0; index < state_->options.workers; ++index)
        scheduler().spawn_for_host("local disk " + std::to_string(index), [queue = queue_] { work(*queue); });
}

NTSTATUS HostedDisk::start(const DiskRequest& request)
{
    // This may be gone when the host is done, or when the machine has let the calling thread go on.
    const auto state = state_;
    const auto queue = queue_;
    if (!queue)
        return complete_disk_irp(request.irp, serve(*state, request));
    IoMarkIrpPending(request.irp);
    queue->add({request});
    return STATUS_PENDING;
}

bool HostedDisk::flush()
{
    const auto state = state_;  // this may be gone when the host is done
    const auto queue = queue_;
    if (!queue) {
        wake_waiters();  // this can take a while
        return state->medium->flush();
    }
    Flush flush;
    KeInitializeEvent(&flush.done, NotificationEvent, FALSE);
    queue->add({{}, &flush});
    KeWaitForSingleObject(&flush.done, Executive, KernelMode, FALSE, nullptr);
    return flush.flushed;
}

}  // namespace

std::unique_ptr<DiskWork> make_hosted_disk(std::shared_ptr<DiskState> state)
{
    return std::make_unique<HostedDisk>(std::move(state));
}

}  // namespace machine
