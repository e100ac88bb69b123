// SPDX-License-Identifier: MIT
// The reference of the network benchmarks: a client that exchanges the packets of a workload with the
// block server and does nothing else, with no driver in between. All packets of a request are in flight
// at once; a packet that stays unanswered ends the run with an error, for nothing is sent twice.
//
//     qrn-bench-exchange BOOT-BLOCK SECONDS
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "bench/workload.h"
#include "formats/wire.h"
#include "server/udp_socket.h"

namespace {

using formats::WireHeader;
using server::Peer;
using server::UdpSocket;

using Bytes = std::span<const std::uint8_t>;

Peer any_loopback_port()
{
    Peer peer{};
    const std::uint8_t ip[4] = {127, 0, 0, 1};
    std::memcpy(peer.Ip, ip, sizeof ip);
    return peer;
}

Bytes first_bytes(const WireHeader& header, std::size_t bytes)
{
    return {reinterpret_cast<const std::uint8_t*>(&header), bytes};
}

// Sends the fragments of one packet.
void send_fragments(UdpSocket& socket, const Peer& to, WireHeader header, Bytes data)
{
    header.Frag_Cnt.set(
        static_cast<std::uint16_t>(formats::fragment_count(static_cast<unsigned>(data.size()))));
    for (std::size_t offset = 0; offset < data.size(); offset += formats::fragment_bytes_max) {
        ++header.Frag_Num;
        std::size_t size = std::min<std::size_t>(formats::fragment_bytes_max, data.size() - offset);
        header.Frag_Off.set(static_cast<std::uint16_t>(offset));
        header.Frag_Size.set(static_cast<std::uint16_t>(size));
        socket.send(to, first_bytes(header, formats::header_bytes), data.subspan(offset, size));
    }
}

// Keeps a workload's packets in flight, all packets of a request at once.
class Asker {
public:
    Asker(UdpSocket& socket, const formats::Boot_Param& block, const bench::Workload& workload)
        : socket_(socket), server_(block.Main_Server[0]), disk_(block.Disks[0]), workload_(workload),
          positions_(disk_.Disk_Secs.get() / (workload.request_bytes / formats::sector_bytes)),
          left_(workload.depth)
    {
        for (unsigned request = 0; request < workload.depth; ++request)
            start(request);
        socket_.flush();
    }

    std::uint64_t done() const { return done_; }

    void take(Bytes packet)
    {
        WireHeader header{};
        std::memcpy(static_cast<void*>(&header), packet.data(), std::min(packet.size(), sizeof header));
        unsigned request = header.Tag.get();
        if (request >= left_.size() || left_[request] == 0)
            return;
        if (header.Kind == formats::kind_read_data)
            std::memcpy(data_.data() + header.Pkt_Index * formats::packet_bytes_max + header.Frag_Off.get(),
                        packet.data() + formats::header_bytes, packet.size() - formats::header_bytes);
        if (--left_[request] == 0) {
            ++done_;
            start(request);
        }
    }

private:
    std::uint64_t next_offset_bytes()
    {
        std::uint64_t position = bench::position(workload_, requests_++) % positions_;
        return position * workload_.request_bytes + formats::sector_bytes;  // engine sectors begin at 1
    }

    void start(unsigned request)
    {
        WireHeader header{};
        std::memcpy(header.Disk_Id, disk_.Disk_Id, sizeof header.Disk_Id);
        std::memcpy(header.Disk_Parm, disk_.Disk_Parm, sizeof header.Disk_Parm);
        header.Kind = workload_.write ? formats::kind_write : formats::kind_read;
        header.Tag.set(static_cast<std::uint16_t>(request));
        header.Worker_Byte = static_cast<std::uint8_t>(request & formats::worker_index_mask);
        header.Seq.set(static_cast<std::uint16_t>(requests_));
        std::uint64_t disk_offset = next_offset_bytes();
        left_[request] = 0;
        for (std::uint32_t offset = 0; offset < workload_.request_bytes;
             offset += formats::packet_bytes_max) {
            std::uint32_t bytes =
                std::min<std::uint32_t>(formats::packet_bytes_max, workload_.request_bytes - offset);
            header.Byte_Offset.set(disk_offset + offset);
            header.Length.set(static_cast<std::uint16_t>(bytes));
            if (workload_.write) {
                send_fragments(socket_, server_, header, {data_.data() + offset, bytes});
                ++left_[request];
            } else {
                socket_.send(server_, first_bytes(header, formats::request_bytes), {});
                left_[request] += formats::fragment_count(bytes);
            }
            ++header.Pkt_Index;
        }
    }

    UdpSocket& socket_;
    Peer server_;
    const formats::Disk_Info& disk_;
    const bench::Workload& workload_;
    std::uint64_t positions_;
    std::vector<unsigned> left_;  // answers that each request still waits for
    std::vector<std::uint8_t> data_ = std::vector<std::uint8_t>(65536);
    std::uint32_t requests_ = 0;
    std::uint64_t done_ = 0;
};

void measure(const bench::Workload& workload, const formats::Boot_Param& block, double seconds)
{
    UdpSocket socket(any_loopback_port());
    Asker asker(socket, block, workload);
    const auto cost = bench::HostCost::now();
    auto start = bench::Clock::now();
    std::uint64_t before = 0;
    auto progress = start;
    while (bench::seconds_since(start) < seconds) {
        socket.receive([&](const Peer&, Bytes packet) { asker.take(packet); });
        if (asker.done() != before) {
            before = asker.done();
            progress = bench::Clock::now();
        } else if (bench::seconds_since(progress) > 1) {
            throw std::runtime_error("the server stays silent, or packets were lost");
        }
    }
    bench::report(workload, asker.done(), bench::seconds_since(start), bench::HostCost::now().since(cost));
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = argc == 3 ? std::atof(argv[2]) : 0;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: qrn-bench-exchange BOOT-BLOCK SECONDS\n");
        return 2;
    }
    try {
        formats::Boot_Param block = bench::read_boot_block(argv[1]);
        for (const bench::Workload& workload : bench::workloads())
            measure(workload, block, seconds);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qrn-bench-exchange: %s\n", error.what());
        return 1;
    }
}
