#include "station/station_status.h"

#define FMT_HEADER_ONLY
#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace station {

const char* server_name(LunStatistics::Server server)
{
    switch (server) {
    case LunStatistics::Server::slave:
        return "slave";
    case LunStatistics::Server::main_alone:
        return "main (no mirror)";
    case LunStatistics::Server::main:
        break;
    }
    return "main";
}

std::string status_table(const StationStatus& status)
{
    std::string text =
        fmt::format("{:<5} {:>11} {:>11} {:>13} {:>11} {:>13} {:>7} {:>9} {:>6}  {}\n", "LUN", "sectors",
                    "reads", "read secs", "writes", "written secs", "errors", "time-outs", "queue", "server");
    for (const LunStatus& each : status.luns) {
        const LunStatistics& count = *each.statistics;
        text += fmt::format("{:<5} {:>11} {:>11} {:>13} {:>11} {:>13} {:>7} {:>9} {:>6}  {}\n",
                            fmt::format("lun{}", each.lun), each.sectors, count.reads.load(),
                            count.sectors_read.load(), count.writes.load(), count.sectors_written.load(),
                            count.errors.load(), count.time_outs.load(), count.queue.load(),
                            server_name(count.server));
    }
    text += fmt::format("up {:.1f} s, {} clients ({} accepted, {} refused); packets sent {} ({} calls), "
                        "received {} ({} calls)\n",
                        static_cast<double>(status.uptime_ms) / 1000, status.connections.open,
                        status.connections.accepted, status.connections.refused, status.link.packets_sent,
                        status.link.send_calls, status.link.packets_received, status.link.receive_calls);
    return text;
}

std::string status_line(const StationStatus& status)
{
    std::string text = fmt::format("{:.0f}s", static_cast<double>(status.uptime_ms) / 1000);
    for (const LunStatus& each : status.luns) {
        const LunStatistics& count = *each.statistics;
        text += fmt::format(
            " | lun{} reads {} ({} secs) writes {} ({} secs) errors {} time-outs {} queue {} {}", each.lun,
            count.reads.load(), count.sectors_read.load(), count.writes.load(), count.sectors_written.load(),
            count.errors.load(), count.time_outs.load(), count.queue.load(), server_name(count.server));
    }
    return text;
}

std::string status_json(const StationStatus& status)
{
    nlohmann::ordered_json json;
    json["uptime_ms"] = status.uptime_ms;
    json["driver"] = status.driver;
    json["luns"] = nlohmann::ordered_json::array();
    for (const LunStatus& each : status.luns) {
        const LunStatistics& count = *each.statistics;
        json["luns"].push_back({{"lun", each.lun},
                                {"sectors", each.sectors},
                                {"reads", count.reads.load()},
                                {"writes", count.writes.load()},
                                {"flushes", count.flushes.load()},
                                {"sectors_read", count.sectors_read.load()},
                                {"sectors_written", count.sectors_written.load()},
                                {"errors", count.errors.load()},
                                {"time_outs", count.time_outs.load()},
                                {"queue", count.queue.load()},
                                {"server", server_name(count.server)}});
    }
    json["link"] = {
        {"packets_sent", status.link.packets_sent},     {"bytes_sent", status.link.bytes_sent},
        {"send_calls", status.link.send_calls},         {"packets_received", status.link.packets_received},
        {"bytes_received", status.link.bytes_received}, {"receive_calls", status.link.receive_calls}};
    json["connections"] = {{"open", status.connections.open},
                           {"accepted", status.connections.accepted},
                           {"refused", status.connections.refused}};
    return json.dump(2) + "\n";
}

}  // namespace station
