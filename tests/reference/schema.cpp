#include "codec.h"

#include <algorithm>
#include <deque>
#include <span>
#include <sstream>
#include <stdexcept>

namespace reference {
namespace {

// clang-format off

// Columns: message, slots, {ID, fixed length, vtable length, table size, vtable position, compact zero, compact set},
// fixed-layout offsets. A type without fixed length is variable-length.
const Row kFib6Cfg[] = {
  {"query_fib6_cond",      "u32 u32[4] u32*3 u8*2 u16 u32",        {0x41056AF6,  80,  22,  52,  56,  54,  78}, "4 8 32 36 40 44 45 46 48"},
  {"query_comm_param",     "u32*2 bytes",                          {0xCC4E6BC6,   0,  10,   0,   0,  18,   0}},
  {"query_comm_rec",       "u32*3 bytes",                          {0x2052299D,   0,  12,   0,   0,  20,   0}},
  {"query_dfx_cond",       "u32*4",                                {0xFE797107,  40,  12,  20,  24,  20,  36}, "4 8 12 16"},
  {"query_fib6check_cond", "u32*2 u32[4]",                         {0x6116FD4C,  56,  10,  36,  40,  42,  50}, "4 8 12"},
  {"query_fib6check_item", "u32 u8 u32[64]",                       {0xC199E60B, 296,  10, 273, 280, 282, 287}, "4 8 9"},
  {"query_fib6_item",      "u32[4]*2 u8*2 u16 u32 u8 u32*2 u8[21] u8[32] u32*2 u16 u8*6 u32 u8[32] u8 u32[4]*2 u32*3 u16*2 "
                           "u32 u8*3 u8[21] u8 u32*2 u8[8] u8[21] u32*2 u8[3] u32[4]*2 u32 u8 u32",
                                                                   {0x104E49B1, 536, 100, 429, 436, 446,   0},
   "4 28 52 53 54 56 60 61 65 69 98 138 142 146 148 149 150 151 152 153 154 158 198 199 223 247 251 255 259 261 263 267 268 "
   "269 270 299 300 304 308 324 353 357 361 372 396 420 424 425"},
  {"query_fib6_key",       "query_comm_param query_fib6_cond",     {0x727C4D11,   0,   8,   0,   0,  88,   0}},
  {"query_fib6_rec",       "query_comm_rec query_fib6_item[]",     {0x8B27C60C,   0,   8,   0,   0,  36,   0}},
  {"query_dfx_item",       "u32 u8[50] u32 u8[32]*3 u32",          {0x7F5BBD74, 224,  18, 194, 200, 204, 216}, "4 8 66 70 110 150 190"},
  {"query_dfx_key",        "query_comm_param query_dfx_cond",      {0x244EBB6A,   0,   8,   0,   0,  54,   0}},
  {"query_dfx_rec",        "query_comm_rec query_dfx_item[]",      {0x3ACCEBF3,   0,   8,   0,   0,  36,   0}},
  {"cfg_ipv6_ttl_expired_forward", "u32*4 u32[4]",                 {0x863B570C,  64,  14,  44,  48,  46,  62}, "4 8 12 16 20"},
  {"query_fib6check_key",  "query_comm_param query_fib6check_cond", {0x6C0280B3,  0,   8,   0,   0,  76,   0}},
  {"query_fib6check_rec",  "query_comm_rec query_fib6check_item",  {0xDD6EF182,   0,   8,   0,   0, 318,   0}},
};

// IDs not listed.
const Row kKorBrokerFib6[] = {
  {"nhp6Group",            "u32*5",                                {0,  48, 14,  24,  28,  22,  42}, "4 8 12 16 20"},
  {"nhp6",                 "u32*4 u32[4] u8*2 u16 u32*2",          {0,  88, 24,  56,  60,  56,  84}, "4 8 12 16 20 44 45 46 48 52"},
  {"pidState",             "u32*3",                                {0,  32, 10,  16,  20,  18,  30}, "4 8 12"},
  {"classItem",            "u32*2 u8",                             {0,  32, 10,  13,  20,  18,  27}, "4 8 12"},
  {"vrfClassState",        "u32*6",                                {0,  48, 16,  28,  32,  24,  48}, "4 8 12 16 20 24"},
  {"vrfClassData",         "u32*5 u8",                             {0,  48, 16,  25,  32,  24,  45}, "4 8 12 16 20 24"},
  {"ipv6Fwd",              "u32*3 u32[4] u8*2 u16 u32*4 u16*2 u32", {0, 104, 32, 68,  72,  64, 104}, "4 8 12 16 40 41 42 44 48 52 56 60 62 64"},
  {"ipv6FwdKey",           "u32*2 u32[4] u8 u8[3]",                {0,  72, 14,  48,  52,  57,  66}, "4 8 12 36 37"},
  {"ipv6FwdUpdateMsg",     "u32 ipv6Fwd[]",                        {0,   0,  8,   0,   0,  16,   20}},
  {"ipv6FwdDelMsg",        "u32 ipv6FwdKey[]",                     {0,   0,  8,   0,   0,  16,   0}},
  {"nhp6GroupNode",        "u32*10",                               {0,  72, 24,  44,  48,  32,  72}, "4 8 12 16 20 24 28 32 36 40"},
  {"nhp6GroupKey",         "u32*2",                                {0,  24,  8,  12,  16,  16,  24}, "4 8"},
  {"nhp6GroupUpdateMsg",   "u32 nhp6Group nhp6GroupNode[]",        {0,   0, 10,   0,   0,  40,   64}},
  {"nhp6GroupDelMsg",      "u32 nhp6GroupKey[]",                   {0,   0,  8,   0,   0,  16,   0}},
  {"nhp6Key",              "u32",                                  {0,  24,  6,   8,  12,  14,  18}, "4"},
  {"nhp6Std",              "u32 u32[4] u32*7",                     {0,  88, 22,  60,  64,  54,  86}, "4 8 32 36 40 44 48 52 56"},
  {"nhp6Ext",              "u32*6 u8 u8[3]",                       {0,  64, 20,  40,  44,  39,  64}, "4 8 12 16 20 24 28 29"},
  {"nhp6Vpn",              "u32*5",                                {0,  48, 14,  24,  28,  22,  42}, "4 8 12 16 20"},
  {"nhp6Vxlan",            "u32*4 u8 u8[3] u16 u8[6] u32*3 u8 u32[4]", {0, 128, 30, 85, 92, 87, 119}, "4 8 12 16 20 21 32 34 48 52 56 60 61"},
  {"nhp6VpnSid",           "u32*4 u32[4]*3 u8*4 u32",              {0, 136, 28, 100, 104, 108, 132}, "4 8 12 16 20 44 68 92 93 94 95 96"},
  {"nhp6Pp6ExtSrv6Te",     "u32*4 u32[4] u8*2 u32*2",              {0,  88, 22,  54,  60,  54,  80}, "4 8 12 16 20 44 45 46 50"},
  {"nhp6UpdateMsg",        "u32 nhp6 nhp6Std[] nhp6Ext[] nhp6Vpn[] nhp6Vxlan[] nhp6VpnSid[] nhp6Pp6ExtSrv6Te[]",
                                                                   {0,   0, 20,   0,   0,  84,   116}},
  {"nhp6DelMsg",           "u32 nhp6Key[]",                        {0,   0,  8,   0,   0,  16,   0}},
  {"srv6SrList",           "u32*2 u16*2 u32[4]*10 u8 u32*2",       {0, 312, 38, 265, 272, 286, 307},
   "4 8 12 14 16 40 64 88 112 136 160 184 208 232 256 257 261"},
  {"srv6SrListKey",        "u32*3 u16",                            {0,  40, 12,  18,  24,  20,  34}, "4 8 12 16"},
  {"srv6SrListUpdateMsg",  "u32 srv6SrList[]",                     {0,   0,  8,   0,   0,  16,   0}},
  {"srv6SrListDelMsg",     "u32 srv6SrListKey[]",                  {0,   0,  8,   0,   0,  16,   0}},
  {"ipv6PathMtu",          "u32*2 u32[4] u32*2",                   {0,  64, 14,  44,  48,  46,  62}, "4 8 12 36 40"},
  {"ipv6PathMtuKey",       "u32*2 u32[4]",                         {0,  56, 10,  36,  40,  42,  50}, "4 8 12"},
  {"ipv6PathMtuUpdateMsg", "u32 ipv6PathMtu[]",                    {0,   0,  8,   0,   0,  16,   0}},
  {"ipv6PathMtuDelMsg",    "u32 ipv6PathMtuKey[]",                 {0,   0,  8,   0,   0,  16,   0}},
  {"pidStateMsg",          "u32 pidState",                         {0,  56,  8,  40,  44,  34,  50}, "4 8"},
  {"classItemMsg",         "u32 classItem",                        {0,  56,  8,  40,  44,  34,  47}, "4 8"},
  {"vrfClassStateMsg",     "u32 vrfClassState",                    {0,  72,  8,  56,  60,  40,  68}, "4 8"},
  {"vrfClassDataMsg",      "u32 vrfClassData",                     {0,  72,  8,  56,  60,  40,  65}, "4 8"},
  {"lrClassDataMsg",       "u32*2",                                {0,  24,  8,  12,  16,  16,  24}, "4 8"},
  {"loadBalanceMode",      "u32*2 u8*5",                           {0,  48, 18,  17,  24,  26,  39}, "4 8 12 13 14 15 16"},
  {"loadBalanceReverse",   "u32*2 u8",                             {0,  32, 10,  13,  20,  18,  27}, "4 8 12"},
};

const Row kFib6Sync[] = {
  {"tlv",                  "u32*2",                                {0x989986B3,  24,  8,  12,  16,  16,  24}, "4 8"},
  {"ipv6Fwd",              "u32*3 u32[4] u8*2 u16 u32*4 u16*2 u32", {0x764C620F, 104, 32, 68,  72,  64, 104},
   "4 8 12 16 40 41 42 44 48 52 56 60 62 64"},
  {"ipv6FwdKey",           "u32*2 u32[4] u8 u8[3]",                {0x8814A6B6,  72, 14,  48,  52,  57,  66}, "4 8 12 36 37"},
  {"nhp6Group",            "u32*5",                                {0x3FC3D336,  48, 14,  24,  28,  22,  42}, "4 8 12 16 20"},
  {"nhp6GroupKey",         "u32*2",                                {0xDE3269ED,  24,  8,  12,  16,  16,  24}, "4 8"},
  {"nhp6GroupNode",        "u32*10",                               {0x3C25D862,  72, 24,  44,  48,  32,  72}, "4 8 12 16 20 24 28 32 36 40"},
  {"nhp6GroupNodeKey",     "u32*7",                                {0x14069629,  56, 18,  32,  36,  26,  54}, "4 8 12 16 20 24 28"},
  {"nhp6",                 "u32*4 u32[4] u8*2 u16 u32*2",          {0x2255B6EF,  88, 24,  56,  60,  56,  84}, "4 8 12 16 20 44 45 46 48 52"},
  {"nhp6Key",              "u32",                                  {0xC2707FD6,  24,  6,   8,  12,  14,  18}, "4"},
  {"nhp6Std",              "u32 u32[4] u32*8",                     {0xDDAB22EC,  96, 24,  64,  68,  56,  92}, "4 8 32 36 40 44 48 52 56 60"},
  {"nhp6StdKey",           "u32 u32[4] u32",                       {0xA86E5EFB,  56, 10,  36,  40,  42,  50}, "4 8 32"},
  {"nhp6Ext",              "u32*5 u8 u32",                         {0x4B445392,  56, 18,  29,  36,  26,  51}, "4 8 12 16 20 24 25"},
  {"nhp6Vpn",              "u32*5",                                {0xC43E36ED,  48, 14,  24,  28,  22,  42}, "4 8 12 16 20"},
  {"nhp6Vxlan",            "u32*7 u16 u8[6] u8 u8[3] u32 u8 u32[4]", {0xD9D6030C, 128, 32, 89, 96, 89, 125},
   "4 8 12 16 20 24 28 32 34 48 49 60 64 65"},
  {"nhp6VpnSid",           "u32*4 u32[4]*3 u8*4 u32 u32[8]",       {0xCC120F97, 176, 30, 140, 144, 150, 174},
   "4 8 12 16 20 44 68 92 93 94 95 96 100"},
  {"nhp6ExtSrv6Te",        "u32*4 u32[4] u8*2 u32*2",              {0x75404CF8,  88, 22,  54,  60,  54,  80}, "4 8 12 16 20 44 45 46 50"},
  {"ipv6PathMtu",          "u32*2 u32[4] u32*2",                   {0xF29FA46F,  64, 14,  44,  48,  46,  62}, "4 8 12 36 40"},
  {"ipv6PathMtuKey",       "u32*2 u32[4]",                         {0xDA299456,  56, 10,  36,  40,  42,  50}, "4 8 12"},
  {"balanceModeData",      "u8*5",                                 {0xE679B47A,  32, 14,   9,  16,  22,  27}, "4 5 6 7 8"},
  {"balanceReverseData",   "u8",                                   {0x7A0F284D,  24,  6,   5,  12,  14,  15}, "4"},
  {"srv6SrList",           "u32*3 u16 u8 u16 u32[4]*10 u32",       {0x3426AA17, 312, 38, 265, 272, 286, 307},
   "4 8 12 16 18 19 21 45 69 93 117 141 165 189 213 237 261"},
  {"srv6SrListKey",        "u32*3 u16",                            {0xABC3D72E,  40, 12,  18,  24,  20,  34}, "4 8 12 16"},
  {"nhp6_ext_label",       "u32*9 u32[4]*2",                       {0x2DCF0B02, 120, 26,  88,  92,  82, 118}, "4 8 12 16 20 24 28 32 36 40 64"},
  {"svcCtxMsg",            "tlv u32[8]",                           {0x43B81539,  80,  8,  68,  72,  72,  80}, "4 28"},
  {"ipv6FwdUpdateMsg",     "tlv ipv6Fwd",                          {0x48CDB5CB, 144,  8, 132, 136,  96, 144}, "4 28"},
  {"ipv6FwdDelMsg",        "tlv ipv6FwdKey",                       {0x20B86741, 112,  8, 100, 104,  89, 106}, "4 28"},
  {"nhp6GroupUpdateMsg",   "tlv nhp6Group",                        {0x27313708,  88,  8,  76,  80,  54,  82}, "4 28"},
  {"nhp6GroupDelMsg",      "tlv nhp6GroupKey",                     {0xA67F1088,  64,  8,  52,  56,  48,  64}, "4 28"},
  {"nhp6GroupNodeUpdateMsg", "tlv nhp6GroupNode",                  {0x89EA08AC, 112,  8, 100, 104,  64, 112}, "4 28"},
  {"nhp6GroupNodeDelMsg",  "tlv nhp6GroupNodeKey",                 {0x368222CC,  96,  8,  84,  88,  58,  94}, "4 28"},
  {"nhp6UpdateMsg",        "tlv nhp6",                             {0x44477C2B, 128,  8, 116, 120,  88, 124}, "4 28"},
  {"nhp6DelMsg",           "tlv nhp6Key",                          {0x05D162A1,  64,  8,  52,  56,  46,  58}, "4 28"},
  {"nhp6StdUpdateMsg",     "tlv nhp6Std",                          {0xD2D6370A, 136,  8, 124, 128,  88, 132}, "4 28"},
  {"nhp6StdDelMsg",        "tlv nhp6StdKey",                       {0x20959026,  96,  8,  84,  88,  74,  90}, "4 28"},
  {"nhp6ExtUpdateMsg",     "tlv nhp6Ext",                          {0xA1DBFFBC,  96,  8,  84,  88,  58,  91}, "4 28"},
  {"nhp6VpnUpdateMsg",     "tlv nhp6Vpn",                          {0xAA706A55,  88,  8,  76,  80,  54,  82}, "4 28"},
  {"nhp6VxlanUpdateMsg",   "tlv nhp6Vxlan",                        {0x1D511A2A, 168,  8, 156, 160, 121, 165}, "4 28"},
  {"nhp6VpnSidUpdateMsg",  "tlv nhp6VpnSid",                       {0xB2CFE153, 216,  8, 204, 208, 182, 214}, "4 28"},
  {"nhp6ExtSrv6TeUpdateMsg", "tlv nhp6ExtSrv6Te",                  {0x1F17926E, 128,  8, 116, 120,  86, 120}, "4 28"},
  {"ipv6PathMtuUpdateMsg", "tlv ipv6PathMtu",                      {0xB893ECAB, 104,  8,  92,  96,  78, 102}, "4 28"},
  {"ipv6PathMtuDelMsg",    "tlv ipv6PathMtuKey",                   {0xCD5FE421,  96,  8,  84,  88,  74,  90}, "4 28"},
  {"loadBalanceMode",      "u32 u16 balanceModeData",              {0xE0A34E72,  64, 10,  42,  48,  40,  51}, "4 8 10"},
  {"loadBalanceReverse",   "u32 u16 balanceReverseData",           {0x29F980E5,  56, 10,  34,  40,  32,  39}, "4 8 10"},
  {"ecmpCfg",              "u16 u32 balanceModeData balanceReverseData", {0xB9FA4070, 88, 12, 66, 72, 56, 68}, "4 6 10 42"},
  {"srv6SrListUpdateMsg",  "tlv srv6SrList",                       {0xE63E88D3, 352,  8, 340, 344, 318, 347}, "4 28"},
  {"srv6SrListDelMsg",     "tlv srv6SrListKey",                    {0x1045D0A9,  80,  8,  68,  72,  52,  74}, "4 28"},
  {"nhp6_ext_label_update_data", "tlv nhp6_ext_label",             {0x2EE805D3, 160,  8, 148, 152, 114, 158}, "4 28"},
};

const Row kProbe[] = {
  {"mixed",   "u32 u8 u8[3]", {0, 40, 10, 20, 24}, "4 8 9"},
  {"leaf",    "u32*2"},
  {"item",    "u32 u8"},
  {"tree",    "leaf item[]"},
  {"named",   "u32 bytes"},
  {"holder",  "named leaf"},
  {"carrier", "u16 mixed u8"},
  {"every",   "u8 u16 u32 u8[3] u32[4] bytes leaf item[] bytes"},
};
// clang-format on

std::deque<Type> &storage() {
  static std::deque<Type> types;
  return types;
}

const Type *lookup(const std::string &package, const std::string &message) {
  const auto &types = storage();
  const auto found = std::find_if(types.begin(), types.end(),
                                  [&](const Type &type) { return type.package == package && type.message == message; });
  if (found == types.end()) throw std::invalid_argument("no such message type: " + package + "." + message);
  return &*found;
}

// Reads "name", "name[]" or "name[N]".
SlotInfo parse_slot(const std::string &package, const std::string &text) {
  const size_t bracket = text.find('[');
  const std::string name = text.substr(0, bracket);
  const std::string inside = bracket == text.npos ? "" : text.substr(bracket + 1, text.find(']') - bracket - 1);
  const uint8_t width = name == "u8" ? 1 : name == "u16" ? 2 : name == "u32" ? 4 : 0;
  if (name == "bytes") return {Kind::bytes, 0, 0, 0, 0, nullptr};
  if (width == 0) return {bracket == text.npos ? Kind::table : Kind::vector, 0, 0, 0, 0, lookup(package, name)};
  if (bracket == text.npos) return {Kind::scalar, width, 0, 0, 0, nullptr};
  return {Kind::array, width, static_cast<uint16_t>(std::stoul(inside)), 0, 0, nullptr};
}

// Appends a member as the compiler would, and returns its place.
uint16_t place_member(Type &type, size_t size, size_t alignment) {
  const size_t place = (type.record_size + alignment - 1) / alignment * alignment;
  type.record_size = static_cast<uint32_t>(place + size);
  type.record_alignment = std::max(type.record_alignment, alignment);
  return static_cast<uint16_t>(place);
}

void append_slot(Type &type, SlotInfo slot) {
  if (slot.kind == Kind::scalar || slot.kind == Kind::array) {
    slot.member = place_member(type, slot.width * records::numbers(slot), slot.width);
  } else if (slot.kind == Kind::table) {
    slot.member = place_member(type, slot.inner->record_size, static_cast<const Type *>(slot.inner)->record_alignment);
  } else {
    slot.length_member = place_member(type, sizeof(uint32_t), alignof(uint32_t));
    slot.member = place_member(type, sizeof(void *), alignof(void *));
  }
  type.own_slots.push_back(slot);
}

const Type &append_type(const std::string &package, const Row &row) {
  Type &type = storage().emplace_back();
  type.listed = row.listed;
  type.package = type.own_package = package;
  type.message = type.own_message = row.message;
  type.id = 0x811C9DC5;
  for (const char letter : type.name()) type.id = (type.id ^ static_cast<uint8_t>(letter)) * 0x01000193;
  std::istringstream slots(row.slots), offsets(row.offsets);
  for (std::string text; slots >> text;) {
    const size_t star = text.find('*');
    const SlotInfo slot = parse_slot(package, text.substr(0, star));
    for (auto times = star == text.npos ? 1 : std::stoul(text.substr(star + 1)); times > 0; --times)
      append_slot(type, slot);
  }
  for (uint32_t offset; offsets >> offset;) type.listed_offsets.push_back(offset);
  place_member(type, 0, type.record_alignment);
  type.slots = type.own_slots;
  const bool fixed = std::all_of(type.slots.begin(), type.slots.end(), [](const SlotInfo &slot) {
    return !records::is_owner(slot) && (slot.kind != Kind::table || slot.inner->is_fixed());
  });
  if (fixed) type.fixed_length = static_cast<uint32_t>(build_fixed(type, Bytes(type.record_size).data()).size());
  return type;
}

void add_rows(const std::string &package, std::span<const Row> rows) {
  for (const Row &row : rows) append_type(package, row);
}

void add_own_rows_once() {
  static const bool added = [] {
    add_rows("fib6_cfg", kFib6Cfg);
    add_rows("korBrokerFib6", kKorBrokerFib6);
    add_rows("fib6Sync", kFib6Sync);
    add_rows("probe", kProbe);
    return true;
  }();
  static_cast<void>(added);
}

}  // namespace

const std::vector<const Type *> &all_types() {
  static const std::vector<const Type *> all = [] {
    std::vector<const Type *> types;
    for (const char *package : {"fib6_cfg", "korBrokerFib6", "fib6Sync"})
      for (const Type *type : types_of(package)) types.push_back(type);
    return types;
  }();
  return all;
}

std::vector<const Type *> types_of(const std::string &package) {
  add_own_rows_once();
  std::vector<const Type *> types;
  for (const Type &type : storage())
    if (type.package == package) types.push_back(&type);
  return types;
}

const Type &add(const std::string &package, const Row &row) { return append_type(package, row); }

const Type &find(const std::string &package, const std::string &message) {
  add_own_rows_once();
  return *lookup(package, message);
}

}  // namespace reference
