-- Wireshark dissector of both protocols of TQ: the native one (UDP 6666 and 6667, TCP 6666) and KIRVEX (UDP 62976).
--     tshark -X lua_script:wireshark/tq.lua -r FILE
-- or copy it to the folder of personal Lua plugins (Help, About, Folders). Expert notes say what receivers will
-- make of a package that can't be right. Filters are tq.name, kirvex.error and so on.

local SERVER_PORT, CLIENT_PORT, KIRVEX_PORT = 6666, 6667, 62976
-- Wireshark's number for "the rest of the connection", which its Lua has no name for.
local UNTIL_FIN = 0x0ffffffe

local function malformed(name, text)
    return ProtoExpert.new(name, text, expert.group.MALFORMED, expert.severity.ERROR)
end
local function warning(name, text)
    return ProtoExpert.new(name, text, expert.group.PROTOCOL, expert.severity.WARN)
end

-- A field's text for a summary line: up to its zero byte, and nothing that moves a cursor.
local function shown(range)
    return (range:string(ENC_UTF_8):gsub("%z.*", ""):gsub("%c", "?"))
end

-- Base64 as receivers take it: strangers to the alphabet are skipped, "=" or a zero byte is the end.
local function decode(text)
    text = text:gsub("[%z=].*", ""):gsub("[^%w+/]", "")
    if #text % 4 == 1 then
        text = text:sub(1, -2)
    end
    if text == "" then
        return ""
    end
    return ByteArray.new(text .. ("="):rep(-#text % 4), true):base64_decode():raw()
end

------------------------------------------------------------------------------------------------------------------------
-- The native protocol

local native = Proto("tq", "TQ Discovery")

local QUERY, UNIT_INFO, LIST_REQUEST, SETUP = 0, 1, 2, 3
local TYPES = { [QUERY] = "Query", [UNIT_INFO] = "Unit info", [LIST_REQUEST] = "List request", [SETUP] = "Network setup" }
local MAGIC = "Moravelle"

-- The number that a text begins with, 0 without one.
local function leading_number(text)
    return tonumber(text:match("^%s*([+-]?%d+)")) or 0
end

-- One to four numbers, decimal, octal or hexadecimal, perhaps something behind a blank.
local function is_address(text)
    local parts = {}
    for part in text:match("^%S*"):gsub("$", "."):gmatch("([^.]*)%.") do
        parts[#parts + 1] = part
    end
    for i, part in ipairs(parts) do
        local number = part:match("^0[xX]%x*$") and tonumber(part .. (#part == 2 and "0" or ""))
            or part:match("^0[0-7]*$") and tonumber(part, 8) or part:match("^[1-9]%d*$") and tonumber(part)
        if not number or number >= (i < #parts and 256 or 256 ^ (5 - #parts)) then
            return false
        end
    end
    return #parts <= 4
end

local function is_port(text)
    local number = leading_number(text)
    return number >= 0 and number <= 65535 and not text:find(".", 1, true)
end

local function is_mac(text)
    return #text == 17 and text:find(":", 1, true) ~= nil
end

-- In a package's order: filter, label, the most bytes that a record holds, what receivers check.
local FIELDS = {
    { "model", "Model", 31 }, { "proj", "Project", 31 }, { "name", "Name", 63 }, { "ip", "Address", 15, is_address },
    { "trigger_port", "Web port", 7, is_port }, { "netmask", "Netmask", 15, is_address }, { "gateway", "Gateway", 15 },
    { "dns", "Name server", 15 }, { "mac", "MAC", 23, is_mac }, { "dev", "Interface", 15 }, { "note", "Note", 63 },
}
local type_field = ProtoField.uint8("tq.type", "Type", base.DEC, TYPES)
local native_fields = {}
for i, field in ipairs(FIELDS) do
    native_fields[i] = ProtoField.string("tq." .. field[1], field[2])
end
native.fields = { type_field, table.unpack(native_fields) }

local not_package = malformed("tq.not_package", "Not a package: receivers drop it")
local unknown_type = warning("tq.unknown_type", "Unknown type: receivers drop it")
local unterminated = warning("tq.unterminated", "The last text has no zero byte: cut on its way, or made by a stranger")
local empty_field = warning("tq.empty_field", "An empty field: receivers drop the package")
local field_count = warning("tq.field_count", "Not eleven fields")
local bad_value = warning("tq.bad_value", "A value that receivers refuse with its package")
local cut_value = warning("tq.cut_value", "A value longer than a record's field: receivers cut it")
native.experts = { not_package, unknown_type, unterminated, empty_field, field_count, bad_value, cut_value }

local function prefix_length(netmask)
    local length, ended = 0, false
    for part in netmask:gmatch("%d+") do
        for bit = 7, 0, -1 do
            local set = math.floor(tonumber(part) / 2 ^ bit) % 2 == 1
            if set and ended then
                return nil
            end
            length, ended = length + (set and 1 or 0), ended or not set
        end
    end
    return length
end

local function with_mask(address, netmask)
    local length = netmask:match("^%d+%.%d+%.%d+%.%d+$") and prefix_length(netmask)
    return address .. "/" .. (length or netmask)
end

-- What one text says, for the summary; `v` holds its values by filter name.
local SAYS = {
    [QUERY] = function(v) return ("%s asks who is there"):format(v.model) end,
    [UNIT_INFO] = function(v)
        return ("%s is at %s on %s, %s, %s: %s"):format(v.name, with_mask(v.ip, v.netmask), v.dev, v.model, v.proj, v.note)
    end,
    [LIST_REQUEST] = function() return "Asks for the list of all units" end,
    [SETUP] = function(v)
        return ("Sets up %s (%s, %s): %s, gateway %s, name server %s"):format(
            v.name, v.mac, v.dev, with_mask(v.ip, v.netmask), v.gateway, v.dns)
    end,
}

-- Notes what receivers make of the fields, which lie in `ranges` in the order sent.
local function judge(tree, ranges)
    for i, range in ipairs(ranges) do
        local field, text = FIELDS[i], range and range:raw() or ""
        if field and text == "" then
            tree:add_proto_expert_info(empty_field, field[2] .. " is empty: receivers drop the package")
        elseif field and field[4] and not field[4](text) then
            tree:add_proto_expert_info(bad_value, field[2] .. " can't be right: receivers drop the package")
        elseif field and #text > field[3] then
            tree:add_proto_expert_info(cut_value, ("%s is cut to %d bytes"):format(field[2], field[3]))
        end
    end
    if #ranges < #FIELDS then
        tree:add_proto_expert_info(field_count, ("%d of %d fields: receivers drop the package"):format(#ranges, #FIELDS))
    elseif #ranges > #FIELDS then
        tree:add_proto_expert_info(field_count, ("%d fields: receivers take the first %d"):format(#ranges, #FIELDS))
    end
end

-- One text of a package, without its zero byte, at `first` of the unscrambled bytes. Returns its type (nil without
-- one), its values by filter name, and what it says.
local function dissect_text(plain, first, text, tree)
    local item = tree:add(native, plain(first, #text), "Text")
    if text:sub(1, #MAGIC) ~= MAGIC then
        item:add_proto_expert_info(not_package)
        return nil, {}, "Not a package"
    end
    local ranges, values = {}, {}
    local token
    for from, value in (text:sub(#MAGIC + 2) .. ","):gmatch("()([^,\n]*)[,\n]") do
        local range = value ~= "" and plain(first + #MAGIC + from, #value) or false
        if not token then
            token = { text = value, range = range }
        else
            ranges[#ranges + 1] = range
            local field = FIELDS[#ranges]
            if field and range then
                item:add_packet_field(native_fields[#ranges], range, ENC_UTF_8)
            end
            if field then
                values[field[1]] = range and shown(range) or ""
            end
        end
    end
    local kind = leading_number(token and token.text or "")
    if not TYPES[kind] then
        item:add_proto_expert_info(unknown_type)
        return nil, values, "Unknown type " .. kind
    end
    item:set_text(TYPES[kind])
    if token.range then
        item:add(type_field, token.range, kind)
    end
    if kind ~= QUERY then
        judge(item, ranges)
    end
    for _, field in ipairs(FIELDS) do
        values[field[1]] = values[field[1]] or ""
    end
    return kind, values, SAYS[kind](values)
end

local COMPLEMENT = {}
for byte = 0, 255 do
    COMPLEMENT[string.char(byte)] = string.char(255 - byte)
end
-- A list's summary names so many units.
local NAMED = 5

local function dissect_native(tvb, pinfo, tree)
    pinfo.cols.protocol = "TQ"
    local item = tree:add(native, tvb())
    local bytes = decode(tvb:raw()):gsub(".", COMPLEMENT)
    if bytes == "" then
        item:add_proto_expert_info(not_package)
        pinfo.cols.info = "Not a package"
        return tvb:len()
    end
    local plain = ByteArray.new(bytes, true):tvb("Unscrambled TQ")
    local first, names, count, said = 0, {}, 0, nil
    while first < #bytes do
        local text = bytes:match("^[^%z]*", first + 1)
        local kind, values, says = dissect_text(plain, first, text, item)
        if kind and first + #text == #bytes then
            item:add_proto_expert_info(unterminated)
        elseif not kind and count > 0 then
            break
        end
        count, said = count + 1, said or says
        if count <= NAMED then
            names[count] = values.name or "?"
        end
        first = first + #text + 1
    end
    if count > 1 then
        said = ("List of %d units: %s%s"):format(count, table.concat(names, ", "), count > NAMED and ", ..." or "")
    end
    pinfo.cols.info = said
    return tvb:len()
end

function native.dissector(tvb, pinfo, tree)
    -- Over TCP a reply lasts until the server closes the connection; a request is what comes in one piece.
    if pinfo.port_type == 2 and pinfo.src_port == SERVER_PORT and pinfo.can_desegment > 0 then
        pinfo.desegment_offset = 0
        pinfo.desegment_len = UNTIL_FIN
        return
    end
    return dissect_native(tvb, pinfo, tree)
end

for _, port in ipairs({ SERVER_PORT, CLIENT_PORT }) do
    DissectorTable.get("udp.port"):add(port, native)
end
DissectorTable.get("tcp.port"):add(SERVER_PORT, native)

------------------------------------------------------------------------------------------------------------------------
-- KIRVEX

local kirvex = Proto("kirvex", "KIRVEX")

local SEARCH, SET_BASIC_INFO, VERIFY, CHANGE, OPTIONS = 0xa1, 0xa2, 0xa3, 0xa4, 0xa5
local REQUEST, REPLY = 0xfdfd, 0xfeee
local HEADER = 22
local OPERATIONS = {
    [SEARCH] = "Device search", [SET_BASIC_INFO] = "Set basic information", [VERIFY] = "User verification",
    [CHANGE] = "Change ID and password", [OPTIONS] = "Query supported option functions",
}
local REQUEST_SIZE = { [SEARCH] = 22, [SET_BASIC_INFO] = 239, [VERIFY] = 150, [CHANGE] = 278, [OPTIONS] = 22 }
local REPLY_SIZE = { [SEARCH] = 334, [SET_BASIC_INFO] = 38, [VERIFY] = 26, [CHANGE] = 38, [OPTIONS] = 22 }
local ERRORS = {
    [0] = "None", [1] = "The camera name does not agree with the unit's model",
    [1002] = "The current account fills its 48 bytes", [1003] = "The new account has a forbidden character",
    [1011] = "The web server refused", [1012] = "The current password fills its 48 bytes",
    [1013] = "The new password is not of digits alone",
}
local PRIVILEGES = { [1] = "Administrator", [2] = "Ordinary user" }

local f = {
    identifier = ProtoField.uint16("kirvex.identifier", "Identifier", base.HEX, { [REQUEST] = "Request", [REPLY] = "Reply" }),
    sequence = ProtoField.uint16("kirvex.sequence", "Sequence number", base.HEX),
    operation = ProtoField.uint16("kirvex.operation", "Operation", base.HEX, OPERATIONS),
    mac = ProtoField.ether("kirvex.mac", "MAC"),
    ip = ProtoField.ipv4("kirvex.ip", "IP"),
    mode = ProtoField.uint16("kirvex.mode", "Request mode", base.HEX),
    code = ProtoField.uint16("kirvex.return", "Return code", base.DEC, { [0] = "Success", [1] = "Failure" }),
    version = ProtoField.uint16("kirvex.message_version", "Message version"),
    body_length = ProtoField.uint16("kirvex.body_length", "Body length"),

    brand = ProtoField.string("kirvex.brand", "Brand name"),
    product = ProtoField.string("kirvex.product", "Product name"),
    model = ProtoField.string("kirvex.model", "Model name"),
    firmware = ProtoField.string("kirvex.version", "Version"),
    product_type = ProtoField.uint16("kirvex.product_type", "Product type"),
    hardware = ProtoField.uint32("kirvex.hardware", "Product HW specification", base.HEX),
    unit_mac = ProtoField.ether("kirvex.unit_mac", "MAC of the unit"),
    time = ProtoField.string("kirvex.time", "Date and time, UTC"),
    zone = ProtoField.uint16("kirvex.time_zone", "Time zone"),
    saving = ProtoField.uint8("kirvex.daylight_saving", "Daylight saving time"),

    account = ProtoField.string("kirvex.account", "Account"),
    password = ProtoField.string("kirvex.password", "Password"),
    new_account = ProtoField.string("kirvex.new_account", "New account"),
    new_password = ProtoField.string("kirvex.new_password", "New password"),

    camera = ProtoField.string("kirvex.camera", "Camera name"),
    address = ProtoField.ipv4("kirvex.address", "Address"),
    web_port = ProtoField.uint16("kirvex.web_port", "Web port"),
    reserved = ProtoField.uint8("kirvex.reserved", "Reserved"),
    scdns = ProtoField.uint8("kirvex.scdns", "SCDNS"),
    netmask = ProtoField.ipv4("kirvex.netmask", "Netmask"),
    gateway = ProtoField.ipv4("kirvex.gateway", "Gateway"),
    dns1 = ProtoField.ipv4("kirvex.dns1", "Primary name server"),
    dns2 = ProtoField.ipv4("kirvex.dns2", "Secondary name server"),
    dhcp = ProtoField.uint8("kirvex.dhcp", "DHCP", base.HEX, { [0] = "Off", [1] = "On", [255] = "Off, as units report it" }),

    error = ProtoField.uint32("kirvex.error", "Error setting num", base.DEC, ERRORS),
    status = ProtoField.uint32("kirvex.status", "Operation status", base.DEC, { [0] = "None", [2] = "Written, the network restarts" }),
    wait = ProtoField.uint32("kirvex.wait", "Wait timer, seconds"),
    extension = ProtoField.uint32("kirvex.extension", "Extension"),
    privilege = ProtoField.uint32("kirvex.privilege", "User privilege", base.DEC, PRIVILEGES),
}
kirvex.fields = f

local not_kirvex = malformed("kirvex.not_kirvex", "Not a KIRVEX packet: receivers drop it")
local truncated = warning("kirvex.truncated", "Shorter than its operation")
local wrong_length = warning("kirvex.wrong_length", "The body length does not tell the body's length")
local unknown_operation = warning("kirvex.unknown_operation", "Unknown operation: receivers drop it")
local wrong_mode = warning("kirvex.wrong_mode", "Not the mode of its operation: receivers drop it")
local in_clear = ProtoExpert.new("kirvex.in_clear", "Credentials in Base64, readable by all", expert.group.SECURITY,
    expert.severity.NOTE)
kirvex.experts = { not_kirvex, truncated, wrong_length, unknown_operation, wrong_mode, in_clear }

-- A Base64 field of 64 bytes. Returns its text.
local function add_credential(tree, field, range, name)
    local bytes = decode(range:raw())
    if bytes == "" then
        tree:add(field, range, "")
        return ""
    end
    local clear = ByteArray.new(bytes, true):tvb(name)()
    tree:add_packet_field(field, clear, ENC_UTF_8)
    return shown(clear)
end

local function add_text(tree, field, range)
    tree:add_packet_field(field, range, ENC_UTF_8)
    return shown(range)
end

-- The 89 bytes that a search reply and a setup request share. Returns the settings in words.
local function add_settings(tree, range)
    add_text(tree, f.camera, range(0, 64))
    tree:add(f.address, range(64, 4))
    tree:add_le(f.web_port, range(68, 2))
    tree:add(f.reserved, range(70, 1))
    tree:add(f.scdns, range(71, 1))
    for i, field in ipairs({ f.netmask, f.gateway, f.dns1, f.dns2 }) do
        tree:add(field, range(68 + 4 * i, 4))
    end
    tree:add(f.dhcp, range(88, 1))
    return with_mask(tostring(range(64, 4):ipv4()), tostring(range(72, 4):ipv4())),
        tostring(range(76, 4):ipv4()), tostring(range(80, 4):ipv4())
end

-- What follows the header of a request, and what it asks.
local REQUESTS = {
    [SEARCH] = function() return "Asks who is there" end,
    [OPTIONS] = function(_, _, unit) return ("Asks %s for its options"):format(unit) end,
    [VERIFY] = function(tree, tvb, unit)
        local account = add_credential(tree, f.account, tvb(22, 64), "Account")
        add_credential(tree, f.password, tvb(86, 64), "Password")
        return ('Asks %s what "%s" may do'):format(unit, account)
    end,
    [CHANGE] = function(tree, tvb, unit)
        local account = add_credential(tree, f.account, tvb(22, 64), "Account")
        add_credential(tree, f.password, tvb(86, 64), "Password")
        add_credential(tree, f.new_account, tvb(150, 64), "New account")
        add_credential(tree, f.new_password, tvb(214, 64), "New password")
        return ('Asks %s to change the password, as "%s"'):format(unit, account)
    end,
    [SET_BASIC_INFO] = function(tree, tvb, unit)
        local account = add_credential(tree, f.account, tvb(22, 64), "Account")
        add_credential(tree, f.password, tvb(86, 64), "Password")
        local address, gateway, dns = add_settings(tree, tvb(150, 89))
        return ('Sets up %s, as "%s": %s'):format(unit, account, tvb(238, 1):uint() ~= 0 and "DHCP" or
            ("%s, gateway %s, name server %s"):format(address, gateway, dns))
    end,
}

local function add_outcome(tree, tvb)
    for i, field in ipairs({ f.error, f.status, f.wait, f.extension }) do
        tree:add_le(field, tvb(18 + 4 * i, 4))
    end
    local error = tvb(22, 4):le_uint()
    return error ~= 0 and ("Refused: %s (%d)"):format(ERRORS[error] or "unknown error", error) or "Refused"
end

local REPLIES = {
    [SEARCH] = function(tree, tvb)
        add_text(tree, f.brand, tvb(22, 64))
        add_text(tree, f.product, tvb(86, 64))
        local model = add_text(tree, f.model, tvb(150, 32))
        add_text(tree, f.firmware, tvb(182, 32))
        tree:add_le(f.product_type, tvb(214, 2))
        tree:add_le(f.hardware, tvb(216, 4))
        tree:add(f.unit_mac, tvb(220, 6))
        local address, gateway = add_settings(tree, tvb(226, 89))
        add_text(tree, f.time, tvb(315, 16))
        tree:add_le(f.zone, tvb(331, 2))
        tree:add(f.saving, tvb(333, 1))
        return ("%s is at %s, gateway %s, web port %d"):format(model, address, gateway, tvb(294, 2):le_uint())
    end,
    [OPTIONS] = function() return "Has no options" end,
    [VERIFY] = function(tree, tvb)
        tree:add_le(f.privilege, tvb(22, 4))
        return PRIVILEGES[tvb(22, 4):le_uint()] or "Unknown privilege"
    end,
    [CHANGE] = function(tree, tvb, succeeded)
        local refused = add_outcome(tree, tvb)
        return succeeded and "Changed" or refused
    end,
    [SET_BASIC_INFO] = function(tree, tvb, succeeded)
        local refused = add_outcome(tree, tvb)
        if not succeeded then
            return refused
        end
        return tvb(26, 4):le_uint() == 2 and ("Written; look again in %d s"):format(tvb(30, 4):le_uint()) or
            "Could not write it"
    end,
}

local function is_mode(operation, mode)
    local low, high = mode % 256, math.floor(mode / 256)
    local setting = low == 0x77 and high == 0x77
    return setting or operation == SEARCH and (low == 0 or low == 0x77) and (high == 0 or high == 0x77)
end

function kirvex.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "KIRVEX"
    local item = tree:add(kirvex, tvb())
    local identifier = tvb:len() >= HEADER and tvb(0, 2):le_uint()
    if identifier ~= REQUEST and identifier ~= REPLY then
        item:add_proto_expert_info(not_kirvex)
        pinfo.cols.info = "Not a KIRVEX packet"
        return tvb:len()
    end
    local is_reply = identifier == REPLY
    local operation, mode, body_length = tvb(4, 2):le_uint(), tvb(16, 2):le_uint(), tvb(20, 2):le_uint()
    item:add_le(f.identifier, tvb(0, 2))
    item:add_le(f.sequence, tvb(2, 2))
    item:add_le(f.operation, tvb(4, 2))
    item:add(f.mac, tvb(6, 6))
    item:add(f.ip, tvb(12, 4))
    item:add_le(is_reply and f.code or f.mode, tvb(16, 2))
    item:add_le(f.version, tvb(18, 2))
    item:add_le(f.body_length, tvb(20, 2))
    if not OPERATIONS[operation] then
        item:add_proto_expert_info(unknown_operation)
        pinfo.cols.info = ("Unknown operation 0x%04x"):format(operation)
        return tvb:len()
    end
    if body_length ~= tvb:reported_len() - HEADER then
        item:add_proto_expert_info(wrong_length)
    end
    if not is_reply and not is_mode(operation, mode) then
        item:add_proto_expert_info(wrong_mode)
    end
    local size = (is_reply and REPLY_SIZE or REQUEST_SIZE)[operation]
    if tvb:len() < size then
        item:add_proto_expert_info(truncated, ("%d bytes of %d: %s"):format(tvb:len(), size, is_reply and
            "tools drop it or read what they have" or "the unit completes it from an earlier datagram"))
        pinfo.cols.info = ("%s, %s, too short"):format(OPERATIONS[operation], is_reply and "reply" or "request")
        return tvb:len()
    end
    if not is_reply and size > HEADER then
        item:add_proto_expert_info(in_clear)
    end
    pinfo.cols.info = is_reply and REPLIES[operation](item, tvb, mode == 0) or
        REQUESTS[operation](item, tvb, tostring(tvb(12, 4):ipv4()))
    return tvb:len()
end

DissectorTable.get("udp.port"):add(KIRVEX_PORT, kirvex)
