// Runtime routines on strings and memory.
#include <nt.h>

#include <algorithm>
#include <cstring>

#include "machine/executive/checks.h"

using namespace machine;

extern "C" {

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
