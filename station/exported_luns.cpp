// SPDX-License-Identifier: MIT
#include "station/exported_luns.h"

#include <memory>
#include <string>
#include <utility>

#include "station/lun_device.h"

namespace station {

namespace {

std::string text_of(const std::array<std::uint8_t, 36>& inquiry, std::size_t first, std::size_t count)
{
    std::string text(inquiry.begin() + static_cast<std::ptrdiff_t>(first),
                     inquiry.begin() + static_cast<std::ptrdiff_t>(first + count));
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

}  // namespace

// There a flush ends at once and brings nothing to the server.
bool ExportedLuns::in_ram_cache(unsigned lun) const
{
    return (block_.Disks[lun].Disk_Flags & formats::disk_flag_ram_cache) != 0;
}

void ExportedLuns::find()
{
    std::vector<machine::LunInfo> found = machine_.scsi().luns();
    std::erase_if(found, [](const machine::LunInfo& each) { return each.lun >= formats::disk_count_max; });
    std::vector<Export> exports;
    for (const machine::LunInfo& each : found)
        exports.push_back({"lun" + std::to_string(each.lun),
                           text_of(each.inquiry, 8, 8) + " " + text_of(each.inquiry, 16, 16),
                           std::make_shared<LunDevice>(machine_.scsi(), each, statistics_[each.lun]),
                           options_.read_only[each.lun], !in_ram_cache(each.lun)});
    {
        std::lock_guard guard(found_lock_);
        found_ = std::move(found);
    }
    exports_.set(std::move(exports));
}

std::vector<machine::LunInfo> ExportedLuns::found() const
{
    std::lock_guard guard(found_lock_);
    return found_;
}

}  // namespace station
