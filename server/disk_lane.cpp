// SPDX-License-Identifier: MIT
#include "server/disk_lane.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "server/log.h"
#include "server/protocol_parts.h"

namespace server {

struct DiskLane::Parts {
    Parts(const LaneSetup& lane, Clock lane_clock) : setup(lane), clock(std::move(lane_clock)), protocol(sink)
    {
        DiskOptions options;
        std::ranges::copy(setup.id, options.disk_id);
        std::ranges::copy(setup.parm, options.disk_parm);
        options.readonly = setup.disk.mode == DiskMode::readonly;
        options.cache_mb = setup.disk.cache_mb;
        if (setup.disk.sync == SyncMode::always)
            setup.store = std::make_shared<SyncedStore>(setup.store);
        setup.store = ahead = std::make_shared<AheadStore>(setup.store);
        protocol.add_disk(options, *setup.store, setup.area.get());
        protocol.set_failure_listener([this](const StoreFailure& failure) { tell(failure); });
    }
    void receive(const Peer& from, std::span<const std::uint8_t> packet)
    {
        protocol.set_time_ms(clock());
        protocol.receive(from, packet);
        formats::WireHeader header{};
        std::memcpy(&header, packet.data(), std::min(packet.size(), sizeof header));
        shut_down = header.Kind == formats::kind_shutdown && header.Sub_Code == formats::sub_request;
        heard = true;
    }
    void begin_turn(std::span<const Strand::Item> items);
    void announce(std::span<const std::uint8_t> packet);
    std::uint64_t end_turn(std::mutex& lock, LaneStatus& status);
    void tell(const StoreFailure& failure);

    LaneSetup setup;
    Clock clock;
    PoolSink sink;
    Protocol protocol;
    std::shared_ptr<AheadStore> ahead;
    std::uint64_t paid_bytes = 0;  // of what was transferred
    std::set<std::pair<StoreFailure::Operation, int>> told;
    std::string last_error;
    bool shut_down = false, heard = false, refused = false;
};

// Once for each reason: a full disk fails every write.
void DiskLane::Parts::tell(const StoreFailure& failure)
{
    using Operation = StoreFailure::Operation;
    refused |= failure.error == EBUSY && setup.owner && failure.operation == Operation::write;
    const char* const what = failure.operation == Operation::write   ? "write"
                             : failure.operation == Operation::flush ? "flush"
                                                                     : "read";
    last_error = fmt::format("cannot {}: {}", what, std::generic_category().message(failure.error));
    if (!told.insert({failure.operation, failure.error}).second)
        return;
    if (refused)
        log(LogLevel::warning, fmt::format("{} LUN {}: a write is refused, {} is in use by {}",
                                           setup.workstation, setup.lun, setup.image, setup.owner->name()));
    else
        log(LogLevel::error,
            fmt::format("{} LUN {}, {}: {} (errno {}); told once, counted as store_errors", setup.workstation,
                        setup.lun, setup.image, last_error, failure.error));
}

void DiskLane::Parts::begin_turn(std::span<const Strand::Item> items)
{
    ahead->begin();
    for (const auto& [from, packet] : items)
        announce(packet);
    ahead->fetch();
}

// A read, to the store.
void DiskLane::Parts::announce(std::span<const std::uint8_t> packet)
{
    formats::WireHeader header{};
    std::memcpy(&header, packet.data(), std::min(packet.size(), sizeof header));
    if (header.Kind == formats::kind_read && header.Sub_Code == formats::sub_request &&
        header.Length.get() != 0 && range_valid(header, *ahead))
        ahead->add(store_offset(header), header.Length.get());
}

std::uint64_t DiskLane::Parts::end_turn(std::mutex& lock, LaneStatus& status)
{
    if (std::exchange(refused, false))
        protocol.send_retry_limit(0);
    if (shut_down && setup.owner)
        setup.owner->release(setup.workstation);
    const std::uint64_t held = setup.held_bytes ? setup.held_bytes() : 0;
    const DiskCounters& counters = protocol.counters(0);
    const std::uint64_t bytes = counters.read_bytes + counters.written_bytes + counters.sync_bytes;
    const std::uint64_t rest_ms = setup.allowance ? setup.allowance->take(bytes - paid_bytes, clock()) : 0;
    paid_bytes = bytes;
    std::lock_guard guard(lock);
    status.counters = counters;
    status.dropped = protocol.dropped();
    status.shut_down = shut_down;
    status.held_bytes = held;
    status.last_error = last_error;
    if (std::exchange(heard, false))
        status.last_seen_ms = clock();
    return rest_ms;
}

DiskLane::DiskLane(WorkPool& pool, LaneSetup setup, Clock clock)
    : setup_(setup), size_bytes_(setup.store->size_bytes())
{
    const auto parts = std::make_shared<Parts>(setup, std::move(clock));
    parts_ = parts;
    parts->end_turn(*status_lock_, *status_);
    // What closes the stores is the strand's end alone.
    setup_.store = nullptr;
    setup_.area = nullptr;
    setup_.held_bytes = nullptr;
    strand_ = std::make_shared<Strand>(
        pool,
        Strand::Handlers{
            [parts](const Peer& from, std::span<const std::uint8_t> packet) { parts->receive(from, packet); },
            [parts](std::span<const Strand::Item> items) { parts->begin_turn(items); },
            [parts, lock = status_lock_, status = status_](
                const Peer& from, std::span<const std::uint8_t> packet) -> std::optional<std::uint64_t> {
                parts->ahead->begin();
                parts->announce(packet);
                if (!parts->ahead->fetch_now())
                    return std::nullopt;
                parts->receive(from, packet);
                return parts->end_turn(*lock, *status);
            },
            [parts, lock = status_lock_, status = status_] { return parts->end_turn(*lock, *status); }});
}

std::uint64_t DiskLane::key_of(const std::uint8_t* id, const std::uint8_t* parm)
{
    std::uint64_t key = 0;
    std::memcpy(&key, id, 4);
    std::memcpy(reinterpret_cast<std::uint8_t*>(&key) + 4, parm, 4);
    return key;
}

LaneStatus DiskLane::status() const
{
    std::lock_guard guard(*status_lock_);
    return *status_;
}

void DiskLane::flush(std::function<void(int error)> ended)
{
    const bool taken = strand_->post([weak = parts_, ended] {
        const auto parts = weak.lock();
        ended(!parts || parts->protocol.flush() ? 0 : errno != 0 ? errno : EIO);
    });
    if (!taken)
        ended(0);
}

// Called by one thread.
void DiskLane::flush_if_due(std::uint64_t now_ms)
{
    if (setup_.disk.sync != SyncMode::interval || now_ms < next_flush_ms_)
        return;
    next_flush_ms_ = now_ms + std::uint64_t{setup_.disk.sync_seconds} * 1000;
    flush([](int) {});
}

bool DiskLane::with_store(std::function<void(BlockStore&)> work)
{
    return strand_->post([weak = parts_, work = std::move(work)] {
        if (const auto parts = weak.lock())
            work(*parts->setup.store);
    });
}

void DiskLane::limit_retries()
{
    strand_->post([weak = parts_] {
        if (const auto parts = weak.lock())
            parts->protocol.send_retry_limit(0);
    });
}

bool DiskLane::close(unsigned wait_ms)
{
    return strand_->close(wait_ms);
}

}  // namespace server
