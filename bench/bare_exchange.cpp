// The reference of the network benchmarks: the packets of a workload between two processes over
// loopback, with no driver, no block store and no protocol in between. One process asks, the other
// answers each packet with as many bytes as a server would.
//
//     qrn-bench-exchange SECONDS
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/workload.h"
#include "formats/wire.h"
#include "server/udp_socket.h"

namespace {

using formats::WireHeader;
using server::Peer;
using server::UdpSocket;

using Bytes = std::span<const std::uint8_t>;

Peer loopback(std::uint16_t port)
{
    Peer peer{};
    const std::uint8_t ip[4] = {127, 0, 0, 1};
    std::memcpy(peer.Ip, ip, sizeof ip);
    peer.Port.set(port);
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
        socket.send(to, first_bytes(header, formats::header_bytes), data.subspan(offset, size));
    }
}

class Answerer {
public:
    explicit Answerer(UdpSocket& socket) : socket_(socket) {}

    void answer(const Peer& from, Bytes packet)
    {
        WireHeader header{};
        std::memcpy(static_cast<void*>(&header), packet.data(), std::min(packet.size(), sizeof header));
        if (header.Kind == formats::kind_read) {
            header.Kind = formats::kind_read_data;
            header.Frag_Num = 0;
            send_fragments(socket_, from, header, socket_.data_buffer().first(header.Length.get()));
        } else if (header.Frag_Num == header.Frag_Cnt.get()) {
            header.Kind = formats::kind_write_done;
            socket_.send(from, first_bytes(header, formats::request_bytes), {});
        }
    }

private:
    UdpSocket& socket_;
};

// Keeps a workload's packets in flight, all packets of a request at once.
class Asker {
public:
    Asker(UdpSocket& socket, const Peer& server, const bench::Workload& workload)
        : socket_(socket), server_(server), workload_(workload), left_(workload.depth)
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
        unsigned request = header.Worker_Byte;
        if (request >= left_.size() || left_[request] == 0)
            return;
        if (header.Kind == formats::kind_read_data)
            std::memcpy(data_.data() + header.Pkt_Index * formats::packet_bytes_max + header.Frag_Off.get(),
                        packet.data() + formats::header_bytes, header.Frag_Size.get());
        if (--left_[request] == 0) {
            ++done_;
            start(request);
        }
    }

private:
    void start(unsigned request)
    {
        WireHeader header{};
        header.Worker_Byte = static_cast<std::uint8_t>(request);
        header.Kind = workload_.write ? formats::kind_write : formats::kind_read;
        left_[request] = 0;
        for (std::uint32_t offset = 0; offset < workload_.request_bytes;
             offset += formats::packet_bytes_max) {
            std::uint32_t bytes =
                std::min<std::uint32_t>(formats::packet_bytes_max, workload_.request_bytes - offset);
            header.Length.set(static_cast<std::uint16_t>(bytes));
            if (workload_.write) {
                header.Frag_Num = 0;
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
    const bench::Workload& workload_;
    std::vector<unsigned> left_;  // answers that each request still waits for
    std::vector<std::uint8_t> data_ = std::vector<std::uint8_t>(65536);
    std::uint64_t done_ = 0;
};

[[noreturn]] void answer_for_ever(UdpSocket& socket)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Answerer answerer(socket);
    for (;;)
        socket.receive([&](const Peer& from, Bytes packet) { answerer.answer(from, packet); });
}

void measure(const bench::Workload& workload, const Peer& server, double seconds)
{
    UdpSocket socket(loopback(0));
    Asker asker(socket, server, workload);
    auto start = bench::Clock::now();
    while (bench::seconds_since(start) < seconds) {
        std::uint64_t before = asker.done();
        socket.receive([&](const Peer&, Bytes packet) { asker.take(packet); });
        if (asker.done() == before && bench::seconds_since(start) > seconds)
            break;
    }
    bench::report(workload, asker.done(), bench::seconds_since(start));
}

}  // namespace

int main(int argc, char** argv)
{
    double seconds = argc == 2 ? std::atof(argv[1]) : 0;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: qrn-bench-exchange SECONDS\n");
        return 2;
    }
    UdpSocket answering(loopback(0));
    Peer server = answering.address();
    pid_t child = fork();
    if (child == 0)
        answer_for_ever(answering);
    for (const bench::Workload& workload : bench::workloads())
        measure(workload, server, seconds);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
