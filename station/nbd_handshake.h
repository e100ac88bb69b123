// SPDX-License-Identifier: MIT
// The server's half of the handshake, without I/O: bytes of the client in, bytes for it out. One per
// connection, used by that connection's thread alone. It never trusts a byte: every length is bounded,
// and whatever breaks the protocol ends the dialogue.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "station/exports.h"
#include "station/nbd_format.h"

namespace station {

class NbdHandshake {
public:
    enum class State {
        negotiating,
        transmission,  // chosen() is what the client wants to use; requests follow
        closed,        // send what is left in output(), then close
    };

    static constexpr std::uint32_t option_bytes_max = 64 << 10;
    static constexpr unsigned options_max = 256;

    // What clients may choose from, as of now. The greeting waits in output() at once.
    explicit NbdHandshake(std::vector<Export> exports);

    // Takes bytes of the client and returns how many: all of them while negotiating, and none past
    // the last byte of the handshake.
    std::size_t receive(std::span<const std::uint8_t> bytes);

    State state() const { return state_; }
    const Export& chosen() const { return *chosen_; }
    // What the client takes beside plain replies.
    bool structured_replies() const { return structured_; }
    bool block_status() const { return chosen_ && status_of_ == chosen_->name; }

    // Bytes for the client since the last call.
    std::vector<std::uint8_t> take_output();

private:
    enum class Expecting { client_flags, option_header, option_data };

    std::size_t wanted_bytes() const;
    void step();
    void client_flags();
    void option_header();
    void option();
    void export_name();
    void list();
    void info_or_go(nbd::Option option);
    void structured_reply();
    void meta_context(nbd::Option option);
    void send_info(const Export& chosen, bool want_name, bool want_description);
    const Export* find(std::string_view name) const;
    void reply(std::uint32_t type, std::span<const std::uint8_t> data = {});
    void reply_text(std::uint32_t type, std::string_view text);
    template <typename Layout>
    void put(const Layout& layout);

    std::vector<Export> exports_;
    State state_ = State::negotiating;
    Expecting expecting_ = Expecting::client_flags;
    bool fixed_newstyle_ = false;
    bool no_zeroes_ = false;
    bool structured_ = false;
    std::optional<std::string> status_of_;  // the export of which the client wants to know where it has zeros
    unsigned options_ = 0;
    std::uint32_t option_ = 0;
    std::uint32_t option_bytes_ = 0;
    std::vector<std::uint8_t> input_;
    std::vector<std::uint8_t> output_;
    std::optional<Export> chosen_;
};

// What is announced to the client of an export.
constexpr std::uint16_t transmission_flags(const Export& chosen, bool structured)
{
    unsigned flags = nbd::transmission_has_flags | nbd::transmission_can_multi_conn;
    flags |= chosen.read_only ? nbd::transmission_read_only : nbd::transmission_send_write_zeroes;
    flags |= chosen.flushes ? nbd::transmission_send_flush : 0;
    flags |= structured ? nbd::transmission_send_df : 0;
    if (chosen.flushes && !chosen.read_only)
        flags |= nbd::transmission_send_fua | nbd::transmission_send_trim;
    return static_cast<std::uint16_t>(flags);
}
constexpr std::uint32_t block_bytes_minimum = 512;
constexpr std::uint32_t block_bytes_preferred = 4096;

}  // namespace station
