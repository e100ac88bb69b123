// SPDX-License-Identifier: MIT
#include "machine/executive/physical_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "machine/executive/unanswered_memory.h"
#include "machine/scheduler/violation.h"

namespace machine {
namespace {

constexpr std::uint64_t conventional_bytes = 0xA0000;
constexpr std::uint64_t four_gb = std::uint64_t{1} << 32;
// The probe of a driver maps each block once and looks at its first words.
constexpr std::uint64_t garbage_block_bytes = 4 * 1024 * 1024;
constexpr std::uint8_t garbage_byte = 0xCD;
constexpr std::uint64_t file_bytes_max = std::uint64_t{1} << 44;  // what 32-bit page numbers reach

void check_transfer(ssize_t done, std::size_t wanted)
{
    if (done != static_cast<ssize_t>(wanted))
        throw std::system_error(done < 0 ? errno : EIO, std::generic_category(), "physical memory file");
}

bool inside(const MemoryRange& range, std::uint64_t address, std::uint64_t bytes)
{
    return address >= range.base && address - range.base <= range.length &&
           bytes <= range.length - (address - range.base);
}

std::size_t blocks_of(std::uint64_t bytes)
{
    return static_cast<std::size_t>((bytes + garbage_block_bytes - 1) / garbage_block_bytes);
}

std::uint64_t file_bytes(const PhysicalMemoryLayout& layout)
{
    std::uint64_t end =
        std::max(conventional_bytes, layout.above_4g_bytes ? four_gb + layout.above_4g_bytes : 0);
    for (const MemoryRange& range : layout.managed) {
        if (range.base > file_bytes_max || range.length > file_bytes_max - range.base)
            throw std::invalid_argument("a memory range ends beyond 16 TB");
        end = std::max(end, range.base + range.length);
    }
    return end;
}

}  // namespace

PhysicalMemory::PhysicalMemory(PhysicalMemoryLayout layout)
    : layout_(std::move(layout)), pages_(layout_.managed, layout_.piece_pages_max, layout_.seed),
      ptes_(layout_.system_ptes, layout_.largest_pte_run, layout_.seed),
      blocks_seen_(layout_.garbage_above_4g ? blocks_of(layout_.above_4g_bytes) : 0)
{
    const std::uint64_t bytes = file_bytes(layout_);
    file_ = memfd_create("physical memory", MFD_CLOEXEC);
    if (file_ < 0 || ftruncate(file_, static_cast<off_t>(bytes)) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make the physical memory file");
}

PhysicalMemory::~PhysicalMemory()
{
    for (const auto& [address, window] : windows_) {
        forget_unanswered(window.mapped);
        munmap(window.mapped, window.mapped_bytes);
    }
    close(file_);
}

bool PhysicalMemory::present(std::uint64_t address, std::uint64_t bytes) const
{
    return inside({0, conventional_bytes}, address, bytes) ||
           inside({four_gb, layout_.above_4g_bytes}, address, bytes) ||
           std::ranges::any_of(layout_.managed,
                               [&](const MemoryRange& range) { return inside(range, address, bytes); });
}

bool PhysicalMemory::unanswered(std::uint64_t address, std::uint64_t bytes) const
{
    return std::ranges::any_of(layout_.unanswered,
                               [&](const MemoryRange& range) { return inside(range, address, bytes); });
}

void PhysicalMemory::write(std::uint64_t address, std::span<const std::uint8_t> bytes)
{
    if (!present(address, bytes.size()))
        violation("a write to physical memory that is not there, at " + std::to_string(address));
    check_transfer(pwrite(file_, bytes.data(), bytes.size(), static_cast<off_t>(address)), bytes.size());
}

void PhysicalMemory::read(std::uint64_t address, std::span<std::uint8_t> bytes) const
{
    if (!present(address, bytes.size()))
        violation("a read of physical memory that is not there, at " + std::to_string(address));
    check_transfer(pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(address)), bytes.size());
}

std::optional<std::uint32_t> PhysicalMemory::reserve(std::size_t bytes)
{
    std::lock_guard guard(lock_);
    const auto first_pte = ptes_.take(static_cast<std::uint32_t>(bytes / page_bytes));
    if (first_pte)
        window_bytes_ += bytes;
    return first_pte;
}

void PhysicalMemory::release(std::uint32_t first_pte, std::size_t bytes)
{
    std::lock_guard guard(lock_);
    window_bytes_ -= bytes;
    ptes_.give(first_pte, static_cast<std::uint32_t>(bytes / page_bytes));
}

// Memory that nobody has used since the machine was switched on. A block gets its garbage where it is looked
// at: the first page when it is mapped first, the rest when it is mapped again. So a probe of a large memory
// costs the host little.
void PhysicalMemory::fill_with_garbage(std::uint64_t address, std::uint64_t bytes)
{
    const std::uint64_t end = four_gb + layout_.above_4g_bytes;
    if (address < four_gb || address >= end)
        return;
    const std::uint64_t last = (std::min(address + bytes, end) - 1 - four_gb) / garbage_block_bytes;
    std::lock_guard guard(lock_);
    for (std::uint64_t block = (address - four_gb) / garbage_block_bytes; block <= last; ++block) {
        const std::uint64_t begin = four_gb + block * garbage_block_bytes;
        const auto index = static_cast<std::size_t>(block);
        fill_holes(begin, std::min(begin + (blocks_seen_[index] ? garbage_block_bytes : page_bytes), end));
        blocks_seen_[index] = true;
    }
}

// Whatever was written stays.
void PhysicalMemory::fill_holes(std::uint64_t begin, std::uint64_t end) const
{
    static const std::vector<std::uint8_t> garbage(garbage_block_bytes, garbage_byte);
    while (begin < end) {
        const off_t hole = lseek(file_, static_cast<off_t>(begin), SEEK_HOLE);
        if (hole < 0)
            throw std::system_error(errno, std::generic_category(), "physical memory file");
        begin = static_cast<std::uint64_t>(hole);
        if (begin >= end)
            return;
        const off_t data = lseek(file_, hole, SEEK_DATA);
        const std::uint64_t hole_end = data < 0 ? end : std::min(end, static_cast<std::uint64_t>(data));
        const auto bytes = static_cast<std::size_t>(hole_end - begin);
        check_transfer(pwrite(file_, garbage.data(), bytes, hole), bytes);
        begin = hole_end;
    }
}

void* PhysicalMemory::keep(void* window, const Window& details)
{
    std::lock_guard guard(lock_);
    windows_.emplace(window, details);
    return window;
}

void* PhysicalMemory::map(std::uint64_t address, std::uint64_t bytes)
{
    const bool nothing_answers = unanswered(address, bytes);
    if (bytes == 0 || bytes > SIZE_MAX - 2 * page_bytes || (!nothing_answers && !present(address, bytes)))
        return nullptr;
    const std::uint64_t lead = address % page_bytes;
    const auto mapped_bytes =
        static_cast<std::size_t>((lead + bytes + page_bytes - 1) / page_bytes * page_bytes);
    const auto first_pte = reserve(mapped_bytes);
    if (!first_pte)
        return nullptr;
    if (!blocks_seen_.empty())
        fill_with_garbage(address - lead, mapped_bytes);
    void* mapped = nothing_answers ? map_unanswered(mapped_bytes)
                                   : mmap(nullptr, mapped_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_,
                                          static_cast<off_t>(address - lead));
    if (mapped == MAP_FAILED) {
        release(*first_pte, mapped_bytes);
        return nullptr;
    }
    return keep(static_cast<std::uint8_t*>(mapped) + lead,
                {bytes, mapped, mapped_bytes, nullptr, *first_pte});
}

void PhysicalMemory::unmap(void* window, std::uint64_t bytes)
{
    close_window(window, bytes, nullptr);
}

std::vector<PageRun> PhysicalMemory::take_pages(std::uint64_t low, std::uint64_t high, std::uint64_t count)
{
    std::vector<PageRun> runs;
    {
        std::lock_guard guard(lock_);
        runs = pages_.take(low / page_bytes, high / page_bytes, count);
    }
    for (const PageRun& run : runs)
        drop_contents(run);
    return runs;
}

void PhysicalMemory::give_pages(std::span<const PageRun> runs)
{
    for (const PageRun& run : runs)
        drop_contents(run);
    std::lock_guard guard(lock_);
    for (const PageRun& run : runs)
        pages_.give(run);
}

// Zeroes the pages and takes no host memory for them.
void PhysicalMemory::drop_contents(const PageRun& run) const
{
    if (fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                  static_cast<off_t>(run.first * page_bytes),
                  static_cast<off_t>(run.count * page_bytes)) != 0)
        throw std::system_error(errno, std::generic_category(), "physical memory file");
}

// Over what is mapped at this place.
bool PhysicalMemory::map_runs(std::uint8_t* place, std::span<const PageRun> runs) const
{
    for (const PageRun& run : runs) {
        const auto bytes = static_cast<std::size_t>(run.count * page_bytes);
        if (mmap(place, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file_,
                 static_cast<off_t>(run.first * page_bytes)) == MAP_FAILED)
            return false;
        place += bytes;
    }
    return true;
}

void* PhysicalMemory::map_pages(std::span<const PageRun> runs, const void* owner)
{
    std::uint64_t bytes = 0;
    for (const PageRun& run : runs)
        bytes += run.count * page_bytes;
    const auto mapped_bytes = static_cast<std::size_t>(bytes);
    if (bytes == 0 || bytes > SIZE_MAX)
        return nullptr;
    const auto first_pte = reserve(mapped_bytes);
    if (!first_pte)
        return nullptr;
    void* mapped = mmap(nullptr, mapped_bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED || !map_runs(static_cast<std::uint8_t*>(mapped), runs)) {
        if (mapped != MAP_FAILED)
            munmap(mapped, mapped_bytes);
        release(*first_pte, mapped_bytes);
        return nullptr;
    }
    return keep(mapped, {bytes, mapped, mapped_bytes, owner, *first_pte});
}

void PhysicalMemory::unmap_pages(void* window, const void* owner)
{
    close_window(window, 0, owner);
}

// The length counts for windows on a physical range only.
void PhysicalMemory::close_window(void* address, std::uint64_t bytes, const void* owner)
{
    const char* broken = nullptr;
    {
        std::lock_guard guard(lock_);
        const auto found = windows_.find(address);
        if (found == windows_.end()) {
            broken = "a mapping is undone that does not exist";
        } else if (found->second.owner != owner) {
            broken = "a mapping is undone in another shape than it was made in";
        } else if (!owner && found->second.bytes != bytes) {
            broken = "a mapping is undone with another length than it was made with";
        } else {
            const Window window = found->second;
            windows_.erase(found);
            window_bytes_ -= window.mapped_bytes;
            ptes_.give(window.first_pte, static_cast<std::uint32_t>(window.mapped_bytes / page_bytes));
            forget_unanswered(window.mapped);
            munmap(window.mapped, window.mapped_bytes);
        }
    }
    if (broken)
        violation(broken);
}

std::size_t PhysicalMemory::windows() const
{
    std::lock_guard guard(lock_);
    return windows_.size();
}

std::uint64_t PhysicalMemory::window_bytes() const
{
    std::lock_guard guard(lock_);
    return window_bytes_;
}

std::uint32_t PhysicalMemory::free_ptes() const
{
    std::lock_guard guard(lock_);
    return ptes_.free();
}

std::uint32_t PhysicalMemory::largest_pte_run() const
{
    std::lock_guard guard(lock_);
    return ptes_.largest_run();
}

std::uint64_t PhysicalMemory::pages_in_use() const
{
    std::lock_guard guard(lock_);
    return pages_.in_use();
}

}  // namespace machine
