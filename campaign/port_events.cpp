// SPDX-License-Identifier: MIT
#include "campaign/port_events.h"

#include <algorithm>

#include <fmt/format.h>

namespace campaign {

void PortEvents::start()
{
    if (station_.plan().port_events.empty())
        return;
    running_ = true;
    station_.machine.scheduler().spawn("class driver", [this] { bring_about(); });
}

void PortEvents::wait()
{
    if (station_.plan().port_events.empty())
        return;
    while (running_)
        station_.machine.sleep_ms(100);
    station_.machine.sleep_ms(station_.machine.config().reset_hold_100ns / machine::ticks_per_ms);
}

void PortEvents::bring_about()
{
    const std::int64_t origin_ms = station_.now_ms();
    for (const PortEvent& event : station_.plan().port_events) {
        station_.machine.sleep_ms(std::max<std::int64_t>(0, origin_ms + event.at_ms - station_.now_ms()));
        station_.world.coverage.add(fmt::format("port driver: {}", name_of(event.kind)));
        begin(event.kind);
    }
    running_ = false;
}

void PortEvents::begin(PortEventKind kind)
{
    machine::ScsiPort& port = station_.scsi();
    switch (kind) {
    case PortEventKind::bus_reset:
        if (!port.reset_bus())
            fail("HwResetBus failed");
        break;
    case PortEventKind::start_again:
        if (!port.initialize_again())
            fail("HwInitialize failed when it was called again");
        break;
    case PortEventKind::scan:
        port.request_scan();
        break;
    case PortEventKind::no_buffer:
        send_without_buffer();
        break;
    default:
        break;
    }
}

void PortEvents::send_without_buffer()
{
    machine::ScsiRequest request(station_.scsi());
    request.set_read(0, 0, nullptr, formats::sector_bytes);
    request.srb_flags |= SRB_FLAGS_NO_QUEUE_FREEZE;
    station_.scsi().execute(request);
    if (request.ok())
        fail("a read without a buffer succeeded");
}

}  // namespace campaign
