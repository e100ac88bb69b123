// SPDX-License-Identifier: MIT
// Holds an image area against everything its format promises.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/area_file.h"

namespace image_tool {

class Findings {
public:
    struct Kind {
        std::string_view name;
        std::uint64_t count = 0;
        std::vector<std::string> first;  // as many as one may want to read
    };

    // A fault is what no sound area has. The name stays valid.
    void fault(std::string_view kind, std::string what);
    // A remark is worth knowing, and no fault.
    void remark(std::string what) { remarks_.push_back(std::move(what)); }

    const std::vector<Kind>& faults() const { return faults_; }
    const std::vector<std::string>& remarks() const { return remarks_; }
    std::uint64_t fault_count() const;

    std::uint64_t chunks = 0;
    std::uint64_t sectors = 0;  // present
    std::uint64_t map_blocks = 0;

private:
    static constexpr std::size_t listed_per_kind_max = 8;

    std::vector<Kind> faults_;
    std::vector<std::string> remarks_;
};

// Throws ToolError when the file cannot be read.
Findings verify(const AreaFile& area);

}  // namespace image_tool
