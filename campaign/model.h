// SPDX-License-Identifier: MIT
// Knows for each sector of a disk which contents a read may find. A write that failed, or was under way when
// the workstation went, may have happened or not; one that succeeded ends all that was complete before it
// began. Requests may overlap in place and in time; a read that overlaps a write of the same sector may find
// the beginning of one content and the end of another where a fragment ends, since a packet travels in these.
#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "campaign/content.h"

namespace campaign {

class DiskModel {
public:
    // What the disk holds at the beginning, a generation per sector.
    DiskModel(unsigned lun, std::vector<Generation> contents, const Generations& generations);

    unsigned lun() const { return lun_; }
    std::uint32_t sectors() const { return static_cast<std::uint32_t>(settled_.size()); }

    // Handles of requests under way.
    using Request = std::uint64_t;
    Request write_begins(std::uint32_t lba, std::uint32_t count, Generation generation);
    void write_ends(Request write, bool succeeded);
    Request read_begins();
    // Empty when all that the read found was allowed; else what is wrong with the first sector that was not.
    std::string read_ends(Request read, std::uint32_t lba, std::span<const std::uint8_t> data);
    void read_failed(Request read) { reading_.erase(read); }

    // Whether a read that began and ended now could find this; the same text when not.
    std::string check(std::uint32_t lba, std::span<const std::uint8_t> sector) const;
    // A server lost its last writes: what it has now may be found from now on, beside the rest. mirrored: a
    // read may begin at this server and end at the other.
    void may_hold(std::uint32_t lba, Generation generation, bool mirrored);

    // The workstation is gone. With contents, what its servers hold is all that is left.
    void power_off();
    void becomes(std::uint32_t lba, Generation generation);
    // Which places may have more than one content.
    std::vector<std::uint32_t> unsettled() const;
    // Reads find what one server has, and nothing between keeps anything.
    void set_one_truth() { one_truth_ = true; }

private:
    // Contents that may be found. gone: when a later write put an end to it.
    struct Version {
        Generation generation;
        std::uint64_t begin;
        std::uint64_t end;
        std::uint64_t gone;
        bool of_one_server = false;  // while the other has something else
    };
    struct Write {
        std::uint32_t lba, count;
        Generation generation;
    };
    static constexpr std::uint64_t open = ~std::uint64_t{0};

    std::vector<Version>& versions(std::uint32_t lba);
    void settle(std::uint32_t lba, std::vector<Version>& versions);
    std::string judge(std::uint32_t lba, std::span<const std::uint8_t> sector, std::uint64_t since) const;

    void found(std::uint32_t lba, std::span<const std::uint8_t> sector, std::uint64_t since);
    bool torn(std::uint32_t lba, std::span<const std::uint8_t> sector, std::uint64_t since) const;

    unsigned lun_;
    const Generations& generations_;
    bool one_truth_ = false;
    std::uint64_t now_ = 0;            // counts beginnings and ends
    std::vector<Generation> settled_;  // of sectors with one possible content
    std::unordered_map<std::uint32_t, std::vector<Version>> unsettled_;
    std::unordered_map<Request, Write> writing_;
    std::set<Request> reading_;
};

}  // namespace campaign
