// SPDX-License-Identifier: MIT
#include "boot/block_packet.h"

namespace boot {

using namespace formats;

namespace {

constexpr std::uint16_t packet_sectors(std::uint8_t kb_field, std::uint8_t disk_flags, unsigned kb_default)
{
    const unsigned kb = disk_flags != 0 ? (kb_field >> 4) + 1u : kb_default;
    return static_cast<std::uint16_t>(kb * 2);
}

constexpr unsigned read_kb_default = 8, write_kb_default = 6;
constexpr std::uint16_t tag_without_offset = 0x8000;

}  // namespace

DiskPlace make_disk_place(const Boot_Param& param, unsigned lun)
{
    const Disk_Info& disk = param.Disks[lun];
    DiskPlace place{};
    place.server = param.Main_Server[lun];
    if ((disk.Disk_Id[2] & disk_id_mirror) != 0)
        place.slave = param.Slave_Server[lun];
    for (unsigned i = 0; i < 4; ++i) {
        place.id[i] = disk.Disk_Id[i];
        place.parm[i] = disk.Disk_Parm[i];
    }
    place.sectors = disk.Disk_Secs.get();
    place.tag_key = param.Tag_Key.get();
    place.read_sectors_max = packet_sectors(disk.Read_KB, disk.Disk_Flags, read_kb_default);
    place.write_sectors_max = packet_sectors(disk.Write_KB, disk.Disk_Flags, write_kb_default);
    place.retry_minutes = disk.Retry_Mins;
    place.tag_slot_form = (param.Boot_Flags & boot_flag_tag_slot) != 0;
    place.answers_queries = param.Rack_Level.get() >= rack_level_status_query;
    return place;
}

void BlockPacket::begin(const DiskPlace& disk, bool write, std::uint32_t lba, unsigned sectors,
                        std::uint16_t sequence)
{
    header_ = {};
    length_ = static_cast<std::uint16_t>(sectors * sector_bytes);
    write_ = write;
    complete_ = false;
    outstanding_ = all();
    for (unsigned i = 0; i < 4; ++i) {
        header_.Disk_Id[i] = disk.id[i];
        header_.Disk_Parm[i] = disk.parm[i];
    }
    header_.Kind = write ? kind_write : kind_read;
    const unsigned tag = length_ / 256u | (disk.tag_slot_form ? tag_without_offset : 0u);
    header_.Tag.set(static_cast<std::uint16_t>(tag ^ disk.tag_key));
    header_.Seq.set(sequence);
    header_.Byte_Offset.set((static_cast<std::uint64_t>(lba) + 1) * sector_bytes);
    header_.Length.set(length_);
    header_.Frag_Cnt.set(static_cast<std::uint16_t>(fragments()));
}

const WireHeader& BlockPacket::request(bool status_query)
{
    header_.Sub_Code = status_query ? sub_status_query : sub_request;
    header_.Recv_Mask.set(write_ ? 0 : static_cast<std::uint16_t>(~outstanding_ & all()));
    return header_;
}

const WireHeader& BlockPacket::fragment(unsigned index)
{
    const unsigned offset = index * fragment_bytes_max, rest = length_ - offset;
    request(false);
    header_.Frag_Off.set(static_cast<std::uint16_t>(offset));
    header_.Frag_Size.set(static_cast<std::uint16_t>(rest < fragment_bytes_max ? rest : fragment_bytes_max));
    header_.Frag_Num = static_cast<std::uint8_t>(index + 1);
    return header_;
}

Landing BlockPacket::take(const std::uint8_t* packet, unsigned size_bytes)
{
    Landing nothing{};
    if (size_bytes < request_bytes || complete_)
        return nothing;
    const auto* mine = reinterpret_cast<const std::uint8_t*>(&header_);
    for (unsigned i = 0; i < match_offset + match_bytes; ++i)
        if (i != offsetof(WireHeader, Sub_Code) && i != offsetof(WireHeader, Kind) && packet[i] != mine[i])
            return nothing;
    WireHeader answer{};
    auto* bytes = reinterpret_cast<std::uint8_t*>(&answer);
    for (unsigned i = 0; i < sizeof answer && i < size_bytes; ++i)
        bytes[i] = packet[i];
    if (!write_ && answer.Kind == kind_read_data && size_bytes >= header_bytes)
        return take_data(answer, size_bytes - header_bytes);
    Landing landing{};
    if (write_ && answer.Kind == kind_write_done) {
        complete_ = true;
        landing.is_ours = true;
    } else if (answer.Kind == kind_acknowledge) {
        landing.is_ours = true;
        if (write_) {
            outstanding_ = static_cast<std::uint16_t>(~answer.Recv_Mask.get() & all());
            landing.wants_resend = outstanding_ != 0;
        }
    }
    return landing;
}

Landing BlockPacket::take_data(const WireHeader& answer, unsigned data_bytes)
{
    Landing landing{};
    const unsigned number = answer.Frag_Num, offset = answer.Frag_Off.get(), size = answer.Frag_Size.get();
    if (number == 0 || number > 16)
        return landing;
    if (answer.Frag_Cnt.get() == 0) {
        landing.is_ours = landing.is_zeros = complete_ = true;
        outstanding_ = 0;
        return landing;
    }
    if (answer.Frag_Cnt.get() != fragments() || number > fragments() ||
        offset != (number - 1) * fragment_bytes_max || size == 0 || size != data_bytes ||
        size != (length_ - offset < fragment_bytes_max ? length_ - offset : fragment_bytes_max))
        return landing;
    landing.is_ours = true;
    const auto bit = static_cast<std::uint16_t>(1u << (number - 1));
    if ((outstanding_ & bit) == 0)
        return landing;
    landing.has_data = true;
    landing.offset = static_cast<std::uint16_t>(offset);
    landing.size = static_cast<std::uint16_t>(size);
    outstanding_ = static_cast<std::uint16_t>(outstanding_ & ~bit);
    complete_ = outstanding_ == 0;
    return landing;
}

unsigned BlockPacket::last_outstanding() const
{
    unsigned last = 0;
    for (unsigned i = 0; i < fragments(); ++i)
        if (is_outstanding(i))
            last = i;
    return last;
}

unsigned Window::next_sectors(unsigned in_flight, unsigned wanted, unsigned packet_max) const
{
    const unsigned most = wanted < packet_max ? wanted : packet_max;
    const unsigned room = in_flight < sectors_ ? sectors_ - in_flight : 0u;
    if (room >= most)
        return most;
    // A small packet costs as much as a large one.
    return in_flight == 0 || room >= packet_min ? room : 0;
}

void Window::packet_done(bool was_resent)
{
    if (spared_ != 0) {
        --spared_;
    } else if (was_resent) {
        spared_ = losses_spared;
        sectors_ = static_cast<std::uint8_t>(sectors_ / 2 < sectors_min ? sectors_min : sectors_ / 2);
    } else if (sectors_ < sectors_max) {
        sectors_ = static_cast<std::uint8_t>(sectors_ + 2);
    }
}

}  // namespace boot
