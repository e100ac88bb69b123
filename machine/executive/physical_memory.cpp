#include "machine/executive/physical_memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "machine/machine.h"

namespace machine {
namespace {

constexpr std::uint64_t conventional_bytes = 0xA0000;
constexpr std::uint64_t four_gb = std::uint64_t{1} << 32;
constexpr std::uint64_t page_bytes = 4096;

void check_transfer(ssize_t done, std::size_t wanted)
{
    if (done != static_cast<ssize_t>(wanted))
        throw std::system_error(done < 0 ? errno : EIO, std::generic_category(), "physical memory file");
}

}  // namespace

PhysicalMemory::PhysicalMemory(std::vector<MemoryRange> ranges, std::uint64_t above_4g_bytes)
    : ranges_(std::move(ranges)), above_4g_bytes_(above_4g_bytes)
{
    std::uint64_t end = std::max(conventional_bytes, above_4g_bytes ? four_gb + above_4g_bytes : 0);
    for (const MemoryRange& range : ranges_)
        end = std::max(end, range.base + range.length);
    file_ = memfd_create("physical memory", MFD_CLOEXEC);
    if (file_ < 0 || ftruncate(file_, static_cast<off_t>(end)) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make the physical memory file");
}

PhysicalMemory::~PhysicalMemory()
{
    for (const Window& window : windows_)
        munmap(window.mapped, window.mapped_bytes);
    close(file_);
}

bool PhysicalMemory::present(std::uint64_t address, std::uint64_t bytes) const
{
    const auto inside = [=](std::uint64_t base, std::uint64_t length) {
        return address >= base && address - base <= length && bytes <= length - (address - base);
    };
    return inside(0, conventional_bytes) || inside(four_gb, above_4g_bytes_) ||
           std::ranges::any_of(ranges_,
                               [&](const MemoryRange& range) { return inside(range.base, range.length); });
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

void* PhysicalMemory::map(std::uint64_t address, std::uint64_t bytes)
{
    if (bytes == 0 || bytes > SIZE_MAX - 2 * page_bytes || !present(address, bytes))
        return nullptr;
    const std::uint64_t lead = address % page_bytes;
    const auto mapped_bytes =
        static_cast<std::size_t>((lead + bytes + page_bytes - 1) / page_bytes * page_bytes);
    void* mapped = mmap(nullptr, mapped_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_,
                        static_cast<off_t>(address - lead));
    if (mapped == MAP_FAILED)
        return nullptr;
    void* window = static_cast<std::uint8_t*>(mapped) + lead;
    std::lock_guard guard(lock_);
    windows_.push_back({window, bytes, mapped, mapped_bytes});
    return window;
}

void PhysicalMemory::unmap(void* address, std::uint64_t bytes)
{
    const char* broken = nullptr;
    {
        std::lock_guard guard(lock_);
        const auto window = std::ranges::find(windows_, address, &Window::address);
        if (window == windows_.end()) {
            broken = "a mapping is undone that does not exist";
        } else if (window->bytes != bytes) {
            broken = "a mapping is undone with another length than it was made with";
        } else {
            munmap(window->mapped, window->mapped_bytes);
            windows_.erase(window);
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

}  // namespace machine
