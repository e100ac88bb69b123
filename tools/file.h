// SPDX-License-Identifier: MIT
// A file or block device that is only looked at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

namespace image_tool {

// An open file; closes it. fd -1: none.
class FileHandle {
public:
    explicit FileHandle(int fd = -1) : fd_(fd) {}
    FileHandle(FileHandle&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileHandle& operator=(FileHandle&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileHandle();

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// Whether to look at what another program is writing to: a server at its disk, a workstation at its local
// disk.
enum class InUse { refuse, allow };

class InputFile {
public:
    // "-" is standard input, which is kept in an unnamed file as long as this object lives. Throws ToolError
    // when there is no such file or it is neither a regular file nor a block device.
    explicit InputFile(const std::string& path);

    // Keeps those away that write to it. False: one of them was faster. Throws ToolError then, unless it is
    // allowed.
    bool lock(InUse in_use) const;

    const std::string& path() const { return path_; }
    std::uint64_t size_bytes() const { return size_bytes_; }
    // What lies on the disk below, less than the size for a file with holes.
    std::uint64_t stored_bytes() const;

    // All of it; throws ToolError when the file does not give it. The range lies within the size.
    void read(std::uint64_t offset_bytes, std::span<std::byte> data) const;

    // The first offset from this one on that is not in a hole; size_bytes() when there is none.
    std::uint64_t next_data(std::uint64_t offset_bytes) const;

    // Whether both are one file, under whatever names.
    bool is_same_as(const std::string& path) const;

private:
    std::string path_;
    FileHandle file_;
    std::uint64_t size_bytes_;
};

// What is said of a file that another program has locked.
std::string in_use_text(const std::string& path);

// "path: text for errno"
[[noreturn]] void throw_errno(const std::string& path);

bool is_zero(std::span<const std::byte> data);

}  // namespace image_tool
