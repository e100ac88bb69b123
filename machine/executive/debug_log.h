// SPDX-License-Identifier: MIT
// What the driver prints with DbgPrint. Written by any thread at any IRQL, read by tests and tools.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "machine/scheduler/scheduler.h"

namespace machine {

class DebugLog {
public:
    struct Entry {
        Ticks time;
        const void* thread;  // tells the threads apart that print
        std::string text;    // one DbgPrint call, formatted, as printed (it begins with "\n")
    };

    void append(Ticks time, const void* thread, std::string text);

    std::vector<Entry> entries() const;
    // Entries whose text contains the given piece.
    std::size_t count(const std::string& piece) const;
    bool contains(const std::string& piece) const { return count(piece) != 0; }
    // All texts in order, concatenated.
    std::string text() const;
    void clear();

    // Called with every entry from now on, in the printing thread; keep it short. When keep is
    // false entries are passed on and not stored (a machine that runs for days).
    void set_sink(std::function<void(const Entry&)> sink, bool keep = true);

private:
    mutable std::mutex lock_;
    std::vector<Entry> entries_;
    std::function<void(const Entry&)> sink_;
    bool keep_ = true;
};

}  // namespace machine
