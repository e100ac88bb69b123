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
    // of an existing file are written in place, which needs replace too. Throws ToolError when another
    // program writes to what is there, or for what is written in place, looks at it. "-" is standard output.
    OutputFile(const std::string& path, bool replace);
    OutputFile(const std::string& path, std::uint64_t start_bytes, std::uint64_t size_bytes);
    // Standard output that is written from its start to its end, and so without a copy of it all.
    struct InOrder {};
    explicit OutputFile(InOrder);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    // Removes what was not completed.
    ~OutputFile();

    // Whether what was never written reads as zeros.
    bool is_fresh() const { return kind_ != Kind::in_place; }
    // How much can be written; no limit for a new file.
    std::uint64_t size_limit_bytes() const { return size_limit_bytes_; }

    // Zeros written to a new file become holes where they can.
    void write(std::uint64_t offset_bytes, std::span<const std::byte> data);
    // Gives the file its size and its name. Nothing is written afterwards.
    void complete(std::uint64_t size_bytes);

private:
    enum class Kind { in_place, named, spooled, in_order };

    void write_all(std::uint64_t offset_bytes, std::span<const std::byte> data);
    void send(std::span<const std::byte> data);
    void send_zeros_up_to(std::uint64_t offset_bytes);
    void send_spool(std::uint64_t size_bytes);
    void take_name();

    std::string path_;
    std::string temporary_path_;
    Kind kind_;
    bool replace_;
    FileHandle replaced_;  // of what stands under the name now, for its lock
    FileHandle file_;
    std::uint64_t sent_bytes_ = 0;
    std::uint64_t start_bytes_ = 0;
    std::uint64_t size_limit_bytes_ = UINT64_MAX;
    bool complete_ = false;
};

}  // namespace image_tool
