// SPDX-License-Identifier: MIT
// Raw image files and block devices. Every read and write is one system call on the page cache; the
// file is locked against a second server that would write to it.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <system_error>

#include "formats/boot_block.h"
#include "formats/wire.h"
#include "server/block_store.h"

namespace server {

namespace {

constexpr std::uint64_t block_bytes_of_stat = 512;
constexpr std::size_t hole_bytes_min = 4096;  // file systems keep no smaller ones

bool all_zeros(std::span<const std::uint8_t> data)
{
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
}

// Repeats `transfer` (pread or pwrite) until everything is done. False: an error, or the end of file.
template <typename Transfer, typename Byte>
bool transfer_all(Transfer transfer, int file, std::uint64_t offset, std::span<Byte> bytes)
{
    while (!bytes.empty()) {
        const ssize_t done = transfer(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR)
            continue;
        if (done == 0)
            errno = EIO;  // the file has become shorter
        if (done <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(done));
        offset += static_cast<std::uint64_t>(done);
    }
    return true;
}

class FileStore : public BlockStore {
public:
    enum class Use { disk, sparse_file };

    FileStore(const std::string& path, bool readonly, Use use)
        : file_(open(path.c_str(), (readonly ? O_RDONLY : O_RDWR) | O_CLOEXEC))
    {
        if (file_ < 0)
            throw std::system_error(errno, std::generic_category(), path);
        try {
            size_bytes_ = measure(path, use);
            if (use == Use::disk || !readonly)
                lock(path, readonly);
            keeps_holes_ = (keeps_holes_ || use == Use::sparse_file) && !readonly;
        } catch (...) {
            close(file_);
            throw;
        }
    }
    ~FileStore() override { close(file_); }
    FileStore(const FileStore&) = delete;
    FileStore& operator=(const FileStore&) = delete;

    std::uint64_t size_bytes() const override { return size_bytes_; }
    bool read(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        return transfer_all(pread, file_, offset, out);
    }
    bool write(std::uint64_t offset, std::span<const std::uint8_t> data) override
    {
        return (keeps_holes_ && make_hole(offset, data)) || transfer_all(pwrite, file_, offset, data);
    }
    bool flush() override { return fdatasync(file_) == 0; }
    bool hole(std::uint64_t offset, std::uint64_t bytes) override;
    bool read_now(std::uint64_t offset, std::span<std::uint8_t> out) override
    {
        if (may_have_holes_ && !known_data(offset))
            return false;
        const iovec all{out.data(), out.size()};
        return preadv2(file_, &all, 1, static_cast<off_t>(offset), RWF_NOWAIT) ==
               static_cast<ssize_t>(out.size());
    }
    // The medium works on all of them while the first is waited for.
    void read_ahead(std::span<ReadAhead> reads) override
    {
        for (const ReadAhead& read : reads)
            posix_fadvise(file_, static_cast<off_t>(read.offset), static_cast<off_t>(read.out.size()),
                          POSIX_FADV_WILLNEED);
    }

private:
    std::uint64_t measure(const std::string& path, Use use);
    void lock(const std::string& path, bool readonly);
    bool make_hole(std::uint64_t offset, std::span<const std::uint8_t> data);
    bool known_data(std::uint64_t offset)
    {
        std::lock_guard guard(stretch_lock_);
        return offset >= data_begin_ && offset < data_end_;
    }

    int file_;
    std::uint64_t size_bytes_ = 0;
    std::atomic<bool> may_have_holes_ = false;
    std::atomic<bool> keeps_holes_ = false;  // zeros that are written take no room
    // A stretch known to hold data, so that most reads of data need not ask. Holes are always asked
    // for: someone may fill them. The lock guards both ends: threads may share an image.
    std::mutex stretch_lock_;
    std::uint64_t data_begin_ = 0;
    std::uint64_t data_end_ = 0;
};

std::uint64_t FileStore::measure(const std::string& path, Use use)
{
    struct stat status;
    if (fstat(file_, &status) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    std::uint64_t size = 0;
    if (S_ISBLK(status.st_mode)) {
        if (ioctl(file_, BLKGETSIZE64, &size) != 0)
            throw std::system_error(errno, std::generic_category(), path);
    } else if (S_ISREG(status.st_mode)) {
        size = static_cast<std::uint64_t>(status.st_size);
        may_have_holes_ = true;
        keeps_holes_ = static_cast<std::uint64_t>(status.st_blocks) * block_bytes_of_stat < size;
    } else {
        throw std::runtime_error(path + ": neither a file nor a block device");
    }
    if (size == 0)
        throw std::runtime_error(path + ": is empty");
    if (size % formats::sector_bytes != 0)
        throw std::runtime_error(path + ": its size is no multiple of 512 bytes");
    if (use == Use::disk && size / formats::sector_bytes > formats::disk_sectors_max)
        throw std::runtime_error(path + ": has more sectors than a workstation can address (1 TB)");
    return size;
}

void FileStore::lock(const std::string& path, bool readonly)
{
    if (flock(file_, (readonly ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0)
        return;
    if (errno == EWOULDBLOCK)
        throw std::runtime_error(path + ": is in use by another server");
    throw std::system_error(errno, std::generic_category(), path);
}

// False: to be written like anything else. A file that came without holes was given its room on purpose, and
// keeps it.
bool FileStore::make_hole(std::uint64_t offset, std::span<const std::uint8_t> data)
{
    struct stat status;
    if (data.size() < hole_bytes_min || !all_zeros(data) || fstat(file_, &status) != 0 ||
        static_cast<std::uint64_t>(status.st_size) < offset + data.size())  // it has become shorter
        return false;
    if (hole(offset, data.size()))
        return true;
    if (fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                  static_cast<off_t>(data.size())) != 0) {
        keeps_holes_ = errno != EOPNOTSUPP && errno != ENOSYS;
        return false;
    }
    std::lock_guard guard(stretch_lock_);
    if (offset < data_end_ && offset + data.size() > data_begin_)
        data_begin_ = data_end_ = 0;
    return true;
}

bool FileStore::hole(std::uint64_t offset, std::uint64_t bytes)
{
    if (!may_have_holes_ || known_data(offset))
        return false;
    const off_t data = lseek(file_, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) {
        struct stat status;
        if (errno == ENXIO)  // no data from here to the end
            return fstat(file_, &status) == 0 && static_cast<std::uint64_t>(status.st_size) >= offset + bytes;
        may_have_holes_ = false;
        return false;
    }
    if (static_cast<std::uint64_t>(data) >= offset + bytes)
        return true;
    const off_t end = lseek(file_, data, SEEK_HOLE);
    if (end > data) {
        std::lock_guard guard(stretch_lock_);
        data_begin_ = static_cast<std::uint64_t>(data);
        data_end_ = static_cast<std::uint64_t>(end);
    }
    return false;
}

}  // namespace

std::unique_ptr<BlockStore> open_file_store(const std::string& path, bool readonly)
{
    return std::make_unique<FileStore>(path, readonly, FileStore::Use::disk);
}

std::unique_ptr<BlockStore> open_sparse_file(const std::string& path, bool readonly)
{
    return std::make_unique<FileStore>(path, readonly, FileStore::Use::sparse_file);
}

}  // namespace server
