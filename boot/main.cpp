// SPDX-License-Identifier: MIT
// The boot program: asks a server for this PC's disks, makes them BIOS disks, leaves the records for the
// system's own driver, and boots LUN 0. Runs at the top of conventional memory.
#include "boot/boot_exchange.h"
#include "boot/int13.h"
#include "boot/network.h"
#include "boot/pc.h"
#include "boot/screen.h"
#include "boot/transfer.h"

namespace boot {

namespace {

using formats::BootAnswer;

constexpr std::uint32_t boot_sector_at = 0x7C00;
constexpr unsigned first_drive = 0x80;

NetworkPlace place;
BootAnswer answer;

// What drivers look for, one behind the other on a 16-byte boundary.
struct Records {
    formats::BootRecord boot;
    formats::NetworkRecord network;
};
static_assert(sizeof(formats::BootRecord) % formats::paragraph_bytes == 0);
alignas(formats::paragraph_bytes) Records records;
std::uint8_t sector[formats::sector_bytes];

[[noreturn]] void stop(const char* why)
{
    print("qrnboot: ");
    print(why);
    print("\nqrnboot: press Ctrl-Alt-Del to start again\n");
    for (;;)
        idle();
}

void wait_seconds(unsigned seconds)
{
    for (const std::uint32_t begin = bios_ticks(); ticks_since(begin) < seconds * ticks_per_second;)
        idle();
}

// The answer to one request that is sent until there is one.
Verdict ask_once()
{
    const formats::BootRequest request = make_boot_request(place, bios_ticks() * 0x9E3779B9u);
    const std::uint32_t begin = bios_ticks();
    unsigned next_line_s = 5;
    for (unsigned resends = 0;; ++resends) {
        send(place.server, place.server_port, &request, sizeof request);
        for (const std::uint32_t sent = bios_ticks(); ticks_since(sent) < wait_ticks(resends + 1);) {
            const unsigned size = receive();
            const Verdict verdict =
                size != 0 ? judge_answer(receive_buffer, size, request, answer) : Verdict::foreign;
            if (verdict != Verdict::foreign)
                return verdict;
        }
        const unsigned seconds = ticks_since(begin) / ticks_per_second;
        if (seconds >= next_line_s) {
            next_line_s = seconds + 5;
            print("qrnboot: no answer from ");
            print_place(place.server, place.server_port);
            print(" since ");
            print_number(seconds);
            print(" s, still trying: is qrn-server running there?\n");
        }
    }
}

void ask_for_disks()
{
    constexpr unsigned pause_s = 10;
    for (;;) {
        switch (ask_once()) {
        case Verdict::accepted:
            return;
        case Verdict::refused:
            print("qrnboot: the server refuses: ");
            print(answer.Text);
            break;
        case Verdict::no_disks:
            print("qrnboot: the server has no disks for this PC");
            break;
        default:
            print("qrnboot: the server tells of a disk that cannot be");
        }
        print("\nqrnboot: asking again in 10 s\n");
        wait_seconds(pause_s);
    }
}

void tell_disk(unsigned lun)
{
    print("  LUN ");
    print_number(lun);
    print(", drive ");
    print_number(first_drive + lun);
    print(": ");
    print_number(disk(lun).sectors / 2048);
    print(" MB at ");
    print_place(disk(lun).server.Ip, disk(lun).server.Port.get());
    print("\n");
}

void set_up_disks()
{
    const formats::Boot_Param& param = answer.Param;
    for (unsigned lun = 0; lun < param.Lun_Nums && param.Disks[lun].Disk_Secs.get() != 0; ++lun) {
        set_disk(lun, make_disk_place(param, lun));
        tell_disk(lun);
        if (!transfer(lun, Direction::read, 0, 1, linear_of(far_of(sector)))) {
            print("qrnboot: the disk's server does not answer; the PC has only the disks before it\n");
            return;
        }
        add_drive(disk(lun).sectors, geometry_of(disk(lun).sectors, sector));
    }
}

void leave_records()
{
    make_boot_record(records.boot, answer);
    keep_servers_in(records.boot.Param);
    make_network_record(records.network, place, own_port());
}

}  // namespace

extern "C" unsigned boot_main()
{
    print("\nqrnboot " QRN_VERSION);
    if (!open_card(place))
        stop("the network card offers no PXE services");
    print(", card ");
    print_hardware(place.hardware);
    print(", address ");
    print_ip(place.ip);
    print("\n");
    if (place.root_path_wrong)
        stop("the DHCP root path is not qrn:ADDRESS or qrn:ADDRESS:PORT");
    if (is_zero(place.server))
        stop("DHCP tells neither a root path qrn:ADDRESS nor a next server");
    if (place.server_port == 0)
        place.server_port = formats::server_port_default;
    if (!open_udp(place))
        stop("the network card's UDP service does not open");
    ask_for_disks();
    print("server ");
    print_place(place.server, place.server_port);
    print(": ");
    print(answer.Text);
    print("\n");
    complete_servers(answer.Param, place);
    keep_servers_in(answer.Param);
    set_up_disks();
    leave_records();
    install_handlers();
    announce_drives();

    transfer(0, Direction::read, 0, 1, linear_of(far_of(sector)));
    if (sector[510] != 0x55 || sector[511] != 0xAA)
        stop("LUN 0 has no boot sector (it does not end with 55 AA)");
    far_copy(far_at(boot_sector_at), far_of(sector), sizeof sector);
    print("starting the system\n");
    return first_drive;
}

}  // namespace boot
