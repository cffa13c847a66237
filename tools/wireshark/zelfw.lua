-- What follows is the dissector itself; the table above is all that it knows of the protocol.
-- Captures come from Linux's usbmon, or from "zelfwtrace pcap". Nothing in them is to be trusted: bytes
-- are read through `byte`, and shown through `add`, which both know where a report ends.

local zelfw = Proto("zelfw", "Flash interface of a USB peripheral")

local field = {
    recognized = ProtoField.string("zelfw.recognized", "Flash interface recognized by"),
    command = ProtoField.string("zelfw.command", "Message"),
    count = ProtoField.uint16("zelfw.count", "Bytes that follow", base.DEC),
    operation = ProtoField.uint16("zelfw.operation", "Operation", base.HEX),
    component = ProtoField.uint8("zelfw.component", "Component", base.DEC),
    record = ProtoField.uint32("zelfw.record", "Record", base.DEC),
    records = ProtoField.uint32("zelfw.records", "Records of the image", base.DEC),
    length = ProtoField.uint8("zelfw.length", "Length of the payload", base.DEC),
    tag = ProtoField.uint8("zelfw.tag", "Tag", base.HEX),
    value = ProtoField.uint16("zelfw.value", "Value", base.HEX),
    payload = ProtoField.bytes("zelfw.payload", "Payload"),
    checksum = ProtoField.bytes("zelfw.checksum", "Checksum"),
    status = ProtoField.uint8("zelfw.status", "Status", base.HEX),
    answered = ProtoField.string("zelfw.answered", "Answers"),
    request = ProtoField.framenum("zelfw.request_in", "Sent in", base.NONE, frametype.REQUEST),
    answer_time = ProtoField.double("zelfw.answer_time", "Answered after (seconds)"),
    level = ProtoField.string("zelfw.level", "Level"),
    previous_level = ProtoField.string("zelfw.previous_level", "Level before"),
    build = ProtoField.uint8("zelfw.build", "Build level", base.HEX),
    previous_build = ProtoField.uint8("zelfw.previous_build", "Build level before", base.HEX),
    device_type = ProtoField.uint8("zelfw.device.type", "Device type", base.HEX),
    device_id = ProtoField.uint8("zelfw.device.id", "Device ID", base.HEX),
    command_set = ProtoField.uint8("zelfw.device.command_set", "Command set", base.HEX),
    features = ProtoField.uint8("zelfw.device.features", "Features", base.HEX),
    list_length = ProtoField.uint8("zelfw.list.length", "Bytes of the list", base.DEC),
    entry = ProtoField.bytes("zelfw.list.entry", "Entry"),
    flags = ProtoField.uint8("zelfw.list.flags", "Flags", base.HEX),
    type = ProtoField.string("zelfw.list.type", "Type"),
    control = ProtoField.string("zelfw.list.control", "Version control"),
    last_block = ProtoField.bool("zelfw.last_block", "Last block"),
    silence = ProtoField.double("zelfw.silence", "Silence (seconds)"),
    urb_status = ProtoField.int32("zelfw.transfer_status", "Status of the transfer", base.DEC),
}
-- A flag is a field only where it is set, so that its name alone is a filter for it.
local flag_order = { "reject", "operation_error", "device_information", "ec_level", "completed" }
local flag_label = { reject = "Reject", operation_error = "Operation error",
    device_information = "Device information", ec_level = "EC level", completed = "Completed" }
local flag_field = {}
for name, label in pairs(flag_label) do
    flag_field[name] = ProtoField.bool("zelfw.status." .. name, label)
end

local registered = {}
for _, fields in pairs({ field, flag_field }) do
    for _, one in pairs(fields) do
        registered[#registered + 1] = one
    end
end
zelfw.fields = registered

local expert_info = {
    reject = ProtoExpert.new("zelfw.expert.reject", "The device rejected the message",
        expert.group.RESPONSE_CODE, expert.severity.ERROR),
    operation_error = ProtoExpert.new("zelfw.expert.operation_error", "The device failed to do it",
        expert.group.RESPONSE_CODE, expert.severity.ERROR),
    silence = ProtoExpert.new("zelfw.expert.silence", "The device was silent for over a second",
        expert.group.SEQUENCE, expert.severity.WARN),
}
zelfw.experts = { expert_info.reject, expert_info.operation_error, expert_info.silence }

local longest_silence = 1

local link_type = Field.new("frame.encap_type")
local comment = Field.new("frame.comment")

-- Bytes of a report or a descriptor, counted from 0.

local function byte(bytes, at)
    return bytes:byte(at + 1) or 0
end

local function word(bytes, at)
    return byte(bytes, at + 1) * 256 + byte(bytes, at)
end

-- Whether a flag of one bit is set.
local function has(flags, flag)
    return math.floor(flags / flag) % 2 == 1
end

-- Equal but for the bits of the mask, which lie side by side from `unit` on.
local function equal_beside(left, right, mask, unit)
    if mask == 0 then
        return left == right
    end
    local above = mask + unit
    return left % unit == right % unit and math.floor(left / above) == math.floor(right / above)
end

local function plural(count, one, more)
    return count == 1 and one or more
end

-- The frames of usbmon, as the Linux kernel's documentation has them.

local header_size = {
    [wtap_encaps.USB_LINUX] = 48,
    [wtap_encaps.USB_LINUX_MMAPPED] = 64,
}
local interrupt_transfer = 1
local control_transfer = 2
local setup_at = 40

local function signed(number)
    return number < 0x80000000 and number or number - 0x100000000
end

-- The transfer of a frame; nil when it is none, or no header of one.
local function read_transfer(tvb)
    local encapsulation = link_type()
    local header = encapsulation and header_size[encapsulation.value]
    if not header or tvb:len() < header then
        return nil
    end
    local bytes = tvb:raw(0, header)
    local captured = word(bytes, 36) + word(bytes, 38) * 0x10000
    local address = word(bytes, 12) .. "." .. byte(bytes, 11)
    local transfer = {
        id = address .. "." .. bytes:sub(1, 8),
        address = address,
        is_submission = byte(bytes, 8) == string.byte("S"),
        is_completion = byte(bytes, 8) == string.byte("C"),
        type = byte(bytes, 9),
        endpoint = byte(bytes, 10),
        status = signed(word(bytes, 28) + word(bytes, 30) * 0x10000),
        start = header,
        size = math.min(captured, tvb:len() - header),
    }
    if transfer.type == control_transfer and transfer.is_submission and byte(bytes, 14) == 0 then
        transfer.setup = {
            type = byte(bytes, setup_at),
            request = byte(bytes, setup_at + 1),
            index = byte(bytes, setup_at + 2),
            kind = byte(bytes, setup_at + 3),
            interface = byte(bytes, setup_at + 4),
        }
    end
    transfer.data = transfer.size > 0 and tvb:raw(header, transfer.size) or ""
    return transfer
end

-- What the devices are, by their descriptors.

local hid_class = 3
local devices, pending, meanings

local function new_device()
    return {
        class = {},            -- of an interface
        interface_of = {},     -- of an endpoint
        interfaces = {},       -- what is known of an interface with a report descriptor
        talked = {},           -- interfaces that were sent a message
        device_information_queries = 0,
    }
end

local function device_at(address)
    devices[address] = devices[address] or new_device()
    return devices[address]
end

local function learn_device_descriptor(address, data)
    if #data < 12 then
        return
    end
    local vendor, product = word(data, 8), word(data, 10)
    local device = device_at(address)
    if device.vendor and (device.vendor ~= vendor or device.product ~= product) then
        devices[address] = new_device()
        device = devices[address]
    end
    device.vendor, device.product = vendor, product
end

local function learn_configuration(device, data)
    local at, interface = 0, nil
    while at + 1 < #data and byte(data, at) >= 2 do
        local kind = byte(data, at + 1)
        if kind == 4 and at + 5 < #data then
            interface = byte(data, at + 2)
            device.class[interface] = byte(data, at + 5)
        elseif kind == 5 and interface and at + 2 < #data then
            device.interface_of[byte(data, at + 2)] = interface
        end
        at = at + byte(data, at)
    end
end

local item = { usage_page = 0x04, report_id = 0x84, usage = 0x08, collection = 0xA0, input = 0x80,
    output = 0x90, feature = 0xB0, long = 0xFE }
local report_kind = { [item.input] = 1, [item.output] = 2, [item.feature] = 3 }

local function item_value(data, at, size)
    local value = 0
    for i = size, 1, -1 do
        value = value * 256 + byte(data, at + i)
    end
    return value
end

-- Which usages of the flash interface's page the reports carry.
local function learn_report_descriptor(device, number, data)
    local known = { is_flash = false, has_ids = false, usages = {} }
    local page, usage, id, at = 0, nil, 0, 0
    while at < #data do
        local prefix = byte(data, at)
        local size = prefix % 4 == 3 and 4 or prefix % 4
        local tag = prefix - prefix % 4
        local value = item_value(data, at, size)
        if prefix == item.long then
            size = byte(data, at + 1) + 2
        elseif tag == item.usage_page then
            page = value
        elseif tag == item.report_id then
            id, known.has_ids = value, true
        elseif tag == item.usage then
            usage = usage or (size == 4 and value or page * 0x10000 + value)
        elseif tag == item.collection then
            known.is_flash = known.is_flash
                or usage == protocol.usage.page * 0x10000 + protocol.usage.interface
            usage = nil
        elseif report_kind[tag] then
            local key = report_kind[tag] .. "." .. id
            known.usages[key] = known.usages[key] or (usage or 0) % 0x10000
            usage = nil
        end
        at = at + 1 + size
    end
    device.interfaces[number] = known
end

-- How an interface is known to be a flash interface: its report descriptor, or without one its vendor.
local function recognized_by(device, number)
    local known = device.interfaces[number]
    if known then
        return known.is_flash and "report descriptor" or nil
    end
    local class = device.class[number]
    if protocol.vendors[device.vendor or 0] and (class == nil or class == hid_class) then
        return string.format("vendor %04x", device.vendor)
    end
    return nil
end

-- The bytes of a report without its ID: where they start and how many they are. Nil when the report
-- descriptor says that it is another usage's.
local function report_of(device, number, kind, id, transfer, wanted)
    local known = device.interfaces[number]
    local start, size = transfer.start, transfer.size
    if known and known.has_ids then
        id = id or byte(transfer.data, 0)
        local usage = known.usages[kind .. "." .. id]
        if not usage or not wanted[usage] then
            return nil
        end
    end
    local has_id = known and known.has_ids or not known and (id or 0) ~= 0
    if has_id and size > 0 then
        return start + 1, size - 1
    end
    return start, size
end

-- What a message says by itself.

local command_named = {}
for _, row in ipairs(protocol.commands) do
    command_named[row.key] = row
end

local function is_command(row, bytes)
    if #bytes ~= #row.bytes then
        return false
    end
    for i, expected in ipairs(row.bytes) do
        local mask = i - 1 == protocol.component_byte and row.component_mask or 0
        if not equal_beside(byte(bytes, i - 1), expected, mask, row.component_unit) then
            return false
        end
    end
    return true
end

local function read_image_message(bytes)
    local image = protocol.image
    local length = byte(bytes, image.length_byte)
    local tail = length == 0 and image.checksum_size or length + image.head_size - 1
    if word(bytes, image.operation_byte) ~= image.operation or #bytes ~= image.body_start + tail then
        return nil
    end
    local tag, start = byte(bytes, image.body_start), image.body_start
    if length == 0 then
        return { name = "checksum", awaited = true, is_checksum = true,
            details = string.format("%02x.%02x", tag, byte(bytes, start + 1)) }
    end
    local message = { name = "record", awaited = true, is_record = true, details = "" }
    local high = math.floor(tag / 16)
    local is_information = high == image.information_nibble
    if tag ~= image.file_information_tag then
        message.component = is_information and tag % 16 or high
        message.details = "component " .. message.component .. ", "
    end
    message.details = message.details .. string.format("%s %02x%02x%02x, %d byte%s",
        is_information and "information" or "data", tag, byte(bytes, start + 1),
        byte(bytes, start + 2), length, plural(length, "", "s"))
    return message
end

local function read_message(bytes)
    for _, row in ipairs(protocol.commands) do
        if is_command(row, bytes) then
            local message = { name = row.name, awaited = row.awaited, row = row, details = "" }
            if row.component_mask ~= 0 then
                local value = byte(bytes, protocol.component_byte)
                message.component = math.floor(value % (row.component_mask + row.component_unit)
                    / row.component_unit)
                message.details = "component " .. message.component
            end
            return message
        end
    end
    return read_image_message(bytes)
        or { name = "unknown message", is_unknown = true, details = #bytes .. " bytes" }
end

-- What it means where it stands. The first time that the frames are read they come in their order;
-- what was learned then is kept for each.

-- Whole microseconds; stamps may go back.
local function duration(from, to)
    return math.max(0, math.floor((to - from) * 1e6 + 0.5) / 1e6)
end

local function note_silence(device, meaning, now)
    local open = device.unanswered
    if not open or not open.awaited or open.is_noted then
        return
    end
    if duration(open.time, now) > longest_silence then
        meaning.silence, meaning.silent_after = duration(open.time, now), open
        open.is_noted = true
    end
end

local function learn_image(device, message, meaning)
    if message.row == command_named.erase then
        device.image = { count = 0 }
    elseif message.is_record then
        if device.image then
            device.image.count = device.image.count + 1
            meaning.image, meaning.record = device.image, device.image.count
        end
    else
        if message.is_checksum and device.image then
            device.image.total = device.image.count
        end
        device.image = nil
    end
end

-- The stop command and the query for the level are the same bytes: they are the query directly behind
-- two queries for the device information.
local function learn_query(device, message)
    if message.row == command_named.stop and device.device_information_queries > 1 then
        message.name, message.awaited = command_named.ec_level_query.name, true
    end
    local is_information_query = message.row == command_named.device_information_query
    device.device_information_queries = is_information_query
        and math.min(device.device_information_queries, 1) + 1 or 0
    device.query = message.row
end

local function learn_sent(device, number, transfer, frame, now)
    local how = recognized_by(device, number)
    local start, size = report_of(device, number, 2, transfer.setup.index, transfer,
        { [protocol.usage.command] = true })
    if not how or not start then
        return
    end
    local message = read_message(transfer.data:sub(start - transfer.start + 1))
    local is_certain = device.interfaces[number] or device.talked[number]
    if message.is_unknown and not is_certain then
        return
    end
    local meaning = { what = "sent", how = how, start = start, size = size }
    note_silence(device, meaning, now)
    learn_query(device, message)
    meaning.name = message.name
    learn_image(device, message, meaning)
    device.talked[number] = true
    device.unanswered = { meaning = meaning, name = message.name, awaited = message.awaited,
        component = message.component, time = now, frame = frame }
    meanings[frame] = meaning
    return meaning
end

-- The flash interface whose status an interrupt endpoint carries. An endpoint that no descriptor
-- names is taken where there is a single interface that was talked to.
local function interface_of_status(device, endpoint)
    local number = device.interface_of[endpoint]
    if number then
        return device.talked[number] and number or nil
    end
    for one in pairs(device.talked) do
        if number then
            return nil
        end
        number = one
    end
    return device.unanswered and number or nil
end

local function learn_status(device, transfer, frame, now)
    local number = interface_of_status(device, transfer.endpoint)
    local how = number and recognized_by(device, number)
    if not how then
        return
    end
    local start, size = report_of(device, number, 1, nil, transfer,
        { [protocol.usage.status] = true })
    if not start then
        return
    end
    local meaning = { what = "status", how = how, start = start, size = size }
    note_silence(device, meaning, now)
    if transfer.status ~= 0 or transfer.size == 0 then
        meaning.what, meaning.urb_status = "no status", transfer.status
        meanings[frame] = meaning.silence and meaning or nil
        return
    end
    if device.unanswered then
        meaning.answered = device.unanswered
        meaning.answer_time = duration(device.unanswered.time, now)
        device.unanswered = nil
    end
    meanings[frame] = meaning
end

local function learn_data(device, setup, transfer, frame, now)
    local number = setup.interface
    local how = recognized_by(device, number)
    if not how or not device.talked[number] then
        return
    end
    local start, size = report_of(device, number, 3, setup.index, transfer,
        { [protocol.usage.data] = true, [protocol.usage.fallback_data] = true })
    if start then
        local meaning = { what = "data", how = how, start = start, size = size,
            query = device.query }
        note_silence(device, meaning, now)
        meanings[frame] = meaning
    end
end

-- A message that the device did not take is not answered either.
local function learn_lost(device, meaning, transfer, frame)
    if device.unanswered and device.unanswered.meaning == meaning then
        device.unanswered = nil
    end
    meanings[frame] = { what = "lost", how = meaning.how, start = transfer.start, size = 0,
        lost = meaning, urb_status = transfer.status }
end

local function learn_completed_request(request, transfer, frame, now)
    local device, setup, data = device_at(transfer.address), request.setup, transfer.data
    if transfer.status ~= 0 then
        if request.meaning then
            learn_lost(device, request.meaning, transfer, frame)
        end
    elseif setup.type == 0x80 and setup.request == 6 and setup.kind == 1 then
        learn_device_descriptor(transfer.address, data)
    elseif setup.type == 0x80 and setup.request == 6 and setup.kind == 2 then
        learn_configuration(device, data)
    elseif setup.type == 0x81 and setup.request == 6 and setup.kind == 0x22 then
        learn_report_descriptor(device, setup.interface, data)
    elseif setup.type == 0xA1 and setup.request == 1 and setup.kind == 3 then
        learn_data(device, setup, transfer, frame, now)
    end
end

local function learn(transfer, frame, now)
    if transfer.type == interrupt_transfer then
        if transfer.is_completion and transfer.endpoint >= 0x80 then
            learn_status(device_at(transfer.address), transfer, frame, now)
        end
    elseif transfer.type ~= control_transfer then
        return
    elseif transfer.setup then
        local setup = transfer.setup
        local request = { setup = setup }
        if setup.type == 0x21 and setup.request == 9 and setup.kind == 2 then
            request.meaning = learn_sent(device_at(transfer.address), setup.interface, transfer,
                frame, now)
        end
        pending[transfer.id] = request
    elseif transfer.is_completion and pending[transfer.id] then
        local request = pending[transfer.id]
        pending[transfer.id] = nil
        learn_completed_request(request, transfer, frame, now)
    end
end

-- The updater says in its log how many records it is about to send; a trace's capture has these lines.
local function learn_announcement(image)
    if image.total or image.announced then
        return
    end
    for _, line in ipairs({ comment() }) do
        local count = tostring(line.value):match("^Erase completed, now sending (%d+) ")
        if count and #count <= 6 then
            image.announced = tonumber(count)
        end
    end
end

-- Showing. A view is a report in its frame.

local function new_view(tvb, meaning)
    local size = math.max(0, math.min(meaning.size, tvb:len() - meaning.start))
    return { tvb = tvb, start = meaning.start, size = size,
        bytes = size > 0 and tvb:raw(meaning.start, size) or "" }
end

-- Adds a field at a place of the report, where it has that place.
local function add(tree, one, view, at, length, value)
    if length < 1 or at + length > view.size then
        return nil
    end
    local range = view.tvb:range(view.start + at, length)
    if value == nil then
        return tree:add(one, range)
    end
    return tree:add(one, range, value)
end

local function add_le(tree, one, view, at)
    if at + 2 <= view.size then
        tree:add_le(one, view.tvb:range(view.start + at, 2))
    end
end

local function add_generated(tree, one, value)
    tree:add(one, value):set_generated()
end

local function title(meaning)
    local words = meaning.name
    if meaning.record then
        words = words .. " " .. meaning.record
        local image = meaning.image
        local total = image.total or image.announced
        if total and total >= meaning.record then
            words = words .. " of " .. total
        end
    end
    return words
end

local function show_record_body(tree, view, at)
    local length = byte(view.bytes, at)
    add(tree, field.length, view, at, 1)
    if length == 0 then
        add(tree, field.checksum, view, at + 1, protocol.image.checksum_size)
        return
    end
    add(tree, field.tag, view, at + 1, 1)
    add(tree, field.value, view, at + 2, 2)
    local start = at + protocol.image.head_size
    add(tree, field.payload, view, start, math.min(length, view.size - start))
end

local function show_sent(tree, view, meaning)
    local message = read_message(view.bytes)
    add(tree, field.command, view, 0, view.size, meaning.name)
    add_le(tree, field.count, view, 0)
    add_le(tree, field.operation, view, protocol.image.operation_byte)
    if meaning.record then
        add_generated(tree, field.record, meaning.record)
        local total = meaning.image.total or meaning.image.announced
        if total then
            add_generated(tree, field.records, total)
        end
    end
    if message.component then
        local at = message.is_record and protocol.image.body_start or protocol.component_byte
        add(tree, field.component, view, at, 1, message.component)
    end
    if message.is_record or message.is_checksum then
        show_record_body(tree, view, protocol.image.length_byte)
    end
    return message.details == "" and title(meaning) or title(meaning) .. " (" .. message.details .. ")"
end

local function level_text(bytes, at)
    return string.format("%02x.%02x", byte(bytes, at + 1), byte(bytes, at))
end

local function show_level(tree, view)
    local at, bytes = protocol.level, view.bytes
    local current, previous = level_text(bytes, at.current), level_text(bytes, at.previous)
    add(tree, field.level, view, at.current, 2, current)
    add(tree, field.previous_level, view, at.previous, 2, previous)
    add(tree, field.build, view, at.current_build, 1)
    add(tree, field.previous_build, view, at.previous_build, 1)
    return string.format("EC level %s build %02x, before %s build %02x", current,
        byte(bytes, at.current_build), previous, byte(bytes, at.previous_build))
end

local function show_device(tree, view)
    local at, bytes = protocol.device, view.bytes
    add(tree, field.device_type, view, at.type, 1)
    add(tree, field.device_id, view, at.id, 1)
    add(tree, field.command_set, view, at.command_set, 1)
    add(tree, field.features, view, at.features, 1)
    return string.format("device type %02x, ID %02x, command set %02x, features %02x",
        byte(bytes, at.type), byte(bytes, at.id), byte(bytes, at.command_set),
        byte(bytes, at.features))
end

local function show_status_flags(tree, view)
    local flags = byte(view.bytes, 0)
    local line = add(tree, field.status, view, 0, 1)
    for _, name in ipairs(flag_order) do
        local flag = protocol.flag[name]
        if has(flags, flag) then
            line:add(flag_field[name], view.tvb:range(view.start, 1), true)
        else
            line:add(view.tvb:range(view.start, 1), flag_label[name] .. ": not set")
        end
    end
    return flags
end

local function status_words(tree, view, flags)
    local words, known = {}, 0
    local function take(name, text)
        if has(flags, protocol.flag[name]) then
            known = known + protocol.flag[name]
            words[#words + 1] = type(text) == "function" and text(tree, view) or text
        end
    end
    take("reject", "rejected")
    take("operation_error", "operation error")
    take("completed", "completed")
    take("ec_level", show_level)
    take("device_information", show_device)
    if flags == 0 or flags ~= known then
        words[#words + 1] = string.format("flags %02x", flags)
    end
    return table.concat(words, ", ")
end

local function show_status(tree, view, meaning)
    local open = meaning.answered
    if open then
        add_generated(tree, field.answered, title(open.meaning))
        add_generated(tree, field.request, open.frame)
        add_generated(tree, field.answer_time, meaning.answer_time)
        if open.component then
            add_generated(tree, field.component, open.component)
        end
    end
    if view.size == 0 then
        return "status of no bytes"
    end
    local flags = show_status_flags(tree, view)
    local text = "status " .. status_words(tree, view, flags)
    local about = open and title(open.meaning) .. ": " .. text or text
    if has(flags, protocol.flag.reject) then
        tree:add_proto_expert_info(expert_info.reject, about)
    end
    if has(flags, protocol.flag.operation_error) then
        tree:add_proto_expert_info(expert_info.operation_error, about)
    end
    if open then
        text = string.format("%s (%s, %d ms)", text, open.name,
            math.floor(meaning.answer_time * 1000 + 0.5))
    end
    return text
end

local function show_entry(tree, view, at, size)
    local list, bytes = protocol.list, view.bytes
    local component = byte(bytes, at + list.component)
    local level = string.format("%02x.%02x", byte(bytes, at + list.generation),
        byte(bytes, at + list.revision))
    local line = add(tree, field.entry, view, at, size)
    if not line then
        return
    end
    add(line, field.component, view, at + list.component, 1)
    -- Minor in front of major, as in any word.
    add(line, field.level, view, at + list.revision, 2, level)
    local flags = add(line, field.flags, view, at + list.flags, 1)
    local meant = protocol.component_flags[byte(bytes, at + list.flags) % 8]
    add(flags, field.type, view, at + list.flags, 1, meant.type)
    add(flags, field.control, view, at + list.flags, 1, meant.control)
    if size > list.build_level then
        add(line, field.build, view, at + list.build_level, 1)
        level = level .. string.format(".%02x", byte(bytes, at + list.build_level))
    end
    line:set_text(string.format("Component %d: %s, %s, %s", component, level, meant.type,
        meant.control))
end

local function show_list(tree, view, name, entry_size)
    local list = protocol.list
    local length = byte(view.bytes, list.length)
    add(tree, field.list_length, view, list.length, 1)
    local last = math.min(list.entries + length, view.size)
    for at = list.entries, last - entry_size, entry_size do
        show_entry(tree, view, at, entry_size)
    end
    if length % entry_size ~= 0 or list.entries + length > view.size then
        return string.format("%s of %d bytes", name, length)
    end
    local entries = math.floor(length / entry_size)
    return string.format("%s, %d entr%s", name, entries, plural(entries, "y", "ies"))
end

local function show_read_record(tree, view)
    local at, bytes = protocol.record, view.bytes
    local length = byte(bytes, at.record)
    local is_last = has(byte(bytes, at.flags), at.last_block)
    add(tree, field.last_block, view, at.flags, 1, is_last)
    show_record_body(tree, view, at.record)
    if length == 0 then
        return "end of the records"
    end
    return string.format("record of %d bytes%s", length, is_last and ", last block" or "")
end

local show_answer = {
    component_list_query = function(tree, view)
        return show_list(tree, view, "component list", protocol.list.entry_size)
    end,
    extended_component_list_query = function(tree, view)
        return show_list(tree, view, "extended component list", protocol.list.extended_entry_size)
    end,
    component_version_query = function(tree, view)
        local level = level_text(view.bytes, protocol.version.version)
        add(tree, field.level, view, protocol.version.version, 2, level)
        return "component version " .. level
    end,
    read_all_records = show_read_record,
}

local function show_data(tree, view, meaning)
    local show = meaning.query and show_answer[meaning.query.key]
    return "data: " .. (show and show(tree, view) or view.size .. " bytes")
end

local function show_no_status(tree, _, meaning)
    add_generated(tree, field.urb_status, meaning.urb_status)
    return string.format("no status (transfer %d)", meaning.urb_status)
end

local function show_lost(tree, _, meaning)
    add_generated(tree, field.urb_status, meaning.urb_status)
    return string.format("%s was not taken (transfer %d)", title(meaning.lost), meaning.urb_status)
end

local show = {
    sent = show_sent,
    status = show_status,
    data = show_data,
    ["no status"] = show_no_status,
    lost = show_lost,
}

local function show_meaning(meaning, tvb, pinfo, tree)
    local view = new_view(tvb, meaning)
    local line = view.size > 0 and tree:add(zelfw, tvb:range(view.start, view.size))
        or tree:add(zelfw)
    local text = show[meaning.what](line, view, meaning)
    add_generated(line, field.recognized, meaning.how)
    if meaning.silence then
        add_generated(line, field.silence, meaning.silence)
        line:add_proto_expert_info(expert_info.silence, string.format("%.3f seconds of silence after %s",
            meaning.silence, title(meaning.silent_after.meaning)))
    end
    line:append_text(": " .. text)
    pinfo.cols.protocol:set("ZELFW")
    pinfo.cols.info:set(text)
end

function zelfw.init()
    devices, pending, meanings = {}, {}, {}
end

function zelfw.dissector(tvb, pinfo, tree)
    if not pinfo.visited then
        local transfer = read_transfer(tvb)
        if transfer then
            learn(transfer, pinfo.number, pinfo.abs_ts)
        end
    end
    local meaning = meanings[pinfo.number]
    if meaning then
        if meaning.image then
            learn_announcement(meaning.image)
        end
        show_meaning(meaning, tvb, pinfo, tree)
    end
end

-- With all fields, since the link type and the comments are fields.
register_postdissector(zelfw, true)
