// SPDX-License-Identifier: MIT
// A fleet without sockets, in virtual time, and workstations that talk to it.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>

#include "formats/boot_request.h"
#include "server/fleet.h"
#include "tests/scratch_folder.h"
#include "tests/server/workstation_model.h"

namespace server_test {

using server::Fleet;
using server::Peer;
using server::WorkPool;
using Json = nlohmann::json;

// What the network brings to each workstation, by address.
struct Network {
    std::mutex lock;
    std::map<std::string, std::vector<Bytes>> arrived;
    std::vector<std::string> order;  // of all packets, whose they are

    std::vector<Bytes> take(const Peer& at)
    {
        std::lock_guard guard(lock);
        return std::exchange(arrived[server::to_text(at)], {});
    }
};

class NetworkSink : public server::PacketSink {
public:
    explicit NetworkSink(Network& network) : network_(network) {}
    void send(const Peer& to, std::span<const std::uint8_t> header,
              std::span<const std::uint8_t> data) override
    {
        Bytes packet(header.begin(), header.end());
        packet.insert(packet.end(), data.begin(), data.end());
        std::lock_guard guard(network_.lock);
        network_.arrived[server::to_text(to)].push_back(packet);
        network_.order.push_back(server::to_text(to));
    }

private:
    Network& network_;
};

// Reads and writes of the file "slow" wait while the gate is closed.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool closed = false;
    void pass()
    {
        std::unique_lock held(lock);
        changed.wait(held, [this] { return !closed; });
    }
    void set(bool to)
    {
        std::lock_guard guard(lock);
        closed = to;
        changed.notify_all();
    }
};
inline Gate gate;

inline int slow_error = 0;  // of its writes, an errno
inline std::size_t read_together_most = 0;

class SlowStore : public server::StoreAround {
public:
    using StoreAround::StoreAround;
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        if (slow_error == 0)
            return StoreAround::write(offset, data);
        errno = slow_error;
        return false;
    }
    bool read_now(std::uint64_t, std::span<std::uint8_t>) override { return false; }
    void read_ahead(std::span<server::ReadAhead> reads) override
    {
        read_together_most = std::max(read_together_most, reads.size());
        for (server::ReadAhead& read : reads)
            read.done = StoreAround::read(read.offset, read.out);
    }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        gate.pass();
        return StoreAround::read(offset, out);
    }
};

inline unsigned flushes = 0;  // of all images

class CountedStore : public server::StoreAround {
public:
    using StoreAround::StoreAround;
    bool flush() override
    {
        ++flushes;
        return StoreAround::flush();
    }
};

inline std::shared_ptr<server::BlockStore> open_for_test(const std::string& path, bool readonly)
{
    std::shared_ptr<server::BlockStore> file =
        std::make_shared<CountedStore>(server::open_file_store(path, readonly));
    return path.ends_with("slow") ? std::make_shared<SlowStore>(file) : file;
}

struct Room {
    explicit Room(const std::string& disks, unsigned threads = 0, const std::string& more = "")
        : text(fmt_config(disks, more)),
          pool(
              threads, [this] { return std::make_unique<NetworkSink>(network); }, [this] { return now_ms; })
    {
        for (const char* name : {"golden", "slow"}) {
            Bytes content(image_bytes);
            fill(content, 5);
            std::ofstream(folder / name, std::ios::binary)
                .write(reinterpret_cast<const char*>(content.data()),
                       static_cast<std::streamsize>(content.size()));
        }
        open();
    }
    ~Room() { pool.finish(1000); }
    void open()
    {
        fleet.reset();
        Peer self{{10, 0, 0, 1}, {}, {}, {}};
        self.Port.set(8520);
        fleet = std::make_unique<Fleet>(server::parse_fleet_config(text, "test"), folder / "config", self,
                                        pool, open_for_test, [this] { return now_ms; });
    }
    std::string fmt_config(const std::string& disks, const std::string& more) const
    {
        return "[server]\nlisten = \"10.0.0.1:8520\"\nstate = \"" + folder / "state" +
               "\"\nallow = [\"10.0.0.0/24\"]\n[images.golden]\npath = \"" + folder / "golden" +
               "\"\n[images.slow]\npath = \"" + folder / "slow" + "\"\n[groups.g]\ndisks = [" + disks +
               "]\n[unknown]\npolicy = \"group\"\ngroup = \"g\"\n" + more;
    }
    Json command(const std::string& name, Json more = Json::object())
    {
        more["command"] = name;
        return fleet->command(more);
    }
    std::uint64_t dropped(const char* what) { return command("list")["server"]["dropped"][what]; }

    static constexpr std::size_t image_bytes = 256 * 1024;
    const ScratchFolder folder;
    std::string text;
    std::uint64_t now_ms = 1000;
    Network network;
    WorkPool pool;
    std::unique_ptr<Fleet> fleet;
};

struct Pc {
    Pc(Room& in, unsigned pc_number)
        : room(in), number(pc_number), at(peer(static_cast<std::uint8_t>(pc_number + 10), 700)),
          content(Room::image_bytes)
    {
        fill(content, 5);
    }
    formats::BootAnswer boot(std::uint32_t cookie)
    {
        formats::BootRequest request{};
        std::memcpy(request.Mark, formats::boot_mark, 4);
        request.Version = formats::boot_version;
        request.Kind = formats::boot_kind_request;
        request.Length.set(sizeof request);
        request.Cookie.set(cookie);
        request.Hardware[0] = 2;
        request.Hardware[5] = static_cast<std::uint8_t>(number);
        room.fleet->receive(at, {reinterpret_cast<const std::uint8_t*>(&request), sizeof request});
        room.pool.run_all();
        formats::BootAnswer answer{};
        const auto packets = room.network.take(at);
        EXPECT_EQ(packets.size(), 1u);
        if (packets.size() == 1)
            std::memcpy(&answer, packets[0].data(), std::min(packets[0].size(), sizeof answer));
        if (answer.Kind == formats::boot_kind_answer)
            param = answer.Param;
        return answer;
    }
    Packet addressed(Packet packet, unsigned lun = 0) const
    {
        std::memcpy(packet.header.Disk_Id, param.Disks[lun].Disk_Id, 4);
        std::memcpy(packet.header.Disk_Parm, param.Disks[lun].Disk_Parm, 4);
        return packet;
    }
    // Sends it, and again while something is missing and answers come.
    void send(Packet& packet)
    {
        for (const Bytes& bytes : packet.send())
            room.fleet->receive(at, bytes);
        room.pool.run_all();
        collect(packet);
    }
    void collect(Packet& packet)
    {
        for (const Bytes& bytes : room.network.take(at))
            packet.receive(bytes);
    }
    bool write(std::uint64_t sector, unsigned bytes, std::uint64_t seed, unsigned lun = 0)
    {
        Packet packet = addressed(make_write(sector, bytes, ++sequence, seed), lun);
        send(packet);
        if (packet.complete())
            std::ranges::copy(packet.data, content.begin() + static_cast<std::ptrdiff_t>(sector * 512));
        return packet.complete();
    }
    Packet read(std::uint64_t sector, unsigned bytes, unsigned lun = 0)
    {
        Packet packet = addressed(Packet(formats::kind_read, sector, bytes, ++sequence), lun);
        send(packet);
        return packet;
    }
    void expect_own_content()
    {
        for (std::size_t at_byte = 0; at_byte < content.size(); at_byte += 16384) {
            const Packet packet = read(at_byte / 512, 16384);
            ASSERT_TRUE(packet.complete()) << "pc " << number;
            ASSERT_TRUE(std::equal(packet.data.begin(), packet.data.end(),
                                   content.begin() + static_cast<std::ptrdiff_t>(at_byte)))
                << "pc " << number << " at byte " << at_byte;
        }
    }
    void shut_down()
    {
        Packet packet = addressed(Packet(formats::kind_shutdown, 0, 512, ++sequence));
        room.fleet->receive(at, packet.request());
        room.pool.run_all();
    }

    Room& room;
    unsigned number;
    Peer at;
    Bytes content;
    formats::Boot_Param param{};
    std::uint16_t sequence = 0;
};

}  // namespace server_test
