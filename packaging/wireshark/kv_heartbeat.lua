-- Heartbeats of the camera application to upgradeMain, UDP port 5555 on the loopback interface.
local beat = Proto("kvbeat", "Camera application heartbeat")

local name = ProtoField.string("kvbeat.name", "Name")
local ready = ProtoField.uint8("kvbeat.ready", "Ready flag", base.DEC)
beat.fields = {name, ready}

local short = ProtoExpert.new("kvbeat.short", "No ready flag: a heartbeat has at least 33 bytes",
                              expert.group.MALFORMED, expert.severity.WARN)
local stranger = ProtoExpert.new("kvbeat.stranger", "No \"cameraMain\" in the name: upgradeMain drops this",
                                 expert.group.PROTOCOL, expert.severity.WARN)
beat.experts = {short, stranger}

local NAME_SIZE = 32

function beat.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "KVBEAT"
    local tree = root:add(beat, tvb())
    local field = tvb(0, math.min(NAME_SIZE, tvb:len()))
    tree:add(name, field, (field:raw():match("^[^%z]*"):gsub("[^ -~]", "?")))
    pinfo.cols.info = "Heartbeat"
    -- The device looks up to the first NUL byte, however far away.
    if not tvb():raw():match("^[^%z]*"):find("cameraMain", 1, true) then
        tree:add_proto_expert_info(stranger)
        pinfo.cols.info:append(" without the name")
    end
    if tvb:len() > NAME_SIZE then
        tree:add(ready, tvb(NAME_SIZE, 1))
        pinfo.cols.info:append(tvb(NAME_SIZE, 1):uint() ~= 0 and ", ready" or ", not ready")
    else
        tree:add_proto_expert_info(short)
    end
end

DissectorTable.get("udp.port"):add(5555, beat)
