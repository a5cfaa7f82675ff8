-- Wireshark dissector for zalkv2d's ring protocol frames.
--
-- The frames are 802.3 frames with an LLC/SNAP header under an OUI that
-- Wireshark has no table for, so the dissector is a heuristic of the
-- Ethernet layer: it claims a frame only when the SNAP header and the
-- marker byte are ours, lets Wireshark's own Ethernet, 802.1Q and LLC
-- dissectors show the headers, and adds the ring protocol's tree after
-- them. Anything else is left to the other dissectors.
--
-- Both forms are understood: as sent (802.1Q tag, 64 bytes) and as seen
-- on a port where the tag was removed (every field 4 bytes earlier).
--
-- Open a capture with:  wireshark -X lua_script:zalkv2.lua FILE.pcap
-- or install this file into Wireshark's Lua plugin directory.

local zalk = Proto("zalkv2", "zalkv2d Ring Protocol")

local SNAP = "AAAA03024BA10100" -- DSAP, SSAP, control, OUI, protocol id
local MARKER = 0x20
local MGNT_VLAN, RING_VLAN, PRIORITY = 4021, 4022, 7
local SENT_SIZE = 64 -- a frame as sent; 60 once its tag is removed

-- name, payload length, group address entry, VLAN
local TYPES = {
	[1] = {"Hello", 14, 1, MGNT_VLAN},
	[2] = {"Link Down", 26, 2, MGNT_VLAN},
	[3] = {"Link Up", 26, 2, MGNT_VLAN},
	[4] = {"Link Response", 28, 2, MGNT_VLAN},
	[5] = {"Flush", 28, 4, RING_VLAN},
	[6] = {"Ring", 12, 3, RING_VLAN},
	[7] = {"Trig", 12, 2, MGNT_VLAN},
}
local type_names = {}
for code, t in pairs(TYPES) do type_names[code] = t[1] end

local RESPONSE_STATUS = {[0] = "other", [1] = "ring ok", [2] = "ring fail"}

local f = {
	ring_id = ProtoField.uint8("zalkv2.ring_id", "Ring id", base.DEC),
	type = ProtoField.uint8("zalkv2.type", "Type", base.DEC, type_names),
	payload_length = ProtoField.uint8("zalkv2.payload_length", "Payload length", base.DEC),
	status = ProtoField.uint16("zalkv2.status", "Status", base.HEX),
	hello_q = ProtoField.bool("zalkv2.hello.q", "Q (neighbour heard)", 16, nil, 0x0001),
	hello_fwd = ProtoField.bool("zalkv2.hello.forwarding", "Forwarding", 16, nil, 0x0004),
	hello_interval = ProtoField.uint16("zalkv2.hello.interval", "Hello interval (ms)", base.DEC),
	response = ProtoField.string("zalkv2.response", "Ring state"),
	marker = ProtoField.uint8("zalkv2.marker", "Marker", base.HEX),
	tagged = ProtoField.bool("zalkv2.tagged", "802.1Q tag present"),
	length = ProtoField.uint16("zalkv2.length", "802.3 length", base.DEC),
	padding = ProtoField.bytes("zalkv2.padding", "Padding"),
	mac = ProtoField.ether("zalkv2.mac", "Bridge MAC (any id)"),
}
-- Bridge ids: 8 bytes, shown as priority and MAC, with both as sub-fields.
local ID_NAMES = {sender = "Sender", first_id = "First id", second_id = "Second id",
	edge1 = "Edge 1", edge2 = "Edge 2"}
local ids = {}
for key, label in pairs(ID_NAMES) do
	ids[key] = {
		label = label,
		whole = ProtoField.bytes("zalkv2." .. key, label),
		priority = ProtoField.uint16("zalkv2." .. key .. ".priority", "Priority", base.DEC),
		mac = ProtoField.ether("zalkv2." .. key .. ".mac", "MAC"),
	}
	f[key] = ids[key].whole
	f[key .. "_priority"] = ids[key].priority
	f[key .. "_mac"] = ids[key].mac
end
zalk.fields = f

-- Expert information, by name under "zalkv2.": text, group, severity.
local EXPERTS = {
	{"unknown_type", "Unknown frame type", "MALFORMED", "ERROR"},
	{"bad_payload_length", "Payload length does not fit the type", "MALFORMED", "ERROR"},
	{"bad_length", "802.3 length disagrees with the payload length", "MALFORMED", "WARN"},
	{"bad_tag", "Priority or VLAN other than the type's", "PROTOCOL", "WARN"},
	{"nonzero_padding", "Non-zero padding", "PROTOCOL", "WARN"},
	{"bad_destination", "Destination is not the ring's group address for the type", "PROTOCOL", "WARN"},
	{"reserved", "Bits that senders leave zero are set", "PROTOCOL", "NOTE"},
	{"truncated", "Frame too short for its type", "MALFORMED", "ERROR"},
}
local e, all_experts = {}, {}
for _, x in ipairs(EXPERTS) do
	e[x[1]] = ProtoExpert.new("zalkv2." .. x[1], x[2], expert.group[x[3]], expert.severity[x[4]])
	all_experts[#all_experts + 1] = e[x[1]]
end
zalk.experts = all_experts

local function mac_text(range)
	local b = {}
	for i = 0, 5 do b[#b + 1] = string.format("%02x", range(i, 1):uint()) end
	return table.concat(b, ":")
end

local function all_zero(range)
	for i = 0, range:len() - 1 do
		if range(i, 1):uint() ~= 0 then return false end
	end
	return true
end

-- Where the frame's fields start: the 802.3 length at 16 with the tag,
-- at 12 without it. nil when the frame is not one of ours.
local function layout(tvb)
	local len = tvb:len()
	if len < 14 then return nil end
	local lo = 12
	if tvb(12, 2):uint() == 0x8100 then lo = 16 end
	-- up to the ring id; a frame cut short after it is still ours
	if len < lo + 12 then return nil end
	-- every Ethernet frame comes here: the cheap test first
	if tvb(lo + 2, 1):uint() ~= 0xAA or tvb(lo + 10, 1):uint() ~= MARKER then return nil end
	if tvb(lo + 2, 8):bytes():tohex() ~= SNAP then return nil end
	return lo
end

-- Adds one bridge id; answers its MAC as text, or nil when it does not fit.
local function add_id(tree, tvb, key, off)
	if off + 8 > tvb:len() then return nil end
	local id = ids[key]
	local r = tvb(off, 8)
	local mac = mac_text(r(2, 6))
	local item = tree:add(id.whole, r)
	item:set_text(string.format("%s: %s, priority %d", id.label, mac, r(0, 2):uint()))
	item:add(id.priority, r(0, 2))
	item:add(id.mac, r(2, 6))
	tree:add(f.mac, r(2, 6)):set_hidden()
	return mac
end

local function dissect(tvb, pinfo, root, lo)
	local tagged = lo == 16
	local t = lo + 12 -- the type byte
	local tree = root:add(zalk, tvb(lo + 10))
	tree:add(f.tagged, tagged):set_generated()
	tree:add(f.marker, tvb(lo + 10, 1))
	local ring = tvb(lo + 11, 1):uint()
	tree:add(f.ring_id, tvb(lo + 11, 1))
	pinfo.cols.protocol:set("ZALKv2")
	if t + 2 > tvb:len() then
		tree:add_proto_expert_info(e.truncated)
		pinfo.cols.info:set(string.format("Truncated frame ring %d", ring))
		return
	end
	local code = tvb(t, 1):uint()
	local plen = tvb(t + 1, 1):uint()
	local info = TYPES[code]
	local type_item = tree:add(f.type, tvb(t, 1))
	local plen_item = tree:add(f.payload_length, tvb(t + 1, 1))
	local len_item = tree:add(f.length, tvb(lo, 2))
	if tvb(lo, 2):uint() ~= 10 + plen then
		len_item:add_proto_expert_info(e.bad_length, string.format(
			"802.3 length %d, but 10 plus the payload length is %d", tvb(lo, 2):uint(), 10 + plen))
	end
	if not info then
		type_item:add_proto_expert_info(e.unknown_type, string.format("Unknown frame type %d", code))
		pinfo.cols.info:set(string.format("Unknown type %d ring %d", code, ring))
		return
	end
	local name, want_plen, group, vlan = info[1], info[2], info[3], info[4]
	tree:append_text(", " .. name)
	if plen ~= want_plen then
		plen_item:add_proto_expert_info(e.bad_payload_length, string.format(
			"Payload length %d, but a %s frame has %d", plen, name, want_plen))
	end
	if tagged then
		local tci = tvb(14, 2):uint()
		local pcp, dei, vid = bit.rshift(tci, 13), bit.band(bit.rshift(tci, 12), 1), bit.band(tci, 0x0fff)
		if pcp ~= PRIORITY or dei ~= 0 or vid ~= vlan then
			tree:add_proto_expert_info(e.bad_tag, string.format(
				"Priority %d%s VLAN %d, but a %s frame goes with priority %d on VLAN %d",
				pcp, dei ~= 0 and " DEI" or "", vid, name, PRIORITY, vlan))
		end
	end
	local dst = mac_text(tvb(0, 6))
	local want_dst = string.format("03:4b:a1:01:%02x:%02x", ring, group)
	if dst ~= want_dst then
		tree:add_proto_expert_info(e.bad_destination, string.format(
			"Destination %s, but a %s frame of ring %d goes to %s", dst, name, ring, want_dst))
	end

	-- type fields, at fixed offsets from the type byte as receivers read them
	local p = t + 2
	if t + want_plen > tvb:len() then
		tree:add_proto_expert_info(e.truncated, string.format(
			"%d bytes, a %s frame needs %d", tvb:len(), name, t + want_plen))
	end
	local from, extra = nil, ""
	-- the status word; `ok` tells the values senders use
	local function status(ok)
		if p + 2 > tvb:len() then return nil end
		local item = tree:add(f.status, tvb(p, 2))
		local v = tvb(p, 2):uint()
		if not ok(v) then
			item:add_proto_expert_info(e.reserved, string.format("Status 0x%04x", v))
		end
		return item, v
	end
	if code == 1 then
		local item, v = status(function(v) return bit.band(v, bit.bnot(0x0005)) == 0 end)
		if item then
			item:add(f.hello_q, tvb(p, 2))
			item:add(f.hello_fwd, tvb(p, 2))
			extra = string.format(" Q=%d%s", bit.band(v, 1), bit.band(v, 4) ~= 0 and " forwarding" or "")
		end
		if p + 4 <= tvb:len() then
			tree:add(f.hello_interval, tvb(p + 2, 2))
			extra = extra .. string.format(" interval %d ms", tvb(p + 2, 2):uint())
		end
		from = add_id(tree, tvb, "sender", p + 4)
	elseif code == 6 or code == 7 then
		status(function(v) return v == 0 end)
		from = add_id(tree, tvb, "sender", p + 2)
	elseif code == 2 or code == 3 then
		from = add_id(tree, tvb, "sender", p)
		add_id(tree, tvb, "first_id", p + 8)
		local second = add_id(tree, tvb, "second_id", p + 16)
		if code == 3 and second then extra = " for " .. second end
	elseif code == 4 then
		local item, v = status(function(v) return RESPONSE_STATUS[v] ~= nil end)
		if item then
			local meaning = RESPONSE_STATUS[v] or "unknown"
			item:append_text(" (" .. meaning .. ")")
			item:add(f.response, tvb(p, 2), meaning)
			extra = ": " .. meaning
		end
		from = add_id(tree, tvb, "sender", p + 2)
		local e1 = add_id(tree, tvb, "edge1", p + 10)
		local e2 = add_id(tree, tvb, "edge2", p + 18)
		if e1 and e2 then extra = extra .. ", edges " .. e1 .. " and " .. e2 end
	elseif code == 5 then
		if p < tvb:len() and not all_zero(tvb(p, math.min(26, tvb:len() - p))) then
			tree:add_proto_expert_info(e.reserved, "Flush body not zero")
		end
	end

	-- padding: from the end of the type's payload to the end of the frame
	-- as sent (less the tag where it is gone); what follows is a trailer
	local pad_from = t + want_plen
	local pad_to = math.min(tvb:len(), tagged and SENT_SIZE or SENT_SIZE - 4)
	if pad_to > pad_from then
		local r = tvb(pad_from, pad_to - pad_from)
		local item = tree:add(f.padding, r)
		if not all_zero(r) then item:add_proto_expert_info(e.nonzero_padding) end
	end

	from = from or mac_text(tvb(6, 6))
	pinfo.cols.info:set(string.format("%s ring %d from %s%s", name, ring, from, extra))
end

-- The Ethernet layer's heuristic: it sees the whole frame before the
-- Ethernet dissector does. A claimed frame is first handed to the
-- Ethernet dissector itself (which calls this heuristic again: hence
-- the flag), so its headers show as usual.
local eth = Dissector.get("eth_maybefcs")
local inside = false

local function heuristic(tvb, pinfo, root)
	if inside then return false end
	local lo = layout(tvb)
	if not lo then return false end
	inside = true
	local ok, err = pcall(function() eth:call(tvb, pinfo, root) end)
	inside = false
	if not ok then error(err) end
	dissect(tvb, pinfo, root, lo)
	return true
end

zalk:register_heuristic("eth", heuristic)
