-- Shows traces of the bus in Wireshark and tshark. Above stands the table of message types, by ID:
--   {name = "package.message", {kind, bytes of a number, elements, inner type's ID, name = label, values = {...}, flags = {...}}, ...}
-- Goes through a message as the decoder does, so that it shows what the decoder reads and tells what it rejects. A list of
-- messages needs no more than the text of the Info column: items of the tree, which take most of the time, are made when
-- somebody looks at the tree or filters by it.

local quopa = Proto("quopa", "Message of the FIB6 bus")
local user_encapsulations = (wtap_encaps or wtap).USER0
local HEADER_BYTES = 32
local SENT, RECEIVED, NOTE = 0, 1, 2
local STATUS_WORDS = {[0] = "OK", [-1] = "decoder failed", [-2147483648] = "no answer"}
local ZERO_ADDRESS = ("\0"):rep(16)
local MOST_MEMBERS = 12 -- of the Info column
local MOST_BYTES = 16   -- of a byte string there

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
  kind = field(ProtoField.uint8, "kind", "Kind", base.DEC, {[SENT] = "sent", [RECEIVED] = "received", [NOTE] = "note"}),
  id = field(ProtoField.uint32, "id", "Message ID", base.HEX, names),
  handle = field(ProtoField.uint32, "handle", "Handle"),
  destination = field(ProtoField.uint32, "destination", "Destination"),
  status = field(ProtoField.int32, "status", "Status"),
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
    slot.member, slot.shown = member, slot.name or member
    local label = slot.name and slot.name .. " (" .. member .. ")" or member
    if slot[1] == "scalar" then
      slot.field = field(NUMBER_FIELDS[slot[2]], name, label, base.DEC, slot.values)
    elseif is_address(slot) then
      slot.field = field(ProtoField.ipv6, name, label)
      slot.word_field = field(ProtoField.uint32, name .. ".word", "Word", base.HEX_DEC)
      local next_slot = message_type[i + 1]
      if next_slot and next_slot[1] == "scalar" and (next_slot.name or ""):match("prefix_length$") then next_slot.prefix = slot end
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
local failed = ProtoExpert.new("quopa.failed", "The send or the decoder failed", expert.group.RESPONSE_CODE, expert.severity.WARN)
local cut = ProtoExpert.new("quopa.cut", "Cut by the recorder", expert.group.UNDECODED, expert.severity.NOTE)
local unknown = ProtoExpert.new("quopa.unknown", "Unknown message type", expert.group.UNDECODED, expert.severity.NOTE)
quopa.experts = {rejected, failed, cut, unknown}

-- A message on its way through the dissector: its bytes as a string and for items, the number of bytes, and what the Info
-- column will say. Trees are nil when nobody looks at them.
local Walk = {}
Walk.__index = Walk

-- Ends the walk; at is the word that the decoder does not take.
local function reject(at, size, ...) error({at = at, size = size, reason = string.format(...)}, 0) end

local byte, format, floor = string.byte, string.format, math.floor

local function word_of(text, at)
  local a, b, c, d = byte(text, at + 1, at + 4)
  return a + 256 * b + 65536 * c + 16777216 * d
end

local function half_of(text, at)
  local a, b = byte(text, at + 1, at + 2)
  return a + 256 * b
end

local function number_of(text, at, width)
  if width == 4 then return word_of(text, at) end
  return width == 2 and half_of(text, at) or byte(text, at + 1)
end

function Walk:word(at) return word_of(self.text, at) end
function Walk:holds(at, size) return at + size <= self.length end

-- For the Info column, which starts with addresses: they are what a list is searched for.
function Walk:say(place, slot, value, into)
  self.last_slot = nil
  self.said = self.said + 1
  if self.said > MOST_MEMBERS then return end
  into = into or self.info
  into[#into + 1] = place .. slot.shown .. "=" .. value
  self.last_slot = slot
end

-- place is the path of the table in a rejection, empty for the root; where names the word that leads to the table.
function Walk:expect_table(position, at, place_of_word, element)
  if position > 0xFFFFFFFF then reject(at, 4, "the offset of %s leads past 2^32", place_of_word) end
  if position >= 4 and position <= self.length - 4 then return end
  if place_of_word == nil then reject(at, 4, "the root offset leads to %d, where no table fits", position) end
  reject(at, 4, "%s leads to a table at %d, which reaches past the end at %d",
         place_of_word .. (element and "[" .. element .. "]" or ""), position, self.length)
end

function Walk:address(slot, at, tree, say_place)
  local text = self.text
  local zero = text:sub(at + 1, at + 16) == ZERO_ADDRESS
  if zero and not tree then return end
  local b1, a1, d1, c1, b2, a2, d2, c2 = byte(text, at + 1, at + 8)
  local b3, a3, d3, c3, b4, a4, d4, c4 = byte(text, at + 9, at + 16)
  local address = Address.ipv6(format("%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x", c1, d1, a1, b1, c2, d2,
                                      a2, b2, c3, d3, a3, b3, c4, d4, a4, b4))
  if not zero then self:say(say_place, slot, tostring(address), self.addresses) end
  if not tree then return end
  local item = tree:add(slot.field, self.bytes(at, 16), address)
  for i = 0, 3 do item:add_le(slot.word_field, self.bytes(at + 4 * i, 4)) end
end

function Walk:elements(slot, at, count, tree, say_place)
  if is_address(slot) then return self:address(slot, at, tree, say_place) end
  if slot[1] == "array" and slot[2] == 4 then
    local words, zero = {}, true
    for i = 0, count - 1 do
      local word = self:word(at + 4 * i)
      zero = zero and word == 0
      words[i + 1] = word
      if tree then tree:add_le(slot.field, self.bytes(at + 4 * i, 4)):append_text(" [" .. i .. "]") end
    end
    if not zero then self:say(say_place, slot, "[" .. table.concat(words, ",") .. "]") end
  elseif count > 0 then
    if tree then tree:add(slot.field, self.bytes(at, count)) end
    local bytes = self.text:sub(at + 1, at + math.min(count, MOST_BYTES))
    if slot[1] == "array" and not self.text:sub(at + 1, at + count):find("[^%z]") then return end
    self:say(say_place, slot, bytes:gsub(".", function(c) return string.format("%02x", c:byte()) end) .. (count > MOST_BYTES and "..." or ""))
  end
end

-- An array, byte string or vector whose offset word stands at.
function Walk:counted(slot, at, tree, place, say_place)
  local target = at + self:word(at)
  if target > 0xFFFFFFFF then reject(at, 4, "the offset of %s leads past 2^32", place .. slot.member) end
  if not self:holds(target, 4) then
    reject(at, 4, "%s leads to a count at %d, which reaches past the end at %d", place .. slot.member, target, self.length)
  end
  local count = self:word(target)
  if slot[1] == "array" and count ~= slot[3] then
    reject(target, 4, "%s has %d elements and is to have %d", place .. slot.member, count, slot[3])
  end
  local width = slot[1] == "array" and slot[2] or slot[1] == "bytes" and 1 or 4
  local finish = target + 4 + count * width
  if finish > self.length then
    reject(target, 4, "%s has a count of %d and would end at %d, past the end at %d", place .. slot.member, count, finish,
           self.length)
  end
  if slot[1] ~= "vector" then return self:elements(slot, target + 4, count, tree, say_place) end
  local inner = types[slot[4]]
  local vector = tree and tree:add_le(slot.field, self.bytes(target, 4)):append_text(" of " .. inner.name)
  for i = 0, count - 1 do
    local word = target + 4 + 4 * i
    local position = word + self:word(word)
    self:expect_table(position, word, place .. slot.member, i)
    local element = vector and vector:add(element_field, self.bytes(position, 4), i)
    self:table(inner, position, element, place .. slot.member .. "[" .. i .. "]", say_place .. slot.shown .. "[" .. i .. "].")
  end
end

function Walk:scalar(slot, at, tree, say_place)
  local value = number_of(self.text, at, slot[2])
  local word = slot.values and slot.values[value]
  if slot.flags then
    word = ""
    for _, flag in ipairs(slot.flags) do
      if math.floor(value / flag[2]) % 2 == 1 then word = word .. flag[1] end
    end
  end
  if value ~= 0 then
    if slot.prefix and slot.prefix == self.last_slot then
      self.addresses[#self.addresses] = self.addresses[#self.addresses] .. "/" .. value
      self.last_slot = nil
    else
      self:say(say_place, slot, word and word ~= "" and word or value)
    end
  end
  if not tree then return end
  local item = tree:add_le(slot.field, self.bytes(at, slot[2]))
  if slot.flags then item:append_text(" (" .. word .. ")") end
end

-- whose is the table's path in a rejection, empty for the root; say_place is what its members start with in the Info column.
function Walk:table(message_type, at, tree, whose, say_place)
  local vtable = (at - self:word(at)) % 4294967296
  local function name() return whose == "" and "the root table" or whose end
  if vtable < 4 or vtable > self.length - 4 then
    reject(at, 4, "the distance of %s puts its vtable at %d, where none fits", name(), vtable)
  end
  local text = self.text
  local size = half_of(text, vtable)
  if not self:holds(vtable, size) then
    reject(vtable, 2, "the vtable of %s has %d bytes and would end at %d, past the end at %d", name(), size, vtable + size,
           self.length)
  end
  if tree then tree:add(vtable_field, self.bytes(vtable, math.max(size, 2))) end
  local place, length = whose == "" and "" or whose .. ".", self.length
  for i, slot in ipairs(message_type) do
    if size < 4 + 2 * i then break end
    local entry = vtable + 2 + 2 * i
    local offset = half_of(text, entry)
    if offset ~= 0 then
      local target = at + offset
      local kind = slot[1]
      if target + (kind == "scalar" and slot[2] or 4) > length then
        reject(entry, 2, "%s would be at %d, which reaches past the end at %d", place .. slot.member, target, self.length)
      end
      if kind == "scalar" then
        self:scalar(slot, target, tree, say_place)
      elseif kind == "table" then
        local position, inner = target + self:word(target), types[slot[4]]
        self:expect_table(position, target, place .. slot.member)
        local item = tree and tree:add(slot.field, self.bytes(position, 4)):append_text(": " .. inner.name)
        self:table(inner, position, item, place .. slot.member, say_place .. slot.shown .. ".")
      else
        self:counted(slot, target, tree, place, say_place)
      end
    end
  end
end

function Walk:root(message_type, tree)
  if self.length < 4 then reject(0, self.length, "a buffer has 4 to 2147483647 bytes, not %d", self.length) end
  local position = self:word(0)
  self:expect_table(position, 0)
  if tree then tree:add_le(root_field, self.bytes(0, 4)) end
  self:table(message_type, position, tree, "", "")
end

-- Returns what the Info column says. What is no rejection is an error of this script.
local function show_record(message_type, packet, text, top, tree, is_cut)
  local length = #text - HEADER_BYTES
  local payload = length > 0 and packet(HEADER_BYTES):tvb() or nil
  local walk = setmetatable({text = text:sub(HEADER_BYTES + 1), bytes = payload, length = length, addresses = {}, info = {}, said = 0}, Walk)
  local good, problem = pcall(walk.root, walk, message_type, tree)
  if not good and type(problem) ~= "table" then error(problem, 0) end
  if good and walk.said == 0 then return "all zero" end
  for _, text in ipairs(walk.info) do table.insert(walk.addresses, text) end
  if walk.said > MOST_MEMBERS then table.insert(walk.addresses, "...") end
  local info = table.concat(walk.addresses, " ")
  if good or is_cut then return info end
  local range = problem.size > 0 and payload(problem.at, problem.size) or packet(0, HEADER_BYTES)
  local reason = string.format("rejected at %d: %s", problem.at, problem.reason)
  local item = (tree or top):add(at_field, range, problem.at)
  item:add(reason_field, range, problem.reason):set_generated()
  item:add_proto_expert_info(rejected, reason)
  return info .. (info == "" and "" or " ") .. "REJECTED at " .. problem.at .. ": " .. problem.reason
end

-- The programs that a capture's notes name: of each packet, as Wireshark comes back to packets in any order.
local programs, latest = {}, {}
function quopa.init() programs, latest = {}, {} end
local interface_of = Field.new("frame.interface_id")

local function program_of(number)
  if not programs[number] then
    local interface = interface_of()
    programs[number] = latest[interface and interface.value or 0] or "?"
  end
  return programs[number]
end

local function show_note(packet, text, pinfo, top)
  if #text == HEADER_BYTES then return end
  local note = text:sub(HEADER_BYTES + 1):match("^[^\n%z]*")
  local program = note:match("^program (.+)$")
  if program and not pinfo.visited then
    local interface = interface_of()
    latest[interface and interface.value or 0] = program .. " " .. word_of(text, 28)
  end
  pinfo.cols.info = note
  pinfo.cols.src = program_of(pinfo.number)
  top:add(note_field, packet(HEADER_BYTES))
end

local own
function quopa.dissector(packet, pinfo, tree)
  local text = packet:raw()
  if #text < HEADER_BYTES or text:sub(1, 2) ~= "QT" then return 0 end
  own = own or Dissector.get("quopa")
  local kind, id, handle, destination = text:byte(4), word_of(text, 4), word_of(text, 8), word_of(text, 12)
  local status, index, count = word_of(text, 16), word_of(text, 20), word_of(text, 24)
  if status > 2147483647 then status = status - 4294967296 end

  local cols = pinfo.cols
  cols.protocol = "QUOPA"
  local top = tree:add(quopa, packet())
  local looked_at = tree:referenced(own) -- so is everything when a packet's tree is visible
  if looked_at then
    top:add(header.version, packet(2, 1))
    top:add(header.kind, packet(3, 1))
    for i, name in ipairs({"id", "handle", "destination", "status", "index", "count", "thread"}) do
      local item = top:add_le(header[name], packet(4 * i, 4))
      if name == "status" and STATUS_WORDS[status] and kind ~= NOTE then item:append_text(" (" .. STATUS_WORDS[status] .. ")") end
    end
  end
  if kind == NOTE then return show_note(packet, text, pinfo, top) end

  local program = program_of(pinfo.number)
  local way = "handle " .. handle .. (destination == 0 and "" or " to " .. destination)
  cols.src = kind == SENT and program or "bus"
  cols.dst = kind == SENT and way or program

  local info = {kind == SENT and "->" or "<-"}
  local function say(words) info[#info + 1] = words end
  local message_type = types[id]
  say(message_type and message_type.name or string.format("0x%08X", id))
  if count > 1 then say(string.format("#%d/%d", index + 1, count)) end
  if status ~= 0 then
    local words = STATUS_WORDS[status] and STATUS_WORDS[status]:upper() or "FAILED " .. status
    top:add_proto_expert_info(failed, words)
    say(words)
  end
  local is_cut = packet:reported_len() > #text
  if is_cut then
    top:add_proto_expert_info(cut)
    say("CUT")
  end
  if message_type == nil then
    top:add_proto_expert_info(unknown)
    say("unknown type")
  else
    local record
    if looked_at then
      top:add(type_field, packet(4, 4), message_type.name)
      record = top:add(quopa, #text > HEADER_BYTES and packet(HEADER_BYTES) or packet(), message_type.name)
    end
    say(show_record(message_type, packet, text, top, record, is_cut))
  end
  cols.info = table.concat(info, " ")
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
