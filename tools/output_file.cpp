// SPDX-License-Identifier: MIT
#include "tools/output_file.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

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

bool is_device(const std::string& path, bool replace)
{
    const auto status = status_of(path);
    if (status && !S_ISREG(status->st_mode) && !S_ISBLK(status->st_mode))
        throw ToolError(path + ": neither a file nor a block device");
    if (status && !replace)
        throw ToolError(path + ": exists; --force overwrites it");
    return status && S_ISBLK(status->st_mode);
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
    const int fd = open(path.c_str(), flags | O_CLOEXEC, 0666);
    if (fd < 0)
        throw_errno(path);
    return FileHandle(fd);
}

void lock(const std::string& path, int fd, int kind)
{
    if (flock(fd, kind | LOCK_NB) == 0)
        return;
    if (errno != EWOULDBLOCK)
        throw_errno(path);
    throw ToolError(in_use_text(path));
}

// Who only reads the old file goes on with that; who writes to it would lose what it writes.
FileHandle lock_replaced(const std::string& path)
{
    FileHandle file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() >= 0)
        lock(path, file.get(), LOCK_SH);
    return file;
}

}  // namespace

OutputFile::OutputFile(const std::string& path, bool replace)
    : path_(resolved(path)), kind_(path == "-"                 ? Kind::spooled
                                   : is_device(path_, replace) ? Kind::in_place
                                                               : Kind::named),
      replace_(replace), replaced_(kind_ == Kind::named ? lock_replaced(path_) : FileHandle())
{
    if (kind_ == Kind::spooled) {
        path_ = "standard output";
        file_ = open_for_writing(std::filesystem::temp_directory_path().string(), O_TMPFILE | O_RDWR);
    } else if (kind_ == Kind::named) {
        temporary_path_ = path_ + ".new-" + std::to_string(getpid());
        file_ = open_for_writing(temporary_path_, O_WRONLY | O_CREAT | O_EXCL);
    } else {
        file_ = open_for_writing(path_, O_WRONLY | O_EXCL);
        lock(path_, file_.get(), LOCK_EX);
        const off_t end = lseek(file_.get(), 0, SEEK_END);
        if (end < 0)
            throw_errno(path_);
        size_limit_bytes_ = static_cast<std::uint64_t>(end);
    }
}

OutputFile::OutputFile(const std::string& path, std::uint64_t start_bytes, std::uint64_t size_bytes)
    : path_(path), kind_(Kind::in_place), replace_(true), file_(open_for_writing(path, O_WRONLY)),
      start_bytes_(start_bytes), size_limit_bytes_(size_bytes)
{
    lock(path_, file_.get(), LOCK_EX);
}

OutputFile::OutputFile(InOrder) : path_("standard output"), kind_(Kind::in_order), replace_(false) {}

OutputFile::~OutputFile()
{
    if (kind_ == Kind::named && !complete_)
        unlink(temporary_path_.c_str());
}

void OutputFile::write(std::uint64_t offset_bytes, std::span<const std::byte> data)
{
    if (offset_bytes > size_limit_bytes_ || data.size() > size_limit_bytes_ - offset_bytes)
        throw ToolError(path_ + ": too small for what is to be written");
    if (kind_ == Kind::in_order) {
        send_zeros_up_to(offset_bytes);
        return send(data);
    }
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

void OutputFile::send(std::span<const std::byte> data)
{
    sent_bytes_ += data.size();
    while (!data.empty()) {
        const ssize_t put = ::write(STDOUT_FILENO, data.data(), data.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            throw_errno(path_);
        data = data.subspan(static_cast<std::size_t>(put));
    }
}

void OutputFile::send_zeros_up_to(std::uint64_t offset_bytes)
{
    static constexpr std::byte zeros[64 << 10] = {};
    while (sent_bytes_ < offset_bytes)
        send({zeros, std::min<std::uint64_t>(sizeof zeros, offset_bytes - sent_bytes_)});
}

void OutputFile::send_spool(std::uint64_t size_bytes)
{
    std::vector<std::byte> bytes(64 << 10);
    while (sent_bytes_ < size_bytes) {
        const std::uint64_t size = std::min<std::uint64_t>(bytes.size(), size_bytes - sent_bytes_);
        const ssize_t got = pread(file_.get(), bytes.data(), size, static_cast<off_t>(sent_bytes_));
        if (got <= 0)
            throw_errno(path_);
        send(std::span(bytes).first(static_cast<std::size_t>(got)));
    }
}

void OutputFile::complete(std::uint64_t size_bytes)
{
    if (kind_ == Kind::in_order)
        return send_zeros_up_to(size_bytes);
    if (is_fresh() && ftruncate(file_.get(), static_cast<off_t>(size_bytes)) != 0)
        throw_errno(path_);
    if (kind_ == Kind::spooled)
        return send_spool(size_bytes);
    if (fdatasync(file_.get()) != 0)
        throw_errno(path_);
    if (kind_ == Kind::named)
        take_name();
    complete_ = true;
}

// Not every file system can rename without replacing; there the check at the start has to do.
void OutputFile::take_name()
{
    const char *from = temporary_path_.c_str(), *to = path_.c_str();
    int failed = replace_ ? rename(from, to) : renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
    if (failed != 0 && !replace_ && (errno == EINVAL || errno == ENOSYS))
        failed = rename(from, to);
    if (failed != 0)
        throw_errno(path_);
}

}  // namespace image_tool
