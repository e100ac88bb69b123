// SPDX-License-Identifier: MIT
#include "campaign/coverage.h"

#include <charconv>

#include <fmt/format.h>

namespace campaign {
namespace {

constexpr std::string_view line_mark = "met: ";
constexpr std::string_view message_mark = "message: ";
constexpr std::string_view stack_mark = "deepest stack of a start: ";  // and how deep it was
constexpr std::string_view uptime_mark = "uptime: ";                   // only of workstations that stay on

// Messages that tell of a decision or a failure, by how they begin.
constexpr const char* messages[] = {
    "QRN SCSI: Recv ACK:",
    "QRN SCSI: Slave Server Error",
    "QRN SCSI: Main Server Error, Try Use Slave",
    "QRN SCSI: Time End:",
    "QRN SCSI: Time Out:",
    "QRN SCSI: pRW_List Init Error!",
    "QRN SCSI: BusChangeDetected For Delay Load",
    "QRN SCSI: BusChangeDetected For HDD Boot",
    "QRN SCSI: SRB_FUNCTION_SHUTDOWN:",
    "QRN SCSI: Find HDD Image=",
    "QRN SCSI: Driver Bootinit CallBack",
    "QRN_RW_HDD_Stop",
    "QRN MDL: PAE Memory:",
    "QRN MDL: Mm64Bit",
    "QRN MDL: Alloc_MDL =",
    "QRN MDL: Alloc ",
    "QRN MDL: Free pQRN_MDL:",
    "QRNH_OBJ_MEM::Create",
    "QRNH_OBJ_MEM: Destory",
    "QRNH_Oft_Buffer:",
    "MEM_RW_Create: Alloc",
    "MEM_OBJ_Create:",
    "QRN_MC_Init:",
    "QRNH_MEM_RW::Create",
    "QRN Local_Cache Info:",
    "QRN Local Init:",
    "QRN_RW_HDD_Sync",
    "QRNH_Img_Sync: Sync_Tag",
    "QRNH_IMG_SYNC: End=0",
    "QRNH_IMG_SYNC: End=2",
    "QRNH_IMG_SYNC: End=1",
    "QRNH_Img_Create: pObj_Img Is NULL",
    "QRNH_Img_Create: pImg_RW Is NULL",
    "QRNH_MBR_Init: Create pQRNH_Img_Sys",
    "QRNH_MBR_Init: Create pQRNH_Obj_Tmp",
    "QRNH_FSD: Irp=",
    "QRNH_FSD_Obj: ZwCreateFile",
    "QRNH_Header: Read Error",
    "QRNH_Header: 'CmpssFl' Make Error",
    "QRNH_Header_New",
    "QRNH_Header_Write",
};

constexpr const char* events[] = {
    "fault: network",
    "fault: main crash",
    "fault: main crash losing writes",
    "fault: main partition",
    "fault: slave crash",
    "fault: slave partition",
    "fault: retry limit",
    "fault: allocation",
    "fault: mapping",
    "fault: local request",
    "fault: local error",
    "fault: local short",
    "fault: local bad sectors",
    "fault: pool runs out",
    "fault: windows run out",
    "fault: store error",
    "fault at boot: allocation",
    "fault at boot: thread",
    "fault at boot: pages",
    "fault at boot: registry",
    "fault at boot: local read",
    "port driver: bus reset",
    "port driver: start again",
    "port driver: scan",
    "port driver: transfer without a buffer",
    "end: power off",
    "end: shutdown",
    "end: checked",
    "network: packets lost",
    "network: packets duplicated",
    "network: packets reordered",
    "network: packets corrupted",
    "network: packets partitioned",
    "server: writes lost in a crash",
    "server: store errors",
    "server: writes that came again",
    "server: fragments missing reported",
    "server: answers of zeros",
    "server: status queries",
    "server: parts of the image read",
    "request failed",
    "disk lost for good",
    "machine reset by the driver",
    "machine stopped by the driver",
    "cache: hits",
    "cache: misses",
    "cache: fills",
    "cache: write-backs",
    "cache: write-throughs",
    "cache: writes lost with the power",
    "cache: sectors left as a mixture",
    "local disk: read errors",
    "local disk: write errors",
    "local disk: power cuts",
    "local disk: areas verified",
    "image: older than the server's at a start",
    "image: rolled back on the server",
    "image: made anew on the server",
    "image: made anew without shift",
    "write of contents that were there before",
    "slots of a disk counted",
    "mirrors compared",
    "mirrors compared with one server left",
    "totals of the status poll compared",
};

}  // namespace

void Coverage::add_message(std::string_view text)
{
    while (!text.empty() && text.front() == '\n')
        text.remove_prefix(1);
    for (std::string_view known : messages)
        if (text.starts_with(known))
            return add(std::string(message_mark) + std::string(known));
}

void Coverage::add(const Coverage& other)
{
    for (const auto& [name, count] : other.counts_)
        counts_[name] += count;
}

std::string Coverage::to_lines() const
{
    std::string lines;
    for (const auto& [name, count] : counts_)
        lines += fmt::format("{}{} {}\n", line_mark, count, name);
    return lines;
}

bool Coverage::parse(std::string_view line)
{
    if (!line.starts_with(line_mark))
        return false;
    line.remove_prefix(line_mark.size());
    std::uint64_t count = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), count);
    if (error != std::errc{} || end == line.data() + line.size())
        return false;
    add(std::string(end + 1, line.data() + line.size()), count);
    return true;
}

unsigned Coverage::met() const
{
    unsigned count = 0;
    for (const char* event : events)
        count += counts_.contains(event);
    for (const char* message : messages)
        count += counts_.contains(std::string(message_mark) + message);
    return count;
}

std::string Coverage::report() const
{
    std::string text, never;
    const auto tell = [&](const std::string& name) {
        const auto found = counts_.find(name);
        if (found == counts_.end())
            never += fmt::format("  {}\n", name);
        else
            text += fmt::format("{:>12}  {}\n", found->second, name);
    };
    for (const char* event : events)
        tell(event);
    for (const char* message : messages)
        tell(std::string(message_mark) + message);
    for (const auto& [name, count] : counts_)
        if (name.starts_with(stack_mark) || name.starts_with(uptime_mark))
            text += fmt::format("{:>12}  {}\n", count, name);
    return text + (never.empty() ? "All of the list was met.\n" : "never met:\n" + never);
}

}  // namespace campaign
