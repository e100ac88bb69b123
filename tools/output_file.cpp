// SPDX-License-Identifier: MIT
#include "tools/output_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>

#include "tools/errors.h"

namespace image_tool {

namespace {

constexpr std::size_t hole_bytes = 4096;

std::optional<struct stat> status_of(const std::string& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) == 0)
        return status;
    if (errno != ENOENT)
        throw_errno(path);
    return {};
}

// Empty: the path is a device, to be written in place.
std::string temporary_path_for(const std::string& path, bool replace)
{
    const auto status = status_of(path);
    if (status && !S_ISREG(status->st_mode) && !S_ISBLK(status->st_mode))
        throw ToolError(path + ": neither a file nor a block device");
    if (status && !replace)
        throw ToolError(path + ": exists; --force overwrites it");
    return status && S_ISBLK(status->st_mode) ? "" : path + ".new-" + std::to_string(getpid());
}

// Replacing what a symbolic link points to leaves the link alone.
std::string resolved(const std::string& path)
{
    std::error_code ignored;
    return std::filesystem::is_symlink(path, ignored) ? std::filesystem::weakly_canonical(path).string()
                                                      : path;
}

FileHandle open_for_writing(const std::string& path, int flags)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0666);
    if (fd < 0)
        throw_errno(path);
    return FileHandle(fd);
}

}  // namespace

OutputFile::OutputFile(const std::string& path, bool replace)
    : path_(resolved(path)), temporary_path_(temporary_path_for(path_, replace)), replace_(replace),
      file_(is_fresh() ? open_for_writing(temporary_path_, O_CREAT | O_EXCL)
                       : open_for_writing(path_, O_EXCL))
{
    if (is_fresh())
        return;
    const off_t end = lseek(file_.get(), 0, SEEK_END);
    if (end < 0)
        throw_errno(path_);
    size_limit_bytes_ = static_cast<std::uint64_t>(end);
}

OutputFile::OutputFile(const std::string& path, std::uint64_t start_bytes, std::uint64_t size_bytes)
    : path_(path), replace_(true), file_(open_for_writing(path, 0)), start_bytes_(start_bytes),
      size_limit_bytes_(size_bytes)
{
}

OutputFile::~OutputFile()
{
    if (is_fresh() && !complete_)
        unlink(temporary_path_.c_str());
}

void OutputFile::write(std::uint64_t offset_bytes, std::span<const std::byte> data)
{
    if (offset_bytes > size_limit_bytes_ || data.size() > size_limit_bytes_ - offset_bytes)
        throw ToolError(path_ + ": too small for what is to be written");
    if (!is_fresh())
        return write_all(offset_bytes, data);
    for (std::size_t at = 0; at < data.size();) {
        const auto piece = [&](std::size_t from) {
            return data.subspan(from, std::min(hole_bytes, data.size() - from));
        };
        std::size_t end = at;
        while (end < data.size() && !is_zero(piece(end)))
            end += piece(end).size();
        write_all(offset_bytes + at, data.subspan(at, end - at));
        at = end < data.size() ? end + piece(end).size() : end;
    }
}

void OutputFile::write_all(std::uint64_t offset_bytes, std::span<const std::byte> data)
{
    while (!data.empty()) {
        const ssize_t put =
            pwrite(file_.get(), data.data(), data.size(), static_cast<off_t>(start_bytes_ + offset_bytes));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throw_errno(path_);
        data = data.subspan(static_cast<std::size_t>(put));
        offset_bytes += static_cast<std::uint64_t>(put);
    }
}

void OutputFile::complete(std::uint64_t size_bytes)
{
    if (is_fresh() && ftruncate(file_.get(), static_cast<off_t>(size_bytes)) != 0)
        throw_errno(path_);
    if (fdatasync(file_.get()) != 0)
        throw_errno(path_);
    if (is_fresh()) {
        // Not every file system can rename without replacing; there the check at the start has to do.
        const char *from = temporary_path_.c_str(), *to = path_.c_str();
        int failed = replace_ ? rename(from, to) : renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
        if (failed != 0 && !replace_ && (errno == EINVAL || errno == ENOSYS))
            failed = rename(from, to);
        if (failed != 0)
            throw_errno(path_);
    }
    complete_ = true;
}

}  // namespace image_tool
