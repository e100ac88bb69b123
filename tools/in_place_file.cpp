// SPDX-License-Identifier: MIT
#include "tools/in_place_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/errors.h"

namespace image_tool {

InPlaceFile::InPlaceFile(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK))
{
    struct stat status;
    if (file_.get() < 0 || fstat(file_.get(), &status) != 0)
        throw_errno(path_);
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        throw ToolError(path_ + ": neither a file nor a block device");
    if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0)
        throw ToolError(in_use_text(path_));
    const off_t end = lseek(file_.get(), 0, SEEK_END);
    if (end < 0)
        throw_errno(path_);
    size_bytes_ = static_cast<std::uint64_t>(end);
}

bool InPlaceFile::read(std::uint64_t offset_bytes, std::span<std::byte> data) const
{
    while (!data.empty()) {
        const ssize_t got = pread(file_.get(), data.data(), data.size(), static_cast<off_t>(offset_bytes));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw_errno(path_);
        if (got == 0)
            return false;
        data = data.subspan(static_cast<std::size_t>(got));
        offset_bytes += static_cast<std::uint64_t>(got);
    }
    return true;
}

void InPlaceFile::write(std::uint64_t offset_bytes, std::span<const std::byte> data) const
{
    while (!data.empty()) {
        const ssize_t put = pwrite(file_.get(), data.data(), data.size(), static_cast<off_t>(offset_bytes));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throw_errno(path_);
        data = data.subspan(static_cast<std::size_t>(put));
        offset_bytes += static_cast<std::uint64_t>(put);
    }
}

void InPlaceFile::flush() const
{
    if (fdatasync(file_.get()) != 0)
        throw_errno(path_);
}

void InPlaceFile::resize(std::uint64_t size_bytes) const
{
    if (ftruncate(file_.get(), static_cast<off_t>(size_bytes)) != 0)
        throw_errno(path_);
}

}  // namespace image_tool
