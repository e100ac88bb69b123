// SPDX-License-Identifier: MIT
// The object name space: devices and symbolic links, by full path, without regard to case.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <nt.h>

namespace machine {

class DeviceNames {
public:
    // False when the name is taken.
    bool add_device(const std::u16string& name, PDEVICE_OBJECT device);
    bool add_link(const std::u16string& name, const std::u16string& target);
    void remove_device(PDEVICE_OBJECT device);

    // The device whose name begins this path, through any links, and what follows its name; null when there
    // is none.
    struct Place {
        PDEVICE_OBJECT device;
        std::u16string rest;  // empty, or from a backslash on
    };
    Place parse(const std::u16string& path) const;
    // Name of a device, empty when it has none.
    std::string name_of(PDEVICE_OBJECT device) const;
    // Where a symbolic link leads, as it was created.
    std::optional<std::u16string> link_target(const std::u16string& name) const;

private:
    struct Entry {
        PDEVICE_OBJECT device;  // null: a link
        std::u16string text;    // the device's name or the link's target, as given
    };

    bool add(const std::u16string& name, Entry entry);
    std::pair<const Entry*, std::size_t> find_beginning(const std::u16string& path) const;

    mutable std::mutex lock_;
    std::map<std::u16string, Entry> entries_;  // by canonical name
};

}  // namespace machine
