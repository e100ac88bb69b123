// SPDX-License-Identifier: MIT
// What firmware and boot loader left in memory: the searches for the boot record and for the image
// descriptor, and a start with what they find.
//
// Input: a byte of flags, the base memory in KB (2 bytes), then things left in memory: what (a byte), where
// (a paragraph above base memory, 2 bytes), the bytes that go over a sound one.
#include "driver/startup/boot_record.h"
#include "formats/boot_record.h"
#include "formats/image_area.h"
#include "formats/image_descriptor.h"
#include "fuzz/workstation.h"

using namespace fuzz;

namespace {

formats::ImageDescriptor sound_descriptor()
{
    formats::ImageDescriptor descriptor{};
    descriptor.Displacement.set(64);
    std::memcpy(descriptor.Mark, formats::image_descriptor_mark, sizeof descriptor.Mark);
    descriptor.Kind.set(formats::image_descriptor_kind);
    return descriptor;
}

template <typename Object>
void leave(machine::Machine& machine, std::uint32_t where, Object object, Input& input)
{
    input.fill(object);
    if (where + sizeof object <= formats::low_memory_bytes)
        machine.memory().write(where, {reinterpret_cast<const std::uint8_t*>(&object), sizeof object});
}

// The record that a search finds, by the format's own words; null: none.
const formats::BootRecord* first_record(const Bytes& memory)
{
    std::uint32_t at = (memory[0x413] | memory[0x414] << 8) * 1024u;
    for (; at < formats::low_memory_search_end; at += formats::paragraph_bytes) {
        const auto* record = reinterpret_cast<const formats::BootRecord*>(&memory[at]);
        if (std::memcmp(record->Signature, "KTWBSTRAP", 9) == 0 && record->Bound.get() <= 256 &&
            record->Kind.get() == 22)
            return record;
    }
    return nullptr;
}

void check_search(machine::Machine& machine)
{
    Bytes memory(formats::low_memory_bytes);
    machine.memory().read(0, memory);
    const formats::BootRecord* expected = first_record(memory);
    const formats::Boot_Param* found = QRN_Find_Dos();
    require((found != nullptr) == (expected != nullptr), "the record is found where there is one");
    require(!found || std::memcmp(found->Disks, expected->Param.Disks, sizeof found->Disks) == 0,
            "the block is that of the first record");
    require(machine.memory().windows() == 0, "memory is not left mapped");
}

void check_luns(machine::Machine& machine)
{
    machine.sleep_ms(500);
    for (const machine::LunInfo& lun : machine.scsi().luns())
        require(lun.lun < formats::disk_count_max, "there are four LUNs at most");
    machine::ScsiRequest request(machine.scsi());
    for (const std::uint8_t operation : {0x00, 0x25, 0x1A, 0xA0})
        for (std::uint8_t lun = 0; lun < 8; ++lun) {
            Bytes buffer(operation == 0 ? 0 : 8);
            request.lun = lun;
            request.cdb = {operation};
            request.cdb[4] = request.cdb[9] = 8;
            request.data = buffer.data();
            request.data_bytes = static_cast<std::uint32_t>(buffer.size());
            request.srb_flags = operation == 0 ? 0 : SRB_FLAGS_DATA_IN;
            machine.scsi().execute(request);
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const unsigned flags = input.u8();
    machine::MachineConfig config;
    config.base_memory_kb = input.u16() % 1024;
    Workstation workstation(flags & 1 ? two_disks(4) : formats::Boot_Param{}, config);
    machine::Machine& machine = workstation.machine;
    machine::Transport& transport = *machine.transport();
    transport.set_without_entries(flags & 2);
    transport.set_without_flag(flags & 4);
    while (!input.empty()) {
        const unsigned what = input.u8();
        const std::uint32_t where = config.base_memory_kb * 1024u + input.u16() % 4096 * 16u;
        if ((what & 3) == 0)
            leave(machine, where, formats::boot_record(two_disks(4)), input);
        else if ((what & 3) == 1)
            leave(machine, where, sound_descriptor(), input);
        else if ((what & 3) == 2)
            leave(machine, where + (what >> 2), formats::PartitionSector{}, input);
        else
            input.fill(transport.block());
    }
    machine.scheduler().call_at(machine::ticks_per_second, [&] {
        if (transport.block().Disk_Nums == formats::disk_nums_searching)
            transport.block().Disk_Nums = static_cast<std::uint8_t>(flags >> 3);
    });
    const auto end = machine.run([&] {
        machine::builtin_driver()->load();
        check_search(machine);
        if (NT_SUCCESS(machine.boot(*machine::builtin_driver())) && machine.scsi().adapter_started())
            check_luns(machine);
    });
    require(end == machine::Outcome::finished, "the start comes to its end");
    return 0;
}
