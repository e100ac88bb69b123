// SPDX-License-Identifier: MIT
#include "boot/boot_exchange.h"

#include "boot/block_packet.h"

namespace boot {

using namespace formats;

namespace {

template <unsigned size>
void set_bytes(std::uint8_t (&to)[size], const std::uint8_t (&from)[size])
{
    for (unsigned i = 0; i < size; ++i)
        to[i] = from[i];
}

template <unsigned size>
bool same_bytes(const std::uint8_t (&a)[size], const std::uint8_t (&b)[size])
{
    for (unsigned i = 0; i < size; ++i)
        if (a[i] != b[i])
            return false;
    return true;
}

void make_text_safe(char (&text)[80])
{
    text[sizeof text - 1] = 0;
    for (char& character : text)
        if (character != 0 && (character < ' ' || character > '~'))
            character = '?';
}

}  // namespace

BootRequest make_boot_request(const NetworkPlace& place, std::uint32_t cookie)
{
    BootRequest request{};
    set_bytes(request.Mark, boot_mark);
    request.Version = boot_version;
    request.Kind = boot_kind_request;
    request.Length.set(sizeof request);
    request.Cookie.set(cookie);
    set_bytes(request.Hardware, place.hardware);
    set_bytes(request.Ip, place.ip);
    request.Abilities.set(boot_ability_write);
    return request;
}

Verdict judge_answer(const std::uint8_t* packet, unsigned size_bytes, const BootRequest& request,
                     BootAnswer& answer)
{
    if (size_bytes < sizeof answer)
        return Verdict::foreign;
    auto* bytes = reinterpret_cast<std::uint8_t*>(&answer);
    for (unsigned i = 0; i < sizeof answer; ++i)
        bytes[i] = packet[i];
    if (!same_bytes(answer.Mark, boot_mark) || answer.Version != boot_version ||
        answer.Length.get() != size_bytes || answer.Cookie.get() != request.Cookie.get() ||
        !same_bytes(answer.Hardware, request.Hardware))
        return Verdict::foreign;
    make_text_safe(answer.Text);
    if (answer.Kind == boot_kind_refusal)
        return Verdict::refused;
    if (answer.Kind != boot_kind_answer)
        return Verdict::foreign;
    if (answer.Param.Lun_Nums == 0 || answer.Param.Lun_Nums > disk_count_max ||
        answer.Param.Disks[0].Disk_Secs.get() == 0)
        return Verdict::no_disks;
    for (unsigned lun = 0; lun < answer.Param.Lun_Nums; ++lun)
        if (answer.Param.Disks[lun].Disk_Secs.get() == 0xFFFFFFFF)
            return Verdict::bad_disk;
    return Verdict::accepted;
}

void complete_servers(Boot_Param& param, const NetworkPlace& place)
{
    const auto complete = [&](ServerRecord& record) {
        if (record.names_a_server() && record.Ip[0] != 127)
            return;
        set_bytes(record.Ip, place.server);
        if (record.Port.get() == 0)
            record.Port.set(place.server_port);
    };
    complete(param.Boot_Server);
    for (unsigned lun = 0; lun < param.Lun_Nums; ++lun) {
        complete(param.Main_Server[lun]);
        if (param.Slave_Server[lun].names_a_server())
            complete(param.Slave_Server[lun]);
    }
}

void make_network_record(NetworkRecord& record, const NetworkPlace& place, std::uint16_t own_port)
{
    record = {};
    for (unsigned i = 0; i < sizeof record.Signature; ++i)
        record.Signature[i] = network_record_signature[i];
    record.Length.set(sizeof record);
    record.Version.set(network_record_version);
    set_bytes(record.Hardware, place.hardware);
    set_bytes(record.Ip, place.ip);
    set_bytes(record.Mask, place.mask);
    set_bytes(record.Gateway, place.gateway);
    set_bytes(record.Server, place.server);
    record.Server_Port.set(place.server_port);
    record.Own_Port.set(own_port);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    unsigned sum = 0;
    for (unsigned i = 0; i < sizeof record; ++i)
        sum += bytes[i];
    record.Checksum = static_cast<std::uint8_t>(0 - sum);
}

void make_boot_record(BootRecord& record, const BootAnswer& answer)
{
    record = {};
    for (unsigned i = 0; i < sizeof record.Signature; ++i)
        record.Signature[i] = boot_record_signature[i];
    record.Bound.set(boot_record_bound_max);
    record.Kind.set(boot_record_kind);
    record.Rack_Level.set(answer.Rack_Level.get());
    record.Param = answer.Param;
    record.Param.Boot_Mode.set(boot_mode_network);
}

}  // namespace boot
