// SPDX-License-Identifier: MIT
// A workstation in virtual time with its servers: what a scenario starts from. Black box: it works the
// same with the linked driver and with a loaded qrndisk.sys (environment variable QRN_DRIVER).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "formats/boot_record.h"
#include "formats/wire.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/simulated_network.h"
#include "machine/transport/transport.h"
#include "simulation/block_server.h"
#include "simulation/boot_block.h"

namespace scenario {

using Bytes = std::vector<std::uint8_t>;

using DiskPlan = simulation::Disk;
using simulation::disk_id;
using simulation::server_address;

enum class Handover { low_memory, transport, none };

// How disks are fed where a scenario does not say: eagerly, or as the environment variable QRN_FEEDING has
// it.
machine::Feeding usual_feeding();

struct Plan {
    std::uint64_t seed = 1;
    std::vector<DiskPlan> disks{DiskPlan{}};
    Bytes image{};  // the main server's image area of LUN 0; empty: none
    std::uint32_t boot_mode = formats::boot_mode_network;
    std::uint8_t boot_flags = 0;
    std::uint32_t tag_key = 0x12345678;
    std::uint16_t rack_level = formats::rack_level_status_query;
    Handover handover = Handover::low_memory;
    bool transport = true;
    std::map<std::string, std::uint32_t> settings{};  // registry values of the service key
    bool reset_ports_work = true;
    std::uint16_t base_memory_kb = 600;
    machine::Feeding feeding = usual_feeding();
    bool curious_class_driver = false;
    std::vector<machine::MemoryRange> memory_ranges{};  // empty: the machine's own
    std::uint32_t largest_pte_run = 0;                  // 0: the machine's own
    // Has the last word on the machine.
    std::function<void(machine::MachineConfig&)> adjust_machine = nullptr;
    // Has the last word on the block that is handed over; the servers serve the disks as planned.
    std::function<void(formats::Boot_Param&)> adjust_block = nullptr;
};

formats::Boot_Param boot_block(const Plan& plan);

// One packet as it was sent, before the network did anything to it.
struct SeenPacket {
    double time_ms;  // since power-on
    machine::Direction direction;
    formats::ServerRecord server;
    Bytes bytes;
    const formats::WireHeader& header() const
    {
        return *reinterpret_cast<const formats::WireHeader*>(bytes.data());
    }
    bool is(std::uint8_t sub_code, std::uint8_t kind) const
    {
        return header().Sub_Code == sub_code && header().Kind == kind;
    }
};

class Rig {
public:
    explicit Rig(Plan plan = {});
    ~Rig();

    Plan plan;
    machine::Machine machine;
    machine::SimulatedNetwork network;
    std::unique_ptr<machine::DriverImage> driver;
    // Of larger disks the servers keep the beginning only; the rest is for scripted servers.
    static constexpr std::uint64_t stored_sectors_max = 65536;
    simulation::BlockServer main{0};   // started
    simulation::BlockServer slave{1};  // started when a disk of the plan is mirrored

    // Boots the driver and runs body as a kernel thread. Fails the test unless body ran to its end;
    // with expect, unless the run ended that way.
    void run(std::function<void()> body, machine::Outcome expect = machine::Outcome::finished);
    // The same without booting.
    void run_bare(std::function<void()> body, machine::Outcome expect = machine::Outcome::finished);
    std::int32_t boot() { return machine.boot(*driver); }

    // Packets of the whole run so far.
    const std::vector<SeenPacket>& packets() const { return packets_; }
    std::vector<SeenPacket> sent(std::uint8_t sub_code, std::uint8_t kind) const;  // to any server
    void forget_packets() { packets_.clear(); }
    // Says of each packet whether it is lost on purpose.
    std::function<bool(const SeenPacket&)> drop;

    // Replaces the main server by a script: called with every packet sent to it, DISPATCH_LEVEL.
    void script(std::function<void(const SeenPacket&)> answer);
    void answer(std::span<const std::uint8_t> packet) { network.send_from(main.address(), packet); }

    double now_ms();
    std::size_t log_count(const std::string& piece) { return machine.log().count(piece); }
    bool logged(const std::string& piece) { return log_count(piece) != 0; }
    // Messages that are exactly this text.
    std::size_t printed(const std::string& message);
    machine::ScsiPort& scsi() { return machine.scsi(); }

    // One SCSI command, waited for.
    void execute(machine::ScsiRequest& request) { scsi().execute(request); }
    bool read(unsigned lun, std::uint32_t lba, Bytes& data);
    bool write(unsigned lun, std::uint32_t lba, const Bytes& data);

private:
    std::vector<SeenPacket> packets_;
};

// Answers that a scripted server builds from a request.
Bytes read_data(const SeenPacket& request, unsigned number, unsigned count, std::uint16_t offset,
                std::span<const std::uint8_t> data);
// All fragments of a read packet, in order.
std::vector<Bytes> read_data_all(const SeenPacket& request, std::span<const std::uint8_t> data);
Bytes write_done(const SeenPacket& request);
Bytes acknowledge(const SeenPacket& request, std::uint16_t recv_mask);

// Content that names its own place: sector number and generation in every 8 bytes.
Bytes pattern(std::uint32_t lba, std::size_t bytes, std::uint32_t generation = 1);

}  // namespace scenario
