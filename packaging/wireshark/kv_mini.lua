-- The command protocol of a camera in recovery mode: TCP port 80, and any port where a connection begins with its
-- frames. Other traffic on port 80 goes to the HTTP dissector.
local mini = Proto("kvmini", "Camera command protocol")

local HEADER, ENTRY, PACKAGE_HEADER, TRAILER = 32, 256, 24, 37
local UPGRADE, DEVICE_INFO, SERIAL = 0x2002, 0x2003, 0x0101
local CHECK_CODE = 0x00012345
local REBOOT_SIZE = 0x600000
local PORT = 80

local commands = {
    [0x0000] = "Login", [0x0001] = "Logout", [0x0006] = "Heartbeat", [SERIAL] = "Serial number",
    [UPGRADE] = "Upgrade", [DEVICE_INFO] = "Device information",
}
local statuses = {[0] = "Done", [2] = "Command not supported", [0xFFFF] = "Upgrade already accepted"}

local f = {
    kind = ProtoField.uint16("kvmini.kind", "Kind", base.DEC),
    version = ProtoField.uint16("kvmini.version", "Version", base.HEX),
    command = ProtoField.uint16("kvmini.command", "Command", base.HEX, commands),
    status = ProtoField.uint16("kvmini.status", "Status", base.DEC, statuses),
    session = ProtoField.uint32("kvmini.session", "Session", base.DEC_HEX),
    data_length = ProtoField.uint32("kvmini.data_length", "Data length", base.DEC),
    count = ProtoField.uint32("kvmini.count", "Count", base.DEC),
    reserved = ProtoField.bytes("kvmini.reserved", "Reserved"),
    extra = ProtoField.bytes("kvmini.extra", "Bytes after the request"),
    reply = ProtoField.framenum("kvmini.response_in", "Reply in", base.NONE, frametype.RESPONSE),
    request = ProtoField.framenum("kvmini.response_to", "Reply to", base.NONE, frametype.REQUEST),
    time = ProtoField.relative_time("kvmini.time", "Time since the request"),
    serial = ProtoField.bytes("kvmini.serial", "Serial number"),
    name = ProtoField.string("kvmini.device.name", "Device name"),
    id = ProtoField.bytes("kvmini.device.id", "Device ID"),
    model = ProtoField.string("kvmini.device.model", "Model"),
    firmware = ProtoField.string("kvmini.device.firmware", "Firmware"),
    ic = ProtoField.string("kvmini.device.ic", "Chip type"),
    sensor = ProtoField.string("kvmini.device.sensor", "Sensor type"),
    upload_size = ProtoField.uint32("kvmini.upload.size", "Package and trailer", base.UNIT_STRING, {" bytes"}),
    upload_start = ProtoField.framenum("kvmini.upload.request", "Upgrade request in", base.NONE, frametype.REQUEST),
    upload_offset = ProtoField.uint32("kvmini.upload.offset", "Offset in the upload", base.DEC),
    upload_data = ProtoField.bytes("kvmini.upload.data", "Package data"),
    package_ic = ProtoField.string("kvmini.package.ic", "Chip type"),
    package_sensor = ProtoField.string("kvmini.package.sensor", "Sensor type"),
    package_length = ProtoField.uint32("kvmini.package.length", "Total length", base.DEC),
    package_files = ProtoField.uint32("kvmini.package.entries", "Number of entries", base.DEC),
    entry_name = ProtoField.string("kvmini.entry.name", "Name"),
    entry_length = ProtoField.uint32("kvmini.entry.length", "Length", base.DEC),
    entry_offset = ProtoField.uint32("kvmini.entry.offset", "Offset", base.DEC),
    entry_check = ProtoField.uint32("kvmini.entry.check", "Check code", base.HEX),
    trailer = ProtoField.bytes("kvmini.trailer", "Trailer"),
    md5 = ProtoField.string("kvmini.md5", "MD5"),
    behind = ProtoField.bytes("kvmini.behind", "Bytes after the trailer"),
}
for _, field in pairs(f) do
    table.insert(mini.fields, field)
end

local group, severity = expert.group, expert.severity
local e = {
    short = ProtoExpert.new("kvmini.short", "Shorter than a header: the device does not answer",
                            group.MALFORMED, severity.WARN),
    kind = ProtoExpert.new("kvmini.bad_kind", "Kind other than 0: the device does not answer",
                           group.PROTOCOL, severity.WARN),
    command = ProtoExpert.new("kvmini.unknown", "The device does not know this command",
                              group.PROTOCOL, severity.WARN),
    extra = ProtoExpert.new("kvmini.lost",
                            "The device takes what it reads at once as one request: it loses these bytes",
                            group.PROTOCOL, severity.WARN),
    reply_kind = ProtoExpert.new("kvmini.bad_reply", "No device sends such a header", group.PROTOCOL, severity.ERROR),
    unsupported = ProtoExpert.new("kvmini.unsupported", "Command not supported", group.RESPONSE_CODE, severity.WARN),
    busy = ProtoExpert.new("kvmini.busy", "An accepted upgrade is under way", group.RESPONSE_CODE, severity.WARN),
    accepted = ProtoExpert.new("kvmini.accepted", "The package is accepted and flashing begins",
                               group.RESPONSE_CODE, severity.NOTE),
    tiny = ProtoExpert.new("kvmini.upload.tiny", "Less than a trailer: this upload never completes",
                           group.PROTOCOL, severity.WARN),
    early = ProtoExpert.new("kvmini.upload.early", "Package bytes in the request's own chunk",
                            group.PROTOCOL, severity.NOTE),
    header = ProtoExpert.new("kvmini.package.refused", "The device refuses the package: a length or count is 0",
                             group.PROTOCOL, severity.ERROR),
    identity = ProtoExpert.new("kvmini.package.identity", "The device refuses the package: it is for another model",
                               group.PROTOCOL, severity.ERROR),
    check = ProtoExpert.new("kvmini.entry.bad_check", "The flash writer stops at this entry",
                            group.PROTOCOL, severity.ERROR),
    trailer = ProtoExpert.new("kvmini.trailer.bad",
                              "The device refuses a trailer without 'MD5:' and 32 lowercase digits",
                              group.PROTOCOL, severity.ERROR),
    behind = ProtoExpert.new("kvmini.behind.ignored", "Nothing may follow the trailer on this connection",
                             group.PROTOCOL, severity.WARN),
    reboot = ProtoExpert.new("kvmini.behind.reboot", "The device reboots: the upload has more than 6 MiB and its end "
                             .. "has passed", group.PROTOCOL, severity.ERROR),
}
for _, info in pairs(e) do
    table.insert(mini.experts, info)
end

-- What the first pass over the capture finds out. That pass has no protocol tree, so fields of TCP cannot be read:
-- connections are told apart by addresses and ports, and an upload's bytes are counted as TCP delivers them.
--   connections   by addresses and ports: the latest connection, with its requests without a reply and its upload
--   connection_of by frame: its connection
--   offset_of     by frame: where its bytes lie in the upload
--   identities    by server address: chip and sensor type
--   foreign       by frame of a package's header: whether it is for another model
--   request_of    by frame and place of a reply: its request
--   reply_of      by frame of a request: the frame of its first reply
local connections, connection_of, offset_of, identities, foreign, request_of, reply_of
function mini.init()
    connections, connection_of, offset_of, identities, foreign, request_of, reply_of = {}, {}, {}, {}, {}, {}, {}
end

-- The bytes before the first NUL byte, made safe to print.
local function text_of(range)
    return (range:raw():match("^[^%z]*"):gsub("[^ -~]", "?"))
end

local function add_text(tree, field, range)
    local text = text_of(range)
    tree:add(field, range, text)
    return text
end

local function add_header(tvb, tree)
    local items = {}
    items.kind = tree:add_le(f.kind, tvb(0, 2))
    tree:add_le(f.version, tvb(2, 2))
    items.command = tree:add_le(f.command, tvb(4, 2))
    items.status = tree:add_le(f.status, tvb(6, 2))
    tree:add_le(f.session, tvb(8, 4))
    tree:add_le(f.data_length, tvb(12, 4))
    tree:add_le(f.count, tvb(16, 4))
    tree:add(f.reserved, tvb(20, 12))
    return items
end

local function command_name(code)
    return commands[code] or string.format("Command 0x%04x", code)
end

-- The package's header, and the entries of its table that are complete in this piece, which begins at `offset`.
local function add_package(tvb, pinfo, tree, upload, offset)
    if offset == 0 and tvb:len() >= PACKAGE_HEADER then
        local part = tree:add(tvb(0, PACKAGE_HEADER), "Package header")
        local ic = add_text(part, f.package_ic, tvb(0, 8))
        local sensor = add_text(part, f.package_sensor, tvb(8, 8))
        part:add_le(f.package_length, tvb(16, 4))
        part:add_le(f.package_files, tvb(20, 4))
        upload.entries = tvb(20, 4):le_uint()
        if upload.entries == 0 or tvb(16, 4):le_uint() == 0 then
            part:add_proto_expert_info(e.header)
        end
        if not pinfo.visited then
            local own = identities[tostring(pinfo.dst)]
            foreign[pinfo.number] = own and (own.ic ~= ic or own.sensor ~= sensor)
        end
        if foreign[pinfo.number] then
            part:add_proto_expert_info(e.identity)
        end
    end
    local first = math.max(0, math.ceil((offset - PACKAGE_HEADER) / ENTRY))
    local last = math.floor((offset + tvb:len() - PACKAGE_HEADER) / ENTRY) - 1
    for i = first, math.min(last, (upload.entries or 0) - 1) do
        local entry = tvb(PACKAGE_HEADER + i * ENTRY - offset, ENTRY)
        local part = tree:add(entry, "Entry " .. i .. ": " .. text_of(entry(0, 128)))
        add_text(part, f.entry_name, entry(0, 128))
        part:add_le(f.entry_length, entry(128, 4))
        part:add_le(f.entry_offset, entry(132, 4))
        local item = part:add_le(f.entry_check, entry(140, 4))
        if entry(140, 4):le_uint() ~= CHECK_CODE then
            item:add_proto_expert_info(e.check)
        end
    end
end

local function add_trailer(range, tree, whole)
    local item = tree:add(f.trailer, range)
    if whole then
        local digest = range:raw():match("^MD5:(" .. ("[0-9a-f]"):rep(32) .. ")")
        if digest then
            tree:add(f.md5, range(4, 32), digest)
        else
            item:add_proto_expert_info(e.trailer)
        end
    end
end

-- A piece of an upload: package data, then the trailer, then bytes that should not be there.
local function add_upload(tvb, pinfo, tree, upload, offset)
    tree:add(f.upload_start, upload.frame):set_generated()
    tree:add(f.upload_offset, offset):set_generated()
    local package_end = math.max(upload.size - TRAILER, 0)
    local upload_end = math.max(upload.size, TRAILER)
    if upload.size < TRAILER then
        package_end, upload_end = math.huge, math.huge
    end
    local here = offset
    local stop = offset + tvb:len()
    pinfo.cols.info = string.format("Upload, bytes %d to %d of %d", offset, stop - 1, upload.size)
    if here < package_end then
        local piece = tvb(0, math.min(stop, package_end) - offset)
        local item = tree:add(f.upload_data, piece)
        item:set_text(string.format("Package data (%d bytes)", piece:len()))
        add_package(piece, pinfo, tree, upload, offset)
        here = offset + piece:len()
    end
    if here < math.min(stop, upload_end) then
        local size = math.min(stop, upload_end) - here
        add_trailer(tvb(here - offset, size), tree, size == TRAILER)
        here = here + size
    end
    if here < stop then
        local item = tree:add(f.behind, tvb(here - offset, stop - here))
        item:add_proto_expert_info(upload.size - TRAILER > REBOOT_SIZE and e.reboot or e.behind)
    end
end

local function add_request(tvb, pinfo, tree, connection)
    if tvb:len() < HEADER then
        tree:add_proto_expert_info(e.short)
        pinfo.cols.info = "Request, too short"
        return
    end
    local items = add_header(tvb, tree)
    local code = tvb(4, 2):le_uint()
    items.status:set_text("Status: not examined")
    pinfo.cols.info = command_name(code) .. " request"
    if tvb(0, 2):le_uint() ~= 0 then
        items.kind:add_proto_expert_info(e.kind)
        return
    end
    if not commands[code] then
        items.command:add_proto_expert_info(e.command)
    end
    if not pinfo.visited then
        table.insert(connection.waiting, {command = code, frame = pinfo.number, time = pinfo.abs_ts})
        if code == UPGRADE then
            local size = UInt64.new(tvb(12, 4):le_uint()) * UInt64.new(tvb(16, 4):le_uint())
            connection.upload = {frame = pinfo.number, size = size:lower(), received = tvb:len() - HEADER}
        end
    end
    if reply_of[pinfo.number] then
        tree:add(f.reply, reply_of[pinfo.number]):set_generated()
    end
    local upload = connection.upload
    if code == UPGRADE and upload and upload.frame == pinfo.number then
        local item = tree:add(f.upload_size, tvb(12, 8), upload.size)
        if upload.size < TRAILER then
            item:add_proto_expert_info(e.tiny)
        end
        if tvb:len() > HEADER then
            tree:add_proto_expert_info(e.early)
            add_upload(tvb(HEADER):tvb(), pinfo, tree, upload, 0)
            pinfo.cols.info = "Upgrade request with data"
        end
    elseif tvb:len() > HEADER then
        tree:add(f.extra, tvb(HEADER)):add_proto_expert_info(e.extra)
    end
end

local function add_device(tvb, pinfo, tree)
    add_text(tree, f.name, tvb(4, 64))
    tree:add(f.id, tvb(68, 8))
    add_text(tree, f.model, tvb(168, 200))
    add_text(tree, f.firmware, tvb(368, 64))
    local ic = add_text(tree, f.ic, tvb(432, 16))
    local sensor = add_text(tree, f.sensor, tvb(448, 16))
    if not pinfo.visited then
        identities[tostring(pinfo.src)] = {ic = ic, sensor = sensor}
    end
end

-- The request that a reply belongs to: the oldest of the same command without one. An upgrade gets several replies.
local function match_reply(pinfo, connection, code, place)
    local key = pinfo.number .. ":" .. place
    if not pinfo.visited then
        for i, request in ipairs(connection.waiting) do
            if request.command == code then
                request_of[key] = request
                reply_of[request.frame] = reply_of[request.frame] or pinfo.number
                if code ~= UPGRADE then
                    table.remove(connection.waiting, i)
                end
                break
            end
        end
    end
    return request_of[key]
end

local function add_reply(tvb, pinfo, tree, connection, place)
    local items = add_header(tvb, tree)
    local code, status = tvb(4, 2):le_uint(), tvb(6, 2):le_uint()
    pinfo.cols.info:append((place > 0 and ", " or "") .. command_name(code) .. " reply")
    local request = match_reply(pinfo, connection, code, place)
    if request then
        tree:add(f.request, request.frame):set_generated()
        local passed = pinfo.abs_ts - request.time
        tree:add(f.time, NSTime.new(math.floor(passed), math.floor(passed % 1 * 1e9))):set_generated()
    end
    if tvb(0, 2):le_uint() ~= 0 or not statuses[status] then
        items.kind:add_proto_expert_info(e.reply_kind)
    elseif status == 2 then
        items.status:add_proto_expert_info(e.unsupported)
    elseif status == 0xFFFF then
        items.status:add_proto_expert_info(e.busy)
    elseif code == UPGRADE then
        items.status:add_proto_expert_info(e.accepted)
        pinfo.cols.info:append(": accepted")
    end
    local payload = tvb:len() > HEADER and tvb(HEADER)
    if payload and code == SERIAL and payload:len() == 8 then
        tree:add(f.serial, payload)
    elseif payload and code == DEVICE_INFO and payload:len() == 464 then
        add_device(payload, pinfo, tree)
    end
end

-- Replies are a stream. Returns without them if the last one is not complete; TCP then calls again with more.
local function add_replies(tvb, pinfo, root, connection)
    local place = 0
    pinfo.cols.info = ""
    while place < tvb:len() do
        local left = tvb:len() - place
        local size = left >= HEADER and HEADER + tvb(place + 12, 4):le_uint() or HEADER
        if size > 65536 then
            local tree = root:add(mini, tvb(place))
            tree:add_proto_expert_info(e.reply_kind)
            return
        end
        if left < size then
            pinfo.desegment_offset = place
            pinfo.desegment_len = left < HEADER and DESEGMENT_ONE_MORE_SEGMENT or size - left
            return
        end
        local piece = tvb(place, size):tvb()
        add_reply(piece, pinfo, root:add(mini, tvb(place, size)), connection, place)
        place = place + size
    end
end

-- Whether a connection's first bytes are a request, as opposed to HTTP and the like.
local function looks_like_request(tvb)
    return tvb:len() >= HEADER and tvb(20, 12):raw() == ("\0"):rep(12) and tvb(6, 2):uint() == 0
           and (commands[tvb(4, 2):le_uint()] and tvb(0, 2):uint() == 0 or tvb(2, 2):uint() == 0x0101)
end

-- The connection of a packet, or nil if it belongs to another protocol. A login after an upload begins a new one: the
-- ports are used again.
local function find_connection(tvb, pinfo)
    local here = tostring(pinfo.src) .. ":" .. pinfo.src_port .. " "
    local there = tostring(pinfo.dst) .. ":" .. pinfo.dst_port .. " "
    if not pinfo.visited then
        local found = connections[here .. there] or connections[there .. here]
        local request = looks_like_request(tvb)
        if request and (not found or found.upload and tvb:len() == HEADER and tvb(4, 2):uint() == 0) then
            found = {server = there, waiting = {}}
            connections[here .. there] = found
        end
        connection_of[pinfo.number] = found
        if found and found.upload and there == found.server then
            offset_of[pinfo.number] = found.upload.received
            found.upload.received = found.upload.received + tvb:len()
        end
    end
    return connection_of[pinfo.number], there
end

-- Returns the number of bytes taken: all, or 0 if the connection belongs to another protocol.
local function dissect(tvb, pinfo, root)
    local connection, receiver = find_connection(tvb, pinfo)
    if not connection then
        return 0
    end
    pinfo.cols.protocol = "KVMINI"
    if receiver ~= connection.server then
        add_replies(tvb, pinfo, root, connection)
    elseif offset_of[pinfo.number] then
        add_upload(tvb, pinfo, root:add(mini, tvb()), connection.upload, offset_of[pinfo.number])
    else
        add_request(tvb, pinfo, root:add(mini, tvb()), connection)
    end
    return tvb:len()
end

function mini.dissector(tvb, pinfo, root)
    return dissect(tvb, pinfo, root)
end

mini:register_heuristic("tcp", function(tvb, pinfo, root)
    if dissect(tvb, pinfo, root) == 0 then
        return false
    end
    pinfo.conversation = mini
    return true
end)

-- On port 80 the table comes before the heuristics, so this dissector decides there.
local port80 = Proto("kvmini_or_http", "Camera command protocol or HTTP")
local http = Dissector.get("http")
function port80.dissector(tvb, pinfo, root)
    local used = dissect(tvb, pinfo, root)
    if used == 0 then
        -- Malformed HTTP is not a fault of this script.
        local done, taken = pcall(http.call, http, tvb, pinfo, root)
        used = done and taken or 0
    end
    return used
end
DissectorTable.get("tcp.port"):add(PORT, port80)
