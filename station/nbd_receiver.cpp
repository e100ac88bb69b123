// SPDX-License-Identifier: MIT
#include "station/nbd_receiver.h"

#include <algorithm>
#include <cstring>

#include "formats/boot_block.h"

namespace station {

using namespace nbd;

namespace {

// A write is answered when the server has it, which is all that a flush waits for. Zeros always travel, so a
// wish for no hole changes nothing. A reply is never more than one chunk, nor an answer more than one extent.
unsigned known_flags(Command command, const DiskTraits& disk)
{
    const unsigned flags = disk.flushes ? command_fua : 0u;
    switch (command) {
    case Command::write_zeroes:
        return flags | command_no_hole;
    case Command::read:
        return flags | (disk.structured ? command_df : 0u);
    case Command::block_status:
        return flags | command_req_one;
    default:
        return flags;
    }
}

}  // namespace

std::uint32_t check_request(const NbdRequest& request, const DiskTraits& disk)
{
    if ((request.flags & ~known_flags(request.command, disk)) != 0)
        return error_invalid;
    std::uint32_t bytes_max = request_bytes_max;
    switch (request.command) {
    case Command::flush:
        return disk.flushes && request.offset == 0 && request.length == 0 ? 0 : error_invalid;
    case Command::trim:
        if (!disk.flushes)
            return error_invalid;
        [[fallthrough]];
    case Command::write_zeroes:
        bytes_max = UINT32_MAX;
        break;
    case Command::block_status:
        if (!disk.block_status)
            return error_invalid;
        bytes_max = UINT32_MAX;
        break;
    case Command::read:
    case Command::write:
        break;
    default:
        return error_invalid;
    }
    const bool only_looks = request.command == Command::read || request.command == Command::block_status;
    if (disk.read_only && !only_looks)
        return error_not_permitted;
    if (request.length == 0 || request.length > bytes_max)
        return error_invalid;
    if (request.length % formats::sector_bytes != 0 || request.offset % formats::sector_bytes != 0)
        return error_invalid;
    if (request.offset > disk.bytes || request.length > disk.bytes - request.offset)
        return only_looks ? error_invalid : error_no_space;
    return 0;
}

NbdReceiver::Spaces NbdReceiver::spaces()
{
    Spaces spaces;
    if (state_ == State::payload && payload_)
        spaces.payload = {payload_, payload_left_};
    if (begin_ != 0) {
        std::memmove(area_.data(), area_.data() + begin_, held());
        end_ -= begin_;
        begin_ = 0;
    }
    spaces.headers = std::span(area_).subspan(end_);
    return spaces;
}

void NbdReceiver::filled(std::size_t bytes)
{
    if (state_ == State::payload && payload_) {
        const auto piece = static_cast<std::uint32_t>(std::min<std::size_t>(bytes, payload_left_));
        payload_ += piece;
        payload_left_ -= piece;
        bytes -= piece;
    }
    end_ += bytes;
}

NbdReceiver::Event NbdReceiver::next()
{
    switch (state_) {
    case State::payload:
        take_payload();
        if (payload_left_ != 0)
            return Event::need_bytes;
        state_ = State::header;
        return Event::payload;
    case State::unsettled:
        return Event::request;
    case State::broken:
        return Event::broken;
    case State::header:
        break;
    }
    if (held() < sizeof(RequestHeader))
        return Event::need_bytes;
    RequestHeader header;
    std::memcpy(&header, area_.data() + begin_, sizeof header);
    begin_ += sizeof header;
    if (header.magic.get() != request_magic) {
        state_ = State::broken;
        return Event::broken;
    }
    request_ = {header.flags.get(), Command{header.command.get()}, header.cookie.get(), header.offset.get(),
                header.length.get()};
    state_ = State::unsettled;
    return Event::request;
}

void NbdReceiver::payload_into(std::uint8_t* buffer)
{
    payload_ = buffer;
    payload_left_ = request_.payload_bytes();
    state_ = State::payload;
}

void NbdReceiver::skip_payload()
{
    payload_into(nullptr);
}

void NbdReceiver::take_payload()
{
    const auto piece = static_cast<std::uint32_t>(std::min<std::size_t>(held(), payload_left_));
    if (payload_) {
        std::memcpy(payload_, area_.data() + begin_, piece);
        payload_ += piece;
    }
    begin_ += piece;
    payload_left_ -= piece;
}

}  // namespace station
