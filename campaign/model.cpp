// SPDX-License-Identifier: MIT
#include "campaign/model.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "formats/wire.h"

namespace campaign {

// Where a sector can be torn: where a fragment ends, of any packet, which begins with a sector.
static bool may_be_torn_at(std::size_t from_begin, std::size_t from_end)
{
    for (std::size_t end = formats::fragment_bytes_max; end < formats::packet_bytes_max;
         end += formats::fragment_bytes_max) {
        const std::size_t place = end % formats::sector_bytes;
        if (place <= from_begin && formats::sector_bytes - place <= from_end)
            return true;
    }
    return false;
}

DiskModel::DiskModel(unsigned lun, std::vector<Generation> contents, const Generations& generations)
    : lun_(lun), generations_(generations), settled_(std::move(contents))
{
}

std::vector<DiskModel::Version>& DiskModel::versions(std::uint32_t lba)
{
    auto [found, fresh] = unsettled_.try_emplace(lba);
    if (fresh)
        found->second.push_back({settled_[lba], 0, 0, open});
    return found->second;
}

// Forgets what no read under way can find any more.
void DiskModel::settle(std::uint32_t lba, std::vector<Version>& versions)
{
    const std::uint64_t oldest = reading_.empty() ? now_ : *reading_.begin();
    std::erase_if(versions, [oldest](const Version& version) { return version.gone < oldest; });
    if (versions.size() == 1 && versions[0].end != open) {
        settled_[lba] = versions[0].generation;
        unsettled_.erase(lba);
    }
}

DiskModel::Request DiskModel::write_begins(std::uint32_t lba, std::uint32_t count, Generation generation)
{
    const Request write = ++now_;
    writing_[write] = {lba, count, generation};
    for (std::uint32_t i = 0; i < count; ++i)
        versions(lba + i).push_back({generation, write, open, open});
    return write;
}

void DiskModel::write_ends(Request request, bool succeeded)
{
    const Write write = writing_.extract(request).mapped();
    const std::uint64_t now = ++now_;
    if (!succeeded)
        return;  // it may still happen
    for (std::uint32_t lba = write.lba; lba < write.lba + write.count; ++lba) {
        std::vector<Version>& all = versions(lba);
        for (Version& version : all) {
            if (version.begin == request)
                version.end = now;
            else if (version.end < request)
                version.gone = std::min(version.gone, now);
        }
        settle(lba, all);
    }
}

DiskModel::Request DiskModel::read_begins()
{
    return *reading_.insert(++now_).first;
}

bool DiskModel::torn(std::uint32_t lba, std::span<const std::uint8_t> sector, std::uint64_t since) const
{
    std::size_t from_begin = 0, from_end = 0;  // bytes that some allowed content explains
    bool differing = false;
    for (const Version& version : unsettled_.at(lba)) {
        if (version.gone < since)
            continue;
        differing |= version.begin > since || version.end > since || version.of_one_server;
        const Sector content = generations_.content({lun_, lba}, version.generation);
        const auto same = std::ranges::mismatch(content, sector).in1 - content.begin();
        from_begin = std::max(from_begin, static_cast<std::size_t>(same));
        const auto reversed = std::mismatch(content.rbegin(), content.rend(), sector.rbegin()).first;
        from_end = std::max(from_end, static_cast<std::size_t>(reversed - content.rbegin()));
    }
    return differing && may_be_torn_at(from_begin, from_end);
}

std::string DiskModel::judge(std::uint32_t lba, std::span<const std::uint8_t> sector,
                             std::uint64_t since) const
{
    const auto named = name_of({lun_, lba}, sector);
    const auto found = unsettled_.find(lba);
    if (found == unsettled_.end()) {
        if (named && named->generation == settled_[lba])
            return {};
        return fmt::format("LUN {} LBA {} must be generation {}, but is {}", lun_, lba, settled_[lba],
                           describe(sector));
    }
    std::string allowed;
    for (const Version& version : found->second) {
        if (version.gone < since)
            continue;
        if (named && named->generation == version.generation)
            return {};
        allowed += fmt::format(" {}", version.generation);
    }
    if (!named && torn(lba, sector, since))
        return {};
    return fmt::format("LUN {} LBA {} must be one of generations{}, but is {}", lun_, lba, allowed,
                       describe(sector));
}

std::string DiskModel::read_ends(Request read, std::uint32_t lba, std::span<const std::uint8_t> data)
{
    reading_.erase(read);
    ++now_;
    std::string wrong;
    for (std::size_t at = 0; at < data.size() && wrong.empty(); at += formats::sector_bytes, ++lba)
        if (wrong = judge(lba, data.subspan(at, formats::sector_bytes), read); wrong.empty() && one_truth_)
            found(lba, data.subspan(at, formats::sector_bytes), read);
    return wrong;
}

// What the only server was seen to have while nobody wrote it does not turn into something else.
void DiskModel::found(std::uint32_t lba, std::span<const std::uint8_t> sector, std::uint64_t since)
{
    const auto entry = unsettled_.find(lba);
    const auto named = name_of({lun_, lba}, sector);
    if (entry == unsettled_.end() || !named)
        return;
    std::vector<Version>& all = entry->second;
    if (std::ranges::any_of(
            all, [since](const Version& version) { return version.begin > since || version.end > since; }))
        return;
    for (Version& version : all)
        if (version.generation != named->generation)
            version.gone = std::min(version.gone, now_);
    settle(lba, all);
}

std::vector<std::uint32_t> DiskModel::unsettled() const
{
    std::vector<std::uint32_t> places;
    for (const auto& [lba, all] : unsettled_)
        places.push_back(lba);
    return places;
}

std::string DiskModel::check(std::uint32_t lba, std::span<const std::uint8_t> sector) const
{
    return judge(lba, sector, now_ + 1);
}

void DiskModel::may_hold(std::uint32_t lba, Generation generation, bool mirrored)
{
    const std::uint64_t now = ++now_;
    versions(lba).push_back({generation, now, now, open, mirrored});
}

// A write that was under way or failed happened by now, or never will.
void DiskModel::power_off()
{
    const std::uint64_t now = ++now_;
    writing_.clear();
    reading_.clear();
    for (auto entry = unsettled_.begin(); entry != unsettled_.end();) {
        auto& [lba, all] = *entry++;  // settling may remove it
        for (Version& version : all)
            version.end = std::min(version.end, now);
        settle(lba, all);
    }
}

void DiskModel::becomes(std::uint32_t lba, Generation generation)
{
    unsettled_.erase(lba);
    settled_[lba] = generation;
}

}  // namespace campaign
