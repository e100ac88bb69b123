// SPDX-License-Identifier: MIT
#include "transport/core/boot_records.h"

namespace transport {
namespace {

using formats::BootRecord;
using formats::NetworkRecord;

bool Begins_With(const std::uint8_t* Bytes, const char* Text, unsigned Size)
{
    for (unsigned i = 0; i < Size; ++i)
        if (Bytes[i] != static_cast<std::uint8_t>(Text[i]))
            return false;
    return true;
}

template <typename Address, unsigned Size>
Address Address_In(const std::uint8_t (&Field)[Size])
{
    static_assert(sizeof(Address) == Size);
    Address Copy;
    __builtin_memcpy(&Copy, Field, Size);
    return Copy;
}

bool Is_Boot_Record(const std::uint8_t* At)
{
    const auto& Record = *reinterpret_cast<const BootRecord*>(At);
    return Begins_With(At, formats::boot_record_signature, sizeof Record.Signature) &&
           Record.Bound.get() <= formats::boot_record_bound_max &&
           Record.Kind.get() == formats::boot_record_kind;
}

bool Is_Network_Record(const std::uint8_t* At)
{
    const auto& Record = *reinterpret_cast<const NetworkRecord*>(At);
    unsigned Sum = 0;
    for (unsigned i = 0; i < sizeof Record; ++i)
        Sum += At[i];
    return Begins_With(At, formats::network_record_signature, sizeof Record.Signature) &&
           Record.Length.get() == sizeof Record && Record.Version.get() == formats::network_record_version &&
           (Sum & 0xFF) == 0;
}

void Take_Network(const NetworkRecord& Record, Boot_Records& Found)
{
    Found.Has_Network = true;
    Found.Here.Card = Address_In<Hardware_Address>(Record.Hardware);
    Found.Here.Own = Address_In<Ip_Address>(Record.Ip);
    Found.Here.Mask = Address_In<Ip_Address>(Record.Mask);
    Found.Here.Gateway = Address_In<Ip_Address>(Record.Gateway);
    Found.Here.Port = Record.Own_Port.get();
    __builtin_memcpy(Found.Server.Ip, Record.Server, sizeof Found.Server.Ip);
    Found.Server.Port.set(Record.Server_Port.get());
}

}  // namespace

void Find_Boot_Records(const void* Low_Memory, std::uint32_t Bytes, Boot_Records& Found)
{
    const auto* const Memory = static_cast<const std::uint8_t*>(Low_Memory);
    Found = {};
    if (Bytes < formats::base_memory_kb_address + sizeof(formats::Le16))
        return;
    const auto& Base_KB = *reinterpret_cast<const formats::Le16*>(Memory + formats::base_memory_kb_address);
    std::uint32_t At = Base_KB.get() * 1024u;
    while (At < formats::low_memory_search_end && At + sizeof(BootRecord) <= Bytes) {
        if (Is_Boot_Record(Memory + At))
            break;
        At += formats::paragraph_bytes;
    }
    if (At >= formats::low_memory_search_end || At + sizeof(BootRecord) > Bytes)
        return;
    const auto& Record = *reinterpret_cast<const BootRecord*>(Memory + At);
    Found.Has_Disks = true;
    Found.Disks = Record.Param;
    Found.Disks.Rack_Level.set(Record.Rack_Level.get());
    At += sizeof(BootRecord);
    if (At + sizeof(NetworkRecord) <= Bytes && Is_Network_Record(Memory + At))
        Take_Network(*reinterpret_cast<const NetworkRecord*>(Memory + At), Found);
}

}  // namespace transport
