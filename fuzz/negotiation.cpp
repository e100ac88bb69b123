// SPDX-License-Identifier: MIT
// Answers to the question for a RAM cache, and the disk that comes of them.
//
// Input: a byte with the workstation's memory and flags, packets that come in the place of the answer (a
// length of 2 bytes, the bytes, which get the question's header; none: length 0), then the answer's 512
// bytes.
#include "fuzz/workstation.h"

using namespace fuzz;
using formats::WireHeader;

namespace {

constexpr std::uint64_t mb = 1 << 20;

Bytes data_packet(std::span<const std::uint8_t> question, std::span<const std::uint8_t> data)
{
    WireHeader header{};
    std::memcpy(&header, question.data(), formats::request_bytes);
    header.Kind = formats::kind_read_data;
    header.Frag_Off.set(0);
    header.Frag_Size.set(static_cast<std::uint16_t>(data.size()));
    header.Zero = 0;
    header.Frag_Num = 1;
    header.Frag_Cnt.set(1);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
    Bytes packet(bytes, bytes + sizeof header);
    packet.insert(packet.end(), data.begin(), data.end());
    return packet;
}

// Content is kept, whatever the size of the cache.
void use(machine::ScsiPort& scsi)
{
    constexpr unsigned bytes = 64 * 512;
    Bytes read(bytes);
    for (unsigned round = 1; round <= 2; ++round) {
        for (unsigned lba = 0; lba < 1024; lba += 500)
            require(scsi.write(1, lba + round, pattern(lba, bytes, round).data(), bytes), "writes succeed");
        for (unsigned lba = 0; lba < 1024; lba += 500)
            require(scsi.read(1, lba + round, read.data(), bytes) && read == pattern(lba, bytes, round),
                    "a cached disk reads what was written");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const unsigned how = input.u8();
    machine::MachineConfig config;
    config.memory_ranges = {{mb, (how & 1 ? 32 : 512) * mb}};
    config.unmanaged_above_4g_bytes = how & 2 ? 256 * mb : 0;
    Workstation workstation(
        two_disks(static_cast<std::uint8_t>(formats::disk_flag_ram_cache | 2 | (how & 0x20))), config);
    workstation.machine.registry().set_setting("PAE_SIZE", how & 4 ? 0 : how >> 3);
    workstation.intercept = [&](std::span<const std::uint8_t> packet) {
        const auto& question = *reinterpret_cast<const WireHeader*>(packet.data());
        if (question.Kind != formats::kind_read || question.Sub_Code != formats::sub_request ||
            question.Byte_Offset.get() != 0 || input.empty())
            return false;
        while (const unsigned bytes = input.u16() % 1024) {
            const auto piece = input.piece(bytes);
            Bytes other(piece.begin(), piece.end());
            make_answer(other, packet);
            workstation.answer(other);
        }
        formats::NegotiationReply reply{};
        input.fill(reply);
        workstation.answer(
            data_packet(packet, {reinterpret_cast<const std::uint8_t*>(&reply), sizeof reply}));
        return true;
    };
    workstation.run([&] { use(workstation.machine.scsi()); });
    return 0;
}
