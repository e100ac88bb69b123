// SPDX-License-Identifier: MIT
// Pages in which the miniport finds the data of a transfer: lent for its flight, and out of reach from its
// completion on. A touch of pages that are not lent, or beyond those that are, is a violation that tells
// which transfer they belong to.
//
// Used by the adapter's pump only, which is one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <nt.h>

namespace machine {

// Who may do what with the pages.
enum class Access { none, read, read_write };

class TransferBuffers {
public:
    TransferBuffers();
    ~TransferBuffers();
    TransferBuffers(const TransferBuffers&) = delete;
    TransferBuffers& operator=(const TransferBuffers&) = delete;

    struct Area;
    // A buffer as its sender has it, and the pages that stand for it. Without area: none do.
    struct Loan {
        Area* area = nullptr;
        std::byte* data = nullptr;
        void* of_sender = nullptr;
        std::uint32_t bytes = 0;
        Access access = Access::none;
    };

    // The pages hold what the sender's buffer holds, and end where it ends, so that an overrun is seen.
    Loan lend(const SCSI_REQUEST_BLOCK& srb, Access access);
    // Takes the pages back, and gives the sender what the miniport made of them.
    void take_back(Loan& loan);

private:
    static constexpr unsigned size_classes = 20;
    // Of a size: those that came back, the longest rested first.
    struct Resting {
        Area* first = nullptr;
        Area* last = nullptr;
        unsigned count = 0;
    };

    Area& area_of(unsigned size_class);
    Area* make(unsigned size_class);

    std::array<Resting, size_classes> resting_{};
    std::vector<std::unique_ptr<Area>> areas_;
};

}  // namespace machine
