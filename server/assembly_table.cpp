// SPDX-License-Identifier: MIT
#include "server/assembly_table.h"

#include <algorithm>

#include "server/completed_writes.h"

namespace server {

Assembly* AssemblyTable::find(const WriteKey& key, std::uint64_t now_ms)
{
    if (last_found_ >= used_ || places_[last_found_]->key != key) {
        for (last_found_ = 0; last_found_ < used_ && places_[last_found_]->key != key; ++last_found_) {
        }
        if (last_found_ == used_)
            return nullptr;
    }
    Assembly& assembly = *places_[last_found_];
    if (now_ms - assembly.heard_ms > history_ms) {
        // Fragments from before a restart of the workstation must not be joined with new ones.
        release(assembly);
        return nullptr;
    }
    assembly.heard_ms = now_ms;
    assembly.order = ++order_;
    return &assembly;
}

Assembly& AssemblyTable::start(const WriteKey& key, const formats::ServerRecord& from,
                               const formats::WireHeader& header, std::uint64_t now_ms)
{
    if (used_ == places) {
        const auto heard_before = [](const auto& a, const auto& b) { return a->order < b->order; };
        release(**std::min_element(places_.begin(), places_.end(), heard_before));
    }
    if (used_ == places_.size())
        places_.push_back(std::make_unique<Assembly>());
    last_found_ = used_;
    Assembly& assembly = *places_[used_++];
    assembly.key = key;
    assembly.from = from;
    assembly.header = header;
    assembly.heard_ms = now_ms;
    assembly.order = ++order_;
    assembly.count = formats::fragment_count(header.Length.get());
    assembly.arrived = 0;
    return assembly;
}

void AssemblyTable::release(const Assembly& assembly)
{
    const auto is_it = [&](const auto& place) { return place.get() == &assembly; };
    std::swap(*std::find_if(places_.begin(), places_.end(), is_it), places_[--used_]);
}

}  // namespace server
