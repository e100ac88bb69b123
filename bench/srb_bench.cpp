// Workloads through SRBs in the process: requests to LUN 0 of a booted workstation, straight into the
// port driver, with a real block server behind UDP.
//
//     qrn-bench-srb BOOT-BLOCK SECONDS [DRIVER]
#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <unistd.h>

#include "bench/workload.h"
#include "machine/loader/driver_image.h"
#include "machine/machine.h"
#include "machine/scsiport/scsi_port.h"
#include "machine/transport/transport.h"
#include "machine/transport/udp_link.h"

namespace {

// Keeps a workload's requests in flight on LUN 0 until told to stop.
class Load {
public:
    Load(machine::ScsiPort& port, const bench::Workload& workload, std::uint32_t sectors)
        : port_(port), workload_(workload), positions_(sectors / sectors_per_request())
    {
        KeInitializeEvent(&idle_, NotificationEvent, FALSE);
        for (unsigned i = 0; i < workload.depth; ++i)
            slots_.push_back(std::make_unique<Slot>(port, workload.request_bytes));
        left_ = workload.depth;
    }

    std::uint64_t run(double seconds)
    {
        for (auto& slot : slots_) {
            slot->request.done = [this, &slot](machine::ScsiRequest&) { finished(*slot); };
            next(*slot);
        }
        machine::Machine::current().sleep_ms(static_cast<std::int64_t>(seconds * 1000));
        std::uint64_t counted = done_;
        stop_ = true;
        KeWaitForSingleObject(&idle_, Executive, KernelMode, FALSE, nullptr);
        if (failed_)
            throw std::runtime_error("a request failed");
        return counted;
    }

private:
    struct Slot {
        Slot(machine::ScsiPort& port, std::uint32_t bytes) : request(port), data(bytes) {}
        machine::ScsiRequest request;
        std::vector<std::uint8_t> data;
    };

    std::uint32_t sectors_per_request() const { return workload_.request_bytes / formats::sector_bytes; }

    void next(Slot& slot)
    {
        std::uint32_t lba = bench::position(workload_, requests_++) % positions_ * sectors_per_request();
        if (workload_.write)
            slot.request.set_write(0, lba, slot.data.data(), workload_.request_bytes);
        else
            slot.request.set_read(0, lba, slot.data.data(), workload_.request_bytes);
        port_.submit(slot.request);
    }

    void finished(Slot& slot)
    {
        if (!slot.request.ok())
            failed_ = true;
        ++done_;
        if (!stop_ && !failed_)
            next(slot);
        else if (--left_ == 0)
            KeSetEvent(&idle_, IO_NO_INCREMENT, FALSE);
    }

    machine::ScsiPort& port_;
    const bench::Workload& workload_;
    std::uint32_t positions_;
    std::vector<std::unique_ptr<Slot>> slots_;
    KEVENT idle_;
    std::atomic<std::uint32_t> requests_ = 0;
    std::atomic<std::uint64_t> done_ = 0;
    std::atomic<unsigned> left_ = 0;
    std::atomic<bool> stop_ = false, failed_ = false;
};

void measure_all(machine::ScsiPort& port, double seconds)
{
    if (port.luns().empty())
        throw std::runtime_error("the driver found no LUN");
    for (const bench::Workload& workload : bench::workloads()) {
        auto start = bench::Clock::now();
        std::uint64_t requests = Load(port, workload, port.luns()[0].sectors).run(seconds);
        bench::report(workload, requests, std::min(seconds, bench::seconds_since(start)));
    }
}

void run(const char* boot_block, double seconds, const char* driver_name)
{
    machine::MachineConfig config;
    config.scheduler = machine::SchedulerKind::real;
    config.strict = false;
    std::unique_ptr<machine::UdpLink> link;  // outlives the machine
    machine::Machine machine(config);
    link = std::make_unique<machine::UdpLink>(machine.scheduler(), "0.0.0.0");
    machine.add_transport(*link).block() = bench::read_boot_block(boot_block);
    machine.log().set_sink([](const machine::DebugLog::Entry&) {}, false);
    auto driver = machine::driver_named(driver_name);
    machine.run([&] {
        try {
            if (machine.boot(*driver) != STATUS_SUCCESS)
                throw std::runtime_error("the driver did not load");
            measure_all(machine.scsi(), seconds);
            std::fflush(stdout);
            _exit(0);  // the driver's threads never end
        } catch (const std::exception& error) {
            std::fprintf(stderr, "qrn-bench-srb: %s\n", error.what());
            _exit(1);
        }
    });
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = argc >= 3 ? std::atof(argv[2]) : 0;
    if (argc > 4 || seconds <= 0) {
        std::fprintf(stderr, "usage: qrn-bench-srb BOOT-BLOCK SECONDS [DRIVER]\n");
        return 2;
    }
    try {
        run(argv[1], seconds, argc == 4 ? argv[3] : "builtin");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-bench-srb: %s\n", error.what());
        return 1;
    }
}
