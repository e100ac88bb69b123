// SPDX-License-Identifier: MIT
// The byte stream of a client of the exports.
//
// Input: a byte by which the stream is cut into pieces, then the stream. It goes through handshake and
// receiver in one piece and in many, which must make no difference, and then through a connection with a
// socket.
#include <sys/socket.h>

#include <memory>
#include <thread>

#include "fuzz/input.h"
#include "station/nbd_connection.h"
#include "station/nbd_handshake.h"

using namespace fuzz;
using namespace station;

namespace {

constexpr std::size_t disk_bytes = 64 * 1024;

class CheckedDisk : public BlockDevice {
public:
    std::uint64_t size_bytes() const override { return disk.size(); }
    std::unique_ptr<BlockQueue> open_queue() override { return std::make_unique<Queue>(*this); }

    Bytes disk = Bytes(disk_bytes, 0x11);

private:
    struct Queue : BlockQueue {
        explicit Queue(CheckedDisk& device) : device(device) {}
        void submit(Transfer& transfer) override
        {
            require(transfer.offset % 512 == 0 && transfer.length % 512 == 0,
                    "transfers are of whole sectors");
            require(transfer.offset <= disk_bytes && transfer.length <= disk_bytes - transfer.offset,
                    "a transfer lies on the disk");
            auto* at = device.disk.data() + transfer.offset;
            if (transfer.operation == Transfer::Operation::read)
                std::memcpy(transfer.data, at, transfer.length);
            if (transfer.operation == Transfer::Operation::write)
                std::memcpy(at, transfer.data, transfer.length);
            if (transfer.operation == Transfer::Operation::zero)
                std::memset(at, 0, transfer.length);
            transfer.error = 0;
            transfer.done(transfer);
        }
        CheckedDisk& device;
    };
};

struct Heard {
    Bytes output;  // of the handshake
    Bytes disk;
    std::vector<NbdRequest> requests;
    bool broken = false;

    bool operator==(const Heard& other) const
    {
        const auto same = [](const NbdRequest& a, const NbdRequest& b) {
            return a.flags == b.flags && a.command == b.command && a.cookie == b.cookie &&
                   a.offset == b.offset && a.length == b.length;
        };
        return output == other.output && disk == other.disk && broken == other.broken &&
               std::ranges::equal(requests, other.requests, same);
    }
};

// Takes what there is, up to a need for more.
void take(NbdReceiver& receiver, Heard& heard, Bytes& payload)
{
    for (;;) {
        const auto event = receiver.next();
        if (event == NbdReceiver::Event::need_bytes)
            return;
        if (event == NbdReceiver::Event::broken) {
            heard.broken = true;
            return;
        }
        const NbdRequest& request = receiver.request();
        if (event == NbdReceiver::Event::payload) {
            if (!payload.empty())
                std::ranges::copy(payload, heard.disk.begin() + static_cast<std::ptrdiff_t>(request.offset));
            payload.clear();
            continue;
        }
        heard.requests.push_back(request);
        const bool good = check_request(request, {disk_bytes}) == 0;
        require(!good || request.offset + request.length <= disk_bytes,
                "a request that passes lies on the disk");
        if (request.payload_bytes() == 0) {
            receiver.no_payload();
        } else if (good) {
            payload.resize(request.payload_bytes());
            receiver.payload_into(payload.data());
        } else {
            receiver.skip_payload();
        }
    }
}

Heard hear(std::span<const std::uint8_t> stream, std::size_t piece_bytes, const std::vector<Export>& exports)
{
    Heard heard;
    heard.disk.resize(disk_bytes);
    NbdHandshake handshake(exports);
    NbdReceiver receiver;
    Bytes payload;
    while (!stream.empty() && !heard.broken && handshake.state() != NbdHandshake::State::closed) {
        std::size_t taken = std::min(piece_bytes, stream.size());
        if (handshake.state() == NbdHandshake::State::negotiating) {
            taken = handshake.receive(stream.first(taken));
        } else {
            take(receiver, heard, payload);
            const auto spaces = receiver.spaces();
            taken = std::min(taken, spaces.payload.size() + spaces.headers.size());
            require(taken != 0, "a receiver that needs bytes has room for them");
            const std::size_t in_payload = std::min(taken, spaces.payload.size());
            std::copy_n(stream.begin(), in_payload, spaces.payload.begin());
            std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(in_payload), taken - in_payload,
                        spaces.headers.begin());
            receiver.filled(taken);
            take(receiver, heard, payload);
        }
        const auto output = handshake.take_output();
        heard.output.insert(heard.output.end(), output.begin(), output.end());
        stream = stream.subspan(taken);
    }
    return heard;
}

void connect(std::span<const std::uint8_t> stream, const Exports& exports)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    UniqueFd client(ends[0]);
    std::thread reader([&] {
        std::uint8_t bytes[65536];
        while (recv(client.get(), bytes, sizeof bytes, 0) > 0) {
        }
    });
    std::thread writer([&] {
        for (auto left = stream; !left.empty();) {
            const ssize_t sent = send(client.get(), left.data(), left.size(), MSG_NOSIGNAL);
            if (sent <= 0)
                break;
            left = left.subspan(static_cast<std::size_t>(sent));
        }
        shutdown(client.get(), SHUT_WR);
    });
    ConnectionLimits limits;
    limits.buffer_bytes = 2 * disk_bytes;
    limits.requests_in_flight = 4;
    {
        NbdConnection connection(UniqueFd(ends[1]), exports, limits);
        connection.run();
    }
    writer.join();
    reader.join();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::size_t piece_bytes = 1 + input.u8();
    const auto device = std::make_shared<CheckedDisk>();
    const std::vector<Export> list = {{"lun0", "a disk", device}, {"lun1", "", device}};
    require(hear(input.rest(), SIZE_MAX, list) == hear(input.rest(), piece_bytes, list),
            "it makes no difference in which pieces a stream comes");
    Exports exports;
    exports.set(list);
    connect(input.rest(), exports);
    return 0;
}
