// SPDX-License-Identifier: MIT
// A server that answers requests in flight with whatever it likes, and becomes honest in the end.
//
// Input: a byte with the disks' flags, then answers: a control byte that says whether the request is answered
// honestly, not at all, or with the bytes that follow (a length of 2 bytes, the bytes), which mostly get the
// header of the request.
#include <memory>

#include "fuzz/workstation.h"

using namespace fuzz;

namespace {

class Liar {
public:
    Liar(Workstation& workstation, Input& input) : workstation_(workstation), input_(input) {}

    // Takes up to four answers for one request.
    bool answer(std::span<const std::uint8_t> request)
    {
        bool taken = false;
        for (int i = 0; i < 4 && !input_.empty(); ++i) {
            const unsigned control = input_.u8();
            if ((control & 3) == 0)
                break;
            taken = true;
            if (control & 2)
                workstation_.answer(packet(control, request));
            if (control & 4)
                break;
        }
        return taken;
    }
    bool is_done() const { return input_.empty(); }

private:
    Bytes packet(unsigned control, std::span<const std::uint8_t> request)
    {
        const auto bytes = input_.piece(input_.u16() % 1500);
        Bytes packet(bytes.begin(), bytes.end());
        if (!(control & 8))
            make_answer(packet, request);
        return packet;
    }

    Workstation& workstation_;
    Input& input_;
};

struct Transfer {
    Transfer(Workstation& workstation, bool write, unsigned lun, unsigned lba, unsigned bytes)
        : request(workstation.machine.scsi()), data(pattern(lba, bytes, 1))
    {
        if (write)
            request.set_write(static_cast<std::uint8_t>(lun), lba, data.data(), bytes);
        else
            request.set_read(static_cast<std::uint8_t>(lun), lba, data.data(), bytes);
        request.done = [this](auto&) { ended = true; };
    }
    machine::ScsiRequest request;
    Bytes data;  // exactly as large as the transfer
    bool ended = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const std::uint8_t flags = input.u8() & (formats::disk_flag_slots | formats::disk_flag_split_writes);
    Workstation workstation(two_disks(flags));
    Liar liar(workstation, input);
    workstation.intercept = [&](auto request) { return liar.answer(request); };
    workstation.run([&] {
        machine::ScsiPort& scsi = workstation.machine.scsi();
        std::vector<std::unique_ptr<Transfer>> transfers;
        for (unsigned i = 0; i < 8; ++i)
            transfers.push_back(
                std::make_unique<Transfer>(workstation, i & 1, i >> 1 & 1, i * 100, 512 + i * 4608));
        for (auto& transfer : transfers)
            scsi.submit(transfer->request);
        bool all_good = true;
        for (auto& transfer : transfers) {
            while (!transfer->ended)
                workstation.machine.sleep_ms(50);
            all_good = all_good && transfer->request.ok();
        }
        workstation.machine.sleep_ms(1000);  // what is still under way comes too late
        if (!liar.is_done() || !all_good)
            return;
        const Bytes written = pattern(1000, 20000 / 512 * 512, 2);
        Bytes read(written.size());
        const auto bytes = static_cast<std::uint32_t>(read.size());
        for (std::uint8_t lun : {0, 1})
            require(scsi.write(lun, 1000, written.data(), bytes) &&
                        scsi.read(lun, 1000, read.data(), bytes) && read == written,
                    "lies of the past do no harm");
    });
    return 0;
}
