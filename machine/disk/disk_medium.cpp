// SPDX-License-Identifier: MIT
#include "machine/disk/disk_medium.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace machine {
namespace {

[[noreturn]] void host_failure(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

off_t position_of(std::uint64_t sector)
{
    return static_cast<off_t>(sector * disk_sector_bytes);
}

// Calls the host until all bytes are through. transfer is pread or pwrite.
template <class Transfer, class Byte>
bool transfer_all(Transfer transfer, int file, off_t position, std::span<Byte> bytes)
{
    while (!bytes.empty()) {
        const ssize_t done = transfer(file, bytes.data(), bytes.size(), position);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(done));
        position += done;
    }
    return true;
}

}  // namespace

DiskMedium::DiskMedium(std::uint64_t sectors)
    : file_(memfd_create("local disk", MFD_CLOEXEC)), sectors_(sectors)
{
    if (file_ >= 0 && ftruncate(file_, position_of(sectors)) == 0)
        return;
    const int error = errno;
    if (file_ >= 0)
        close(file_);
    throw std::system_error(error, std::generic_category(), "no memory for a local disk");
}

DiskMedium::DiskMedium(const std::string& path) : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)), sectors_(0)
{
    if (file_ < 0)
        host_failure("cannot open the disk image " + path);
    const off_t bytes = lseek(file_, 0, SEEK_END);  // of a block device too
    if (bytes >= 0) {
        sectors_ = static_cast<std::uint64_t>(bytes) / disk_sector_bytes;
        return;
    }
    const int error = errno;
    close(file_);
    throw std::system_error(error, std::generic_category(), "cannot tell the size of " + path);
}

DiskMedium::~DiskMedium()
{
    close(file_);
}

bool DiskMedium::read(std::uint64_t sector, std::span<std::uint8_t> bytes) const
{
    if (!transfer_all(pread, file_, position_of(sector), bytes))
        return false;
    read_cached(sector, bytes);
    return true;
}

bool DiskMedium::read_at_hand(std::uint64_t sector, std::span<std::uint8_t> bytes) const
{
    const iovec buffer{bytes.data(), bytes.size()};
    if (preadv2(file_, &buffer, 1, position_of(sector), RWF_NOWAIT) != static_cast<ssize_t>(bytes.size()))
        return false;
    read_cached(sector, bytes);
    return true;
}

void DiskMedium::read_cached(std::uint64_t sector, std::span<std::uint8_t> bytes) const
{
    const std::uint64_t end = sector + bytes.size() / disk_sector_bytes;
    for (auto cached = cache_.lower_bound(sector); cached != cache_.end() && cached->first < end; ++cached)
        std::ranges::copy(cached->second.back()->of(cached->first),
                          bytes.data() + (cached->first - sector) * disk_sector_bytes);
}

bool DiskMedium::write(std::uint64_t sector, std::span<const std::uint8_t> bytes)
{
    if (!cache_.empty())  // what is cached of these sectors is older
        cache_.erase(cache_.lower_bound(sector),
                     cache_.lower_bound(sector + bytes.size() / disk_sector_bytes));
    return transfer_all(pwrite, file_, position_of(sector), bytes);
}

bool DiskMedium::flush()
{
    return fdatasync(file_) == 0;
}

void DiskMedium::write_cached(std::uint64_t sector, std::span<const std::uint8_t> bytes, Ticks durable_at)
{
    auto write = std::make_shared<CachedWrite>();
    write->sector = sector;
    write->bytes.assign(bytes.begin(), bytes.end());
    for (std::uint64_t number = sector; number < write->end(); ++number)
        cache_[number].push_back(write);
    due_.emplace(durable_at, std::move(write));
}

void DiskMedium::settle(Ticks now)
{
    while (!due_.empty() && due_.begin()->first <= now) {
        settle(due_.begin()->second);
        due_.erase(due_.begin());
    }
}

// A sector that a newer write brought to the file already keeps what that wrote.
void DiskMedium::settle(const std::shared_ptr<CachedWrite>& write)
{
    for (std::uint64_t number = write->sector; number < write->end(); ++number) {
        const auto cached = cache_.find(number);
        if (cached == cache_.end())
            continue;
        Versions& versions = cached->second;
        const auto version = std::ranges::find(versions, write);
        if (version == versions.end())
            continue;
        transfer_all(pwrite, file_, position_of(number), write->of(number));
        versions.erase(versions.begin(), version + 1);
        if (versions.empty())
            cache_.erase(cached);
    }
}

bool DiskMedium::survives(CachedWrite& write, Random& random)
{
    if (write.fate == Fate::undecided) {
        constexpr Fate fates[] = {Fate::kept, Fate::lost, Fate::torn};
        write.fate = fates[random.below(3)];
    }
    return write.fate == Fate::kept || (write.fate == Fate::torn && random.chance(0.5));
}

void DiskMedium::power_cut(Random& random)
{
    for (auto& [number, versions] : cache_)
        for (auto version = versions.rbegin(); version != versions.rend(); ++version)
            if (survives(**version, random)) {
                transfer_all(pwrite, file_, position_of(number), (*version)->of(number));
                break;
            }
    cache_.clear();
    due_.clear();
}

}  // namespace machine
