// SPDX-License-Identifier: MIT
// The exports as clients see them. Filled after each bus scan, read by every connection's thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "station/block_device.h"

namespace station {

struct Export {
    std::string name;  // "lun0" to "lun3"
    std::string description;
    std::shared_ptr<BlockDevice> device;
    bool read_only = false;
    bool flushes = true;  // false: a flush brings nothing to the server
};

class Exports {
public:
    void set(std::vector<Export> exports)
    {
        std::lock_guard guard(lock_);
        exports_ = std::move(exports);
    }
    std::vector<Export> list() const
    {
        std::lock_guard guard(lock_);
        return exports_;
    }

private:
    mutable std::mutex lock_;
    std::vector<Export> exports_;
};

}  // namespace station
