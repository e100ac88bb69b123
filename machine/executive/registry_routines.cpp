// SPDX-License-Identifier: MIT
// The registry as drivers read it.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/wide_text.h"

using namespace machine;

namespace {

struct KeyObject {
    std::u16string path;
};

// A query's answer, before it meets the caller's buffer.
struct Answer {
    std::vector<std::uint8_t> bytes;
    std::size_t fixed_bytes;  // what the buffer must hold at least
};

template <class Information>
std::uint8_t* begin_answer(Answer& answer, std::size_t bytes, const Information& header,
                           std::size_t fixed_bytes)
{
    answer.bytes.resize(bytes);
    answer.fixed_bytes = fixed_bytes;
    std::memcpy(answer.bytes.data(), &header, fixed_bytes);
    return answer.bytes.data();
}

Answer full_answer(const std::u16string& name, const RegistryValue& value)
{
    constexpr std::size_t fixed = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
    const std::size_t name_bytes = name.size() * sizeof(WCHAR);
    const std::size_t data_offset = (fixed + name_bytes + sizeof(ULONG) - 1) & ~(sizeof(ULONG) - 1);
    KEY_VALUE_FULL_INFORMATION header{};
    header.Type = value.type;
    header.DataOffset = static_cast<ULONG>(data_offset);
    header.DataLength = static_cast<ULONG>(value.data.size());
    header.NameLength = static_cast<ULONG>(name_bytes);
    Answer answer;
    std::uint8_t* bytes = begin_answer(answer, data_offset + value.data.size(), header, fixed);
    std::memcpy(bytes + fixed, name.data(), name_bytes);
    std::ranges::copy(value.data, bytes + data_offset);
    return answer;
}

Answer partial_answer(const RegistryValue& value)
{
    constexpr std::size_t fixed = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    KEY_VALUE_PARTIAL_INFORMATION header{};
    header.Type = value.type;
    header.DataLength = static_cast<ULONG>(value.data.size());
    Answer answer;
    std::uint8_t* bytes = begin_answer(answer, fixed + value.data.size(), header, fixed);
    std::ranges::copy(value.data, bytes + fixed);
    return answer;
}

}  // namespace

extern "C" {

NTSTATUS NTAPI ZwOpenKey(PHANDLE handle, ACCESS_MASK, POBJECT_ATTRIBUTES attributes)
{
    enter_at_most(PASSIVE_LEVEL, "ZwOpenKey");
    ExecutiveState& kernel = executive();
    std::u16string path = text_of(*attributes->ObjectName);
    if (attributes->RootDirectory) {
        const auto* root =
            static_cast<KeyObject*>(kernel.objects.find(attributes->RootDirectory, ObjectKind::key));
        if (!root)
            return STATUS_INVALID_HANDLE;
        path = root->path + u'\\' + path;
    }
    if (kernel.faults.hit(Operation::registry_open, narrow(path)))
        return STATUS_INSUFFICIENT_RESOURCES;
    if (!kernel.registry.key_exists(path))
        return STATUS_OBJECT_NAME_NOT_FOUND;
    auto* key = new KeyObject{std::move(path)};
    kernel.objects.add(key, ObjectKind::key, [key] { delete key; });
    *handle = kernel.objects.open(key);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQueryValueKey(HANDLE handle, PUNICODE_STRING value_name,
                               KEY_VALUE_INFORMATION_CLASS information_class, PVOID buffer, ULONG bytes,
                               PULONG result_bytes)
{
    enter_at_most(PASSIVE_LEVEL, "ZwQueryValueKey");
    ExecutiveState& kernel = executive();
    const auto* key = static_cast<KeyObject*>(kernel.objects.find(handle, ObjectKind::key));
    if (!key)
        return STATUS_INVALID_HANDLE;
    const std::u16string name = text_of(*value_name);
    if (kernel.faults.hit(Operation::registry_query, narrow(name)))
        return STATUS_INSUFFICIENT_RESOURCES;
    const RegistryValue* value = kernel.registry.find(key->path, name);
    if (!value)
        return STATUS_OBJECT_NAME_NOT_FOUND;
    if (information_class != KeyValueFullInformation && information_class != KeyValuePartialInformation)
        return STATUS_INVALID_PARAMETER;
    const Answer answer =
        information_class == KeyValueFullInformation ? full_answer(name, *value) : partial_answer(*value);
    *result_bytes = static_cast<ULONG>(answer.bytes.size());
    if (bytes < answer.fixed_bytes)
        return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(buffer, answer.bytes.data(), std::min<std::size_t>(bytes, answer.bytes.size()));
    return bytes < answer.bytes.size() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

}  // extern "C"
