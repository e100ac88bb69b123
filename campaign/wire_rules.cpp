// SPDX-License-Identifier: MIT
#include "campaign/wire_rules.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "campaign/report.h"

namespace campaign {
namespace {

using formats::WireHeader;

// A packet is sent anew after 1000 ms of silence; a wait ends on a tick of the clock.
constexpr std::int64_t resend_ms = 1000 - 2 * 16;
// So long an answer may be on its way, or be doubled and come late.
constexpr std::int64_t on_the_way_ms = 500;

[[noreturn]] void broken(const WireHeader& header, const char* rule)
{
    fail(fmt::format(
        "packet: {}: kind {:02X} {:02X}, disk {:02X}, tag {:04X}, seq {:04X}, worker {:02X}, index {}, "
        "offset {:X}, length {:X}, fragment {} of {} at {:X} with {:X} bytes",
        rule, header.Kind, header.Sub_Code, header.Disk_Id[3], header.Tag.get(), header.Seq.get(),
        header.Worker_Byte, header.Pkt_Index, header.Byte_Offset.get(), header.Length.get(), header.Frag_Num,
        header.Frag_Cnt.get(), header.Frag_Off.get(), header.Frag_Size.get()));
}

void require(bool holds, const WireHeader& header, const char* rule)
{
    if (!holds)
        broken(header, rule);
}

WireHeader header_of(std::span<const std::uint8_t> packet)
{
    WireHeader header{};
    std::memcpy(static_cast<void*>(&header), packet.data(),
                std::min<std::size_t>(packet.size(), formats::header_bytes));
    return header;
}

bool is_negotiation(const WireHeader& header)
{
    return header.Kind == formats::kind_read && header.Byte_Offset.get() == 0;
}

std::uint32_t packet_bytes(const DiskPlan& disk, bool write)
{
    constexpr unsigned default_read_kb = 8, default_write_kb = 6;
    if (disk.flags == 0)
        return (write ? default_write_kb : default_read_kb) * 1024;
    return (write ? disk.write_kb : disk.read_kb) * 1024;
}

}  // namespace

bool WireRules::sent(std::span<const std::uint8_t> packet, bool to_slave, std::int64_t now_ms)
{
    const WireHeader header = header_of(packet);
    require(packet.size() >= formats::request_bytes, header, "shorter than a request");
    const unsigned lun = header.Disk_Id[3] - 0xD0u;
    require(lun < plan_.disks.size() &&
                std::ranges::equal(header.Disk_Id, simulation::disk_id(lun, plan_.disks[lun].mirrored)),
            header, "of no disk");
    require(!to_slave || plan_.disks[lun].mirrored, header, "to the slave server of a disk that has none");
    if (header.Kind == formats::kind_shutdown) {
        require(packet.size() == formats::request_bytes && header.Sub_Code == formats::sub_request &&
                    header.Tag.get() == 0 && header.Seq.get() == 0 && header.Worker_Byte == 0 &&
                    header.Byte_Offset.get() == 0,
                header, "a notice that asks for something");
        return false;
    }
    const bool query = header.Sub_Code == formats::sub_status_query;
    require(query || header.Sub_Code == formats::sub_request, header, "neither request nor query");
    require(!query || plan_.rack_level >= formats::rack_level_status_query ||
                plan_.settings.contains("RW_RACK"),
            header, "a query to servers that know none");
    require(header.Disk_Parm[3] == lun && header.Disk_Parm[0] == 0xA0, header,
            "without what came with the disk");
    check_place(header, lun);
    if (header.Kind == formats::kind_write && !query)
        check_fragment(header, packet.size());
    else
        require(packet.size() == formats::request_bytes, header, "a request with data");
    check_pace(header, now_ms);
    return header.Kind == formats::kind_write && is_alone(header, to_slave);
}

void WireRules::check_place(const WireHeader& header, unsigned lun) const
{
    const DiskPlan& disk = plan_.disks[lun];
    const std::uint32_t length = header.Length.get();
    const std::uint64_t offset = header.Byte_Offset.get();
    require(length != 0 && length % formats::sector_bytes == 0 && offset % formats::sector_bytes == 0, header,
            "no whole sectors");
    if (header.Kind == formats::kind_sync_read) {
        require(lun == 0 && plan_.boots_locally() && length <= formats::packet_bytes_max && offset != 0,
                header, "of an image that is not synchronised");
        return;
    }
    require(header.Kind == formats::kind_read || header.Kind == formats::kind_write, header, "of no kind");
    if (is_negotiation(header)) {
        require(length == formats::sector_bytes, header, "no question for a cache");
        return;
    }
    require(length <= packet_bytes(disk, header.Kind == formats::kind_write), header,
            "longer than the disk's packets");
    require(offset >= formats::sector_bytes &&
                offset + length <= (std::uint64_t{disk.first_lba} + disk.sectors + 1) * formats::sector_bytes,
            header, "past the disk's end");
    const unsigned transfer_bytes = ((header.Tag.get() ^ plan_.tag_key) & 0x1FF) * 256;
    require(transfer_bytes >= length && transfer_bytes <= 65536, header, "longer than its transfer");
    require((header.Pkt_Index & 31) * packet_bytes(disk, header.Kind == formats::kind_write) < 65536, header,
            "behind its transfer");
}

void WireRules::check_fragment(const WireHeader& header, std::size_t bytes) const
{
    const unsigned length = header.Length.get(), number = header.Frag_Num;
    const unsigned count = (length + formats::fragment_bytes_max - 1) / formats::fragment_bytes_max;
    require(header.Frag_Cnt.get() == count && number >= 1 && number <= count && header.Zero == 0, header,
            "no fragment of its packet");
    const unsigned offset = (number - 1) * formats::fragment_bytes_max;
    require(header.Frag_Off.get() == offset &&
                header.Frag_Size.get() == std::min<unsigned>(formats::fragment_bytes_max, length - offset) &&
                bytes == std::size_t{formats::header_bytes} + header.Frag_Size.get(),
            header, "a fragment that is not at its place");
}

// In silence nothing goes twice within a second. Queries are asked only once between.
void WireRules::check_pace(const WireHeader& header, std::int64_t now_ms)
{
    Flight& flight = flights_[header.Worker_Byte & formats::worker_index_mask];
    const auto* match = reinterpret_cast<const std::uint8_t*>(&header) + formats::match_offset;
    if (!std::equal(flight.match.begin(), flight.match.end(), match) || flight.kind != header.Kind) {
        std::copy_n(match, formats::match_bytes, flight.match.begin());
        flight.kind = header.Kind;
        flight.request_ms = -1;
        flight.fragment_ms.fill(-1);
    }
    if (header.Sub_Code != formats::sub_request)
        return;
    std::int64_t& last_ms =
        header.Kind == formats::kind_write ? flight.fragment_ms[header.Frag_Num % 16] : flight.request_ms;
    if (last_ms >= 0 && last_ms > flight.answer_ms + on_the_way_ms)
        require(now_ms - last_ms >= resend_ms, header, "sent again before a second of silence");
    last_ms = now_ms;
}

// A copy for the slave follows the same packet to the main server, with the complement of its number.
bool WireRules::is_alone(const WireHeader& header, bool to_slave)
{
    WireHeader& main = flights_[header.Worker_Byte & formats::worker_index_mask].main_write;
    if (!to_slave) {
        main = header;
        return false;
    }
    return (main.Seq.get() ^ header.Seq.get()) != 0xFFFF || main.Tag.get() != header.Tag.get() ||
           main.Disk_Id[3] != header.Disk_Id[3] || main.Byte_Offset.get() != header.Byte_Offset.get();
}

void WireRules::answered(std::span<const std::uint8_t> packet, std::int64_t now_ms)
{
    if (packet.size() < formats::request_bytes)
        return;
    const WireHeader header = header_of(packet);
    flights_[header.Worker_Byte & formats::worker_index_mask].answer_ms = now_ms;
}

}  // namespace campaign
