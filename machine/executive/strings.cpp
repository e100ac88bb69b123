// SPDX-License-Identifier: MIT
// Runtime routines on strings and memory.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"
#include "machine/executive/pool.h"

using namespace machine;

namespace {

constexpr ULONG string_tag = pool_tag("Strg");

// The length of a zero-terminated text, cut off where a counted string ends.
USHORT length_of(PCSZ text)
{
    return static_cast<USHORT>(text ? std::min<std::size_t>(std::strlen(text), UINT16_MAX - 1) : 0);
}

}  // namespace

extern "C" {

VOID NTAPI RtlInitString(PSTRING string, PCSZ text)
{
    string->Length = length_of(text);
    string->MaximumLength = static_cast<USHORT>(text ? string->Length + 1 : 0);
    string->Buffer = const_cast<PCHAR>(text);
}

VOID NTAPI RtlInitAnsiString(PANSI_STRING string, PCSZ text)
{
    RtlInitString(string, text);
}

NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING wide, PANSI_STRING narrow, BOOLEAN allocate)
{
    enter_at_most(PASSIVE_LEVEL, "RtlAnsiStringToUnicodeString");
    const std::size_t bytes = (narrow->Length + 1u) * sizeof(WCHAR);
    if (bytes > UINT16_MAX)
        return STATUS_INVALID_PARAMETER_2;
    if (allocate) {
        wide->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, string_tag));
        if (!wide->Buffer)
            return STATUS_NO_MEMORY;
        wide->MaximumLength = static_cast<USHORT>(bytes);
    } else if (wide->MaximumLength < bytes) {
        return STATUS_BUFFER_OVERFLOW;
    }
    wide->Length = static_cast<USHORT>(bytes - sizeof(WCHAR));
    std::transform(narrow->Buffer, narrow->Buffer + narrow->Length, wide->Buffer,
                   [](CHAR character) { return static_cast<WCHAR>(static_cast<UCHAR>(character)); });
    wide->Buffer[narrow->Length] = 0;
    return STATUS_SUCCESS;
}

VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING string)
{
    enter_at_most(PASSIVE_LEVEL, "RtlFreeUnicodeString");
    if (string->Buffer)
        ExFreePoolWithTag(string->Buffer, string_tag);
    *string = {};
}

VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING string, PCWSTR text)
{
    std::size_t bytes = 0;
    if (text) {
        std::size_t length = 0;
        while (text[length])
            ++length;
        bytes = std::min<std::size_t>(length * sizeof(WCHAR), UINT16_MAX - 3);
    }
    string->Length = static_cast<USHORT>(bytes);
    string->MaximumLength = static_cast<USHORT>(text ? bytes + sizeof(WCHAR) : 0);
    string->Buffer = const_cast<PWSTR>(text);
}

SIZE_T NTAPI RtlCompareMemory(const VOID* first, const VOID* second, SIZE_T bytes)
{
    const auto* left = static_cast<const UCHAR*>(first);
    const auto* right = static_cast<const UCHAR*>(second);
    return static_cast<SIZE_T>(std::mismatch(left, left + bytes, right).first - left);
}

}  // extern "C"
