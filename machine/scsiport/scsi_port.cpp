// SPDX-License-Identifier: MIT
#include "machine/scsiport/scsi_port.h"

#include <algorithm>

#include "machine/scheduler/violation.h"
#include "machine/scsiport/internals.h"

namespace machine {
namespace {

constexpr std::uint32_t sector_bytes = 512;
// The block count of READ(10) and WRITE(10) has 16 bits.
constexpr std::uint32_t largest_cdb_transfer_bytes = 0xFFFF * sector_bytes;
constexpr std::uint32_t shutdown_timeout_seconds = 60;

ScsiPort::Internals* the_port = nullptr;

}  // namespace

ScsiPort::ScsiPort(const PortConfig& config) : internals_(std::make_unique<Internals>(*this, config))
{
    the_port = internals_.get();
}

ScsiPort::~ScsiPort()
{
    the_port = nullptr;
}

ScsiPort::Internals& ScsiPort::Internals::current()
{
    if (!the_port)
        violation("the port driver was called while no machine exists");
    return *the_port;
}

bool ScsiPort::adapter_started() const
{
    return internals_->adapter.started();
}

std::uint32_t ScsiPort::maximum_transfer_bytes() const
{
    return configuration().MaximumTransferLength;
}

const PORT_CONFIGURATION_INFORMATION& ScsiPort::configuration() const
{
    return internals_->adapter.configuration();
}

std::vector<LunInfo> ScsiPort::luns() const
{
    return internals_->scan.luns();
}

unsigned ScsiPort::scans() const
{
    return internals_->scan.scans();
}

void ScsiPort::request_scan()
{
    internals_->scan.request();
}

void ScsiPort::scan()
{
    internals_->scan.scan();
}

unsigned ScsiPort::bus_changes() const
{
    return internals_->adapter.bus_changes();
}

void ScsiPort::set_scan_listener(std::function<void()> listener)
{
    internals_->scan.set_listener(std::move(listener));
}

void ScsiPort::set_before_initialize(std::function<void(PDRIVER_OBJECT)> hook)
{
    internals_->adapter.before_initialize = std::move(hook);
}

unsigned ScsiPort::search_adapter_again()
{
    return internals_->adapter.search_again();
}

void ScsiPort::set_adapter_arguments(std::string arguments)
{
    internals_->adapter.arguments = std::move(arguments);
}

bool ScsiPort::initialize_again()
{
    return internals_->adapter.start_miniport();
}

// Hands a long transfer down piece by piece; set_piece is set_read or set_write.
template <typename Byte, typename SetPiece>
static bool transfer(ScsiPort& port, Byte* data, std::uint32_t lba, std::uint32_t bytes, SetPiece set_piece)
{
    const std::uint32_t limit = std::min(port.maximum_transfer_bytes(), largest_cdb_transfer_bytes);
    const std::uint32_t largest = std::max(limit / sector_bytes, 1U) * sector_bytes;
    ScsiRequest request(port);
    for (std::uint32_t at = 0; at < bytes;) {
        const std::uint32_t piece = std::min(bytes - at, largest);
        set_piece(request, lba + at / sector_bytes, data + at, piece);
        port.execute(request);
        if (!request.ok())
            return false;
        at += piece;
    }
    return true;
}

bool ScsiPort::read(std::uint8_t lun, std::uint32_t lba, void* data, std::uint32_t bytes)
{
    return transfer(*this, static_cast<std::uint8_t*>(data), lba, bytes,
                    [lun](ScsiRequest& request, std::uint32_t at, std::uint8_t* piece, std::uint32_t size) {
                        request.set_read(lun, at, piece, size);
                    });
}

bool ScsiPort::write(std::uint8_t lun, std::uint32_t lba, const void* data, std::uint32_t bytes)
{
    return transfer(*this, static_cast<const std::uint8_t*>(data), lba, bytes,
                    [lun](ScsiRequest& request, std::uint32_t at, const std::uint8_t* piece,
                          std::uint32_t size) { request.set_write(lun, at, piece, size); });
}

void ScsiPort::shutdown()
{
    std::vector<std::uint8_t> order;
    for (const LunInfo& info : luns())
        order.push_back(info.lun);
    std::stable_partition(order.begin(), order.end(), [](std::uint8_t lun) { return lun != 0; });
    shutdown(order);
}

void ScsiPort::shutdown(const std::vector<std::uint8_t>& order)
{
    for (const std::uint8_t lun : order) {
        for (const int function : {SRB_FUNCTION_FLUSH, SRB_FUNCTION_SHUTDOWN}) {
            ScsiRequest request(*this);
            request.function = static_cast<std::uint8_t>(function);
            request.lun = lun;
            request.timeout_seconds = shutdown_timeout_seconds;
            execute(request);
        }
    }
}

bool ScsiPort::reset_bus()
{
    return internals_->adapter.reset_bus();
}

void ScsiPort::set_auto_release(bool on)
{
    internals_->auto_release = on;
}

void ScsiPort::release_queue(std::uint8_t lun)
{
    internals_->adapter.release_queue(0, 0, lun);
}

bool ScsiPort::frozen(std::uint8_t lun) const
{
    return internals_->adapter.frozen(lun);
}

unsigned ScsiPort::in_flight() const
{
    return internals_->adapter.in_flight();
}

}  // namespace machine
