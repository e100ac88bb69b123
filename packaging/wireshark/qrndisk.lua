-- SPDX-License-Identifier: MIT
-- Wireshark dissector for what passes between a qrndisk workstation and its block servers: the block protocol, the boot
-- request of a PC and the status poll. Copy it into Wireshark's folder for personal Lua plugins (Help, About, Folders),
-- or run `tshark -X lua_script:qrndisk.lua`. docs/wire.md says what the fields mean.
--
-- Packets are recognised by their contents on any port; the port in the preferences is dissected in any case.

local qrn = Proto("qrndisk", "qrndisk block protocol")

local kinds = { [0x5C] = "Read", [0x5D] = "Read data", [0x5E] = "Write", [0x5F] = "Write done", [0x5B] = "Acknowledgement",
                [0x8C] = "Image read", [0xA4] = "Shutdown", [0x55] = "Retry limit" }
local sub_codes = { [0x00] = "Request", [0x01] = "Status query", [0xAA] = "Retry limit" }
local boot_kinds = { [1] = "Boot request", [2] = "Boot answer", [3] = "Boot refusal" }

local request_bytes, header_bytes = 26, 34
local fragment_bytes_max, packet_bytes_max = 1386, 16384
-- The same ten bytes and disk after so long are another packet: 16 bits of sequence numbers come round.
local resend_seconds_max = 120

local f = {
    disk = ProtoField.bytes("qrndisk.disk_id", "Disk id"),
    mirrored = ProtoField.bool("qrndisk.mirrored", "Mirrored"),
    sub = ProtoField.uint8("qrndisk.sub_code", "Sub code", base.HEX, sub_codes),
    kind = ProtoField.uint8("qrndisk.kind", "Kind", base.HEX, kinds),
    tag = ProtoField.uint16("qrndisk.tag", "Tag (with the tag key)", base.HEX),
    seq = ProtoField.uint16("qrndisk.seq", "Sequence", base.DEC),
    worker = ProtoField.uint8("qrndisk.worker", "Worker", base.DEC, nil, 0x07),
    run = ProtoField.uint8("qrndisk.run_start", "Run begins at sector, modulo 32", base.DEC, nil, 0xF8),
    index = ProtoField.uint8("qrndisk.packet_index", "Packet index", base.DEC),
    parm = ProtoField.bytes("qrndisk.disk_parm", "Disk parameter"),
    mask = ProtoField.uint16("qrndisk.recv_mask", "Fragments received", base.HEX),
    offset = ProtoField.uint64("qrndisk.byte_offset", "Byte offset", base.DEC),
    lba = ProtoField.int64("qrndisk.lba", "LBA", base.DEC),
    length = ProtoField.uint16("qrndisk.length", "Packet length", base.DEC),
    frag_off = ProtoField.uint16("qrndisk.fragment.offset", "Fragment offset", base.DEC),
    frag_size = ProtoField.uint16("qrndisk.fragment.size", "Fragment size", base.DEC),
    frag_num = ProtoField.uint8("qrndisk.fragment.number", "Fragment", base.DEC),
    frag_cnt = ProtoField.uint16("qrndisk.fragment.count", "Fragments of the packet", base.DEC),
    data = ProtoField.bytes("qrndisk.data", "Data"),
    whole = ProtoField.bytes("qrndisk.reassembled", "Reassembled packet"),
    request_in = ProtoField.framenum("qrndisk.request_in", "Request in", base.NONE, frametype.REQUEST),
    answer_in = ProtoField.framenum("qrndisk.answer_in", "Answer complete in", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("qrndisk.time", "Time to answer"),
    resend = ProtoField.bool("qrndisk.resend", "Resend"),
    resend_of = ProtoField.framenum("qrndisk.resend_of", "First sent in", base.NONE),
    boot_version = ProtoField.uint8("qrndisk.boot.version", "Version", base.DEC),
    boot_kind = ProtoField.uint8("qrndisk.boot.kind", "Kind", base.DEC, boot_kinds),
    boot_length = ProtoField.uint16("qrndisk.boot.length", "Length", base.DEC),
    boot_cookie = ProtoField.uint32("qrndisk.boot.cookie", "Cookie", base.HEX),
    boot_hardware = ProtoField.ether("qrndisk.boot.hardware", "Network card"),
    boot_ip = ProtoField.ipv4("qrndisk.boot.ip", "Address"),
    boot_abilities = ProtoField.uint16("qrndisk.boot.abilities", "Abilities", base.HEX),
    boot_uuid = ProtoField.bytes("qrndisk.boot.uuid", "UUID"),
    boot_level = ProtoField.uint16("qrndisk.boot.rack_level", "Protocol level", base.HEX),
    boot_text = ProtoField.stringz("qrndisk.boot.text", "Text"),
    boot_disks = ProtoField.uint8("qrndisk.boot.disks", "Disks", base.DEC),
    boot_disk = ProtoField.bytes("qrndisk.boot.disk_id", "Disk id"),
    boot_sectors = ProtoField.uint32("qrndisk.boot.sectors", "Sectors", base.DEC),
    boot_server = ProtoField.ipv4("qrndisk.boot.server", "Server"),
    boot_port = ProtoField.uint16("qrndisk.boot.server_port", "Server's port", base.DEC),
    poll_cookie = ProtoField.bytes("qrndisk.poll.cookie", "Cookie"),
    poll_ip = ProtoField.ipv4("qrndisk.poll.ip", "Reply to"),
    poll_port = ProtoField.uint16("qrndisk.poll.port", "Reply to port", base.DEC),
    poll_identity = ProtoField.bytes("qrndisk.poll.identity", "Identity"),
    poll_status = ProtoField.uint32("qrndisk.poll.disk_status", "Disk status", base.HEX),
    poll_reads = ProtoField.uint32("qrndisk.poll.read_sequence", "Packets read", base.DEC),
    poll_read_sectors = ProtoField.uint32("qrndisk.poll.read_sectors", "Sectors read", base.DEC),
    poll_read_time_outs = ProtoField.uint32("qrndisk.poll.read_time_outs", "Time-outs of reads", base.DEC),
    poll_writes = ProtoField.uint32("qrndisk.poll.write_sequence", "Packets written", base.DEC),
    poll_write_sectors = ProtoField.uint32("qrndisk.poll.write_sectors", "Sectors written", base.DEC),
    poll_write_time_outs = ProtoField.uint32("qrndisk.poll.write_time_outs", "Time-outs of writes", base.DEC),
    poll_image = ProtoField.uint32("qrndisk.poll.image_units", "Local image, 64 KB units", base.DEC),
    poll_position = ProtoField.uint32("qrndisk.poll.image_position", "Synchronised up to", base.DEC),
}
local fields = {}
for _, field in pairs(f) do fields[#fields + 1] = field end
qrn.fields = fields

local e = {
    short = ProtoExpert.new("qrndisk.short", "Packet ends inside its header", expert.group.MALFORMED, expert.severity.ERROR),
    length = ProtoExpert.new("qrndisk.bad_length", "Length is 0 or more than 16384", expert.group.MALFORMED,
                             expert.severity.ERROR),
    fragment = ProtoExpert.new("qrndisk.bad_fragment", "Fragment that a receiver drops", expert.group.MALFORMED,
                               expert.severity.ERROR),
    size = ProtoExpert.new("qrndisk.bad_size", "Fragment size is not that of the data", expert.group.MALFORMED,
                           expert.severity.ERROR),
    sector = ProtoExpert.new("qrndisk.bad_offset", "Byte offset is no whole sector", expert.group.PROTOCOL,
                             expert.severity.WARN),
    orphan = ProtoExpert.new("qrndisk.no_request", "Answer without a request in this capture", expert.group.SEQUENCE,
                             expert.severity.WARN),
    unanswered = ProtoExpert.new("qrndisk.no_answer", "Request without an answer in this capture", expert.group.SEQUENCE,
                                 expert.severity.WARN),
    resend = ProtoExpert.new("qrndisk.sent_again", "Sent again", expert.group.SEQUENCE, expert.severity.NOTE),
    repeated = ProtoExpert.new("qrndisk.answered_again", "Answered again", expert.group.SEQUENCE, expert.severity.NOTE),
    query = ProtoExpert.new("qrndisk.asked", "Workstation asks what has become of its packet", expert.group.SEQUENCE,
                            expert.severity.NOTE),
    missing = ProtoExpert.new("qrndisk.missing", "Server lacks fragments", expert.group.SEQUENCE, expert.severity.NOTE),
    zeros = ProtoExpert.new("qrndisk.zeros", "The whole packet is zeros", expert.group.COMMENTS_GROUP, expert.severity.CHAT),
    limit = ProtoExpert.new("qrndisk.retry_limited", "Server wants the workstation to give up soon", expert.group.RESPONSE_CODE,
                            expert.severity.WARN),
    refused = ProtoExpert.new("qrndisk.boot_refused", "Server refuses to boot this PC", expert.group.RESPONSE_CODE,
                              expert.severity.WARN),
    boot = ProtoExpert.new("qrndisk.bad_boot", "Boot packet of unknown version, kind or length", expert.group.MALFORMED,
                           expert.severity.ERROR),
}
local experts = {}
for _, info in pairs(e) do experts[#experts + 1] = info end
qrn.experts = experts

qrn.prefs.port = Pref.uint("UDP port", 8520, "Port whose packets are always dissected")

-- What has been seen, built in the first pass. open: by conversation and match bytes the latest transaction.
-- frames: by frame number what is to be shown.
local open, frames

function qrn.init()
    open, frames = {}, {}
end

local function conversation(pinfo, to_server)
    local a, b = tostring(pinfo.src) .. ":" .. pinfo.src_port, tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    return to_server and a .. ">" .. b or b .. ">" .. a
end

local function note(pinfo)
    local known = frames[pinfo.number]
    if not known then
        known = {}
        frames[pinfo.number] = known
    end
    return known
end

local function new_transaction(key, pinfo, kind)
    local transaction = { kind = kind, first = pinfo.number, start = pinfo.abs_ts, sent = {}, data = {}, covered = 0 }
    open[key] = transaction
    return transaction
end

-- Adds a fragment; true when the packet has just become whole.
local function add_fragment(transaction, number, offset, bytes, length)
    if transaction.whole or transaction.data[number] then
        return false
    end
    transaction.data[number] = { offset = offset, bytes = bytes }
    transaction.covered = transaction.covered + bytes:len()
    if transaction.covered < length then
        return false
    end
    local fragments = {}
    for _, fragment in pairs(transaction.data) do fragments[#fragments + 1] = fragment end
    table.sort(fragments, function(one, other) return one.offset < other.offset end)
    local whole = ByteArray.new()
    for _, fragment in ipairs(fragments) do
        if fragment.offset ~= whole:len() then return false end
        whole:append(fragment.bytes)
    end
    transaction.whole = whole
    transaction.data = {}
    return true
end

-- First pass, requests: reads, image reads and fragments of writes.
local function follow_request(pinfo, key, kind, number)
    local transaction = open[key]
    if not transaction or pinfo.abs_ts - transaction.start > resend_seconds_max or transaction.kind ~= kind then
        transaction = new_transaction(key, pinfo, kind)
    end
    local shown = note(pinfo)
    shown.transaction = transaction
    if transaction.sent[number] then
        shown.resend_of = transaction.sent[number]
    else
        transaction.sent[number] = pinfo.number
    end
    return transaction, shown
end

local function finish(transaction, pinfo)
    if not transaction.answer then
        transaction.answer = pinfo.number
        transaction.time = pinfo.abs_ts - transaction.start
    end
end

local function lba_of(offset)
    return Int64.new(offset:lower(), offset:higher()) / 512 - 1
end

local function dissect_block(tvb, pinfo, tree)
    local size = tvb:len()
    local root = tree:add(qrn, tvb())
    if size < request_bytes then
        root:add_proto_expert_info(e.short)
        return
    end
    local sub, kind = tvb(4, 1):uint(), tvb(5, 1):uint()
    local length = tvb(24, 2):uint()
    local is_query = sub == 0x01
    local to_server = kind == 0x5C or kind == 0x5E or kind == 0x8C or kind == 0xA4
    local name = kinds[kind] or string.format("Kind 0x%02X", kind)
    if is_query and to_server then name = name .. " query" end

    local id = root:add(f.disk, tvb(0, 4))
    id:add(f.mirrored, tvb(2, 1), bit.band(tvb(2, 1):uint(), 0x10) ~= 0)
    root:add(f.sub, tvb(4, 1))
    root:add(f.kind, tvb(5, 1))
    root:add(f.tag, tvb(6, 2))
    root:add_le(f.seq, tvb(8, 2))
    root:add(f.worker, tvb(10, 1))
    root:add(f.run, tvb(10, 1))
    root:add(f.index, tvb(11, 1))
    root:add(f.parm, tvb(12, 4))
    root:add(f.mask, tvb(16, 2))
    local offset = root:add(f.offset, tvb(18, 6))
    local bytes = tvb(18, 6):uint64()
    local text = string.format("%s disk %s", name, tostring(tvb(0, 4):bytes()))
    if kind ~= 0xA4 then
        offset:add(f.lba, tvb(18, 6), lba_of(bytes))
        text = text .. string.format(" LBA %s, %d bytes", tostring(lba_of(bytes)), length)
        if bit.band(tvb(22, 2):uint(), 511) ~= 0 then offset:add_proto_expert_info(e.sector) end
    end
    local length_item = root:add(f.length, tvb(24, 2))
    if length == 0 or length > packet_bytes_max then length_item:add_proto_expert_info(e.length) end

    -- Fragments.
    local has_data = kind == 0x5D or (kind == 0x5E and not is_query)
    local number, count, data_size, frag_off, is_zeros, is_bad
    if has_data then
        if size < header_bytes then
            root:add_proto_expert_info(e.short)
            return
        end
        frag_off, data_size = tvb(26, 2):uint(), tvb(28, 2):uint()
        number, count = tvb(31, 1):uint(), tvb(32, 2):uint()
        root:add(f.frag_off, tvb(26, 2))
        local size_item = root:add(f.frag_size, tvb(28, 2))
        local number_item = root:add(f.frag_num, tvb(31, 1))
        root:add(f.frag_cnt, tvb(32, 2))
        is_zeros = kind == 0x5D and count == 0
        is_bad = not is_zeros and (number == 0 or number > count or data_size == 0 or data_size > fragment_bytes_max or
                                   frag_off + data_size > length or count > 16)
        if is_bad then number_item:add_proto_expert_info(e.fragment) end
        if not is_zeros and data_size ~= size - header_bytes then
            size_item:add_proto_expert_info(e.size)
            is_bad = true
        end
        if size > header_bytes then root:add(f.data, tvb(header_bytes)) end
        if is_zeros then
            number_item:add_proto_expert_info(e.zeros)
            text = text .. " of zeros"
        else
            text = text .. string.format(", fragment %d of %d", number, count)
        end
    end

    -- Requests and answers.
    local key = conversation(pinfo, to_server) .. tvb(0, 4):bytes():tohex() .. tvb(6, 10):bytes():tohex() ..
                tvb(18, 8):bytes():tohex()
    if not pinfo.visited then
        if to_server and not is_query and kind ~= 0xA4 then
            local transaction = follow_request(pinfo, key, kind, number or 1)
            if kind == 0x5E and not is_bad and add_fragment(transaction, number, frag_off, tvb(header_bytes):bytes(), length) then
                note(pinfo).completes = transaction
            end
        else
            local transaction = open[key]
            local shown = note(pinfo)
            shown.transaction = transaction
            if transaction and not is_query then
                shown.again = transaction.answer ~= nil
                if kind == 0x5F then
                    finish(transaction, pinfo)
                elseif kind == 0x5D and is_zeros then
                    -- It takes two of them, with different numbers.
                    if transaction.zeros and transaction.zeros ~= number then finish(transaction, pinfo) end
                    transaction.zeros = transaction.zeros or number
                elseif kind == 0x5D and not is_bad and
                       add_fragment(transaction, number, frag_off, tvb(header_bytes):bytes(), length) then
                    shown.completes = transaction
                    finish(transaction, pinfo)
                end
            end
        end
    end

    local shown = frames[pinfo.number] or {}
    local transaction = shown.transaction
    if to_server then
        if is_query then
            root:add_proto_expert_info(e.query)
            if transaction then root:add(f.request_in, transaction.first):set_generated() end
        elseif transaction then
            if shown.resend_of then
                local item = root:add(f.resend, true)
                item:set_generated()
                item:add_proto_expert_info(e.resend)
                root:add(f.resend_of, shown.resend_of):set_generated()
                text = text .. " [sent again]"
            end
            if transaction.answer then
                root:add(f.answer_in, transaction.answer):set_generated()
            elseif pinfo.visited then
                root:add_proto_expert_info(e.unanswered)
            end
        end
    elseif transaction then
        root:add(f.request_in, transaction.first):set_generated()
        if transaction.answer == pinfo.number then
            root:add(f.time, transaction.time and NSTime.new(math.floor(transaction.time),
                     math.floor((transaction.time % 1) * 1e9))):set_generated()
        elseif shown.again then
            root:add_proto_expert_info(e.repeated)
        end
    elseif kind ~= 0x55 then
        root:add_proto_expert_info(e.orphan)
    end
    if kind == 0x5B and tvb(16, 2):uint() ~= 0xFFFF then
        root:add_proto_expert_info(e.missing)
    elseif kind == 0x55 then
        root:add_proto_expert_info(e.limit)
    end
    if shown.completes then
        local whole = shown.completes.whole:tvb("Reassembled packet")
        root:add(f.whole, whole()):set_generated()
        text = text .. " [whole]"
    end
    pinfo.cols.info:set(text)
end

local function dissect_boot(tvb, pinfo, tree)
    local root = tree:add(qrn, tvb(), "qrndisk boot request")
    if tvb:len() < 8 then
        root:add_proto_expert_info(e.short)
        return
    end
    local kind = tvb(5, 1):uint()
    root:add(f.boot_version, tvb(4, 1))
    root:add(f.boot_kind, tvb(5, 1))
    root:add(f.boot_length, tvb(6, 2))
    local least = kind == 1 and 64 or 464
    pinfo.cols.info:set(boot_kinds[kind] or "Boot packet")
    if not boot_kinds[kind] or tvb(4, 1):uint() ~= 1 or tvb:len() < least or tvb(6, 2):uint() ~= tvb:len() then
        root:add_proto_expert_info(e.boot)
        if tvb:len() < least then return end
    end
    root:add(f.boot_cookie, tvb(8, 4))
    root:add(f.boot_hardware, tvb(12, 6))
    local key = "boot" .. tvb(8, 4):bytes():tohex() .. tvb(12, 6):bytes():tohex()
    if kind == 1 then
        root:add(f.boot_ip, tvb(18, 4))
        root:add(f.boot_abilities, tvb(22, 2))
        root:add(f.boot_uuid, tvb(24, 16))
        if not pinfo.visited then follow_request(pinfo, key, "boot", 1) end
    else
        root:add(f.boot_level, tvb(18, 2))
        root:add(f.boot_text, tvb(24, 80))
        pinfo.cols.info:append(": " .. tvb(24, 80):stringz())
        if kind == 3 then
            root:add_proto_expert_info(e.refused)
        else
            local block = tvb(104, 360)
            local disks = math.min(block(6, 1):uint(), 4)
            root:add(f.boot_disks, block(6, 1))
            for i = 0, disks - 1 do
                local disk = root:add(f.boot_disk, block(48 + 36 * i + 6, 4))
                disk:add_le(f.boot_sectors, block(48 + 36 * i + 26, 4))
                disk:add(f.boot_server, block(230 + 14 * i, 4))
                disk:add(f.boot_port, block(230 + 14 * i + 10, 2))
            end
        end
        if not pinfo.visited then
            note(pinfo).transaction = open[key]
            if open[key] then finish(open[key], pinfo) end
        end
    end
    local shown = frames[pinfo.number] or {}
    local transaction = shown.transaction
    if kind ~= 1 and transaction then
        root:add(f.request_in, transaction.first):set_generated()
        if transaction.answer == pinfo.number then
            root:add(f.time, NSTime.new(math.floor(transaction.time), math.floor((transaction.time % 1) * 1e9))):set_generated()
        end
    elseif kind ~= 1 then
        root:add_proto_expert_info(e.orphan)
    elseif transaction and transaction.answer then
        root:add(f.answer_in, transaction.answer):set_generated()
    elseif pinfo.visited then
        root:add_proto_expert_info(e.unanswered)
    end
    if shown.resend_of then
        root:add_proto_expert_info(e.resend)
        root:add(f.resend_of, shown.resend_of):set_generated()
    end
end

local function dissect_poll(tvb, pinfo, tree)
    local is_reply = tvb(0, 1):uint() == 2
    local root = tree:add(qrn, tvb(), is_reply and "qrndisk status reply" or "qrndisk status poll")
    pinfo.cols.info:set(is_reply and "Status reply" or "Status poll")
    if tvb:len() < (is_reply and 226 or request_bytes) then
        root:add_proto_expert_info(e.short)
        return
    end
    local cookie = is_reply and tvb(4, 2) or tvb(6, 2)
    root:add(f.poll_cookie, cookie)
    -- The reply goes where the poll says: the workstation alone is the same in both.
    local key = "poll" .. tostring(is_reply and pinfo.src or pinfo.dst) .. tvb(2, 2):bytes():tohex() .. cookie:bytes():tohex()
    if not is_reply then
        root:add(f.poll_ip, tvb(8, 4))
        root:add(f.poll_port, tvb(18, 2))
        if not pinfo.visited then
            note(pinfo).transaction = new_transaction(key, pinfo, "poll")
        end
    else
        root:add(f.poll_identity, tvb(8, 34))
        for i = 0, 3 do
            local at = 42 + 28 * i
            local disk = root:add_le(f.poll_status, tvb(at, 4))
            disk:add_le(f.poll_reads, tvb(at + 4, 4))
            disk:add_le(f.poll_read_sectors, tvb(at + 8, 4))
            disk:add_le(f.poll_read_time_outs, tvb(at + 12, 4))
            disk:add_le(f.poll_writes, tvb(at + 16, 4))
            disk:add_le(f.poll_write_sectors, tvb(at + 20, 4))
            disk:add_le(f.poll_write_time_outs, tvb(at + 24, 4))
        end
        root:add_le(f.poll_image, tvb(218, 4))
        root:add_le(f.poll_position, tvb(222, 4))
        if not pinfo.visited then
            note(pinfo).transaction = open[key]
            if open[key] then finish(open[key], pinfo) end
        end
    end
    local transaction = (frames[pinfo.number] or {}).transaction
    if not is_reply then
        if transaction and transaction.answer then
            root:add(f.answer_in, transaction.answer):set_generated()
        elseif pinfo.visited then
            root:add_proto_expert_info(e.unanswered)
        end
    elseif transaction then
        root:add(f.request_in, transaction.first):set_generated()
        if transaction.answer == pinfo.number then
            root:add(f.time, NSTime.new(math.floor(transaction.time), math.floor((transaction.time % 1) * 1e9))):set_generated()
        end
    else
        root:add_proto_expert_info(e.orphan)
    end
end

function qrn.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol:set("QRNDISK")
    if tvb:len() >= 4 and tvb(0, 4):string() == "QRNB" then
        dissect_boot(tvb, pinfo, tree)
    elseif tvb:len() >= 2 and (tvb(0, 2):uint() == 0x0138 or tvb(0, 2):uint() == 0x0238) then
        dissect_poll(tvb, pinfo, tree)
    else
        dissect_block(tvb, pinfo, tree)
    end
end

-- Whether a packet on any port can be ours.
local function is_ours(tvb)
    local size = tvb:len()
    if size >= 8 and tvb(0, 4):string() == "QRNB" then return boot_kinds[tvb(5, 1):uint()] ~= nil end
    if size == 226 and tvb(0, 2):uint() == 0x0238 then return tvb(6, 2):uint() == 0x0504 end
    if size >= request_bytes and size <= 64 and tvb(0, 2):uint() == 0x0138 then return true end
    if size < request_bytes or size > header_bytes + fragment_bytes_max then return false end
    local sub, kind = tvb(4, 1):uint(), tvb(5, 1):uint()
    if not kinds[kind] or not sub_codes[sub] then return false end
    local length = tvb(24, 2):uint()
    return kind == 0xA4 or kind == 0x55 or (length ~= 0 and length <= packet_bytes_max)
end

qrn:register_heuristic("udp", function(tvb, pinfo, tree)
    if not is_ours(tvb) then return false end
    qrn.dissector(tvb, pinfo, tree)
    return true
end)

local registered_port = qrn.prefs.port
DissectorTable.get("udp.port"):add(registered_port, qrn)
function qrn.prefs_changed()
    if registered_port == qrn.prefs.port then return end
    DissectorTable.get("udp.port"):remove(registered_port, qrn)
    registered_port = qrn.prefs.port
    DissectorTable.get("udp.port"):add(registered_port, qrn)
end
