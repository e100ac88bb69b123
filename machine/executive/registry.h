// SPDX-License-Identifier: MIT
// The registry: keys by full path, values by name, both without regard to case. Filled by tests and
// the station before boot, read by the driver through ZwOpenKey and ZwQueryValueKey.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace machine {

struct RegistryValue {
    std::uint32_t type;  // REG_DWORD, REG_SZ, ...
    std::vector<std::uint8_t> data;
};

class Registry {
public:
    // Path of the driver's own service key, passed to DriverEntry.
    static const std::u16string service_key;  // \Registry\Machine\System\CurrentControlSet\Services\qrndisk
    static const std::u16string memory_management_key;

    // Creates the key, and a value in it.
    void set(const std::u16string& path, const std::u16string& name, RegistryValue value);
    void set_dword(const std::u16string& path, const std::u16string& name, std::uint32_t value);
    void set_string(const std::u16string& path, const std::u16string& name, const std::u16string& value);
    // The service key's values, by plain name.
    void set_setting(const std::string& name, std::uint32_t value);
    void create_key(const std::u16string& path);
    void remove_key(const std::u16string& path);

    bool key_exists(const std::u16string& path) const;
    // Null when the key or the value does not exist.
    const RegistryValue* find(const std::u16string& path, const std::u16string& name) const;

private:
    std::map<std::u16string, std::map<std::u16string, RegistryValue>> keys_;  // folded to upper case
};

}  // namespace machine
