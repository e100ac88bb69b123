// SPDX-License-Identifier: MIT
// Mends what can be mended in an image area without its server.
//
// A chunk that is lost becomes an absent one. A workstation's copy then begins to bring itself up to date
// from the start, and takes from the server what it lacks; before that no absent sector of it may pass for
// zeros, so the header is on the disk before any chunk is dropped. A server's image has nowhere to get a lost
// chunk from, and workstations would take it for zeros: it is left alone.
#include <cstring>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/errors.h"
#include "tools/image_area.h"
#include "tools/in_place_file.h"
#include "tools/progress.h"
#include "tools/verifier.h"

namespace image_tool {

using namespace formats;

namespace {

struct LeafChange {
    std::uint32_t leaf_sector;
    unsigned index;
    Entry_64K entry;
};

// What is wrong below the header, and how it would be put right.
struct MapFindings {
    bool is_lost = false;  // the tables lead astray, or two chunks claim one block
    std::vector<LeafChange> changes;
    std::uint32_t chunks_lost = 0;
    std::uint32_t end_sector = first_block_sector;
    std::uint32_t map_blocks = 0;
    std::uint32_t data_blocks = 0;
};

class Mender {
public:
    Mender(const std::string& name, Report& report) : name_(name), report_(report) {}

    // False: nothing can be done.
    bool run();

private:
    void look();
    void look_at(const MapChunk& chunk, const MapWalk& walk);
    void mend_constants();
    void mend_counts();
    void give_up_map();
    void write_header(const InPlaceFile& file);
    template <typename Object>
    void write(const InPlaceFile& file, std::uint32_t sector, const Object& object)
    {
        file.write(place_.start_bytes + std::uint64_t{sector} * sector_bytes,
                   std::as_bytes(std::span(&object, 1)));
    }
    bool is_copy() const
    {
        return header_.Sync_Tag.get() != 0 || header_.Sync_Pos.get() != 0 ||
               place_.type == partition_system_image;
    }
    std::uint64_t map_sectors() const
    {
        return std::uint64_t{header_.Size.get()} + (header_.Sec_Shift.get() != 0 ? 0 : 1);
    }

    const std::string& name_;
    Report& report_;
    AreaPlace place_;
    std::uint32_t area_sectors_ = 0;
    ImageHeader header_{};
    MapFindings map_;
};

void Mender::look()
{
    const AreaFile area(name_);
    place_ = area.place();
    area_sectors_ = area.sectors();
    if (!area.read(0, header_) || !is_image_header(header_))
        throw DamagedArea(name_ + ": has no header, so there is nothing to begin with; make the area anew");
    if (header_.Size.get() == 0 || header_.CreateTime.get() == 0 || header_.ModifyTag.get() == 0)
        throw DamagedArea(name_ + ": its header no longer says which image it is; make the area anew");
    if (header_.Used.get() == root_sector)
        return;
    RootTable root;
    if (!area.read(root_sector, root)) {
        map_.is_lost = true;
        return;
    }
    // Used may be what is wrong.
    MapWalk walk(area, root, area_sectors_, [this](MapFault fault, const std::string& what) {
        if (fault == MapFault::before_parent)
            return;
        const bool is_of_one_chunk = what.starts_with("data ") && fault != MapFault::referenced_twice;
        map_.is_lost = map_.is_lost || !is_of_one_chunk;
    });
    Progress progress("repair", header_.Used.get());
    while (const MapChunk* chunk = walk.next()) {
        look_at(*chunk, walk);
        progress.at(std::uint64_t{walk.data_blocks()} * chunk_sectors);
    }
    map_.end_sector = walk.end_sector();
    map_.map_blocks = walk.map_blocks();
    map_.data_blocks = walk.data_blocks();
}

void Mender::look_at(const MapChunk& chunk, const MapWalk& walk)
{
    Entry_64K entry = chunk.entry;
    const std::uint64_t first = std::uint64_t{key_chunk(chunk.key)} * chunk_sectors;
    std::memset(entry.Reserved_8, 0, sizeof entry.Reserved_8);
    if (!chunk.has_data) {
        map_.chunks_lost += present_sectors(entry) != 0;
        entry = {};
    } else if (entry.ModifyTag.get() == 0) {
        map_.chunks_lost += present_sectors(entry) != 0;
        std::memset(entry.SecFlag, 0, sizeof entry.SecFlag);
    }
    for (unsigned i = 0; i < chunk_sectors; ++i)
        if (key_lun(chunk.key) == 0 && first + i >= map_sectors())
            entry.SecFlag[i / 8] = static_cast<std::uint8_t>(entry.SecFlag[i / 8] & ~(1u << i % 8));
    if (key_lun(chunk.key) == 0 && first >= map_sectors())
        entry = {};
    if (std::memcmp(&entry, &chunk.entry, sizeof entry) != 0)
        map_.changes.push_back({walk.leaf_sector(), walk.leaf_entry(), entry});
}

void Mender::mend_constants()
{
    ImageHeader right{};
    set_new_image(right, header_.Size.get());
    std::memcpy(header_.Magic, right.Magic, sizeof header_.Magic);
    header_.Head_Len = right.Head_Len;
    header_.Hdr_Type = right.Hdr_Type;
    header_.Blk_Size = right.Blk_Size;
    header_.Chunk_Size = right.Chunk_Size;
    header_.Root_Sec = right.Root_Sec;
    if (header_.Sync_Pos.get() >= chunk_count(header_.Size.get()))
        header_.Sync_Pos.set(0);
}

// Used behind every block, and as many map and data blocks handed out as there are at least.
void Mender::mend_counts()
{
    if (header_.Used.get() == root_sector)
        return;
    std::uint32_t used = header_.Used.get();
    if (used < map_.end_sector || used > area_sectors_ || used % map_block_sectors != 0)
        used = map_.end_sector;
    const auto fits = [&](std::uint32_t map_sectors) {
        return map_sectors % map_block_sectors == 0 &&
               map_sectors >= (map_.map_blocks + 1) * map_block_sectors &&
               used >= root_sector + map_sectors && (used - root_sector - map_sectors) % chunk_sectors == 0 &&
               (used - root_sector - map_sectors) / chunk_sectors >= map_.data_blocks;
    };
    std::uint32_t map_sectors = header_.Map_Secs.get();
    if (!fits(map_sectors)) {
        map_sectors = used - root_sector - map_.data_blocks * chunk_sectors;
        if (!fits(map_sectors))
            return give_up_map();
    }
    header_.Used.set(used);
    header_.Map_Secs.set(map_sectors);
}

void Mender::give_up_map()
{
    map_.is_lost = true;
    map_.changes.clear();
    header_.Used.set(root_sector);
    header_.Map_Secs.set(0);
}

void Mender::write_header(const InPlaceFile& file)
{
    header_.ChkSum.set(image_checksum(&header_));
    write(file, 0, header_);
    file.flush();
}

bool Mender::run()
{
    look();
    mend_constants();
    if (map_.is_lost)
        give_up_map();
    else
        mend_counts();
    const bool is_loss = map_.is_lost || map_.chunks_lost != 0;
    report_["map_given_up"] = map_.is_lost;
    report_["chunks_lost"] = map_.chunks_lost;
    report_["entries_changed"] = map_.changes.size();
    if (is_loss && !is_copy()) {
        report_.print("{}: has lost {}, and is no workstation's copy that could get it back; make it anew "
                      "with create\n",
                      name_, map_.is_lost ? "its map" : fmt::format("{} chunks", map_.chunks_lost));
        return false;
    }
    const InPlaceFile file(AreaName(name_).path);
    if (is_loss) {
        header_.Sync_Pos.set(0);
        // Otherwise the tag says whose copy this is.
        if (map_.is_lost || chunk_count(header_.Size.get()) == 1)
            header_.Sync_Tag.set(0);
        write_header(file);
        report_.print("{}: lost {}; the workstation copies that anew\n", name_,
                      map_.is_lost ? "its map" : fmt::format("{} chunks", map_.chunks_lost));
    }
    for (const LeafChange& change : map_.changes) {
        const std::uint64_t offset =
            std::uint64_t{change.leaf_sector} * sector_bytes + change.index * sizeof(Entry_64K);
        file.write(place_.start_bytes + offset, std::as_bytes(std::span(&change.entry, 1)));
    }
    file.flush();
    write_header(file);
    return true;
}

}  // namespace

int repair_area(const Options& options, Report& report)
{
    report["area"] = options.area;
    const std::uint64_t before = verify(AreaFile(options.area)).fault_count();
    report["faults_before"] = before;
    if (before == 0) {
        report["faults"] = 0;
        report.print("{}: clean, there is nothing to repair\n", options.area);
        return 0;
    }
    if (!Mender(options.area, report).run()) {
        report["faults"] = before;
        return 1;
    }
    const std::uint64_t left = verify(AreaFile(options.area)).fault_count();
    report["faults"] = left;
    report.print("{}: {} faults before, {} now\n", options.area, before, left);
    return left != 0 ? 1 : 0;
}

}  // namespace image_tool
