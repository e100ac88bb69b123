// SPDX-License-Identifier: MIT
// The boot program's transfers while the network says what it likes: nothing but the sectors asked for is
// touched, and once an honest server is heard again every transfer ends.
//
// Input: direction, LUN and mirror, sectors, packet sizes; then what each look for a datagram finds: nothing
// for some ticks, a datagram as it stands, one that is made to match what was asked, or the honest server's
// next answer. Without lies the bytes must be the server's.
#include <deque>

#include "boot/medium.h"
#include "boot/transfer.h"
#include "fuzz/input.h"
#include "tests/server/workstation_model.h"

using namespace boot;
using namespace fuzz;

namespace {

constexpr unsigned disk_sectors = 256;
constexpr std::uint8_t mirror_id[4] = {0x51, 0x52, 0x10, 0x01};
constexpr std::uint32_t memory_at = 0x20010, memory_bytes = 0x20000;

struct World {
    explicit World(Input& the_input) : input(the_input)
    {
        for (const auto& id : {server_test::disk_id, mirror_id}) {
            server::DiskOptions options;
            std::memcpy(options.disk_id, id, 4);
            protocol.add_disk(options, store);
        }
        for (std::size_t i = 0; i < store.bytes().size(); ++i)
            store.bytes()[i] = static_cast<std::uint8_t>(i / 512 * 7 + i);
    }
    void pass(std::span<const std::uint8_t> datagram)
    {
        asked = Bytes(datagram.begin(), datagram.end());
        protocol.receive(server_test::peer(9, 9), asked);
        for (Bytes& answer : sink.take())
            if (line.size() < 256)
                line.push_back(std::move(answer));
    }
    unsigned arrive(const Bytes& datagram)
    {
        const std::size_t size = std::min<std::size_t>(datagram.size(), datagram_bytes_max);
        std::copy_n(datagram.begin(), size, receive_buffer);
        return static_cast<unsigned>(size);
    }
    unsigned honest()
    {
        if (line.empty()) {
            ++ticks;
            return 0;
        }
        const Bytes next = std::move(line.front());
        line.pop_front();
        return arrive(next);
    }
    Bytes lie(bool matching)
    {
        const auto bytes = input.piece(input.u8() * 8u);
        Bytes datagram(bytes.begin(), bytes.end());
        const std::size_t match = formats::match_offset + formats::match_bytes;
        if (matching && datagram.size() >= formats::request_bytes && asked.size() >= match) {
            const std::uint8_t kind = datagram[5];
            std::copy_n(asked.begin(), match, datagram.begin());
            datagram[5] = kind;
            lied = true;
        }
        return datagram;
    }
    unsigned look()
    {
        if (input.empty()) {
            require(++looks < 100000, "every transfer ends");
            return honest();
        }
        const std::uint8_t control = input.u8();
        switch (control % 4) {
        case 0:
            ticks += control / 4;
            return 0;
        case 1:
            return arrive(lie(false));
        case 2:
            return arrive(lie(true));
        default:
            return honest();
        }
    }
    std::uint8_t* at(std::uint32_t linear, unsigned byte_count)
    {
        require(linear >= begin && linear + byte_count <= begin + bytes,
                "only the sectors asked for are touched");
        return memory.data() + (linear - memory_at);
    }

    Input& input;
    server_test::RecordingSink sink;
    server_test::SparseStore store{disk_sectors * 512};
    server::Protocol protocol{sink};
    std::deque<Bytes> line;
    Bytes asked, memory = Bytes(memory_bytes);
    std::uint32_t ticks = 0, begin = 0, bytes = 0;
    unsigned looks = 0;  // since the last of the input
    bool lied = false;
};
World* world;

}  // namespace

namespace boot {

std::uint8_t receive_buffer[datagram_bytes_max];

bool send(const std::uint8_t (&)[4], std::uint16_t, const void* datagram, unsigned size_bytes)
{
    world->pass({static_cast<const std::uint8_t*>(datagram), size_bytes});
    return true;
}

unsigned receive()
{
    return world->look();
}

std::uint32_t bios_ticks()
{
    return world->ticks;
}

void copy_out(std::uint32_t linear, const void* ours, unsigned byte_count)
{
    std::memcpy(world->at(linear, byte_count), ours, byte_count);
}

void copy_in(void* ours, std::uint32_t linear, unsigned byte_count)
{
    std::memcpy(ours, world->at(linear, byte_count), byte_count);
}

void zero_out(std::uint32_t linear, unsigned byte_count)
{
    std::memset(world->at(linear, byte_count), 0, byte_count);
}

extern "C" void put_char(char) {}

}  // namespace boot

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::uint8_t what = input.u8(), sizes = input.u8();
    World here(input);
    world = &here;
    formats::Boot_Param param{};
    param.Lun_Nums = 2;
    param.Boot_Flags = formats::boot_flag_tag_slot;
    param.Rack_Level.set(what & 8 ? formats::rack_level_status_query : 0);
    const unsigned lun = what & 1, sectors = 1 + input.u8() % 128u,
                   lba = input.u8() % (disk_sectors - sectors);
    formats::Disk_Info& disk = param.Disks[lun];
    std::memcpy(&disk.Disk_Id, what & 4 ? mirror_id : server_test::disk_id, 4);
    disk.Disk_Secs.set(disk_sectors);
    disk.Read_KB = static_cast<std::uint8_t>(1 + sizes % 16);
    disk.Write_KB = static_cast<std::uint8_t>(1 + sizes / 16);
    disk.Retry_Mins = what & 16 ? 1 : 0;
    param.Main_Server[lun].Ip[3] = 1;
    param.Main_Server[lun].Port.set(8520);
    if (what & 4) {
        param.Slave_Server[lun].Ip[3] = 2;
        param.Slave_Server[lun].Port.set(8520);
    }
    start_sequence(what);
    set_disk(lun, make_disk_place(param, lun));
    here.begin = memory_at + what / 32 * 512u;
    here.bytes = sectors * 512;
    const bool write = (what & 2) != 0;
    for (std::size_t i = 0; write && i < here.bytes; ++i)
        here.memory[here.begin - memory_at + i] = static_cast<std::uint8_t>(~i * 5);
    const bool done = transfer(lun, write ? Direction::write : Direction::read, lba, sectors, here.begin);
    require(done || write || lun != 0, "a read of LUN 0 is not given up");
    if (done && !here.lied)
        require(std::equal(here.memory.begin() + (here.begin - memory_at),
                           here.memory.begin() + (here.begin - memory_at) + here.bytes,
                           here.store.bytes().begin() + lba * 512),
                "memory and disk are the same afterwards");
    return 0;
}
