// SPDX-License-Identifier: MIT
// Where two disks differ, whether they are raw, in image areas or NBD exports. Absent sectors count as zeros.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/disk_contents.h"
#include "tools/errors.h"
#include "tools/progress.h"

namespace image_tool {

using namespace formats;

namespace {

constexpr unsigned runs_listed_max = 20;

class Comparison {
public:
    Comparison(const DiskContents& a, const DiskContents& b, unsigned list_max, Report& report)
        : a_(a), b_(b), list_max_(list_max), report_(report)
    {
    }

    // Whether nothing differs.
    bool run();

private:
    enum class Difference { none, contents, only_in_a, only_in_b };

    Difference compare(unsigned sector) const;
    void compare_chunk(std::uint32_t chunk);
    void extend_run(std::uint64_t lba, Difference difference);
    void end_run();

    const DiskContents &a_, &b_;
    unsigned list_max_;
    Report& report_;
    Json listed_ = Json::array();
    std::unique_ptr<ChunkContents> from_a_ = std::make_unique<ChunkContents>();
    std::unique_ptr<ChunkContents> from_b_ = std::make_unique<ChunkContents>();
    Difference run_difference_ = Difference::none;
    std::uint64_t run_start_ = 0, run_end_ = 0;
    std::uint64_t runs_ = 0, sectors_ = 0, chunks_ = 0;
};

bool Comparison::run()
{
    if (a_.size_sectors() != b_.size_sectors())
        report_.print("sizes differ: {} and {} sectors\n", a_.size_sectors(), b_.size_sectors());
    const std::uint32_t end = chunk_count(std::max(a_.size_sectors(), b_.size_sectors()));
    Progress progress("compare", end);
    for (std::uint32_t chunk = 0; chunk < end; ++chunk) {
        chunk = std::min(a_.next_chunk(chunk), b_.next_chunk(chunk));
        if (chunk == no_chunk)
            break;
        progress.at(chunk);
        compare_chunk(chunk);
    }
    end_run();
    if (runs_ > list_max_)
        report_.print("and {} more runs (--all lists them)\n", runs_ - list_max_);
    report_.print("{} sectors differ, in {} chunks\n", sectors_, chunks_);
    report_["sectors"] = {a_.size_sectors(), b_.size_sectors()};
    report_["sectors_that_differ"] = sectors_;
    report_["chunks_that_differ"] = chunks_;
    report_["runs"] = runs_;
    report_["runs_listed"] = std::move(listed_);
    return sectors_ == 0 && a_.size_sectors() == b_.size_sectors();
}

void Comparison::compare_chunk(std::uint32_t chunk)
{
    a_.read(chunk, *from_a_);
    b_.read(chunk, *from_b_);
    const std::uint64_t before = sectors_;
    for (unsigned i = 0; i < chunk_sectors; ++i)
        if (const Difference difference = compare(i); difference != Difference::none) {
            extend_run(std::uint64_t{chunk} * chunk_sectors + i, difference);
            ++sectors_;
        }
    chunks_ += sectors_ != before;
}

Comparison::Difference Comparison::compare(unsigned sector) const
{
    if (std::ranges::equal(from_a_->sector(sector), from_b_->sector(sector)))
        return Difference::none;
    if (!from_b_->present[sector])
        return Difference::only_in_a;
    return from_a_->present[sector] ? Difference::contents : Difference::only_in_b;
}

void Comparison::extend_run(std::uint64_t lba, Difference difference)
{
    if (run_difference_ != difference || run_end_ != lba) {
        end_run();
        run_difference_ = difference;
        run_start_ = lba;
    }
    run_end_ = lba + 1;
}

void Comparison::end_run()
{
    static constexpr const char* texts[] = {"", "differ", "are only in the first", "are only in the second"};
    if (run_difference_ == Difference::none)
        return;
    if (runs_++ < list_max_) {
        listed_.push_back({{"first", run_start_},
                           {"last", run_end_ - 1},
                           {"difference", texts[static_cast<int>(run_difference_)]}});
        report_.print("sectors {}-{} (chunks {}-{}) {}\n", run_start_, run_end_ - 1,
                      run_start_ / chunk_sectors, (run_end_ - 1) / chunk_sectors,
                      texts[static_cast<int>(run_difference_)]);
    }
    run_difference_ = Difference::none;
}

}  // namespace

int compare_disks(const Options& options, Report& report)
{
    const auto a = open_disk(options.area, options.lun, options.in_use);
    const auto b = open_disk(options.file, options.lun, options.in_use);
    return Comparison(*a, *b, options.all ? UINT32_MAX : runs_listed_max, report).run() ? 0 : 1;
}

}  // namespace image_tool
