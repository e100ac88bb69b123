// SPDX-License-Identifier: MIT
// The server's status poll in every state that the reply reports.
//
// Input: a byte that says which caches and images there are, the poll's 240 bytes, the boot parameter block,
// the counters, the image's header.
#include <memory>

#include "driver/engine/status_poll.h"
#include "driver/image/image_setup.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"
#include "formats/wire.h"
#include "fuzz/kernel.h"

using namespace fuzz;

namespace {

struct Sent {
    formats::ServerRecord to;
    const void* packet = nullptr;
    ULONG bytes = 0;
    unsigned packets = 0;
} sent;

VOID NTAPI send(PVOID server, PVOID header, ULONG header_bytes, PVOID, ULONG data_bytes)
{
    require(data_bytes == 0, "the reply is one piece");
    sent = {*static_cast<formats::ServerRecord*>(server), header, header_bytes, sent.packets + 1};
}

// Whatever stands in a cache object's first words.
struct Cache final : QRNH_OBJ_RW {
    LONG Write(ULONG_PTR, ULONGLONG, PVOID, LONG) override { return 0; }
    LONG Read(ULONG_PTR, ULONGLONG, PVOID, LONG) override { return 0; }
    std::uint32_t words[3] = {1, 2, 3};
};

void check_reply(const Bytes& poll, const Bytes& buffer, unsigned how)
{
    const auto& reply = *reinterpret_cast<const formats::PollReply*>(buffer.data());
    std::uint32_t mark;
    std::memcpy(&mark, poll.data(), sizeof mark);
    require(sent.packets == 1 && sent.packet == buffer.data() && sent.bytes == 226, "a poll has one reply");
    require(std::memcmp(&sent.to, &poll[8], sizeof sent.to) == 0 &&
                std::memcmp(&buffer[226], &poll[8], 14) == 0,
            "it goes to the poller");
    require(reply.Mark.get() == mark + 1 && std::memcmp(reply.Cookie, &poll[6], 2) == 0,
            "it is of this poll");
    require(std::memcmp(&buffer[8], reinterpret_cast<const std::uint8_t*>(&Boot_Param) + 8, 34) == 0,
            "it names the workstation");
    for (unsigned lun = 0; lun < 4; ++lun) {
        require(std::memcmp(&reply.Disks[lun].Rd_Seq, const_cast<LONG*>(&Lun_Stats[lun].Rd.Seq), 24) == 0,
                "it has the counters");
        const bool empty = std::ranges::all_of(reply.Cache[lun], [](auto byte) { return byte == 0; });
        require(empty == !(how >> lun & 1), "it shows the caches that there are");
    }
    require(how & 0x10 || (reply.Image_Units.get() == 0 && reply.Image_Position.get() == 0),
            "it shows no image");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    DriverPiece driver;
    driver.run([&] {
        Input input(data, size);
        const unsigned how = input.u8();
        const auto first = input.piece(formats::poll_buffer_bytes);
        Bytes poll(first.begin(), first.end());
        poll.resize(formats::poll_buffer_bytes);
        input.fill(Boot_Param);
        input.fill(Lun_Stats);
        auto area = std::make_unique<QRNH_OBJ_IMG>();
        input.fill(area->Header);
        auto image = std::make_unique<QRNH_IMG_RW>(area.get(), 0);
        Cache caches[4];
        for (unsigned lun = 0; lun < 4; ++lun)
            Local_Cache[lun].pMC_Write = how >> lun & 1 ? &caches[lun] : nullptr;
        pQRNH_Img_Sys = how & 0x10 ? image.get() : nullptr;
        Ndis_Handover.QRN_Send = send;
        sent = {};
        Bytes buffer = poll;
        Answer_Poll(buffer.data());
        check_reply(poll, buffer, how);
    });
    return 0;
}
