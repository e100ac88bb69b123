// SPDX-License-Identifier: MIT
#include "station/station_status.h"

#include <array>
#include <bit>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "formats/image_area.h"

namespace station {

namespace {

std::string cache_table(const StationStatus& status)
{
    std::string text;
    for (const LunStatus& each : status.luns) {
        if (!each.cache)
            continue;
        if (text.empty())
            text = fmt::format("{:<5} {:>11} {:>11} {:>13} {:>11} {:>13} {:>11} {:>11} {:>14}\n", "cache",
                               "MB", "blocks", "blocks used", "hits", "misses", "fills", "write-backs",
                               "write-throughs");
        const formats::CacheStats& cache = *each.cache;
        text += fmt::format("{:<5} {:>11} {:>11} {:>13} {:>11} {:>13} {:>11} {:>11} {:>14}\n",
                            fmt::format("lun{}", each.lun), cache.Cache_MB, cache.Blocks, cache.Blocks_Used,
                            cache.Hits, cache.Misses, cache.Fills, cache.Write_Backs, cache.Write_Throughs);
    }
    return text;
}

double megabytes(std::uint32_t chunks)
{
    return static_cast<double>(chunks) * formats::chunk_bytes / (1 << 20);
}

std::string sync_progress(const SyncStatus& sync)
{
    const double part = sync.chunks_total ? static_cast<double>(sync.chunks_done) / sync.chunks_total : 0;
    std::string text = fmt::format("{:.0f} %, {} of {} chunks, {:.0f} of {:.0f} MB, {:.1f} MB/s", part * 100,
                                   sync.chunks_done, sync.chunks_total, megabytes(sync.chunks_done),
                                   megabytes(sync.chunks_total), sync.megabytes_per_s());
    if (const auto left = sync.seconds_left())
        text += fmt::format(", {:.0f} s left", *left);
    return text;
}

nlohmann::ordered_json sync_json(const SyncStatus& sync)
{
    nlohmann::ordered_json json = {{"state", state_name(sync.state)}, {"chunks_total", sync.chunks_total},
                                   {"chunks_done", sync.chunks_done}, {"chunks_of_run", sync.chunks_of_run},
                                   {"time_ms", sync.time_ms},         {"mb_per_s", sync.megabytes_per_s()}};
    if (const auto left = sync.seconds_left())
        json["seconds_left"] = *left;
    return json;
}

nlohmann::ordered_json cache_json(const formats::CacheStats& cache)
{
    return {{"size_mb", cache.Cache_MB},        {"blocks", cache.Blocks},
            {"blocks_used", cache.Blocks_Used}, {"hits", cache.Hits},
            {"misses", cache.Misses},           {"fills", cache.Fills},
            {"write_backs", cache.Write_Backs}, {"write_throughs", cache.Write_Throughs}};
}

// Of all answers since the start.
double percentile(const LunStatistics& count, unsigned percent)
{
    return AnswerTimes::percentile_ms(count.answer_times.counts(), {}, percent);
}

}  // namespace

// Running: a bar. Later: how it ended.
std::string synchronisation_text(const SyncStatus& sync)
{
    constexpr unsigned bar_width = 30;
    switch (sync.state) {
    case SyncStatus::State::waiting:
        return "local image: waiting to be filled";
    case SyncStatus::State::asking_server:
        return "local image: asking the server for its image";
    case SyncStatus::State::no_server_image:
        return "local image: not filled, the server has no usable image of the disk";
    case SyncStatus::State::running: {
        const auto full =
            sync.chunks_total
                ? static_cast<unsigned>(std::uint64_t{bar_width} * sync.chunks_done / sync.chunks_total)
                : 0;
        return fmt::format("local image: [{:#<{}}{:.<{}}] {}", "", full, "", bar_width - full,
                           sync_progress(sync));
    }
    case SyncStatus::State::complete:
    case SyncStatus::State::stopped:
    case SyncStatus::State::failed:
        break;
    }
    return fmt::format("local image: {} after {:.1f} s: {}", state_name(sync.state),
                       static_cast<double>(sync.time_ms) / 1000, sync_progress(sync));
}

std::optional<formats::CacheStats> cache_statistics(const void* all, unsigned lun)
{
    constexpr std::size_t word_count = sizeof(formats::CacheStats) / sizeof(std::uint32_t);
    if (!all || lun >= formats::disk_count_max)
        return {};
    std::array<std::uint32_t, word_count> words;
    for (std::size_t i = 0; i < word_count; ++i)
        words[i] =
            __atomic_load_n(static_cast<const std::uint32_t*>(all) + lun * word_count + i, __ATOMIC_RELAXED);
    const auto cache = std::bit_cast<formats::CacheStats>(words);
    return cache.Cache_MB ? std::optional(cache) : std::nullopt;
}

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
    text += cache_table(status);
    if (status.synchronisation)
        text += synchronisation_text(*status.synchronisation) + "\n";
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
        if (each.cache)
            text += fmt::format(" cache {}/{} blocks hits {} misses {} write-backs {}",
                                each.cache->Blocks_Used, each.cache->Blocks, each.cache->Hits,
                                each.cache->Misses, each.cache->Write_Backs);
    }
    if (status.synchronisation)
        text += " | " + synchronisation_text(*status.synchronisation);
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
                                {"answer_ms_50", percentile(count, 50)},
                                {"answer_ms_99", percentile(count, 99)},
                                {"silent_ms", count.silent_ms(monotonic_us())},
                                {"server", server_name(count.server)}});
        if (each.cache)
            json["luns"].back()["cache"] = cache_json(*each.cache);
    }
    if (status.synchronisation)
        json["synchronisation"] = sync_json(*status.synchronisation);
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
