// SPDX-License-Identifier: MIT
// The RAM cache of disks over servers that are plain memory: first single steps, then many workers at
// random, at tiny and at real size, with every sector's content known and the index checked at the end.
#include "driver/cache/cache_layer.h"

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "driver/state/memory_probe.h"
#include "machine/executive/executive.h"
#include "machine/scheduler/random.h"
#include "tests/driver/driver_test.h"
#include "tests/machine/kernel_test.h"
#include "tests/seeds.h"

namespace {

constexpr std::uint64_t mb = 1024 * 1024;

struct Request {
    char kind;  // 'r' or 'w'
    ULONG sector;
    LONG bytes;
    bool operator==(const Request&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Request& request)
{
    return out << request.kind << request.sector << "+" << request.bytes;
}

// A disk's server: one number per sector stands for its content.
class ServerDisk : public QRNH_OBJ_RW {
public:
    explicit ServerDisk(ULONG sectors) : generation(sectors) {}

    LONG Write(ULONG_PTR, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override
    {
        return transfer('w', static_cast<ULONG>(Sector), static_cast<UCHAR*>(pBuffer), Bytes);
    }
    LONG Read(ULONG_PTR, ULONGLONG Sector, PVOID pBuffer, LONG Bytes) override
    {
        return transfer('r', static_cast<ULONG>(Sector), static_cast<UCHAR*>(pBuffer), Bytes);
    }

    static void put(UCHAR* place, ULONG sector, ULONG value)
    {
        for (int i = 0; i < 512; i += 8) {
            std::memcpy(place + i, &sector, 4);
            std::memcpy(place + i + 4, &value, 4);
        }
    }
    // The generation of a sector's content, or a number that none has.
    static ULONG get(const UCHAR* place, ULONG sector)
    {
        UCHAR expected[512];
        ULONG value;
        std::memcpy(&value, place + 4, 4);
        put(expected, sector, value);
        return std::memcmp(expected, place, 512) == 0 ? value : ~0u;
    }

    std::vector<ULONG> generation;
    std::vector<Request> requests;
    std::function<void()> on_way;  // while a request is under way
    std::function<bool(char)> fails = [](char) { return false; };

private:
    LONG transfer(char kind, ULONG sector, UCHAR* data, LONG bytes)
    {
        requests.push_back({kind, sector, bytes});
        // What is written is taken when the request arrives, what is read as it leaves.
        std::vector<UCHAR> taken(data, data + bytes);
        if (on_way)
            on_way();
        if (fails(kind))
            return -bytes;
        for (ULONG i = 0; i < static_cast<ULONG>(bytes) / 512; ++i) {
            if (kind == 'w')
                generation.at(sector + i) = get(&taken[i * 512], sector + i);
            else
                put(data + i * 512, sector + i, generation.at(sector + i));
        }
        return bytes;
    }
};

// Disks that share one memory; its ring cut down to so many blocks when that is not 0.
struct Cached {
    Cached(unsigned disk_nums, ULONG disk_mb, LONG blocks, ULONG memory_mb = 4)
    {
        Phys_Mem_Probe();
        EXPECT_EQ(memory.Create(memory_mb, 1), 0);
        if (blocks) {
            memory.LRU_Nums = blocks;
            memory.pLRU_Cur = LRU_Init(memory.pLRU_Nodes, blocks);
            memory.pLRU_Mid = memory.pLRU_Nodes + 4 * blocks / 5;
            memory.pLRU_End = memory.pLRU_Nodes + blocks - 1;
            const ULONG last = 524 * static_cast<ULONG>(blocks);
            memory.Ent_Get(last)->Next_Free = 0;
            memory.Ent_Put(last);
        }
        for (unsigned i = 0; i < disk_nums; ++i) {
            servers.push_back(std::make_unique<ServerDisk>(disk_mb * 2048 + 4096));
            layers.push_back(std::make_unique<QRNH_MEM_RW>());
            EXPECT_EQ(layers.back()->Create(servers.back().get(), disk_mb, &memory), 0);
        }
    }
    ~Cached()
    {
        for (auto& layer : layers)
            layer->Destory();
        EXPECT_EQ(memory.Users, 0);
        memory.Destory();
    }

    LONG write(ULONG sector, ULONG sectors, ULONG value, unsigned disk = 0)
    {
        std::vector<UCHAR> data(sectors * 512);
        for (ULONG i = 0; i < sectors; ++i)
            ServerDisk::put(&data[i * 512], sector + i, value);
        return layers[disk]->Write(0, sector, data.data(), static_cast<LONG>(data.size()));
    }
    // The generation that all sectors have, or a number that none has.
    ULONG read(ULONG sector, ULONG sectors, unsigned disk = 0)
    {
        std::vector<UCHAR> data(sectors * 512);
        EXPECT_EQ(layers[disk]->Read(0, sector, data.data(), static_cast<LONG>(data.size())),
                  static_cast<LONG>(data.size()));
        const ULONG first = ServerDisk::get(data.data(), sector);
        for (ULONG i = 1; i < sectors; ++i)
            if (ServerDisk::get(&data[i * 512], sector + i) != first)
                return ~0u;
        return first;
    }
    std::vector<Request> requests(unsigned disk = 0) { return std::exchange(servers[disk]->requests, {}); }

    // Every block has at most one place and that place names it; entries count right; none is lost; no
    // block or window is held.
    void expect_sound()
    {
        LONG listed = 0;
        std::set<ULONG> used;
        for (LONG b = 0; b < memory.LRU_Nums; ++b) {
            LRU_Node* node = memory.pLRU_Nodes + b;
            ASSERT_EQ(node->InUse_Nums, 0);
            const Rec_64K record = *memory.Rec_Get(node);
            memory.Rec_Put(node);
            if (record.Slot_Ref == 0)
                continue;
            ++listed;
            used.insert(record.Slot_Ref / 524);
            Ent_8M* entry = memory.Ent_Get(record.Slot_Ref);
            ASSERT_EQ(entry->pNode[node->ID % 128], node);
            ASSERT_EQ(record.Slot_Ref % 524, 8 + 4 * (node->ID % 128));
            ASSERT_NE(entry->pTBL_Slot, nullptr);
            ASSERT_EQ(*entry->pTBL_Slot / 524, record.Slot_Ref / 524) << "the region's own entry";
            memory.Ent_Put(record.Slot_Ref);
        }
        LONG counted = 0;
        for (const ULONG k : used) {
            const Ent_8M* entry = memory.Ent_Get(524 * k);
            LONG slots = 0;
            for (const LRU_Node* node : entry->pNode)
                slots += node != nullptr;
            ASSERT_EQ(static_cast<LONG>(entry->Nums), slots);
            counted += slots;
            memory.Ent_Put(524 * k);
        }
        ASSERT_EQ(counted, listed);
        LONG free = 0;
        for (ULONG h = memory.p8M_List; h != 0; ++free) {
            ASSERT_LE(free, memory.LRU_Nums);
            const Ent_8M* entry = memory.Ent_Get(h);
            ASSERT_EQ(entry->pTBL_Slot, nullptr);
            ASSERT_EQ(entry->Nums, 0u);
            const ULONG next = entry->Next_Free;
            memory.Ent_Put(h);
            h = next;
        }
        ASSERT_EQ(free + static_cast<LONG>(used.size()), memory.LRU_Nums);
        for (LONG i = 0; i < std::min<LONG>(memory.pQRN_MDL->MDL_Nums, 8); ++i)
            ASSERT_EQ(memory.pQRN_MDL->MDL.pNodes[i].InUse_Nums, 0);
    }

    QRNH_OBJ_MEM memory{};
    std::vector<std::unique_ptr<ServerDisk>> servers;
    std::vector<std::unique_ptr<QRNH_MEM_RW>> layers;
};

machine::MachineConfig with_seed(std::uint64_t seed, std::uint64_t memory_mb = 64)
{
    machine::MachineConfig config;
    config.seed = seed;
    config.memory_ranges = {{mb, std::max<std::uint64_t>(memory_mb, 70) * mb}};
    return config;
}

using Requests = std::vector<Request>;

TEST(CacheLayer, Reads_fetch_what_is_absent_in_one_request_and_keep_it)
{
    DriverPiece driver(with_seed(1));
    driver.run([&] {
        Cached c(1, 64, 0);
        EXPECT_EQ(c.read(1, 128), 0u);
        EXPECT_EQ(c.requests(), (Requests{{'r', 1, 65536}})) << "across the end of the chunk";
        EXPECT_EQ(c.read(1, 128), 0u);
        EXPECT_EQ(c.requests(), Requests{});
        c.servers[0]->generation.assign(c.servers[0]->generation.size(), 7);
        EXPECT_EQ(c.read(120, 8), 0u) << "from the cache";
        c.read(100, 200);
        EXPECT_EQ(c.requests(), (Requests{{'r', 129, 171 * 512}}));
        EXPECT_EQ(c.read(129, 171), 7u);
        EXPECT_EQ(c.requests(), Requests{});

        // A hole between present sectors, and one that ends where the next chunk is present.
        EXPECT_EQ(c.read(1024 + 10, 10), 7u);
        EXPECT_EQ(c.read(1024 + 30, 10), 7u);
        c.requests();
        EXPECT_EQ(c.read(1024 + 5, 50), 7u);
        EXPECT_EQ(c.requests(),
                  (Requests{{'r', 1029, 5 * 512}, {'r', 1044, 10 * 512}, {'r', 1064, 15 * 512}}));
        EXPECT_EQ(c.read(2048 + 128, 1), 7u);
        c.requests();
        EXPECT_EQ(c.read(2048, 384), 7u);
        EXPECT_EQ(c.requests(), (Requests{{'r', 2048, 65536}, {'r', 2177, 255 * 512}}));
        c.expect_sound();
    });
}

TEST(CacheLayer, Writes_stay_until_their_room_is_needed)
{
    DriverPiece driver(with_seed(1));
    driver.run([&] {
        Cached c(2, 64, 10);
        EXPECT_EQ(c.read(0, 128), 0u);
        EXPECT_EQ(c.write(10, 4, 5), 2048);
        EXPECT_EQ(c.read(10, 4), 5u);
        c.requests();
        EXPECT_EQ(c.read(0, 10), 0u);
        EXPECT_EQ(c.requests(), (Requests{{'r', 0, 5120}})) << "a write makes a clean block forget";
        EXPECT_EQ(c.write(20, 2, 6), 1024);
        EXPECT_EQ(c.read(14, 6), 0u);
        EXPECT_EQ(c.requests(), (Requests{{'r', 14, 6 * 512}})) << "read, and not kept beside written data";
        for (ULONG chunk = 1; chunk < 10; ++chunk)
            EXPECT_EQ(c.write(chunk * 128, 1, 9, 1), 512);
        EXPECT_EQ(c.requests(), Requests{});
        EXPECT_EQ(c.requests(1), Requests{});

        // Eleven chunks in ten blocks: the first disk's block makes room in two runs, for the second disk.
        EXPECT_EQ(c.write(10 * 128, 1, 9, 1), 512);
        EXPECT_EQ(c.write(11 * 128, 1, 9, 1), 512);
        EXPECT_EQ(c.requests(1).size() + c.requests().size(), 3u);
        EXPECT_EQ(c.servers[0]->generation[13], 5u);
        EXPECT_EQ(c.servers[0]->generation[21], 6u);
        EXPECT_EQ(c.read(10, 4), 5u) << "from the server again";
        // No block is empty any more: what is read is not kept.
        c.requests();
        c.read(4000, 8);
        c.read(4000, 8);
        EXPECT_EQ(c.requests().size(), 2u);
        c.expect_sound();
    });
}

TEST(CacheLayer, What_cannot_be_cached_goes_straight_to_the_server)
{
    DriverPiece driver(with_seed(1));
    driver.run([&] {
        Cached c(2, 8, 10);
        // The last sector of the disk, and one behind its last region.
        EXPECT_EQ(c.write(16384, 1, 2), 512);
        EXPECT_EQ(c.read(16384, 1), 2u);
        EXPECT_EQ(c.requests(), Requests{});
        c.servers[0]->generation.resize(32770);
        EXPECT_EQ(c.write(32768, 2, 3), 1024);
        EXPECT_EQ(c.read(32768, 2), 3u);
        EXPECT_EQ(c.requests(), (Requests{{'w', 32768, 1024}, {'r', 32768, 1024}}));
        EXPECT_GE(driver.machine.log().count("\nQRNH_MEM_RW: 8M_Idx=2(2), Error!"), 2u);

        // A write-back that fails: the writer goes on without the cache, the dirty block stays whole.
        for (ULONG chunk = 0; chunk < 10; ++chunk)
            EXPECT_EQ(c.write(chunk * 128, 4, 20 + chunk), 2048);
        c.servers[0]->fails = [](char kind) { return kind == 'w'; };
        EXPECT_EQ(c.write(640, 1, 77, 1), 512);
        EXPECT_EQ(c.servers[1]->generation[640], 77u);
        EXPECT_EQ(c.write(11 * 128, 1, 1), -512) << "its own server is the one that fails";
        c.servers[0]->fails = [](char) { return false; };
        for (ULONG chunk = 0; chunk < 10; ++chunk)
            EXPECT_EQ(c.read(chunk * 128, 4), 20 + chunk);
        c.servers[1]->fails = [](char) { return true; };
        std::vector<UCHAR> data(4096);
        EXPECT_EQ(c.layers[1]->Read(0, 50, data.data(), 4096), -4096);
        EXPECT_EQ(c.layers[1]->Read(0, 50, data.data(), 0), 0);

        c.expect_sound();
    });
}

// Of a disk whose server is gone every write of every other disk would else try the same block first.
TEST(CacheLayer, Block_that_cannot_be_written_back_is_not_tried_again_at_once)
{
    DriverPiece driver(with_seed(1));
    driver.run([&] {
        Cached c(2, 8, 10);
        EXPECT_EQ(c.write(0, 4, 1, 0), 2048);
        for (ULONG chunk = 0; chunk < 9; ++chunk)
            EXPECT_EQ(c.write(chunk * 128, 4, 20 + chunk, 1), 2048);
        c.requests(0);
        c.servers[0]->fails = [](char) { return true; };
        for (ULONG chunk = 20; chunk < 26; ++chunk)
            EXPECT_EQ(c.write(chunk * 128, 4, chunk, 1), 2048);
        EXPECT_EQ(c.requests(0).size(), 1u);
        c.servers[0]->fails = [](char) { return false; };
        EXPECT_EQ(c.read(0, 4, 0), 1u);
        for (ULONG chunk = 20; chunk < 26; ++chunk)
            EXPECT_EQ(c.read(chunk * 128, 4, 1), chunk);
        c.expect_sound();
    });
}

// The block that a disk found last may be taken from it by a disk that then cannot use it.
TEST(CacheLayer, A_block_that_lost_its_place_takes_no_more_writes)
{
    DriverPiece driver(with_seed(1));
    driver.run([&] {
        Cached c(2, 8, 10);
        for (ULONG round = 1; round < 60; ++round) {
            // A block in the hot part that will outlast the next one found.
            for (const ULONG sector : {8000u, 9000u, 8000u})
                EXPECT_EQ(c.write(sector, 1, round, 0), 512);
            const ULONG at = round % 50 * 128;
            EXPECT_EQ(c.write(at, 1, round, 0), 512);
            // Until, in some round, that one is just the next to be used again.
            for (ULONG i = 0; i < round % 15; ++i)
                EXPECT_EQ(c.write((round * 15 + i) % 120 * 128, 1, round, 1), 512);
            EXPECT_EQ(c.write(16384, 1, round, 1), 512);
            EXPECT_EQ(c.write(at, 1, round + 100, 0), 512);
            EXPECT_EQ(c.read(8000, 1, 0), round);
            EXPECT_EQ(c.read(at, 1, 0), round + 100);
        }
        c.expect_sound();
    });
}

// Workers of one or two disks, each disk's sectors shared by all. A sector's newest generation is known
// while nobody writes it; the clients take care that no two touch a sector at once.
struct Load {
    unsigned disks, workers;
    LONG blocks;                             // of the memory; 0: all
    ULONG disk_mb, memory_mb, span_sectors;  // span: what is used of each disk
    unsigned operations;
    bool failures;
};

void run_load(std::uint64_t seed, const Load& load)
{
    DriverPiece driver(with_seed(seed, load.memory_mb + 16));
    driver.run([&] {
        Cached c(load.disks, load.disk_mb, load.blocks, load.memory_mb);
        machine::Random random(seed);
        std::vector<std::vector<ULONG>> newest(load.disks, std::vector<ULONG>(load.span_sectors));
        std::vector<std::vector<bool>> busy(load.disks, std::vector<bool>(load.span_sectors));
        ULONG generation = 0, failed = 0;
        for (auto& server : c.servers) {
            server->on_way = [&] { driver.machine.sleep_ms(random.below(4)); };
            if (load.failures)
                server->fails = [&](char) { return random.chance(0.1); };
        }
        const auto operation = [&] {
            const unsigned disk = random.below(load.disks);
            const ULONG sectors = 1 + random.below(128);
            const ULONG at = random.below(load.span_sectors - sectors);
            for (ULONG i = at; i < at + sectors; ++i)
                if (busy[disk][i])
                    return;
            std::fill_n(busy[disk].begin() + static_cast<long>(at), sectors, true);
            std::vector<UCHAR> data(sectors * 512);
            const bool write = random.chance(0.5);
            const ULONG value = ++generation;
            // As a worker goes on: what the cache does not do is done past it, or tried again.
            for (ULONG done = 0; done < sectors;) {
                for (ULONG i = done; write && i < sectors; ++i)
                    ServerDisk::put(&data[i * 512], at + i, value);
                const auto left = static_cast<LONG>((sectors - done) * 512);
                QRNH_MEM_RW& layer = *c.layers[disk];
                const LONG result = write ? layer.Write(0, at + done, &data[done * 512], left)
                                          : layer.Read(0, at + done, &data[done * 512], left);
                ASSERT_NE(result, 0);
                ASSERT_LE(std::abs(result), left);
                failed += result < 0;
                done += result > 0 ? static_cast<ULONG>(result) / 512 : 0;
            }
            for (ULONG i = 0; i < sectors; ++i) {
                if (write)
                    newest[disk][at + i] = value;
                else
                    ASSERT_EQ(ServerDisk::get(&data[i * 512], at + i), newest[disk][at + i])
                        << "disk " << disk << " sector " << at + i << " seed " << seed;
            }
            std::fill_n(busy[disk].begin() + static_cast<long>(at), sectors, false);
        };
        const auto work = [&](int) {
            for (unsigned i = 0; i < load.operations && !testing::Test::HasFatalFailure(); ++i) {
                operation();
                if (random.chance(0.3))
                    driver.machine.sleep_ms(random.below(3));
            }
        };
        machine::test::run_threads(static_cast<int>(load.workers), work);
        for (auto& server : c.servers)
            server->fails = [](char) { return false; };
        for (unsigned disk = 0; disk < load.disks; ++disk)
            for (ULONG i = 0; i < load.span_sectors; ++i)
                ASSERT_EQ(c.read(i, 1, disk), newest[disk][i]) << "disk " << disk << " sector " << i;
        c.expect_sound();
        EXPECT_EQ(failed != 0, load.failures);
        EXPECT_EQ(driver.machine.log().count("Error"), 0u) << driver.machine.log().text();
    });
}

TEST(CacheLayer, Every_read_returns_the_newest_content_with_a_few_blocks)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(25); ++seed)
        run_load(seed, {1 + static_cast<unsigned>(seed % 2), 6, 12, 64, 4, 6000, 120, seed % 3 == 0});
}

TEST(CacheLayer, Every_read_returns_the_newest_content_with_more_chunks_than_windows)
{
    for (std::uint64_t seed = 1; seed <= seeds_of(3); ++seed)
        run_load(seed, {2, 8, 0, 64, 48, 70000, 400, seed == 3});
}

}  // namespace
