// SPDX-License-Identifier: MIT
// An image area in memory: with a volatile write cache, requests that fail, and a look at what the disk would
// hold if the power failed now. Also what sectors hold, and a check of an area by other means than the
// driver's.
#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "driver/image/image_block.h"
#include "machine/scheduler/random.h"
#include "tests/driver/driver_test.h"
#include "tests/machine/kernel_test.h"

namespace image_test {

using Area = std::vector<UCHAR>;

// Every sector names itself and a version; version 0 is a sector of zeros.
inline void put_sector(UCHAR* place, ULONG lun, ULONG sector, ULONG version)
{
    const ULONG unit[4] = {version ? 0x53454354 + lun : 0, version ? sector : 0, version, 0};
    for (int i = 0; i < 512; i += 16)
        std::memcpy(place + i, unit, 16);
}
inline ULONG version_of(const UCHAR* place, ULONG lun, ULONG sector)
{
    UCHAR expected[512];
    ULONG version;
    std::memcpy(&version, place + 8, 4);
    put_sector(expected, lun, sector, version);
    return std::memcmp(expected, place, 512) == 0 ? version : ~0u;
}

class MemoryArea final : public QRNH_OBJ_IMG {
public:
    explicit MemoryArea(ULONG sectors, std::uint64_t seed = 1) : now(sectors * 512), random_(seed), disk_(now)
    {
    }
    MemoryArea(Area bytes, std::uint64_t seed) : now(std::move(bytes)), random_(seed), disk_(now) {}

    LONG open(ULONG flags) { return Create(nullptr, 0, static_cast<ULONG>(now.size() / 512), flags); }

    LONG Read(ULONG Sector, PVOID pBuffer, LONG Bytes) override;
    LONG Write(ULONG Sector, PVOID pBuffer, LONG Bytes) override;
    bool Flush() override;

    // Each sector that was not flushed may have reached the disk or not.
    Area after_power_cut()
    {
        Area result = disk_;
        const double kept = static_cast<double>(random_.below(5)) / 4;
        for (ULONG sector : cached_)
            if (random_.chance(kept))
                std::memcpy(&result[sector * 512], &now[sector * 512], 512);
        return result;
    }

    Area now;
    std::vector<ULONG> writes;  // first sectors, failed ones included
    std::function<void()> after_write;
    double failures = 0;  // probability
    std::set<ULONG> bad;  // sectors
    bool yields = false;

private:
    bool inside(ULONG sector, LONG bytes)
    {
        for (ULONG i = 0; i < static_cast<ULONG>(bytes) / 512; ++i)
            if (bad.contains(sector + i))
                return false;
        return std::uint64_t{sector} * 512 + static_cast<ULONG>(bytes) <= now.size();
    }
    bool fails() { return failures > 0 && random_.chance(failures); }
    void take_time()
    {
        if (yields)
            machine::Machine::current().sleep_ms(1 + random_.below(5));
    }

    machine::Random random_;
    Area disk_;
    std::set<ULONG> cached_;
};

// What the area's map holds, by key; `fault` tells the first thing that is wrong with it.
struct AreaContents {
    const formats::ImageHeader* header = nullptr;  // null: there is no image
    std::map<ULONG, formats::Entry_64K> chunks;
    std::string fault;
};

class AreaReader {
public:
    explicit AreaReader(const Area& bytes) : bytes_(bytes) {}

    AreaContents read()
    {
        const auto* header = reinterpret_cast<const formats::ImageHeader*>(bytes_.data());
        if (!formats::is_image_header(*header) || formats::image_checksum(header) != header->ChkSum.get())
            return {};
        used_ = header->Used.get();
        if (used_ < formats::root_sector ||
            (used_ > formats::root_sector && used_ < formats::first_block_sector))
            return {};
        contents_.header = header;
        if (used_ != formats::root_sector)
            for (ULONG i = 0; i < formats::root_entries; ++i)
                level(1, at<formats::RootTable>(formats::root_sector).Level1_Sec[i].get(), i << 25);
        return std::move(contents_);
    }

private:
    template <typename Block>
    const Block& at(ULONG sector) const
    {
        return *reinterpret_cast<const Block*>(&bytes_[sector * 512]);
    }
    bool claim(ULONG sector, ULONG count)
    {
        const bool good = sector >= 16 && sector % 8 == 0 && sector + count <= used_ &&
                          (sector + count) * 512 <= bytes_.size();
        if (!good)
            contents_.fault = "block at " + std::to_string(sector) + " beyond Used";
        for (ULONG i = 0; good && i < count; ++i) {
            if (claimed_[sector + i])
                contents_.fault = "block at " + std::to_string(sector) + " referenced twice";
            claimed_[sector + i] = true;
        }
        return contents_.fault.empty();
    }
    void level(int depth, ULONG sector, ULONG key)
    {
        if (sector == 0 || !contents_.fault.empty() || !claim(sector, 8))
            return;
        const int shift = depth == 1 ? 17 : 7;
        for (ULONG i = 0; depth < 3 && i < formats::map_entries; ++i)
            level(depth + 1, at<formats::MapBlock>(sector).Next_Sec[i].get(), key | i << shift);
        for (ULONG i = 0; depth == 3 && i < formats::leaf_entries; ++i) {
            const formats::Entry_64K& entry = at<formats::LeafBlock>(sector).Chunk[i];
            if (entry.Data_Sec.get() != 0 && claim(entry.Data_Sec.get(), 128))
                contents_.chunks[key | i] = entry;
        }
    }

    const Area& bytes_;
    ULONG used_ = 0;
    std::vector<bool> claimed_ = std::vector<bool>(bytes_.size() / 512);
    AreaContents contents_;
};

}  // namespace image_test
