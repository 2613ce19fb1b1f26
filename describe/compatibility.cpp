#include "describe/compatibility.h"

#include <algorithm>

namespace drix::describe {
namespace {

// What a peer makes of a slot of the other version.
enum class Effect { same, zero, wrong, given_up };

const char *text_of(Effect effect) {
  switch (effect) {
    case Effect::same:
      return "wire compatible: the bytes are the same";
    case Effect::zero:
      return "wire compatible: peers see zero";
    case Effect::wrong:
      return "wire incompatible: peers read a wrong value";
    case Effect::given_up:
      break;
  }
  return "wire incompatible: peers reject the record";
}

const SchemaType *find_type(const Schema &schema, const std::string &name) {
  const auto found =
      std::lower_bound(schema.begin(), schema.end(), name,
                       [](const SchemaType &type, const std::string &wanted) { return type.name < wanted; });
  return found != schema.end() && found->name == name ? &*found : nullptr;
}

std::string package_of(const SchemaType &type) { return type.name.substr(0, type.name.find('.') + 1); }

bool is_octets(const SchemaSlot &slot) { return slot.kind == Kind::array && slot.width == 1; }

class Comparison {
 public:
  Comparison(const Schema &old_types, const Schema &new_types) : old_(old_types), new_(new_types) {}

  std::vector<Difference> run() {
    for (const SchemaType &type : old_) {
      if (const SchemaType *now = find_type(new_, type.name)) {
        compare_types(type, *now);
      } else {
        add(type.name + " removed", "peers still send it and nobody decodes it", false);
      }
    }
    for (const SchemaType &type : new_) {
      if (find_type(old_, type.name) == nullptr) add(type.name + " added", "old peers have no decoder for it", true);
    }
    return std::move(differences_);
  }

 private:
  void add(std::string what, std::string consequence, bool compatible) {
    differences_.push_back({std::move(what), std::move(consequence), compatible});
  }

  void add(std::string what, Effect effect) {
    add(std::move(what), text_of(effect), effect == Effect::same || effect == Effect::zero);
  }

  void compare_types(const SchemaType &before, const SchemaType &now) {
    if (before.id != now.id) add(now.name + ": message ID changed", "peers do not know it", false);
    const std::size_t common = std::min(before.slots.size(), now.slots.size());
    for (std::size_t i = 0; i < common; ++i) {
      const std::string was = kind_text(before.slots[i]);
      const std::string is = kind_text(now.slots[i]);
      if (was == is) continue;
      add(slot_name(now, i) + ": " + was + " became " + is, effect(before, before.slots[i], now, now.slots[i]));
    }
    for (std::size_t i = common; i < now.slots.size(); ++i) {
      add(slot_name(now, i) + ": " + kind_text(now.slots[i]) + " appended", Effect::zero);
    }
    for (std::size_t i = common; i < before.slots.size(); ++i) {
      add(slot_name(now, i) + ": " + kind_text(before.slots[i]) + " removed", Effect::zero);
    }
    compare_records(before, now, common);
  }

  static std::string slot_name(const SchemaType &type, std::size_t slot) {
    return type.name + " slot " + std::to_string(slot);
  }

  // The worse of what new peers make of the old slot and old peers of the new one.
  Effect effect(const SchemaType &old_type, const SchemaSlot &was, const SchemaType &new_type,
                const SchemaSlot &is) const {
    const bool inner = was.kind == Kind::table || was.kind == Kind::vector;
    if (inner && was.kind == is.kind) return inner_effect(old_type, was, new_type, is);
    if (was.kind == Kind::array && is.kind == Kind::array && was.elements != is.elements) return Effect::given_up;
    // Unless as many bytes happen to be there as the array has.
    if (was.kind == Kind::bytes && is_octets(is)) return Effect::given_up;
    if (is.kind == Kind::bytes && is_octets(was)) return Effect::given_up;
    return Effect::wrong;
  }

  // Names do not travel: another inner type of the same kinds is the same on the wire.
  Effect inner_effect(const SchemaType &old_type, const SchemaSlot &was, const SchemaType &new_type,
                      const SchemaSlot &is) const {
    const SchemaType *before = find_type(old_, package_of(old_type) + was.inner);
    const SchemaType *now = find_type(new_, package_of(new_type) + is.inner);
    if (before == nullptr || now == nullptr) return Effect::wrong;
    const bool same = std::equal(before->slots.begin(), before->slots.end(), now->slots.begin(), now->slots.end(),
                                 [](const auto &a, const auto &b) { return kind_text(a) == kind_text(b); });
    return same ? Effect::same : Effect::wrong;
  }

  void compare_records(const SchemaType &before, const SchemaType &now, std::size_t common) {
    constexpr const char *kConsequence = "binary interface incompatible: new SONAME";
    if (before.record_size != now.record_size) {
      add(now.name + ": record of " + sizes(before.record_size) + " bytes became " + sizes(now.record_size),
          kConsequence, false);
      return;  // where members went then follows
    }
    for (std::size_t i = 0; i < common; ++i) {
      const SchemaSlot &was = before.slots[i];
      const SchemaSlot &is = now.slots[i];
      if (was.member != is.member) {
        add(slot_name(now, i) + ": member moved from " + sizes(was.member) + " to " + sizes(is.member), kConsequence,
            false);
      } else if (kind_text(was) != kind_text(is)) {
        add(slot_name(now, i) + ": member changed its type", kConsequence, false);
      }
    }
  }

  static std::string sizes(const ByPointer &value) {
    const std::string text = std::to_string(value.of_4);
    return value.of_4 == value.of_8 ? text : text + " (64-bit " + std::to_string(value.of_8) + ")";
  }

  const Schema &old_;
  const Schema &new_;
  std::vector<Difference> differences_;
};

}  // namespace

std::vector<Difference> compare(const Schema &old_types, const Schema &new_types) {
  return Comparison(old_types, new_types).run();
}

}  // namespace drix::describe
