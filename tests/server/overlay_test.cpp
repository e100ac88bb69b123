// SPDX-License-Identifier: MIT
// Overlays: every sector reads as written, or as the image beneath; through kills, power cuts and failures.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>

#include "server/overlay_file.h"
#include "server/overlay_store.h"
#include "tests/scratch_folder.h"
#include "tests/seeds.h"
#include "tests/server/workstation_model.h"

using namespace server_test;
using server::OverlayShape;
using server::OverlayStore;

namespace {

constexpr std::size_t sector = 512;

// A medium with a cache that a power cut loses: of every sector, it keeps what was flushed or any of what was
// written since.
class CuttableMedium {
public:
    explicit CuttableMedium(std::uint64_t size) : cached(size), flushed(size) {}

    void write(std::uint64_t offset, std::span<const std::uint8_t> data)
    {
        std::ranges::copy(data, cached.begin() + static_cast<std::ptrdiff_t>(offset));
        for (std::uint64_t at = offset / sector; at <= (offset + data.size() - 1) / sector; ++at)
            since[at].push_back(content(at));
    }
    void flush()
    {
        flushed = cached;
        since.clear();
    }
    void cut_power(std::mt19937& random)
    {
        for (const auto& [at, versions] : since)
            if (const std::size_t which = random() % (versions.size() + 1); which < versions.size())
                std::ranges::copy(versions[which],
                                  flushed.begin() + static_cast<std::ptrdiff_t>(at * sector));
        cached = flushed;
        since.clear();
    }
    Bytes content(std::uint64_t at) const
    {
        const auto begin = cached.begin() + static_cast<std::ptrdiff_t>(at * sector);
        return Bytes(begin, begin + sector);
    }

    Bytes cached, flushed;
    std::map<std::uint64_t, std::vector<Bytes>> since;
    bool failing = false;
    std::function<void()> during_flush = [] {};
};

class CuttableStore : public server::BlockStore {
public:
    explicit CuttableStore(CuttableMedium& medium) : medium_(medium) {}
    std::uint64_t size_bytes() const override { return medium_.cached.size(); }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        std::copy_n(medium_.cached.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
        return true;
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        if (medium_.failing)
            return false;
        medium_.write(offset, data);
        return true;
    }
    bool flush() override
    {
        if (medium_.failing)
            return false;
        medium_.flush();
        std::exchange(medium_.during_flush, [] {})();
        return true;
    }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override
    {
        return std::all_of(medium_.cached.begin() + static_cast<std::ptrdiff_t>(offset),
                           medium_.cached.begin() + static_cast<std::ptrdiff_t>(offset + bytes),
                           [](std::uint8_t byte) { return byte == 0; });
    }

private:
    CuttableMedium& medium_;
};

// Half of it zeros, in stretches.
std::shared_ptr<server::BlockStore> make_base(CuttableMedium& medium)
{
    for (std::size_t at = 0; at < medium.cached.size(); ++at)
        medium.cached[at] =
            at / 20000 % 2 != 0 ? 0 : static_cast<std::uint8_t>(at / sector + at % sector + 1);
    medium.flush();
    return std::make_shared<CuttableStore>(medium);
}

// What a workstation may see: of every sector what it wrote last, and after a power cut anything that it
// wrote since the last flush that succeeded, or had before.
struct Expected {
    explicit Expected(const Bytes& base)
    {
        for (std::size_t at = 0; at < base.size(); at += sector)
            now.emplace_back(base.begin() + static_cast<std::ptrdiff_t>(at),
                             base.begin() + static_cast<std::ptrdiff_t>(at + sector));
        kept = now;
    }
    void write(std::uint64_t offset, std::span<const std::uint8_t> data, bool answered)
    {
        for (std::size_t i = 0; i < data.size() / sector; ++i) {
            const std::size_t at = static_cast<std::size_t>(offset / sector) + i;
            Bytes bytes(data.begin() + static_cast<std::ptrdiff_t>(i * sector),
                        data.begin() + static_cast<std::ptrdiff_t>((i + 1) * sector));
            since[at].push_back(bytes);
            if (answered)
                now[at] = bytes;
        }
    }
    void flushed()
    {
        kept = now;
        since.clear();
    }
    void check_after_cut(OverlayStore& store)
    {
        for (std::size_t at = 0; at < now.size(); ++at) {
            Bytes read(sector);
            ASSERT_TRUE(store.read(at * sector, read));
            const auto& later = since[at];
            ASSERT_TRUE(read == kept[at] || std::ranges::find(later, read) != later.end()) << "sector " << at;
            now[at] = kept[at] = read;
        }
        since.clear();
    }
    void check(OverlayStore& store, std::mt19937& random) const
    {
        Bytes read(16384);
        for (std::size_t at = 0; at < now.size(); at += random() % 8 + 1) {
            const std::size_t count = std::min<std::size_t>(random() % 32 + 1, now.size() - at);
            ASSERT_TRUE(store.read(at * sector, std::span(read).first(count * sector)));
            for (std::size_t i = 0; i < count; ++i)
                ASSERT_TRUE(std::equal(now[at + i].begin(), now[at + i].end(),
                                       read.begin() + static_cast<std::ptrdiff_t>(i * sector)))
                    << "sector " << at + i;
        }
        for (std::size_t at = 0; at < now.size(); ++at)
            ASSERT_TRUE(!store.hole(at * sector, sector) || now[at] == Bytes(sector)) << "a hole is zeros";
    }
    std::vector<Bytes> now, kept;
    std::map<std::size_t, std::vector<Bytes>> since;
};

class Life {
public:
    Life(unsigned seed, std::uint32_t block_bytes) : random_(seed), shape_{disk_bytes, block_bytes, "win@1"}
    {
        server::format_overlay(*std::make_unique<CuttableStore>(medium_), shape_);
        open();
    }
    void step()
    {
        switch (random_() % 16) {
        case 0:
            medium_.failing = random_() % 8 == 0;
            if (store_->flush())
                expected_.flushed();
            return;
        case 1:  // killed: nothing is lost that was answered
            open();
            return expected_.check(*store_, random_);
        case 2:
            store_.reset();
            medium_.cut_power(random_);
            ++session_[0];
            open();
            return expected_.check_after_cut(*store_);
        case 3:
            return flush_beside_a_write();
        default:
            medium_.failing = random_() % 32 == 0;
            write();
        }
    }
    void check()
    {
        expected_.check(*store_, random_);
        EXPECT_EQ(base_medium_.cached, base_medium_.flushed);
        const auto report = server::check_overlay(*std::make_unique<CuttableStore>(medium_), session_);
        EXPECT_TRUE(report.faults.empty()) << report.faults[0];
        EXPECT_EQ(report.blocks_live, store_->blocks_held());
    }

private:
    static constexpr std::uint64_t disk_bytes = 200 * sector;

    void open()
    {
        medium_.failing = false;
        store_.reset();
        store_ = std::make_unique<OverlayStore>(base_, std::make_unique<CuttableStore>(medium_), session_,
                                                "win@1");
    }
    void write()
    {
        const std::uint64_t at = random_() % 200,
                            count = std::min<std::uint64_t>(random_() % 32 + 1, 200 - at);
        Bytes data(count * sector);
        if (random_() % 4 != 0)
            fill(data, static_cast<std::uint8_t>(random_()));
        const bool answered = store_->write(at * sector, data);
        expected_.write(at * sector, data, answered);
        if (!answered) {  // sent again until it is there
            medium_.failing = false;
            ASSERT_TRUE(store_->write(at * sector, data));
            expected_.write(at * sector, data, true);
        }
    }
    // Written while the flush is under way: not promised by it.
    void flush_beside_a_write()
    {
        medium_.failing = false;
        Expected promised = expected_;
        medium_.during_flush = [this] { write(); };
        ASSERT_TRUE(store_->flush());
        promised.flushed();
        expected_.kept = promised.kept;
    }

    std::mt19937 random_;
    OverlayShape shape_;
    CuttableMedium base_medium_{disk_bytes}, medium_{shape_.file_bytes()};
    std::shared_ptr<server::BlockStore> base_ = make_base(base_medium_);
    Expected expected_{base_medium_.cached};
    server::Session session_{1};
    std::unique_ptr<OverlayStore> store_;
};

TEST(Overlay, Keeps_every_promise_through_kills_power_cuts_and_failing_writes)
{
    for (unsigned seed = 0; seed < seeds_of(60); ++seed) {
        SCOPED_TRACE(seed);
        Life life(seed, 512u << seed % 6);
        for (unsigned i = 0; i < 120; ++i) {
            life.step();
            if (testing::Test::HasFatalFailure())
                return;
        }
        life.check();
        if (testing::Test::HasFailure())
            return;
    }
}

TEST(Overlay, Damaged_or_foreign_files_are_refused_with_the_reason)
{
    CuttableMedium base_medium(100 * sector);
    const auto base = make_base(base_medium);
    const OverlayShape shape{100 * sector, 4096, "win@1"};
    CuttableMedium good(shape.file_bytes());
    ASSERT_TRUE(server::format_overlay(*std::make_unique<CuttableStore>(good), shape));
    const auto refusal = [&](const CuttableMedium& medium, const std::string& name = "win@1") -> std::string {
        CuttableMedium copy = medium;
        try {
            OverlayStore(base, std::make_unique<CuttableStore>(copy), server::Session{1}, name);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(refusal(good), "");
    EXPECT_NE(refusal(good, "win@2").find("win@1"), std::string::npos);
    CuttableMedium shorter = good, damaged = good, other = good;
    shorter.cached.resize(shorter.cached.size() - sector);
    damaged.cached[13] ^= 1;
    other.cached[0] ^= 1;
    EXPECT_NE(refusal(shorter).find("cut short"), std::string::npos);
    EXPECT_NE(refusal(damaged).find("damaged"), std::string::npos);
    EXPECT_NE(refusal(other).find("no overlay"), std::string::npos);

    CuttableMedium beyond = good;
    beyond.cached[4096 + 2] = 1;  // block 16 of 13
    EXPECT_FALSE(
        server::check_overlay(*std::make_unique<CuttableStore>(beyond), server::Session{1}).faults.empty());
}

std::uint64_t room_of(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * 512 : UINT64_MAX;
}

TEST(Overlay, Files_take_room_for_what_is_written_and_give_it_back_for_zeros)
{
    const ScratchFolder folder;
    const std::string image = folder / "image", path = folder / "overlay", copy = folder / "copy";
    std::ofstream(image).close();
    std::filesystem::resize_file(image, 64 << 20);
    const std::shared_ptr<server::BlockStore> base = server::open_file_store(image, true);
    server::create_overlay_file(path, {64 << 20, 4096, "image@1"});
    const std::uint64_t room_empty = room_of(path);
    EXPECT_LT(room_empty, 65536u);
    Bytes data(16384), read(16384);
    fill(data, 7);
    {
        const auto store = server::open_overlay_file(path, base, "image@1");
        EXPECT_THROW(server::open_overlay_file(path, base, "image@1"), std::runtime_error) << "it is in use";
        for (std::uint64_t at = 0; at < 4 << 20; at += data.size())
            ASSERT_TRUE(store->write(at, data));
        EXPECT_GE(room_of(path), 4u << 20);
        const Bytes zeros(16384);
        for (std::uint64_t at = 0; at < 2 << 20; at += zeros.size())
            ASSERT_TRUE(store->write(at, zeros));
        ASSERT_TRUE(store->write(8 << 20, zeros));
        EXPECT_LT(room_of(path), 3u << 20);
        EXPECT_TRUE(store->hole(0, 16384));
        EXPECT_EQ(store->blocks_held(), 1024u) << "zeros over a hole need not be held";
        EXPECT_TRUE(server::check_overlay_file(path).faults.empty());
    }
    const auto store = server::open_overlay_file(path, base, "image@1");
    server::copy_disk(*store, copy);
    const auto committed = server::open_file_store(copy, true);
    EXPECT_EQ(committed->size_bytes(), 64u << 20);
    ASSERT_TRUE(committed->read(2 << 20, read));
    EXPECT_EQ(read, data);
    EXPECT_LT(room_of(copy), 3u << 20);
}

}  // namespace
