// SPDX-License-Identifier: MIT
#include "tools/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tools/errors.h"
#include "tools/progress.h"

namespace image_tool {

namespace {

constexpr std::size_t spool_bytes = 64 << 10;

// Everything on standard input, with holes where it is zeros.
int spool_standard_input()
{
    const std::string folder = std::filesystem::temp_directory_path().string();
    FileHandle spool(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (spool.get() < 0)
        throw_errno(folder);
    std::vector<std::byte> bytes(spool_bytes);
    Progress progress("standard input", 0);
    off_t size = 0;
    for (;;) {
        progress.at(0);
        const ssize_t got = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw_errno("standard input");
        if (got == 0)
            break;
        const std::span part(bytes.data(), static_cast<std::size_t>(got));
        if (!is_zero(part) && pwrite(spool.get(), part.data(), part.size(), size) != got)
            throw_errno(folder);
        size += got;
    }
    if (ftruncate(spool.get(), size) != 0)
        throw_errno(folder);
    return spool.release();
}

// Without O_NONBLOCK a named pipe would hold the program up before it can be refused.
int open_for_reading(const std::string& path)
{
    if (path == "-")
        return spool_standard_input();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        throw_errno(path);
    return fd;
}

}  // namespace

void throw_errno(const std::string& path)
{
    throw ToolError(path + ": " + std::strerror(errno));
}

std::string in_use_text(const std::string& path)
{
    return path + ": in use, a server or a workstation may be writing to it";
}

bool is_zero(std::span<const std::byte> data)
{
    return data.empty() ||
           (data[0] == std::byte{0} && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

FileHandle::~FileHandle()
{
    if (fd_ >= 0)
        close(fd_);
}

InputFile::InputFile(const std::string& path)
    : path_(path == "-" ? "standard input" : path), file_(open_for_reading(path))
{
    struct stat status;
    if (fstat(file_.get(), &status) != 0)
        throw_errno(path);
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        throw ToolError(path + ": neither a file nor a block device");
    const off_t end = lseek(file_.get(), 0, SEEK_END);
    if (end < 0)
        throw_errno(path);
    size_bytes_ = static_cast<std::uint64_t>(end);
}

bool InputFile::lock(InUse in_use) const
{
    if (flock(file_.get(), LOCK_SH | LOCK_NB) == 0)
        return true;
    if (errno != EWOULDBLOCK)
        throw_errno(path_);
    if (in_use == InUse::refuse)
        throw ToolError(in_use_text(path_) + "; --in-use looks at it all the same");
    return false;
}

std::uint64_t InputFile::stored_bytes() const
{
    struct stat status;
    if (fstat(file_.get(), &status) != 0)
        throw_errno(path_);
    return S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_blocks) * 512 : size_bytes_;
}

void InputFile::read(std::uint64_t offset_bytes, std::span<std::byte> data) const
{
    while (!data.empty()) {
        const ssize_t got = pread(file_.get(), data.data(), data.size(), static_cast<off_t>(offset_bytes));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw_errno(path_);
        if (got == 0)
            throw ToolError(path_ + ": became shorter while it was read");
        data = data.subspan(static_cast<std::size_t>(got));
        offset_bytes += static_cast<std::uint64_t>(got);
    }
}

std::uint64_t InputFile::next_data(std::uint64_t offset_bytes) const
{
    const off_t data = lseek(file_.get(), static_cast<off_t>(offset_bytes), SEEK_DATA);
    if (data >= 0)
        return std::min(static_cast<std::uint64_t>(data), size_bytes_);
    return errno == ENXIO ? size_bytes_ : offset_bytes;
}

bool InputFile::is_same_as(const std::string& path) const
{
    struct stat mine, other;
    return fstat(file_.get(), &mine) == 0 && stat(path.c_str(), &other) == 0 && mine.st_dev == other.st_dev &&
           mine.st_ino == other.st_ino;
}

}  // namespace image_tool
