// SPDX-License-Identifier: MIT
#include "machine/scsiport/bus_scan.h"

#include "formats/endian.h"
#include "machine/scheduler/kernel_scheduler.h"
#include "machine/scsiport/internals.h"

namespace machine {
namespace {

constexpr std::uint8_t inquiry_bytes = 36;
constexpr std::uint8_t capacity_bytes = 8;
constexpr std::uint32_t scan_timeout_seconds = 4;
constexpr unsigned attempts_max = 4;
constexpr std::uint8_t no_unit = 3;  // peripheral qualifier

}  // namespace

BusScan::BusScan(ScsiPort& port, const PortConfig& config) : port_(port), config_(config)
{
    KeInitializeEvent(&turn_, SynchronizationEvent, TRUE);
}

void BusScan::scan()
{
    KeWaitForSingleObject(&turn_, Executive, KernelMode, FALSE, nullptr);
    std::vector<LunInfo> found = look();
    std::function<void()> listener;
    {
        std::lock_guard hold(lock_);
        luns_ = std::move(found);
        listener = listener_;
    }
    ++scans_;
    KeSetEvent(&turn_, IO_NO_INCREMENT, FALSE);
    if (listener)
        listener();
}

void BusScan::request()
{
    {
        std::lock_guard hold(lock_);
        wanted_ = true;
        if (thread_runs_)
            return;
        thread_runs_ = true;
    }
    scheduler().spawn("bus scan", [this] { serve_requests(); });
}

void BusScan::serve_requests()
{
    for (;;) {
        {
            std::lock_guard hold(lock_);
            thread_runs_ = wanted_;
            if (!wanted_)
                return;
            wanted_ = false;
        }
        scan();
    }
}

std::vector<LunInfo> BusScan::look()
{
    std::vector<LunInfo> found;
    Adapter& adapter = port_.internals().adapter;
    if (!adapter.started())
        return found;
    for (unsigned index = 0; index < adapter.configuration().MaximumNumberOfLogicalUnits; ++index) {
        const auto lun = static_cast<std::uint8_t>(index);
        LunInfo info{};
        if (!inquire(lun, info)) {
            if (config_.scan_stops_at_gap)
                break;
            continue;
        }
        info.sectors = read_capacity(lun);
        if (config_.curious_class_driver)
            look_closely(lun);
        if (devices_[lun] == nullptr)
            devices_[lun] = adapter.create_device(FILE_DEVICE_DISK);
        found.push_back(info);
    }
    return found;
}

bool BusScan::inquire(std::uint8_t lun, LunInfo& info)
{
    info.lun = lun;
    return ask(lun, {SCSIOP_INQUIRY, 0, 0, 0, inquiry_bytes}, info.inquiry.data(), inquiry_bytes) &&
           info.inquiry[0] >> 5 != no_unit;
}

// 0: no medium.
std::uint32_t BusScan::read_capacity(std::uint8_t lun)
{
    struct {
        formats::Be32 last_sector;
        formats::Be32 sector_bytes;
    } capacity{};
    static_assert(sizeof(capacity) == capacity_bytes);
    if (!ask(lun, {SCSIOP_READ_CAPACITY}, &capacity, capacity_bytes))
        return 0;
    const std::uint32_t last = capacity.last_sector.get();
    return last == UINT32_MAX ? UINT32_MAX : last + 1;
}

// What a class driver likes to know before it uses a disk; whatever the answers are.
void BusScan::look_closely(std::uint8_t lun)
{
    constexpr std::uint8_t product_data_pages[] = {0x00, 0x80, 0x83}, mode_pages[] = {0x3F, 0x08, 0x1C};
    constexpr std::uint8_t page_bytes = 192;
    std::array<std::uint8_t, 512> answer{};
    for (const std::uint8_t page : product_data_pages)
        ask(lun, {SCSIOP_INQUIRY, 1, page, 0, page_bytes}, answer.data(), page_bytes);
    for (const std::uint8_t page : mode_pages)
        ask(lun, {SCSIOP_MODE_SENSE, 0, page, 0, page_bytes}, answer.data(), page_bytes);
    ask(lun, {SCSIOP_TEST_UNIT_READY}, nullptr, 0);
    ask(lun, {SCSIOP_READ, 0, 0, 0, 0, 0, 0, 0, 1}, answer.data(), answer.size());
}

// One command, repeated while it is refused. The last try may not be disturbed by others.
bool BusScan::ask(std::uint8_t lun, const std::array<std::uint8_t, 16>& cdb, void* answer,
                  std::uint32_t answer_bytes)
{
    ScsiRequest request(port_);
    request.lun = lun;
    request.cdb = cdb;
    request.cdb_bytes = cdb[0] < SCSIOP_READ_CAPACITY ? 6 : 10;
    request.data = answer;
    request.data_bytes = answer_bytes;
    request.timeout_seconds = scan_timeout_seconds;
    for (unsigned attempt = 1; attempt <= attempts_max; ++attempt) {
        request.srb_flags =
            SRB_FLAGS_DISABLE_SYNCH_TRANSFER | SRB_FLAGS_NO_QUEUE_FREEZE | SRB_FLAGS_BYPASS_FROZEN_QUEUE;
        if (answer_bytes != 0)
            request.srb_flags |= SRB_FLAGS_DATA_IN;
        if (attempt == attempts_max)
            request.srb_flags |= SRB_FLAGS_DISABLE_DISCONNECT;
        port_.execute(request);
        if (request.ok() || SRB_STATUS(request.srb_status) == SRB_STATUS_DATA_OVERRUN)
            return true;
        if (!request.sense())
            return false;  // nobody there
    }
    return false;
}

std::vector<LunInfo> BusScan::luns() const
{
    std::lock_guard hold(lock_);
    return luns_;
}

void BusScan::set_listener(std::function<void()> listener)
{
    std::lock_guard hold(lock_);
    listener_ = std::move(listener);
}

}  // namespace machine
