// SPDX-License-Identifier: MIT
#include "machine/executive/registry.h"

#include <cstring>

#include "machine/executive/wide_text.h"

namespace machine {
namespace {

constexpr std::uint32_t type_string = 1, type_dword = 4;

}  // namespace

const std::u16string Registry::service_key =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\qrndisk";
const std::u16string Registry::memory_management_key =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Session Manager\\Memory Management";

void Registry::set(const std::u16string& path, const std::u16string& name, RegistryValue value)
{
    create_key(path);
    keys_[folded(path)][folded(name)] = std::move(value);
}

void Registry::set_dword(const std::u16string& path, const std::u16string& name, std::uint32_t value)
{
    RegistryValue dword{type_dword, std::vector<std::uint8_t>(sizeof value)};
    std::memcpy(dword.data.data(), &value, sizeof value);
    set(path, name, std::move(dword));
}

void Registry::set_string(const std::u16string& path, const std::u16string& name, const std::u16string& value)
{
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(value.c_str());
    set(path, name, {type_string, {bytes, bytes + (value.size() + 1) * sizeof(char16_t)}});
}

void Registry::set_setting(const std::string& name, std::uint32_t value)
{
    set_dword(service_key, widened(name), value);
}

void Registry::create_key(const std::u16string& path)
{
    const std::u16string whole = folded(path);
    for (std::size_t end = whole.find(u'\\', 1); end != std::u16string::npos;
         end = whole.find(u'\\', end + 1))
        keys_[whole.substr(0, end)];
    keys_[whole];
}

void Registry::remove_key(const std::u16string& path)
{
    const std::u16string whole = folded(path), below = whole + u'\\';
    std::erase_if(keys_, [&](const auto& key) { return key.first == whole || key.first.starts_with(below); });
}

bool Registry::key_exists(const std::u16string& path) const
{
    return keys_.contains(folded(path));
}

const RegistryValue* Registry::find(const std::u16string& path, const std::u16string& name) const
{
    const auto key = keys_.find(folded(path));
    if (key == keys_.end())
        return nullptr;
    const auto value = key->second.find(folded(name));
    return value == key->second.end() ? nullptr : &value->second;
}

}  // namespace machine
