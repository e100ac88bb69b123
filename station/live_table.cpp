// SPDX-License-Identifier: MIT
#include "station/live_table.h"

#include <algorithm>

#include <fmt/format.h>

namespace station {

namespace {

constexpr unsigned wide_columns = 110;
constexpr unsigned columns_min = 40;
constexpr std::int64_t silence_told_ms = 2000;
constexpr char red[] = "\x1b[31m", yellow[] = "\x1b[33m", dim[] = "\x1b[2m", plain[] = "\x1b[0m";

// Breaks a line at spaces, and further lines are indented.
std::string wrapped(const std::string& line, unsigned columns)
{
    std::string text;
    std::string_view rest = line;
    while (rest.size() + (text.empty() ? 0 : 2) > columns) {
        const std::size_t room = columns - (text.empty() ? 0 : 2);
        std::size_t end = rest.rfind(' ', room);
        if (end == rest.npos || end == 0)
            end = room;
        text += fmt::format("{}{}\n", text.empty() ? "" : "  ", rest.substr(0, end));
        rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of(' ', end)));
    }
    return text + fmt::format("{}{}\n", text.empty() ? "" : "  ", rest);
}

std::string coloured(std::string text, const char* colour, bool colours)
{
    if (!colours)
        return text;
    text.insert(text.size() - 1, plain);  // before the line break
    return colour + text;
}

std::string head(bool wide)
{
    if (wide)
        return fmt::format("{:<5}{:>10}{:>9}{:>11}{:>9}{:>7}{:>10}{:>10}{:>8}{:>11}  {}\n", "LUN", "reads/s",
                           "MB/s", "writes/s", "MB/s", "queue", "50 % ms", "99 % ms", "errors", "time-outs",
                           "server");
    return fmt::format("{:<5}{:>8}{:>8}{:>6}{:>9}{:>9}  {}\n", "LUN", "rd MB/s", "wr MB/s", "queue",
                       "50 % ms", "99 % ms", "server");
}

std::string cache_lines(const StationStatus& status, unsigned columns)
{
    std::string text;
    for (const LunStatus& each : status.luns)
        if (each.cache)
            text +=
                wrapped(fmt::format("lun{} cache: {} MB, {} of {} blocks, {} hits, {} misses, {} fills, {} "
                                    "write-backs, {} write-throughs",
                                    each.lun, each.cache->Cache_MB, each.cache->Blocks_Used,
                                    each.cache->Blocks, each.cache->Hits, each.cache->Misses,
                                    each.cache->Fills, each.cache->Write_Backs, each.cache->Write_Throughs),
                        columns);
    return text;
}

}  // namespace

std::string LiveTable::row(const LunStatus& lun, double seconds, unsigned columns, bool colours)
{
    constexpr double sectors_per_mb = 1e6 / formats::sector_bytes;
    const LunStatistics& count = *lun.statistics;
    Sample& before = last_[lun.lun];
    const Sample now{count.reads, count.writes, count.sectors_read, count.sectors_written,
                     count.answer_times.counts()};
    const auto rate = [seconds](std::uint64_t a, std::uint64_t b) {
        return static_cast<double>(a - b) / seconds;
    };
    const double read_mb = rate(now.sectors_read, before.sectors_read) / sectors_per_mb;
    const double written_mb = rate(now.sectors_written, before.sectors_written) / sectors_per_mb;
    const double half = AnswerTimes::percentile_ms(now.times, before.times, 50);
    const double most = AnswerTimes::percentile_ms(now.times, before.times, 99);
    const std::string name = fmt::format("lun{}", lun.lun);
    std::string text =
        columns >= wide_columns
            ? fmt::format("{:<5}{:>10.0f}{:>9.1f}{:>11.0f}{:>9.1f}{:>7}{:>10.2f}{:>10.2f}{:>8}{:>11}  {}\n",
                          name, rate(now.reads, before.reads), read_mb, rate(now.writes, before.writes),
                          written_mb, count.queue.load(), half, most, count.errors.load(),
                          count.time_outs.load(), server_name(count.server))
            : fmt::format("{:<5}{:>8.1f}{:>8.1f}{:>6}{:>9.2f}{:>9.2f}  {}\n", name, read_mb, written_mb,
                          count.queue.load(), half, most,
                          count.server == LunStatistics::Server::main_alone ? "no mirror"
                                                                            : server_name(count.server));
    before = now;
    if (count.server != LunStatistics::Server::main)
        text = coloured(std::move(text), yellow, colours);
    const std::int64_t silent_ms = count.silent_ms(monotonic_us());
    if (silent_ms >= silence_told_ms)
        text += coloured(wrapped(fmt::format("     silent for {} s, {} requests wait", silent_ms / 1000,
                                             count.queue.load()),
                                 columns),
                         red, colours);
    return text;
}

std::string LiveTable::draw(const StationStatus& status, unsigned columns, bool colours)
{
    columns = std::max(columns, columns_min);
    const double seconds = std::max(static_cast<double>(status.uptime_ms - last_ms_) / 1000, 0.001);
    last_ms_ = status.uptime_ms;
    std::string text = coloured(head(columns >= wide_columns), dim, colours);
    for (const LunStatus& each : status.luns)
        text += row(each, seconds, columns, colours);
    text += cache_lines(status, columns);
    if (status.synchronisation)
        text += wrapped(synchronisation_text(*status.synchronisation), columns);
    text += wrapped(
        fmt::format("up {:.0f} s, {} clients ({} accepted, {} refused); packets: {} sent, {} received",
                    static_cast<double>(status.uptime_ms) / 1000, status.connections.open,
                    status.connections.accepted, status.connections.refused, status.link.packets_sent,
                    status.link.packets_received),
        columns);
    return text;
}

}  // namespace station
