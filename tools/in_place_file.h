// SPDX-License-Identifier: MIT
// A file or block device that is changed where it lies, with nobody else at it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tools/file.h"

namespace image_tool {

class InPlaceFile {
public:
    // Throws ToolError when there is no such file, or another program uses it.
    explicit InPlaceFile(const std::string& path);

    std::uint64_t size_bytes() const { return size_bytes_; }
    // False: the file ends before.
    bool read(std::uint64_t offset_bytes, std::span<std::byte> data) const;
    void write(std::uint64_t offset_bytes, std::span<const std::byte> data) const;
    // What was written survives a loss of power, and comes before what is written from now on.
    void flush() const;
    // A regular file's size; that of a device cannot be changed.
    void resize(std::uint64_t size_bytes) const;

private:
    std::string path_;
    FileHandle file_;
    std::uint64_t size_bytes_ = 0;
};

}  // namespace image_tool
