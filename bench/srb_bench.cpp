// SPDX-License-Identifier: MIT
// Workloads through SRBs in the process, with a real block server behind UDP.
//
//     qrn-bench-srb [--eager] [--host-threads] BOOT-BLOCK SECONDS [DRIVER]
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "bench/srb_load.h"

static void measure_all(machine::ScsiPort& port, double seconds)
{
    for (const bench::Workload& workload : bench::workloads()) {
        const auto cost = bench::HostCost::now();
        auto start = bench::Clock::now();
        std::uint64_t requests = bench::Load(port, workload, port.luns()[0].sectors).run(seconds);
        bench::report(workload, requests, std::min(seconds, bench::seconds_since(start)),
                      bench::HostCost::now().since(cost));
    }
}

int main(int argc, char** argv)
{
    machine::MachineConfig config = bench::machine_config();
    for (; argc >= 2 && argv[1][0] == '-'; ++argv, --argc) {
        if (std::strcmp(argv[1], "--eager") == 0)
            config.feeding = machine::Feeding::eager;
        else if (std::strcmp(argv[1], "--host-threads") == 0)
            config.host_processors = 0;
        else
            argc = 0;
    }
    double seconds = argc >= 3 ? std::atof(argv[2]) : 0;
    if (argc > 4 || seconds <= 0) {
        std::fprintf(stderr, "usage: qrn-bench-srb [--eager] [--host-threads] BOOT-BLOCK SECONDS [DRIVER]\n");
        return 2;
    }
    try {
        bench::run_workstation(config, bench::read_boot_block(argv[1]), argc == 4 ? argv[3] : "builtin",
                               [&](machine::Machine& machine) { measure_all(machine.scsi(), seconds); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-bench-srb: %s\n", error.what());
        return 1;
    }
}
