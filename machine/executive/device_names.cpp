// SPDX-License-Identifier: MIT
#include "machine/executive/device_names.h"

#include "machine/executive/wide_text.h"

namespace machine {
namespace {

constexpr int links_max = 16;  // in a row; more are a circle

// "\DosDevices" is another name of "\??".
std::u16string canonical(const std::u16string& name)
{
    static const std::u16string dos_devices = u"\\DOSDEVICES\\";
    std::u16string result = folded(name);
    if (result.starts_with(dos_devices))
        result.replace(0, dos_devices.size(), u"\\??\\");
    return result;
}

}  // namespace

bool DeviceNames::add(const std::u16string& name, Entry entry)
{
    std::lock_guard guard(lock_);
    return entries_.emplace(canonical(name), std::move(entry)).second;
}

bool DeviceNames::add_device(const std::u16string& name, PDEVICE_OBJECT device)
{
    return add(name, {device, name});
}

bool DeviceNames::add_link(const std::u16string& name, const std::u16string& target)
{
    return add(name, {nullptr, target});
}

void DeviceNames::remove_device(PDEVICE_OBJECT device)
{
    std::lock_guard guard(lock_);
    std::erase_if(entries_, [device](const auto& entry) { return entry.second.device == device; });
}

// The longest name that begins the path and ends where one of its parts does; its length in the path.
std::pair<const DeviceNames::Entry*, std::size_t>
DeviceNames::find_beginning(const std::u16string& path) const
{
    for (std::size_t length = path.size(); length != 0 && length != std::u16string::npos;
         length = path.rfind(u'\\', length - 1))
        if (const auto found = entries_.find(canonical(path.substr(0, length))); found != entries_.end())
            return {&found->second, length};
    return {nullptr, 0};
}

DeviceNames::Place DeviceNames::parse(const std::u16string& whole_path) const
{
    std::lock_guard guard(lock_);
    std::u16string path = whole_path;
    for (int link = 0; link < links_max; ++link) {
        const auto [entry, length] = find_beginning(path);
        if (!entry)
            return {};
        if (entry->device)
            return {entry->device, path.substr(length)};
        path = entry->text + path.substr(length);
    }
    return {};
}

std::string DeviceNames::name_of(PDEVICE_OBJECT device) const
{
    std::lock_guard guard(lock_);
    for (const auto& [name, entry] : entries_)
        if (entry.device == device)
            return narrow(entry.text);
    return {};
}

std::optional<std::u16string> DeviceNames::link_target(const std::u16string& name) const
{
    std::lock_guard guard(lock_);
    const auto found = entries_.find(canonical(name));
    if (found == entries_.end() || found->second.device)
        return std::nullopt;
    return found->second.text;
}

}  // namespace machine
