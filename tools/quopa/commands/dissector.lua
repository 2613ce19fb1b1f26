-- Shows traces of the bus in Wireshark and tshark. Above stands the table of message types, by ID:
--   {name = "package.message", {kind, bytes of a number, elements, inner type's ID, name = label, values = {...}, flags = {...}}, ...}
-- Goes through a message as the decoder does, so that it shows what the decoder reads and tells what it rejects.

local quopa = Proto("quopa", "Message of the FIB6 bus")
local user_encapsulations = (wtap_encaps or wtap).USER0
local HEADER_BYTES = 32
local NO_ANSWER = -2147483648

local all_fields = {}
local function field(make, name, ...)
  local made = make("quopa." .. name, ...)
  all_fields[#all_fields + 1] = made
  return made
end

local names = {}
for id, message_type in pairs(types) do names[id] = message_type.name end

local header = {
  version = field(ProtoField.uint8, "version", "Version"),
  kind = field(ProtoField.uint8, "kind", "Kind", base.DEC, {[0] = "sent", [1] = "received", [2] = "note"}),
  id = field(ProtoField.uint32, "id", "Message ID", base.HEX, names),
  handle = field(ProtoField.uint32, "handle", "Handle"),
  destination = field(ProtoField.uint32, "destination", "Destination"),
  status = field(ProtoField.int32, "status", "Status", base.DEC, {[0] = "OK", [NO_ANSWER] = "no answer"}),
  index = field(ProtoField.uint32, "index", "Index in the call"),
  count = field(ProtoField.uint32, "count", "Messages in the call"),
  thread = field(ProtoField.uint32, "thread", "Thread"),
}
local type_field = field(ProtoField.string, "type", "Type")
local note_field = field(ProtoField.string, "note", "Note")
local element_field = field(ProtoField.uint32, "element", "Element")
local root_field = field(ProtoField.uint32, "root_offset", "Root offset")
local vtable_field = field(ProtoField.bytes, "vtable", "Vtable")
local at_field = field(ProtoField.uint32, "rejected.at", "Rejected at")
local reason_field = field(ProtoField.string, "rejected.reason", "Reason")

local NUMBER_FIELDS = {ProtoField.uint8, ProtoField.uint16, nil, ProtoField.uint32}

local function is_address(slot) return slot[1] == "array" and slot[2] == 4 and slot[3] == 4 end

for _, message_type in pairs(types) do
  for i, slot in ipairs(message_type) do
    local member = "f" .. (i - 1)
    local name = message_type.name .. "." .. member
    local label = slot.name and slot.name .. " (" .. member .. ")" or member
    if slot[1] == "scalar" then
      slot.field = field(NUMBER_FIELDS[slot[2]], name, label, base.DEC, slot.values)
    elseif is_address(slot) then
      slot.field = field(ProtoField.ipv6, name, label)
      slot.word_field = field(ProtoField.uint32, name .. ".word", "Word", base.HEX_DEC)
    elseif slot[1] == "array" and slot[2] == 4 then
      slot.field = field(ProtoField.uint32, name, label, base.DEC)
    elseif slot[1] == "array" or slot[1] == "bytes" then
      slot.field = field(ProtoField.bytes, name, label)
    elseif slot[1] == "vector" then
      slot.field = field(ProtoField.uint32, name, label)
    else
      slot.field = field(ProtoField.none, name, label)
    end
  end
end
quopa.fields = all_fields

local rejected = ProtoExpert.new("quopa.rejected", "The decoder rejects this", expert.group.MALFORMED, expert.severity.ERROR)
local failed = ProtoExpert.new("quopa.failed", "The send failed", expert.group.RESPONSE_CODE, expert.severity.WARN)
local cut = ProtoExpert.new("quopa.cut", "Cut by the recorder", expert.group.UNDECODED, expert.severity.NOTE)
local unknown = ProtoExpert.new("quopa.unknown", "Unknown message type", expert.group.UNDECODED, expert.severity.NOTE)
quopa.experts = {rejected, failed, cut, unknown}

-- A message on its way through the dissector: bytes, their number, and what the info column will say.
local Walk = {}
Walk.__index = Walk

-- Ends the walk; at is the word that the decoder does not take.
local function reject(at, size, ...) error({at = at, size = size, reason = string.format(...)}, 0) end

function Walk:word(at) return self.bytes(at, 4):le_uint() end
function Walk:half(at) return self.bytes(at, 2):le_uint() end
function Walk:holds(at, size) return at + size <= self.length end

-- place is the path of the table, empty for the root; where names the word that leads to the table.
function Walk:expect_table(position, at, place_of_word, element)
  if position > 0xFFFFFFFF then reject(at, 4, "the offset of %s leads past 2^32", place_of_word) end
  if position >= 4 and position <= self.length - 4 then return end
  if place_of_word == nil then reject(at, 4, "the root offset leads to %d, where no table fits", position) end
  reject(at, 4, "%s leads to a table at %d, which reaches past the end at %d",
         place_of_word .. (element and "[" .. element .. "]" or ""), position, self.length)
end

function Walk:address(slot, at, tree, path)
  local parts = {}
  for i = 0, 3 do
    local word = self:word(at + 4 * i)
    parts[#parts + 1] = string.format("%x:%x", math.floor(word / 65536), word % 65536)
  end
  local address = Address.ipv6(table.concat(parts, ":"))
  local item = tree:add(slot.field, self.bytes(at, 16), address)
  for i = 0, 3 do item:add_le(slot.word_field, self.bytes(at + 4 * i, 4)) end
  if tostring(address) ~= "::" then self.info[#self.info + 1] = path .. "=" .. tostring(address) end
end

function Walk:elements(slot, at, count, tree, path)
  if is_address(slot) then return self:address(slot, at, tree, path) end
  if slot[1] == "array" and slot[2] == 4 then
    for i = 0, count - 1 do tree:add_le(slot.field, self.bytes(at + 4 * i, 4)):append_text(" [" .. i .. "]") end
  elseif count > 0 then
    tree:add(slot.field, self.bytes(at, count))
  end
end

-- An array, byte string or vector whose offset word stands at.
function Walk:counted(slot, at, tree, path)
  local target = at + self:word(at)
  if target > 0xFFFFFFFF then reject(at, 4, "the offset of %s leads past 2^32", path) end
  if not self:holds(target, 4) then
    reject(at, 4, "%s leads to a count at %d, which reaches past the end at %d", path, target, self.length)
  end
  local count = self:word(target)
  if slot[1] == "array" and count ~= slot[3] then
    reject(target, 4, "%s has %d elements and is to have %d", path, count, slot[3])
  end
  local width = slot[1] == "array" and slot[2] or slot[1] == "bytes" and 1 or 4
  local finish = target + 4 + count * width
  if finish > self.length then
    reject(target, 4, "%s has a count of %d and would end at %d, past the end at %d", path, count, finish, self.length)
  end
  if slot[1] ~= "vector" then return self:elements(slot, target + 4, count, tree, path) end
  local vector = tree:add_le(slot.field, self.bytes(target, 4)):append_text(" of " .. types[slot[4]].name)
  for i = 0, count - 1 do
    local word = target + 4 + 4 * i
    local position = word + self:word(word)
    self:expect_table(position, word, path, i)
    local element = vector:add(element_field, self.bytes(position, 4), i)
    self:table(types[slot[4]], position, element, path .. "[" .. i .. "]")
  end
end

function Walk:scalar(slot, at, tree)
  local item = tree:add_le(slot.field, self.bytes(at, slot[2]))
  if slot.flags == nil then return end
  local value, letters = self.bytes(at, slot[2]):le_uint(), ""
  for _, flag in ipairs(slot.flags) do
    if math.floor(value / flag[2]) % 2 == 1 then letters = letters .. flag[1] end
  end
  item:append_text(" (" .. letters .. ")")
end

function Walk:table(message_type, at, tree, place)
  local vtable = (at - self:word(at)) % 4294967296
  local whose = place == "" and "the root table" or place
  if vtable < 4 or vtable > self.length - 4 then
    reject(at, 4, "the distance of %s puts its vtable at %d, where none fits", whose, vtable)
  end
  local size = self:half(vtable)
  if not self:holds(vtable, size) then
    reject(vtable, 2, "the vtable of %s has %d bytes and would end at %d, past the end at %d", whose, size, vtable + size,
           self.length)
  end
  tree:add(vtable_field, self.bytes(vtable, math.max(size, 2)))
  for i, slot in ipairs(message_type) do
    local entry = vtable + 2 + 2 * i
    local offset = size >= 4 + 2 * i and self:half(entry) or 0
    if offset ~= 0 then
      local path = (place == "" and "" or place .. ".") .. "f" .. (i - 1)
      local target = at + offset
      if not self:holds(target, slot[1] == "scalar" and slot[2] or 4) then
        reject(entry, 2, "%s would be at %d, which reaches past the end at %d", path, target, self.length)
      end
      if slot[1] == "scalar" then
        self:scalar(slot, target, tree)
      elseif slot[1] == "table" then
        local position = target + self:word(target)
        self:expect_table(position, target, path)
        local inner = tree:add(slot.field, self.bytes(position, 4)):append_text(": " .. types[slot[4]].name)
        self:table(types[slot[4]], position, inner, path)
      else
        self:counted(slot, target, tree, path)
      end
    end
  end
end

function Walk:root(message_type, tree)
  if self.length < 4 then reject(0, self.length, "a buffer has 4 to 2147483647 bytes, not %d", self.length) end
  local position = self:word(0)
  self:expect_table(position, 0)
  tree:add_le(root_field, self.bytes(0, 4))
  self:table(message_type, position, tree, "")
end

-- Returns what the info column says. What is no rejection is an error of this script.
local function show_record(message_type, packet, tree, is_cut)
  local length = packet:len() - HEADER_BYTES
  local payload = length > 0 and packet(HEADER_BYTES):tvb() or nil
  local walk = setmetatable({bytes = payload, length = length, info = {}}, Walk)
  local good, problem = pcall(walk.root, walk, message_type, tree)
  local info = table.concat(walk.info, " ")
  if good then return info end
  if type(problem) ~= "table" then error(problem, 0) end
  if is_cut then return info end
  local range = problem.size > 0 and payload(problem.at, problem.size) or packet(0, HEADER_BYTES)
  local reason = string.format("rejected at %d: %s", problem.at, problem.reason)
  local item = tree:add(at_field, range, problem.at)
  item:add(reason_field, range, problem.reason):set_generated()
  item:add_proto_expert_info(rejected, reason)
  return info .. (info == "" and "" or " ") .. "REJECTED at " .. problem.at .. ": " .. problem.reason
end

function quopa.dissector(packet, pinfo, tree)
  if packet:len() < HEADER_BYTES or packet(0, 2):string() ~= "QT" then return 0 end
  pinfo.cols.protocol = "QUOPA"
  local top = tree:add(quopa, packet())
  top:add(header.version, packet(2, 1))
  top:add(header.kind, packet(3, 1))
  local kind = packet(3, 1):uint()
  if kind == 2 then
    if packet:len() == HEADER_BYTES then return end
    pinfo.cols.info = packet(HEADER_BYTES):string():match("^[^\n]*")
    top:add(note_field, packet(HEADER_BYTES))
    return
  end
  local at = 4
  for _, name in ipairs({"id", "handle", "destination", "status", "index", "count", "thread"}) do
    top:add_le(header[name], packet(at, 4))
    at = at + 4
  end
  local status = packet(16, 4):le_int()
  local info = {kind == 0 and "->" or "<-"}
  local function say(text) info[#info + 1] = text end
  local message_type = types[packet(4, 4):le_uint()]
  say(message_type and message_type.name or string.format("0x%08X", packet(4, 4):le_uint()))
  if packet(24, 4):le_uint() > 1 then say(string.format("#%d/%d", packet(20, 4):le_uint() + 1, packet(24, 4):le_uint())) end
  if kind == 0 and status ~= 0 then
    local text = status == NO_ANSWER and "NO ANSWER" or "FAILED " .. status
    top:add_proto_expert_info(failed, text)
    say(text)
  end
  local is_cut = packet:reported_len() > packet:len()
  if is_cut then
    top:add_proto_expert_info(cut)
    say("CUT")
  end
  if message_type == nil then
    top:add_proto_expert_info(unknown)
    say("unknown type")
  else
    top:add(type_field, packet(4, 4), message_type.name)
    local range = packet:len() > HEADER_BYTES and packet(HEADER_BYTES) or packet()
    say(show_record(message_type, packet, top:add(quopa, range, message_type.name), is_cut))
  end
  pinfo.cols.info = table.concat(info, " ")
end

quopa.prefs.user = Pref.uint("User link type", 0, "0 to 15: which of the link types USER0 to USER15 is the bus's")

local encapsulations = DissectorTable.get("wtap_encap")
local added
local function listen()
  if added then encapsulations:remove(added, quopa) end
  added = user_encapsulations + quopa.prefs.user
  encapsulations:add(added, quopa)
end
quopa.prefs_changed = listen
listen()
