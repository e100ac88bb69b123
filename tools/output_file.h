// SPDX-License-Identifier: MIT
// The file a command makes: complete under its name when the command ends well, or not there at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "tools/file.h"

namespace image_tool {

class OutputFile {
public:
    // A new file; replace: in the place of an existing one, once it is complete. A block device and a part
    // of an existing file are written in place, which needs replace too.
    OutputFile(const std::string& path, bool replace);
    OutputFile(const std::string& path, std::uint64_t start_bytes, std::uint64_t size_bytes);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    // Removes what was not completed.
    ~OutputFile();

    // Whether what was never written reads as zeros.
    bool is_fresh() const { return !temporary_path_.empty(); }
    // How much can be written; no limit for a new file.
    std::uint64_t size_limit_bytes() const { return size_limit_bytes_; }

    // Zeros written to a new file become holes where they can.
    void write(std::uint64_t offset_bytes, std::span<const std::byte> data);
    // Gives the file its size and its name. Nothing is written afterwards.
    void complete(std::uint64_t size_bytes);

private:
    void write_all(std::uint64_t offset_bytes, std::span<const std::byte> data);

    std::string path_;
    std::string temporary_path_;  // empty: written in place
    bool replace_;
    FileHandle file_;
    std::uint64_t start_bytes_ = 0;
    std::uint64_t size_limit_bytes_ = UINT64_MAX;
    bool complete_ = false;
};

}  // namespace image_tool
