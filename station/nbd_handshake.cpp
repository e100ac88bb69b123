// SPDX-License-Identifier: MIT
#include "station/nbd_handshake.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

namespace station {

using namespace nbd;

namespace {

template <typename Layout>
Layout layout_of(std::span<const std::uint8_t> bytes)
{
    Layout layout;
    std::memcpy(&layout, bytes.data(), sizeof layout);
    return layout;
}

template <typename Layout>
std::span<const std::uint8_t> bytes_of(const Layout& layout)
{
    static_assert(std::is_trivially_copyable_v<Layout>);
    return {reinterpret_cast<const std::uint8_t*>(&layout), sizeof layout};
}

std::span<const std::uint8_t> text_bytes(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::vector<std::uint8_t> joined(std::span<const std::uint8_t> head, std::span<const std::uint8_t> tail)
{
    std::vector<std::uint8_t> bytes(head.begin(), head.end());
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    return bytes;
}

// Takes fields off the front of an option's data; falls over once, at the first one that is not there.
class FieldReader {
public:
    explicit FieldReader(std::span<const std::uint8_t> data) : left_(data) {}

    template <typename Field>
    auto take()
    {
        Field field{};
        if (auto bytes = take_bytes(sizeof field); !bytes.empty())
            std::memcpy(&field, bytes.data(), sizeof field);
        return field.get();
    }
    std::span<const std::uint8_t> take_bytes(std::size_t count)
    {
        if (count > left_.size()) {
            complete_ = false;
            left_ = {};
            return {};
        }
        auto bytes = left_.first(count);
        left_ = left_.subspan(count);
        return bytes;
    }
    // Every field was there.
    bool complete() const { return complete_; }
    bool at_end() const { return left_.empty(); }

private:
    std::span<const std::uint8_t> left_;
    bool complete_ = true;
};

}  // namespace

NbdHandshake::NbdHandshake(std::vector<Export> exports) : exports_(std::move(exports))
{
    Greeting greeting;
    greeting.magic.set(greeting_magic);
    greeting.option_magic.set(option_magic);
    greeting.flags.set(flag_fixed_newstyle | flag_no_zeroes);
    put(greeting);
}

std::size_t NbdHandshake::receive(std::span<const std::uint8_t> bytes)
{
    std::size_t taken = 0;
    while (state_ == State::negotiating) {
        const std::size_t piece = std::min(wanted_bytes() - input_.size(), bytes.size() - taken);
        input_.insert(input_.end(), bytes.begin() + static_cast<std::ptrdiff_t>(taken),
                      bytes.begin() + static_cast<std::ptrdiff_t>(taken + piece));
        taken += piece;
        if (input_.size() < wanted_bytes())
            break;
        step();
        input_.clear();
    }
    return taken;
}

std::vector<std::uint8_t> NbdHandshake::take_output()
{
    return std::exchange(output_, {});
}

std::size_t NbdHandshake::wanted_bytes() const
{
    switch (expecting_) {
    case Expecting::client_flags:
        return sizeof(Be32);
    case Expecting::option_header:
        return sizeof(OptionHeader);
    case Expecting::option_data:
        break;
    }
    return option_bytes_;
}

void NbdHandshake::step()
{
    switch (expecting_) {
    case Expecting::client_flags:
        client_flags();
        break;
    case Expecting::option_header:
        option_header();
        break;
    case Expecting::option_data:
        expecting_ = Expecting::option_header;
        option();
        break;
    }
}

void NbdHandshake::client_flags()
{
    const std::uint32_t flags = layout_of<Be32>(input_).get();
    fixed_newstyle_ = flags & flag_fixed_newstyle;
    no_zeroes_ = flags & flag_no_zeroes;
    expecting_ = Expecting::option_header;
    if (flags & ~std::uint32_t{flag_fixed_newstyle | flag_no_zeroes})
        state_ = State::closed;
}

void NbdHandshake::option_header()
{
    const auto header = layout_of<OptionHeader>(input_);
    option_ = header.option.get();
    option_bytes_ = header.length.get();
    expecting_ = Expecting::option_data;
    if (header.magic.get() != option_magic || option_bytes_ > option_bytes_max || ++options_ > options_max)
        state_ = State::closed;
}

void NbdHandshake::option()
{
    const auto option = Option{option_};
    if (option == Option::export_name)
        return export_name();
    if (!fixed_newstyle_) {  // such a client expects no option replies
        state_ = State::closed;
        return;
    }
    switch (option) {
    case Option::abort:
        reply(reply_ack);
        state_ = State::closed;
        break;
    case Option::list:
        list();
        break;
    case Option::info:
    case Option::go:
        info_or_go(option);
        break;
    case Option::structured_reply:
        structured_reply();
        break;
    case Option::list_meta_context:
    case Option::set_meta_context:
        meta_context(option);
        break;
    default:
        reply(reply_error_unsupported);
        break;
    }
}

// This option has no error reply: an unknown name ends the dialogue.
void NbdHandshake::export_name()
{
    const Export* found = find({reinterpret_cast<const char*>(input_.data()), input_.size()});
    if (!found || found->device->size_bytes() == 0) {
        state_ = State::closed;
        return;
    }
    ExportNameReply answer;
    answer.size_bytes.set(found->device->size_bytes());
    answer.transmission_flags.set(transmission_flags(*found, structured_));
    put(answer);
    if (!no_zeroes_)
        output_.resize(output_.size() + export_name_zeroes);
    chosen_ = *found;
    state_ = State::transmission;
}

void NbdHandshake::list()
{
    if (!input_.empty())
        return reply_text(reply_error_invalid, "this option carries no data");
    for (const Export& each : exports_) {
        Be32 name_bytes;
        name_bytes.set(static_cast<std::uint32_t>(each.name.size()));
        reply(reply_server, joined(bytes_of(name_bytes), text_bytes(each.name)));
    }
    reply(reply_ack);
}

void NbdHandshake::info_or_go(Option option)
{
    FieldReader fields(input_);
    const std::uint32_t name_bytes = fields.take<Be32>();
    if (fields.complete() && name_bytes > name_bytes_max)
        return reply_text(reply_error_too_big, "export name too long");
    const auto name = fields.take_bytes(name_bytes);
    const unsigned wishes = fields.take<Be16>();
    bool want_name = false, want_description = false;
    for (unsigned i = 0; i < wishes && fields.complete(); ++i) {
        const auto wish = Info{fields.take<Be16>()};
        want_name |= wish == Info::name;
        want_description |= wish == Info::description;
    }
    if (!fields.complete() || !fields.at_end())
        return reply_text(reply_error_invalid, "malformed option");

    const Export* found = find({reinterpret_cast<const char*>(name.data()), name.size()});
    if (!found)
        return reply_text(reply_error_unknown, "no such export");
    if (found->device->size_bytes() == 0)
        return reply_text(reply_error_unknown, "no medium in " + found->name);
    const Export chosen = *found;
    send_info(chosen, want_name, want_description);
    if (option == Option::go) {
        chosen_ = chosen;
        state_ = State::transmission;
    }
}

void NbdHandshake::structured_reply()
{
    if (!input_.empty())
        return reply_text(reply_error_invalid, "this option carries no data");
    structured_ = true;
    reply(reply_ack);
}

// LIST without a query asks for all there is, SET for nothing. What was set before is void either way.
void NbdHandshake::meta_context(Option option)
{
    const bool lists = option == Option::list_meta_context;
    if (!lists)
        status_of_.reset();
    if (!structured_)
        return reply_text(reply_error_invalid, "only with structured replies");
    FieldReader fields(input_);
    const std::uint32_t name_bytes = fields.take<Be32>();
    if (fields.complete() && name_bytes > name_bytes_max)
        return reply_text(reply_error_too_big, "export name too long");
    const auto name = fields.take_bytes(name_bytes);
    const std::uint32_t queries = fields.take<Be32>();
    bool wanted = lists && queries == 0;
    for (std::uint32_t i = 0; i < queries && fields.complete(); ++i) {
        const std::uint32_t query_bytes = fields.take<Be32>();
        const auto bytes = fields.take_bytes(query_bytes);
        const std::string_view query(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        wanted |= query == allocation_context || (lists && query == "base:");
    }
    if (!fields.complete() || !fields.at_end())
        return reply_text(reply_error_invalid, "malformed option");
    const Export* found = find({reinterpret_cast<const char*>(name.data()), name.size()});
    if (!found)
        return reply_text(reply_error_unknown, "no such export");
    if (wanted) {
        Be32 id;
        id.set(lists ? 0 : allocation_context_id);
        reply(reply_meta_context, joined(bytes_of(id), text_bytes(allocation_context)));
        if (!lists)
            status_of_ = found->name;
    }
    reply(reply_ack);
}

void NbdHandshake::send_info(const Export& chosen, bool want_name, bool want_description)
{
    InfoExport size;
    size.type.set(static_cast<std::uint16_t>(Info::export_size));
    size.size_bytes.set(chosen.device->size_bytes());
    size.transmission_flags.set(transmission_flags(chosen, structured_));
    reply(reply_info, bytes_of(size));

    Be16 type;
    if (want_name) {
        type.set(static_cast<std::uint16_t>(Info::name));
        reply(reply_info, joined(bytes_of(type), text_bytes(chosen.name)));
    }
    if (want_description) {
        type.set(static_cast<std::uint16_t>(Info::description));
        reply(reply_info, joined(bytes_of(type), text_bytes(chosen.description)));
    }

    // Sent unasked: a client that does not know it would take requests of single bytes for allowed.
    InfoBlockSize block;
    block.type.set(static_cast<std::uint16_t>(Info::block_size));
    block.minimum_bytes.set(block_bytes_minimum);
    block.preferred_bytes.set(block_bytes_preferred);
    block.maximum_bytes.set(request_bytes_max);
    reply(reply_info, bytes_of(block));
    reply(reply_ack);
}

// The empty name is the default export, the first one.
const Export* NbdHandshake::find(std::string_view name) const
{
    if (name.empty())
        name = "lun0";
    const auto at =
        std::find_if(exports_.begin(), exports_.end(), [&](const Export& each) { return each.name == name; });
    return at == exports_.end() ? nullptr : &*at;
}

void NbdHandshake::reply(std::uint32_t type, std::span<const std::uint8_t> data)
{
    OptionReply header;
    header.magic.set(option_reply_magic);
    header.option.set(option_);
    header.type.set(type);
    header.length.set(static_cast<std::uint32_t>(data.size()));
    put(header);
    output_.insert(output_.end(), data.begin(), data.end());
}

void NbdHandshake::reply_text(std::uint32_t type, std::string_view text)
{
    reply(type, text_bytes(text));
}

template <typename Layout>
void NbdHandshake::put(const Layout& layout)
{
    const auto bytes = bytes_of(layout);
    output_.insert(output_.end(), bytes.begin(), bytes.end());
}

}  // namespace station
