// SPDX-License-Identifier: MIT
// The driver's image store on areas that anybody may have written: opening, reading, writing, and the
// synchronisation from one such area to another.
//
// Input: a byte that says how the area is opened, the changes of two areas (image_input.h), then steps of 5
// bytes: what to do, a sector of 3 bytes, a count.
#include <memory>

#include "driver/image/image_block.h"
#include "driver/image/image_sync.h"
#include "fuzz/image_input.h"
#include "fuzz/kernel.h"

using namespace fuzz;

namespace {

constexpr ULONG open_flags[] = {0, Img_Always_New, Img_Modify | Img_Must_Exist, Img_Modify};
constexpr ULONG size_sectors_max = 1 << 17;  // of what is synchronised: a run looks at every chunk
constexpr LONG run_bytes_max = 128 * 512;

class FuzzedArea final : public QRNH_OBJ_IMG {
public:
    explicit FuzzedArea(Bytes content) : bytes(std::move(content)) {}

    LONG Read(ULONG sector, PVOID buffer, LONG count) override
    {
        if (!inside(sector, count))
            return -count;
        std::memcpy(buffer, &bytes[sector * 512], static_cast<std::size_t>(count));
        return count;
    }
    LONG Write(ULONG sector, PVOID buffer, LONG count) override
    {
        require(may_write, "an image that must exist is not changed");
        require(sector >= formats::first_block_sector ||
                    (sector == 0 && count == formats::image_header_bytes) ||
                    (sector == formats::root_sector && count == formats::root_bytes),
                "header and root table keep their places");
        if (!inside(sector, count))
            return -count;
        std::memcpy(&bytes[sector * 512], buffer, static_cast<std::size_t>(count));
        return count;
    }
    bool Flush() override { return true; }

    Bytes bytes;
    bool may_write = true;

private:
    bool inside(ULONG sector, LONG count) const
    {
        require(count > 0 && count % 512 == 0, "areas are used by whole sectors");
        return std::uint64_t{sector} * 512 + static_cast<ULONG>(count) <= bytes.size();
    }
};

Bytes area_bytes(Input& input)
{
    ImageArea area;
    area.change(input);
    return area.bytes;
}

void step(QRNH_IMG_RW& image, Input& input)
{
    const unsigned what = input.u8();
    const unsigned low = input.u16();
    const ULONGLONG sector = ULONGLONG{input.u8()} << (what & 0x80 ? 24 : 16) | low;
    const LONG bytes = (1 + input.u8() % 128) * 512;
    // Exactly as large as the run: what is beyond is not the driver's.
    const Bytes before(static_cast<std::size_t>(bytes), 0x5A);
    Bytes buffer = before;
    if ((what & 7) < 3) {
        const LONG done = image.Read(0, sector, buffer.data(), bytes);
        require(done <= bytes && done >= -bytes && (done % 512 == 0 || done == Img_Failed) && done != 0,
                "a read tells a length of its run");
        require(done > 0 || buffer == before, "what is missing leaves the buffer alone");
    } else if ((what & 7) < 6) {
        const LONG done = image.Write(0, sector, buffer.data(), bytes);
        require(done <= bytes && done >= -bytes && done % 512 == 0 && done != 0,
                "a write tells a length of its run");
        require(buffer == before, "a write leaves its data alone");
    } else if ((what & 7) == 6) {
        image.Forget(sector, bytes);
    } else if (what & 8) {
        image.Img_Flush();
    } else {
        image.Entry_Reset(static_cast<ULONG>(sector));
    }
}

void synchronise(QRNH_IMG_RW& image, FuzzedArea& source)
{
    source.may_write = false;
    if (source.Create(nullptr, 0, 0, Img_Modify | Img_Must_Exist) < 0)
        return;
    auto& size = source.Header.Size;
    size.set(size.get() % size_sectors_max);
    image.Header().Size.set(image.Header().Size.get() % size_sectors_max);
    auto from = std::make_unique<QRNH_IMG_RW>(&source, 0);
    auto state = std::make_unique<Sync_State>();
    QRNH_IMG_SYNC(state.get(), &image, from.get());
    if (state->Status == Sync_Running && image.Image()->Map_Is != Map_State::Incomplete)
        require(image.Header().ModifyTag.get() == source.Header.ModifyTag.get(),
                "a run that reached the end made a copy of this image");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    DriverPiece driver;
    driver.run([&] {
        Input input(data, size);
        const unsigned how = input.u8();
        auto area = std::make_unique<FuzzedArea>(area_bytes(input));
        auto source = std::make_unique<FuzzedArea>(area_bytes(input));
        const ULONG flags = open_flags[how & 3];
        area->may_write = !(flags & Img_Must_Exist);
        const LONG opened = area->Create(nullptr, 0, area_sectors, flags);
        require(opened == static_cast<LONG>(flags) || opened == -2 || opened == -3, "an open ends as it may");
        if (opened < 0 || !area->may_write)
            return;
        auto image = std::make_unique<QRNH_IMG_RW>(area.get(), how >> 2 & 1);
        while (!input.empty())
            step(*image, input);
        if (how & 8)
            synchronise(*image, *source);
    });
    return 0;
}
