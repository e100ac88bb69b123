// SPDX-License-Identifier: MIT
#include "server/statistics.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <system_error>

#include <fmt/format.h>

namespace server {

namespace {

using Json = nlohmann::ordered_json;

Json disk_json(const ServedDisk& disk, std::uint64_t size_bytes, const DiskCounters& counters)
{
    const std::uint8_t(&id)[4] = disk.id;
    return {{"path", disk.path},
            {"id", fmt::format("{:02x}{:02x}{:02x}{:02x}", id[0], id[1], id[2], id[3])},
            {"size_bytes", size_bytes},
            {"readonly", disk.readonly},
            {"cache_mb", disk.cache_mb},
            {"image", disk.image_path},
            {"read_requests", counters.read_requests},
            {"read_bytes", counters.read_bytes},
            {"write_fragments", counters.write_fragments},
            {"writes_completed", counters.writes_completed},
            {"written_bytes", counters.written_bytes},
            {"repeated_writes", counters.repeated_writes},
            {"status_queries", counters.status_queries},
            {"acknowledgements", counters.acknowledgements},
            {"zero_answers", counters.zero_answers},
            {"negotiations", counters.negotiations},
            {"sync_reads", counters.sync_reads},
            {"sync_bytes", counters.sync_bytes},
            {"shutdowns", counters.shutdowns},
            {"flushes", counters.flushes},
            {"store_errors", counters.store_errors}};
}

Json dropped_json(const DroppedCounters& dropped, std::uint64_t strangers)
{
    return {{"short_packet", dropped.short_packet},
            {"unknown_disk", dropped.unknown_disk},
            {"unknown_kind", dropped.unknown_kind},
            {"bad_length", dropped.bad_length},
            {"bad_offset", dropped.bad_offset},
            {"bad_fragment", dropped.bad_fragment},
            {"readonly", dropped.readonly},
            {"no_image", dropped.no_image},
            {"stranger", strangers}};
}

Json socket_json(const SocketCounters& socket)
{
    return {{"packets_received", socket.packets_received},
            {"bytes_received", socket.bytes_received},
            {"receive_calls", socket.receive_calls},
            {"packets_sent", socket.packets_sent},
            {"bytes_sent", socket.bytes_sent},
            {"send_calls", socket.send_calls},
            {"send_errors", socket.send_errors}};
}

Json workstation_json(const PolledWorkstation& workstation)
{
    const formats::PollReply& reply = workstation.reply;
    Json disks = Json::array();
    for (const formats::PollDisk& disk : reply.Disks)
        disks.push_back({{"status", disk.Disk_Status.get()},
                         {"reads", disk.Rd_Seq.get()},
                         {"read_sectors", disk.Rd_Secs.get()},
                         {"read_timeouts", disk.Rd_TimeOuts.get()},
                         {"writes", disk.Wr_Seq.get()},
                         {"written_sectors", disk.Wr_Secs.get()},
                         {"write_timeouts", disk.Wr_TimeOuts.get()}});
    return {{"address", to_text(workstation.address)},
            {"disks", disks},
            {"image_units", reply.Image_Units.get()},
            {"image_position", reply.Image_Position.get()}};
}

}  // namespace

std::string Statistics::json() const
{
    Json disks = Json::array();
    for (unsigned lun = 0; lun < options.disks.size(); ++lun)
        disks.push_back(disk_json(options.disks[lun], disk_bytes[lun], protocol.counters(lun)));
    Json polled = Json::array();
    for (const PolledWorkstation& workstation : workstations)
        polled.push_back(workstation_json(workstation));
    const Json all = {{"address", address},
                      {"uptime_s", uptime_s},
                      {"disks", disks},
                      {"dropped", dropped_json(protocol.dropped(), strangers)},
                      {"packets", socket_json(socket)},
                      {"workstations", polled}};
    // A path need not be valid text.
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string Statistics::summary() const
{
    std::string text;
    for (unsigned lun = 0; lun < options.disks.size(); ++lun) {
        const DiskCounters& counters = protocol.counters(lun);
        text += fmt::format("LUN {} {}: {} reads {:.1f} MB, {} writes {:.1f} MB, {} status queries, "
                            "{} repeated writes, {} errors\n",
                            lun, options.disks[lun].path, counters.read_requests,
                            static_cast<double>(counters.read_bytes) / 1e6, counters.writes_completed,
                            static_cast<double>(counters.written_bytes) / 1e6, counters.status_queries,
                            counters.repeated_writes, counters.store_errors);
        if (!options.disks[lun].image_path.empty())
            text += fmt::format("LUN {} {}: {} reads {:.1f} MB\n", lun, options.disks[lun].image_path,
                                counters.sync_reads, static_cast<double>(counters.sync_bytes) / 1e6);
    }
    const DroppedCounters& dropped = protocol.dropped();
    text += fmt::format("packets: {} received in {} calls, {} sent in {} calls, {} dropped\n",
                        socket.packets_received, socket.receive_calls, socket.packets_sent, socket.send_calls,
                        dropped.short_packet + dropped.unknown_disk + dropped.unknown_kind +
                            dropped.bad_length + dropped.bad_offset + dropped.bad_fragment +
                            dropped.readonly + dropped.no_image + strangers);
    return text;
}

}  // namespace server
