// SPDX-License-Identifier: MIT
#include "boot/transfer.h"

#include "boot/medium.h"
#include "boot/screen.h"

namespace boot {

namespace {

using formats::sector_bytes;
using formats::ServerRecord;

std::uint8_t send_buffer[formats::header_bytes + formats::fragment_bytes_max];
DiskPlace disks[formats::disk_count_max];
formats::Boot_Param* servers_kept_in;
std::uint16_t sequence;
constinit Window window;
bool silence_told;

// Since when nobody answers, and what was told of it.
class Silence {
public:
    void tell(const ServerRecord& server)
    {
        const unsigned seconds = ticks_since(begin_) / ticks_per_second;
        if (seconds < next_line_s_)
            return;
        next_line_s_ = seconds + first_line_s;
        silence_told = true;
        print("\rqrnboot: server ");
        print_place(server.Ip, server.Port.get());
        print(" silent since ");
        print_number(seconds);
        print(" s, still trying ");
    }
    void end()
    {
        restart();
        if (silence_told)
            print("\nqrnboot: the server is back\n");
        silence_told = false;
    }
    void restart()
    {
        begin_ = bios_ticks();
        next_line_s_ = first_line_s;
    }
    std::uint32_t ticks() const { return ticks_since(begin_); }

private:
    static constexpr unsigned first_line_s = 5;
    std::uint32_t begin_ = bios_ticks();
    unsigned next_line_s_ = first_line_s;
};

void keep_servers(unsigned lun)
{
    if (servers_kept_in == nullptr)
        return;
    servers_kept_in->Main_Server[lun] = disks[lun].server;
    servers_kept_in->Slave_Server[lun] = disks[lun].slave;
}

void tell_change(const ServerRecord& lost, const char* text, const ServerRecord& left)
{
    silence_told = false;
    print("\nqrnboot: server ");
    print_place(lost.Ip, lost.Port.get());
    print(text);
    print_place(left.Ip, left.Port.get());
    print("\n");
}

enum class Outcome { waiting, server_changed, over };

// What becomes of a disk whose main server or slave is silent.
Outcome bear(unsigned lun, Silence& silence, bool is_slave, bool for_ever)
{
    DiskPlace& disk = disks[lun];
    if (disk.slave.names_a_server() && silence.ticks() >= mirror_patience_ticks) {
        const ServerRecord main = disk.server, slave = disk.slave;
        disk.slave = {};
        if (is_slave) {
            tell_change(slave, " given up, written is only to ", main);
        } else {
            disk.server = slave;
            tell_change(main, " given up, its mirror takes over: ", slave);
        }
        keep_servers(lun);
        silence.restart();
        return Outcome::server_changed;
    }
    const bool is_over =
        !for_ever && disk.retry_minutes != 0 && silence.ticks() > disk.retry_minutes * 60u * ticks_per_second;
    return is_over ? Outcome::over : Outcome::waiting;
}

void send_header(const ServerRecord& server, const formats::WireHeader& header)
{
    send(server.Ip, server.Port.get(), &header, formats::request_bytes);
}

// One packet of a read.
struct Flight {
    BlockPacket packet;
    std::uint32_t linear;
    std::uint16_t order;  // of its last request among all
    std::uint8_t tail;    // the last fragment that the answer to that has
    std::uint8_t overtaken;
    bool in_use, tail_arrived, was_resent;
};

// A read of sectors that lie in a row.
class Read {
public:
    Read(unsigned lun, std::uint32_t lba, unsigned sectors, std::uint32_t linear)
        : lun_(lun), disk_(disks[lun]), lba_(lba), sectors_(sectors), linear_(linear)
    {
    }

    bool run()
    {
        for (fill(); sectors_in_flight_ != 0; fill()) {
            const unsigned size = receive();
            if (size != 0)
                take(size);
            else if (!nothing_came())
                return false;
        }
        return true;
    }

private:
    // Datagrams may change places on their way: this many that were asked for later, or this many looks that
    // find none, and what is missing is lost. An answer that breaks off gets more time, and one that has not
    // begun the clock's.
    static constexpr unsigned overtaken_max = 3, empty_looks_max = 64, empty_looks_broken_off = 512;
    static constexpr unsigned flights_max = 8;
    static Flight flights[flights_max];

    static bool was_asked_before(const Flight& one, const Flight& other)
    {
        return static_cast<std::int16_t>(one.order - other.order) < 0;
    }

    void ask(Flight& flight, bool status_query)
    {
        flight.order = ++order_;
        flight.tail = static_cast<std::uint8_t>(flight.packet.last_outstanding());
        flight.tail_arrived = false;
        flight.overtaken = 0;
        send_header(disk_.server, flight.packet.request(status_query));
    }

    void fill()
    {
        for (unsigned i = 0; i < flights_max && sectors_ != 0; ++i) {
            Flight& flight = flights[i];
            if (flight.in_use)
                continue;
            const unsigned count = window.next_sectors(sectors_in_flight_, sectors_, disk_.read_sectors_max);
            if (count == 0)
                return;
            flight.packet.begin(disk_, false, lba_, count, ++sequence);
            flight.linear = linear_;
            flight.in_use = true;
            flight.was_resent = false;
            ask(flight, false);
            sectors_in_flight_ += count;
            lba_ += count;
            sectors_ -= count;
            linear_ += count * sector_bytes;
        }
    }

    void take(unsigned size)
    {
        for (Flight& flight : flights) {
            if (!flight.in_use)
                continue;
            const Landing landing = flight.packet.take(receive_buffer, size);
            if (!landing.is_ours)
                continue;
            last_news_ = bios_ticks();
            empty_looks_ = resends_ = 0;
            silence_.end();
            land(flight, landing);
            return;
        }
    }

    void land(Flight& flight, const Landing& landing)
    {
        if (landing.is_zeros)
            zero_out(flight.linear, flight.packet.sectors() * sector_bytes);
        if (landing.has_data) {
            copy_out(flight.linear + landing.offset, receive_buffer + formats::header_bytes, landing.size);
            flight.tail_arrived |= landing.offset / formats::fragment_bytes_max >= flight.tail;
        }
        if (flight.packet.is_complete()) {
            flight.in_use = false;
            sectors_in_flight_ -= flight.packet.sectors();
            window.packet_done(flight.was_resent);
        }
        for (Flight& other : flights)
            if (other.in_use && (other.tail_arrived || was_asked_before(other, flight)) &&
                ++other.overtaken > overtaken_max)
                ask_for_the_rest(other);
    }

    void ask_for_the_rest(Flight& flight)
    {
        flight.was_resent = true;
        ask(flight, disk_.answers_queries);
    }

    // False: nobody answered for too long.
    bool nothing_came()
    {
        silence_.tell(disk_.server);
        if (++empty_looks_ == empty_looks_max || empty_looks_ == empty_looks_broken_off)
            for (Flight& flight : flights)
                if (flight.in_use && (flight.overtaken != 0 ||
                                      (empty_looks_ == empty_looks_broken_off && flight.packet.has_begun())))
                    ask_for_the_rest(flight);
        if (ticks_since(last_news_) < wait_ticks(resends_))
            return true;
        const Outcome outcome = bear(lun_, silence_, false, lun_ == 0);
        ++resends_;
        last_news_ = bios_ticks();
        empty_looks_ = 0;
        query_next_ = disk_.answers_queries && !query_next_ && outcome == Outcome::waiting;
        for (Flight& flight : flights) {
            if (!flight.in_use)
                continue;
            flight.was_resent = true;
            if (outcome == Outcome::over)
                flight.in_use = false;
            else
                ask(flight, query_next_);
        }
        return outcome != Outcome::over;
    }

    const unsigned lun_;
    DiskPlace& disk_;
    std::uint32_t lba_;
    unsigned sectors_;
    std::uint32_t linear_;
    unsigned sectors_in_flight_ = 0;
    Silence silence_;
    std::uint32_t last_news_ = bios_ticks();
    unsigned resends_ = 0, empty_looks_ = 0;
    std::uint16_t order_ = 0;
    bool query_next_ = false;
};

Flight Read::flights[flights_max];

void send_fragments(const ServerRecord& server, BlockPacket& packet, std::uint32_t linear)
{
    for (unsigned i = 0; i < packet.fragments(); ++i) {
        if (!packet.is_outstanding(i))
            continue;
        const formats::WireHeader& header = packet.fragment(i);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&header);
        for (unsigned k = 0; k < sizeof header; ++k)
            send_buffer[k] = bytes[k];
        copy_in(send_buffer + sizeof header, linear + header.Frag_Off.get(), header.Frag_Size.get());
        send(server.Ip, server.Port.get(), send_buffer,
             static_cast<unsigned>(sizeof header) + header.Frag_Size.get());
    }
}

// One packet of a write until its server has it.
Outcome write_packet(unsigned lun, bool to_slave, BlockPacket& packet, std::uint32_t linear, bool& was_resent)
{
    const DiskPlace& disk = disks[lun];
    const ServerRecord server = to_slave ? disk.slave : disk.server;
    Silence silence;
    unsigned resends = 0;
    bool query_next = disk.answers_queries;
    send_fragments(server, packet, linear);
    for (std::uint32_t last = bios_ticks(); !packet.is_complete();) {
        const unsigned size = receive();
        const Landing landing = size != 0 ? packet.take(receive_buffer, size) : Landing{};
        if (landing.is_ours) {
            last = bios_ticks();
            resends = 0;
            silence.end();
        }
        if (landing.wants_resend)
            send_fragments(server, packet, linear);
        if (size != 0)
            continue;
        silence.tell(server);
        if (ticks_since(last) < wait_ticks(resends))
            continue;
        const Outcome outcome = bear(lun, silence, to_slave, false);
        if (outcome != Outcome::waiting)
            return outcome;
        was_resent = true;
        ++resends;
        if (query_next) {
            send_header(server, packet.request(true));
        } else {
            packet.resend_all();
            send_fragments(server, packet, linear);
        }
        query_next = disk.answers_queries && !query_next;
        last = bios_ticks();
    }
    return Outcome::waiting;
}

// To the main server, and when that has it to the slave. A packet that goes to another server than before is
// a new one: the silent server may still say that it has the old one.
bool write_to_all(unsigned lun, std::uint32_t lba, unsigned count, std::uint32_t linear)
{
    static BlockPacket packet;
    bool was_resent = false;
    Outcome outcome;
    do {
        packet.begin(disks[lun], true, lba, count, ++sequence);
        outcome = write_packet(lun, false, packet, linear, was_resent);
    } while (outcome == Outcome::server_changed);
    if (outcome == Outcome::over)
        return false;
    if (disks[lun].slave.names_a_server()) {
        packet.begin(disks[lun], true, lba, count, static_cast<std::uint16_t>(~sequence));
        if (write_packet(lun, true, packet, linear, was_resent) == Outcome::over)
            return false;
    }
    window.packet_done(was_resent);
    return true;
}

}  // namespace

void start_sequence(std::uint16_t first)
{
    sequence = first;
}

void set_disk(unsigned lun, const DiskPlace& disk)
{
    disks[lun] = disk;
}

const DiskPlace& disk(unsigned lun)
{
    return disks[lun];
}

void keep_servers_in(formats::Boot_Param& param)
{
    servers_kept_in = &param;
}

bool transfer(unsigned lun, Direction direction, std::uint32_t lba, unsigned sectors, std::uint32_t linear)
{
    if (direction == Direction::read)
        return Read(lun, lba, sectors, linear).run();
    while (sectors != 0) {
        const unsigned count = window.next_sectors(0, sectors, disks[lun].write_sectors_max);
        if (!write_to_all(lun, lba, count, linear))
            return false;
        lba += count;
        sectors -= count;
        linear += count * sector_bytes;
    }
    return true;
}

}  // namespace boot
