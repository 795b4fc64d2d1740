-- Searches for cameras in recovery mode, and their answers: UDP port 6789.
local folder = debug.getinfo(1, "S").source:match("^@?(.*[/\\])") or ""
local des = dofile(folder .. "kv_des.lua")

local discovery = Proto("kvdisc", "Camera discovery")

local SEARCH, ANSWER = 10, 11
local types = {[SEARCH] = "Search", [ANSWER] = "Answer", [12] = "Modify", [17] = "Match code"}
local MAGIC = "searching..\0"
local KEY = "86028602"
local ANSWER_SIZE = 544

local f = {
    magic = ProtoField.string("kvdisc.magic", "Magic"),
    type = ProtoField.uint8("kvdisc.type", "Type", base.DEC, types),
    source_address = ProtoField.string("kvdisc.source.address", "Searcher's address"),
    source_mac = ProtoField.string("kvdisc.source.mac", "Searcher's MAC address"),
    address = ProtoField.string("kvdisc.address", "IP address"),
    netmask = ProtoField.string("kvdisc.netmask", "Netmask"),
    gateway = ProtoField.string("kvdisc.gateway", "Gateway"),
    dns = ProtoField.string("kvdisc.dns", "DNS server"),
    mac = ProtoField.string("kvdisc.mac", "MAC address"),
    kind = ProtoField.string("kvdisc.kind", "Kind"),
    command_port = ProtoField.uint32("kvdisc.port.command", "Command port", base.DEC),
    rtsp_port = ProtoField.uint32("kvdisc.port.rtsp", "RTSP port", base.DEC),
    http_port = ProtoField.uint32("kvdisc.port.http", "HTTP port", base.DEC),
    device_type = ProtoField.string("kvdisc.device_type", "Device type"),
    firmware = ProtoField.string("kvdisc.firmware", "Firmware"),
    p2p_serial = ProtoField.string("kvdisc.p2p_serial", "P2P serial number"),
    account = ProtoField.string("kvdisc.account", "Account"),
    enciphered = ProtoField.bytes("kvdisc.enciphered", "Enciphered account"),
    deciphered = ProtoField.string("kvdisc.deciphered", "Deciphered account"),
    request = ProtoField.framenum("kvdisc.response_to", "Answers the search in", base.NONE,
                                  frametype.REQUEST),
}
for _, field in pairs(f) do
    table.insert(discovery.fields, field)
end

-- Offset, size and field of the texts in an answer, and of the ports.
local texts = {
    {24, 16, f.address}, {40, 16, f.netmask}, {56, 16, f.gateway}, {72, 32, f.dns}, {104, 36, f.mac},
    {144, 96, f.kind}, {304, 80, f.device_type}, {384, 64, f.firmware}, {448, 32, f.p2p_serial},
    {480, 32, f.account},
}
local ports = {{240, f.command_port}, {244, f.rtsp_port}, {256, f.http_port}}
-- Words that every answer carries: offset and value, little-endian.
local constants = {{16, 190}, {20, 1}, {140, 0x1302}, {292, 44}, {296, 0}, {300, 500}}

local e = {
    short = ProtoExpert.new("kvdisc.short", "Shorter than 13 bytes: the device ignores it",
                            expert.group.MALFORMED, expert.severity.WARN),
    magic = ProtoExpert.new("kvdisc.bad_magic", "Not \"searching..\" and a NUL byte: the device ignores it",
                            expert.group.PROTOCOL, expert.severity.WARN),
    unsupported = ProtoExpert.new("kvdisc.unsupported", "The device answers only searches (type 10)",
                                  expert.group.PROTOCOL, expert.severity.WARN),
    size = ProtoExpert.new("kvdisc.bad_size", "An answer has 544 bytes", expert.group.MALFORMED,
                           expert.severity.ERROR),
    unterminated = ProtoExpert.new("kvdisc.unterminated", "Text without a NUL byte", expert.group.MALFORMED,
                                   expert.severity.ERROR),
    constant = ProtoExpert.new("kvdisc.constant", "Real devices send a different value here",
                               expert.group.PROTOCOL, expert.severity.WARN),
    account = ProtoExpert.new("kvdisc.bad_account", "The enciphered account differs from the account",
                              expert.group.PROTOCOL, expert.severity.WARN),
}
for _, info in pairs(e) do
    table.insert(discovery.experts, info)
end

-- The latest search of each address and port, and for each answer the search that it belongs to.
local searches, answered
function discovery.init()
    searches, answered = {}, {}
end

-- The bytes before the first NUL byte, made safe to print.
local function text_of(range)
    return (range:raw():match("^[^%z]*"):gsub("[^ -~]", "?"))
end

local function add_text(tree, field, range)
    local text = text_of(range)
    local item = tree:add(field, range, text)
    if #text == range:len() then
        item:add_proto_expert_info(e.unterminated)
    end
    return text
end

local function add_search(tvb, pinfo, tree)
    searches[tostring(pinfo.src) .. ":" .. pinfo.src_port] = pinfo.number
    -- The device only logs these texts, so short ones are allowed.
    for _, row in ipairs({{16, 16, f.source_address}, {32, 18, f.source_mac}}) do
        local size = math.min(row[2], tvb:len() - row[1])
        if size > 0 then
            tree:add(row[3], tvb(row[1], size), text_of(tvb(row[1], size)))
        end
    end
end

local function add_account(tvb, tree, account)
    local range = tvb(512, 32)
    tree:add(f.enciphered, range)
    local plain = des.decrypt(range:raw(), KEY):match("^[^%z]*")
    local item = tree:add(f.deciphered, range, (plain:gsub("[^ -~]", "?")))
    item:set_generated()
    if plain ~= account then
        item:add_proto_expert_info(e.account)
    end
end

local function add_answer(tvb, pinfo, tree)
    if not pinfo.visited then
        answered[pinfo.number] = searches[tostring(pinfo.dst) .. ":" .. pinfo.dst_port]
    end
    if answered[pinfo.number] then
        tree:add(f.request, answered[pinfo.number]):set_generated()
    end
    if tvb:len() ~= ANSWER_SIZE then
        tree:add_proto_expert_info(e.size)
        return
    end
    local found = {}
    for _, row in ipairs(texts) do
        found[row[3]] = add_text(tree, row[3], tvb(row[1], row[2]))
    end
    for _, row in ipairs(ports) do
        tree:add(row[2], tvb(row[1], 4))
    end
    for _, row in ipairs(constants) do
        if tvb(row[1], 4):le_uint() ~= row[2] then
            tree:add_tvb_expert_info(e.constant, tvb(row[1], 4))
        end
    end
    add_account(tvb, tree, found[f.account])
    pinfo.cols.info:append(" from " .. found[f.mac] .. " at " .. found[f.address])
end

function discovery.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "KVDISC"
    pinfo.cols.info = "Discovery"
    local tree = root:add(discovery, tvb())
    if tvb:len() < #MAGIC + 1 then
        tree:add_proto_expert_info(e.short)
        return
    end
    local item = tree:add(f.magic, tvb(0, #MAGIC), text_of(tvb(0, #MAGIC)))
    if tvb(0, #MAGIC):raw() ~= MAGIC then
        item:add_proto_expert_info(e.magic)
        return
    end
    local kind = tvb(#MAGIC, 1):uint()
    item = tree:add(f.type, tvb(#MAGIC, 1))
    pinfo.cols.info = types[kind] or "Unknown type " .. kind
    if kind == SEARCH then
        add_search(tvb, pinfo, tree)
    elseif kind == ANSWER then
        add_answer(tvb, pinfo, tree)
    else
        item:add_proto_expert_info(e.unsupported)
    end
end

DissectorTable.get("udp.port"):add(6789, discovery)
