// SPDX-License-Identifier: MIT
// The synchronisation over areas in memory: what it prints and leaves, and then, at random, servers that
// change, disks and networks that fail, stop requests, readers beside it, and a look at the disk at every
// write as a cut of power would leave it.
#include "driver/image/image_sync.h"

#include <memory>
#include <optional>

#include "driver/block/sector_flags.h"
#include "tests/image/memory_area.h"
#include "tests/seeds.h"

using namespace image_test;

namespace {

constexpr ULONG disk_sectors = 300 * 128 + 70;
constexpr ULONG chunks = 301;
constexpr ULONG area_sectors = 16 + 40 * 128 + 20 * 8;

// Versions by LBA, which is the map's sector number; 0: absent.
using Content = std::vector<ULONG>;

// The server's image, and what it held under each of its tags.
class Server {
public:
    Server() : area_(area_sectors), content(chunks * 128)
    {
        EXPECT_EQ(area_.open(0), 0);
        area_.Header.Size.set(disk_sectors);
        disk_ = std::make_unique<QRNH_IMG_RW>(&area_, 0);
        ended();
    }
    void write(ULONG lba, ULONG count)
    {
        std::vector<UCHAR> data(512);
        for (ULONG i = 0; i < count; ++i) {
            content[lba + i] = ++version_;
            put_sector(data.data(), 0, lba + i, version_);
            ASSERT_EQ(disk_->Write(0, lba + i + 1, data.data(), 512), 512);
        }
        ended();
    }
    void remove(ULONG chunk)
    {
        EXPECT_TRUE(disk_->Entry_Reset(chunk));
        std::fill_n(&content[chunk * 128], 128, 0u);
        ended();
    }
    void modify() { area_.QRNH_Header_Modify(); }
    void change(machine::Random& random)
    {
        constexpr ULONG places[] = {0, 1, 2, 60, 126, 127, 128, 129, 255, 256, 257, 299, 300};
        modify();
        for (ULONG i = 0; i < 3; ++i) {
            const ULONG chunk = places[random.below(std::size(places))];
            const ULONG lba = chunk * 128 + (random.chance(0.3) ? 127 : random.below(128));
            const ULONG count = 1 + random.below(random.chance(0.5) ? 300 : 3);
            if (random.chance(0.2))
                remove(chunk);
            else if (lba < disk_sectors)
                write(lba, std::min(count, disk_sectors - lba));
        }
    }
    ULONG tag() const { return area_.Header.ModifyTag.get(); }
    ULONG tag_of(ULONG chunk) const { return disk_->Entry_Tag(chunk); }
    const formats::ImageHeader& header() const { return area_.Header; }
    Area bytes()
    {
        ++area_.Hdr_Dirty;
        EXPECT_TRUE(disk_->Img_Flush());
        return area_.now;
    }

private:
    void ended() { history[tag()] = content; }

    MemoryArea area_;
    std::unique_ptr<QRNH_IMG_RW> disk_;
    ULONG version_ = 0;

public:
    Content content;
    std::map<ULONG, Content> history;
};

// A start of the workstation: its system image, and the server's as it is now.
struct Start {
    Start(Area local_bytes, Server& server, std::uint64_t seed)
        : local(std::move(local_bytes), seed), source(server.bytes(), seed + 1),
          state(std::make_unique<Sync_State>())
    {
        machine::Machine::current().sleep_ms(20);  // nobody makes two images at the same moment
        EXPECT_EQ(local.open(0), 0);
        EXPECT_GE(source.open(Img_Modify | Img_Must_Exist), 0);
        disk = std::make_unique<QRNH_IMG_RW>(&local, 0);
        server_disk = std::make_unique<QRNH_IMG_RW>(&source, 0);
        disk->Trust.Await_Check();
    }
    ULONG run()
    {
        state->Status = Sync_Running;
        EXPECT_EQ(QRNH_IMG_SYNC(state.get(), disk.get(), server_disk.get()), 0);
        return state->Status;
    }

    MemoryArea local, source;
    std::unique_ptr<QRNH_IMG_RW> disk, server_disk;
    std::unique_ptr<Sync_State> state;
};

// Reads count sectors and compares what comes with the content. Returns how many came.
ULONG expect_read(QRNH_IMG_RW& disk, const Content& content, ULONG lba, ULONG count, const char* when)
{
    std::vector<UCHAR> data(count * 512);
    const LONG result = disk.Read(0, lba + 1, data.data(), static_cast<LONG>(data.size()));
    const ULONG came = result > 0 ? static_cast<ULONG>(result) / 512 : 0;
    for (ULONG i = 0; i < came; ++i)
        EXPECT_EQ(version_of(&data[i * 512], 0, content[lba + i] ? lba + i : 0), content[lba + i])
            << when << ": LBA " << lba + i;
    return came;
}

// Every sector that the server has must come, or nothing wrong at least.
void expect_all(QRNH_IMG_RW& disk, const Content& content, bool all, const char* when)
{
    for (ULONG lba = 0; lba < disk_sectors && !testing::Test::HasFailure();) {
        const ULONG came = expect_read(disk, content, lba, std::min(ULONG{64}, disk_sectors - lba), when);
        EXPECT_TRUE(!all || came || content[lba] == 0) << when << ": LBA " << lba << " is missing";
        lba += std::max(came, ULONG{1});
    }
}

// What a start after a cut of power here would find.
void check_after_cut(const Area& bytes, Server& server)
{
    const AreaContents found = AreaReader(bytes).read();
    ASSERT_EQ(found.fault, "");
    if (!found.header)
        return;
    for (const auto& [key, entry] : found.chunks) {
        const bool in_step = entry.ModifyTag.get() != 0 && entry.ModifyTag.get() == server.tag_of(key);
        for (ULONG i = 0; i < 128; ++i) {
            const ULONG lba = key * 128 + i;
            const bool present = formats::sector_flag(entry.SecFlag, i);
            const ULONG version = present ? version_of(&bytes[(entry.Data_Sec.get() + i) * 512], 0, lba) : 0;
            ASSERT_TRUE(!present || (version != 0 && version != ~0u)) << "never written: LBA " << lba;
            // The last sector may follow with the next chunk.
            if (in_step && (present || i != 127)) {
                ASSERT_EQ(version, server.content[lba]) << "in step by its tag: LBA " << lba;
            }
        }
        ASSERT_TRUE(entry.ModifyTag.get() != 0 || SecFlag_Miss_Len(entry.SecFlag, 0, 65536) == 65536);
    }
    const ULONG position = found.header->Sync_Pos.get();
    const auto synchronised = server.history.find(found.header->Sync_Tag.get());
    ASSERT_TRUE(position == 0 || synchronised != server.history.end());
    for (ULONG chunk = 0; chunk < position; ++chunk) {
        const auto found_chunk = found.chunks.find(chunk);
        for (ULONG i = 0; i < 128; ++i) {
            const ULONG lba = chunk * 128 + i;
            ULONG version = 0;
            if (found_chunk != found.chunks.end() && formats::sector_flag(found_chunk->second.SecFlag, i))
                version = version_of(&bytes[(found_chunk->second.Data_Sec.get() + i) * 512], 0, lba);
            ASSERT_EQ(version, synchronised->second[lba])
                << "below the position " << position << ": LBA " << lba;
        }
    }
}

// Without a word from its server the image serves one state of it, or part of that.
void check_unchecked(const Area& bytes, Server& server)
{
    MemoryArea area(bytes, 1);
    ASSERT_EQ(area.open(0), 0);
    QRNH_IMG_RW disk(&area, 0);
    disk.Trust.Await_Check();
    expect_all(disk, {}, false, "not yet checked");
    ASSERT_TRUE(Serve_Unchecked(&disk));
    const auto state = server.history.find(area.Header.Sync_Tag.get());
    expect_all(disk, state == server.history.end() ? Content{} : state->second, false, "unchecked");
}

TEST(Synchronisation, Copies_what_the_server_has_and_then_only_what_changed)
{
    DriverPiece driver;
    driver.run([&] {
        auto& log = driver.machine.log();
        Server server;
        for (ULONG lba : std::initializer_list<ULONG>{0, 127, 128, 5000, 299 * 128, disk_sectors - 1})
            server.write(lba, 1);
        Start first(Area(area_sectors * 512), server, 1);
        EXPECT_EQ(first.run(), Sync_Running);
        expect_all(*first.disk, server.content, true, "first start");
        EXPECT_EQ(first.local.Header.Size.get(), disk_sectors);
        EXPECT_EQ(first.local.Header.CreateTime.get(), server.header().CreateTime.get());
        EXPECT_EQ(first.local.Header.Modify_Time.get(), server.header().Modify_Time.get());
        EXPECT_EQ(first.local.Header.Sync_Tag.get(), 1u);
        EXPECT_EQ(first.local.Header.Sync_Pos.get(), chunks - 1);
        EXPECT_EQ(log.count("(12D)     0M   1S 0K/S"), 0u);
        EXPECT_EQ(log.count("\nQRNH_IMG_SYNC: 0000-012C(12D)    18M   1S 19200K/S"), 1u);
        EXPECT_TRUE(log.text().ends_with("\nQRNH_Header_Write\nQRNH_IMG_SYNC: End=0"));

        first.local.writes.clear();
        EXPECT_TRUE(first.disk->Img_Flush());
        EXPECT_EQ(first.local.writes, std::vector<ULONG>{}) << "all is there already";
        log.clear();
        Start same(first.local.now, server, 2);
        same.local.writes.clear();
        EXPECT_EQ(same.run(), Sync_Running);
        EXPECT_EQ(same.local.writes, std::vector<ULONG>{0}) << "nothing but its header";
        EXPECT_EQ(log.count("Sync_Tag"), 0u);

        // The last sector of a chunk comes with the next chunk, whose own tag is in step.
        server.modify();
        server.write(127, 1);
        server.write(130 * 128 + 127, 2);
        server.remove(5000 / 128);
        Start changed(same.local.now, server, 3);
        changed.local.writes.clear();
        EXPECT_EQ(changed.run(), Sync_Running);
        EXPECT_EQ(log.count("\nQRNH_Img_Sync: Sync_Tag 1!=2"), 1u);
        expect_all(*changed.disk, server.content, true, "changed");
        std::size_t data_writes = 0;
        for (ULONG sector : changed.local.writes)
            data_writes += sector >= 16 && (sector % 8 != 0 || changed.disk->Image()->Holds(sector, 128));
        EXPECT_LE(data_writes, 12u) << "chunks in step are not copied again";
    });
}

TEST(Synchronisation, Image_of_another_server_is_given_up_whole)
{
    DriverPiece driver;
    driver.run([&] {
        Server old_server;
        old_server.write(0, 1000);
        Start first(Area(area_sectors * 512), old_server, 1);
        EXPECT_EQ(first.run(), Sync_Running);
        machine::Machine::current().sleep_ms(50);
        Server server;
        server.write(128, 1);
        Start second(first.local.now, server, 2);
        std::vector<UCHAR> data(512);
        second.disk->Trust.Check_Passed();
        EXPECT_EQ(second.disk->Read(0, 1, data.data(), 512), 512) << "fills the cache with the old map";
        second.local.after_write = [&] {
            const Area bytes = second.local.after_power_cut();
            const AreaContents found = AreaReader(bytes).read();
            ASSERT_EQ(found.fault, "");
            ASSERT_TRUE(!found.header || found.header->Sync_Pos.get() == 0 || !found.chunks.empty())
                << "absent chunks would read as zeros";
        };
        EXPECT_EQ(second.run(), Sync_Running);
        second.local.after_write = nullptr;
        expect_all(*second.disk, server.content, true, "second");
        const AreaContents found = AreaReader(second.local.now).read();
        EXPECT_EQ(found.fault, "");
        EXPECT_EQ(found.chunks.size(), 1u);
    });
}

TEST(Synchronisation, Chunk_with_sectors_and_without_tag_is_copied)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        server.write(130, 3);
        Start start(Area(area_sectors * 512), server, 1);
        EXPECT_TRUE(start.server_disk->Entry_Set_Tag(1, 0));
        EXPECT_EQ(start.run(), Sync_Running);
        EXPECT_EQ(driver.machine.log().count("\nQRNH_IMG_SYNC: pNet_64K->ModifyTag Error With SecFlag"), 1u);
        EXPECT_EQ(start.disk->Entry_Tag(1), 1u);
        expect_all(*start.disk, server.content, true, "copied");
    });
}

// The tag that marks a chunk as half filled may be the server's own tag of it.
TEST(Synchronisation, Half_filled_chunk_never_passes_for_a_whole_one)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        server.write(128, 20);
        Start first(Area(area_sectors * 512), server, 1);
        EXPECT_EQ(first.run(), Sync_Running);
        server.modify();
        server.write(130, 1);
        Start second(first.local.now, server, 2);
        EXPECT_TRUE(second.server_disk->Entry_Set_Tag(1, Tag_In_Work));
        EXPECT_TRUE(second.disk->Entry_Reset(1));
        second.disk->Keep_Tags = true;
        std::vector<UCHAR> data(512);
        put_sector(data.data(), 0, 128, server.content[128]);
        EXPECT_EQ(second.disk->Write(0, 129, data.data(), 512), 512);
        ASSERT_EQ(second.disk->Entry_Tag(1), Tag_In_Work);
        EXPECT_EQ(second.run(), Sync_Running);
        expect_all(*second.disk, server.content, true, "second");
    });
}

// As by a shutdown that comes between the moment from which on a run can be stopped and its first step.
TEST(Synchronisation, Run_that_is_stopped_before_it_begins_copies_nothing)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        server.write(0, 300);
        Start start(Area(area_sectors * 512), server, 1);
        start.state->Status = Sync_Stopped;
        EXPECT_EQ(QRNH_IMG_SYNC(start.state.get(), start.disk.get(), start.server_disk.get()), 0);
        EXPECT_EQ(start.state->Status, ULONG{Sync_Stopped});
        EXPECT_EQ(driver.machine.log().count("\nQRNH_IMG_SYNC: End=1"), 1u);
        EXPECT_EQ(AreaReader(start.local.now).read().chunks.size(), 0u);
    });
}

TEST(Synchronisation, Full_image_ends_the_run_and_claims_nothing)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        for (ULONG chunk = 0; chunk < 8; ++chunk)
            server.write(chunk * 128, 128);
        Start start(Area((16 + 3 * 8 + 4 * 128) * 512), server, 1);
        EXPECT_EQ(start.run(), Sync_Failed);
        EXPECT_GE(driver.machine.log().count("Total_Secs Out="), 1u);
        EXPECT_LT(start.local.Header.Sync_Pos.get(), 4u);
        expect_all(*start.disk, server.content, false, "full");
        check_after_cut(start.local.now, server);
    });
}

// What a start serves of its image when it has no server; all of it only when all was copied, of one version.
TEST(Synchronisation, Last_chunk_is_served_without_a_server_when_the_image_is_whole)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        server.write(130, 1);
        server.write(disk_sectors - 1, 1);
        Start first(Area(area_sectors * 512), server, 1);
        EXPECT_EQ(first.run(), Sync_Running);
        struct Row {
            ULONG handled, tags_behind;
            bool last_chunk;
        };
        for (const Row& row : {Row{chunks, 0, true}, Row{chunks - 1, 0, false}, Row{chunks, 1, false}}) {
            MemoryArea area(first.local.now, 2);
            ASSERT_EQ(area.open(0), 0);
            area.Header.Sync_Pos.set(row.handled - 1);
            area.Header.Sync_Tag.set(area.Header.ModifyTag.get() - row.tags_behind);
            QRNH_IMG_RW disk(&area, 0);
            disk.Trust.Await_Check();
            ASSERT_TRUE(Serve_Unchecked(&disk));
            EXPECT_FALSE(Serve_Unchecked(&disk)) << "once";
            EXPECT_EQ(expect_read(disk, server.content, 130, 1, "copied"), 1u);
            EXPECT_EQ(expect_read(disk, server.content, disk_sectors - 1, 1, "last"), ULONG{row.last_chunk});
        }
    });
}

// A chunk that is cut off half filled must not have a tag under which any server may know it, today or after
// its image was put back.
TEST(Synchronisation, Chunk_has_no_servers_tag_while_it_is_filled)
{
    DriverPiece driver;
    driver.run([&] {
        Server server;
        server.write(128, 1);
        Start first(Area(area_sectors * 512), server, 1);
        EXPECT_EQ(first.run(), Sync_Running);
        server.modify();
        for (ULONG lba : {128u, 150u, 170u})
            server.write(lba, 1);
        Start second(first.local.now, server, 2);
        std::vector<ULONG> tags;
        second.local.after_write = [&] {
            if (second.local.writes.back() > 32 && second.disk->Entry_Tag(1) != server.tag_of(1))
                tags.push_back(second.disk->Entry_Tag(1));
        };
        EXPECT_EQ(second.run(), Sync_Running);
        EXPECT_EQ(tags, (std::vector<ULONG>{0, Tag_In_Work, Tag_In_Work})) << "one for each of three runs";
        EXPECT_EQ(second.disk->Entry_Tag(1), server.tag_of(1));
    });
}

// One workstation through several starts.
class Workstation {
public:
    Workstation(std::uint64_t seed) : random_(seed), seed_(seed) { server_.change(random_); }

    void start(bool trouble)
    {
        Start start(std::move(bytes_), server_, random_.next());
        std::optional<Area> cut;
        start.local.after_write = [&] {
            const Area bytes = start.local.after_power_cut();
            check_after_cut(bytes, server_);
            if (trouble && random_.chance(0.05))
                cut = bytes;
        };
        start.local.failures = trouble && random_.chance(0.4) ? 0.04 : 0;
        start.source.failures = trouble && random_.chance(0.4) ? 0.04 : 0;
        start.local.yields = start.source.yields = true;
        const bool stops = trouble && random_.chance(0.5);
        bool ended = false;
        machine::test::run_threads(3, [&](int thread) {
            if (thread == 0) {
                status = start.run();
                ended = true;
            } else if (thread == 1 && stops) {
                machine::Machine::current().sleep_ms(random_.below(200));
                start.state->Status =
                    start.state->Status == Sync_Running && !ended ? Sync_Stopped : start.state->Status;
            }
            while (thread == 2 && !ended) {
                came += expect_read(*start.disk, server_.content, random_.below(disk_sectors - 128),
                                    1 + random_.below(128), "beside the run");
                machine::Machine::current().sleep_ms(1 + random_.below(10));
            }
        });
        start.local.failures = 0;
        start.local.yields = false;
        start.local.after_write = nullptr;
        expect_all(*start.disk, server_.content, status == Sync_Running, "after the run");
        bytes_ = cut ? *cut : start.local.now;
        check_unchecked(bytes_, server_);
    }
    void change_server()
    {
        if (random_.chance(0.6))
            server_.change(random_);
    }

    ULONG status = 0;
    std::uint64_t came = 0;

private:
    machine::Random random_;
    std::uint64_t seed_;
    Server server_;
    Area bytes_ = Area(area_sectors * 512);
};

TEST(Synchronisation, Image_is_true_or_silent_at_every_moment)
{
    // In two of these a cut of power leaves one sector of a new header and one of the old.
    std::vector<std::uint64_t> seeds{163, 603};
    for (std::uint64_t seed = 1; seed <= seeds_of(16); ++seed)
        seeds.push_back(seed);
    std::map<ULONG, unsigned> ends;
    std::uint64_t came = 0;
    for (std::uint64_t seed : seeds) {
        if (testing::Test::HasFailure())
            break;
        SCOPED_TRACE("seed " + std::to_string(seed));
        machine::MachineConfig config;
        config.seed = seed;
        DriverPiece driver(config);
        driver.run([&] {
            Workstation workstation(seed);
            for (int start = 0; start < 6 && !testing::Test::HasFailure(); ++start) {
                workstation.start(start < 5);
                ++ends[workstation.status];
                workstation.change_server();
            }
            EXPECT_EQ(workstation.status, Sync_Running) << "the last start, without trouble";
            came += workstation.came;
        });
    }
    EXPECT_GT(ends[Sync_Running], seeds.size());
    EXPECT_GT(ends[Sync_Stopped], seeds.size() / 8);
    EXPECT_GT(ends[Sync_Failed], seeds.size() / 8);
    EXPECT_GT(came, 50 * seeds.size()) << "sectors read beside runs";
}

}  // namespace
