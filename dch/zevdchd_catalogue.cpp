// The catalogue's block of text, its entries and its two hash indexes.
#include "zevdchd_catalogue.h"

#include <sys/random.h>

#include <chrono>
#include <cstring>
#include <limits>

namespace zevd::dch {

namespace {

// SipHash-1-3 over value, keyed per process: a peer cannot know which names
// collide, so it cannot pile names onto one run of slots.
struct HashKey {
    uint64_t k0, k1;
};

const HashKey &hashKey() {
    static const HashKey key = [] {
        HashKey k{};
        if (getrandom(&k, sizeof k, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof k)) {
            // No entropy yet (early boot): the clock still differs from run to run.
            uint64_t now =
                static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
            k.k0 = now ^ 0x9e3779b97f4a7c15ULL;
            k.k1 = (now << 17) ^ reinterpret_cast<uintptr_t>(&k);
        }
        return k;
    }();
    return key;
}

inline uint64_t rotl(uint64_t x, int b) {
    return (x << b) | (x >> (64 - b));
}

uint64_t sipHash(uint64_t k0, uint64_t k1, std::string_view value) {
    uint64_t v0 = k0 ^ 0x736f6d6570736575ULL, v1 = k1 ^ 0x646f72616e646f6dULL;
    uint64_t v2 = k0 ^ 0x6c7967656e657261ULL, v3 = k1 ^ 0x7465646279746573ULL;
    auto round = [&] {
        v0 += v1;
        v1 = rotl(v1, 13);
        v1 ^= v0;
        v0 = rotl(v0, 32);
        v2 += v3;
        v3 = rotl(v3, 16);
        v3 ^= v2;
        v0 += v3;
        v3 = rotl(v3, 21);
        v3 ^= v0;
        v2 += v1;
        v1 = rotl(v1, 17);
        v1 ^= v2;
        v2 = rotl(v2, 32);
    };
    size_t whole = value.size() / 8 * 8;
    for (size_t i = 0; i < whole; i += 8) {
        uint64_t m = 0;
        for (int b = 0; b < 8; ++b)
            m |= static_cast<uint64_t>(static_cast<unsigned char>(value[i + b])) << (8 * b);
        v3 ^= m;
        round();
        v0 ^= m;
    }
    uint64_t last = static_cast<uint64_t>(value.size()) << 56;
    for (size_t i = whole; i < value.size(); ++i)
        last |= static_cast<uint64_t>(static_cast<unsigned char>(value[i])) << (8 * (i - whole));
    v3 ^= last;
    round();
    v0 ^= last;
    v2 ^= 0xff;
    round();
    round();
    round();
    return v0 ^ v1 ^ v2 ^ v3;
}

// A slot count for count entries with at most three slots in four taken:
// a power of two, so that a hash is reduced to a slot by a mask.
size_t slotsFor(size_t count) {
    size_t slots = 2;
    while (count * 4 > slots * 3) slots *= 2;
    return slots;
}

// Bytes of a string field as the library's writer makes it: type, length,
// the characters and their zero.
constexpr size_t kStringField = 2 + 4 + 1;
constexpr size_t kShortField = 2 + 4 + 2;
constexpr size_t kIntField = 2 + 4 + 4;

}  // namespace

std::string_view Group::name() const {
    const Catalogue::GroupEntry &g = catalogue_->groups_[index_];
    return catalogue_->text(g.nameAt, g.nameLength);
}

std::string_view Group::help() const {
    const Catalogue::GroupEntry &g = catalogue_->groups_[index_];
    return catalogue_->text(g.helpAt, g.helpLength);
}

size_t Group::size() const {
    return catalogue_->groups_[index_].count;
}

Attribute Group::at(size_t attribute) const {
    const Catalogue::AttributeEntry &a =
        catalogue_->attributes_[catalogue_->groups_[index_].first + attribute];
    return {catalogue_->text(a.nameAt, a.nameLength), a.type, a.size,
            catalogue_->text(a.helpAt, a.helpLength)};
}

size_t Group::find(std::string_view attribute) const {
    const Catalogue &c = *catalogue_;
    const Catalogue::GroupEntry &g = c.groups_[index_];
    if (c.attributeSlots_.empty()) return kNone;
    size_t mask = c.attributeSlots_.size() - 1;
    size_t slot = c.attributeHash(index_, attribute) & mask;
    // Bounded: at least one slot in four is free.
    for (size_t probes = 0; probes <= mask; ++probes, slot = (slot + 1) & mask) {
        uint32_t taken = c.attributeSlots_[slot];
        if (taken == 0) return kNone;
        uint32_t at = taken - 1;
        if (at < g.first || at - g.first >= g.count) continue;  // another group's
        const Catalogue::AttributeEntry &a = c.attributes_[at];
        if (c.text(a.nameAt, a.nameLength) == attribute) return at - g.first;
    }
    return kNone;
}

uint64_t Catalogue::groupHash(std::string_view name) const {
    return sipHash(hashKey().k0, hashKey().k1, name);
}

uint64_t Catalogue::attributeHash(uint32_t group, std::string_view name) const {
    return sipHash(hashKey().k0 ^ (uint64_t{group} << 32 | group), hashKey().k1, name);
}

std::optional<Group> Catalogue::find(std::string_view group) const {
    if (groupSlots_.empty()) return std::nullopt;
    size_t mask = groupSlots_.size() - 1;
    size_t slot = groupHash(group) & mask;
    for (size_t probes = 0; probes <= mask; ++probes, slot = (slot + 1) & mask) {
        uint32_t taken = groupSlots_[slot];
        if (taken == 0) return std::nullopt;
        const GroupEntry &g = groups_[taken - 1];
        if (text(g.nameAt, g.nameLength) == group) return Group(*this, taken - 1);
    }
    return std::nullopt;
}

bool Catalogue::keep(std::string_view value, uint32_t &at) {
    if (text_.size() + value.size() > std::numeric_limits<uint32_t>::max()) return false;
    at = static_cast<uint32_t>(text_.size());
    text_.append(value);
    textBytes_ += value.size();
    return true;
}

void Catalogue::growGroups() {
    std::vector<uint32_t> slots(slotsFor(groups_.size() + 1));
    size_t mask = slots.size() - 1;
    for (uint32_t i = 0; i < groups_.size(); ++i) {
        size_t slot = groupHash(text(groups_[i].nameAt, groups_[i].nameLength)) & mask;
        while (slots[slot] != 0) slot = (slot + 1) & mask;
        slots[slot] = i + 1;
    }
    groupSlots_ = std::move(slots);
}

void Catalogue::growAttributes() {
    std::vector<uint32_t> slots(slotsFor(attributes_.size() + 1));
    size_t mask = slots.size() - 1;
    for (uint32_t g = 0; g < groups_.size(); ++g) {
        for (uint32_t i = groups_[g].first; i < groups_[g].first + groups_[g].count; ++i) {
            const AttributeEntry &a = attributes_[i];
            size_t slot = attributeHash(g, text(a.nameAt, a.nameLength)) & mask;
            while (slots[slot] != 0) slot = (slot + 1) & mask;
            slots[slot] = i + 1;
        }
    }
    attributeSlots_ = std::move(slots);
}

Catalogue::Added Catalogue::addGroup(std::string_view name, std::string_view help) {
    if (find(name)) return kTwice;
    if (name.size() > std::numeric_limits<uint8_t>::max() ||
        help.size() > std::numeric_limits<uint16_t>::max() ||
        groups_.size() >= std::numeric_limits<uint32_t>::max() - 1)
        return kTooLarge;
    GroupEntry g{};
    if (!keep(name, g.nameAt) || !keep(help, g.helpAt)) return kTooLarge;
    g.nameLength = static_cast<uint8_t>(name.size());
    g.helpLength = static_cast<uint16_t>(help.size());
    g.first = static_cast<uint32_t>(attributes_.size());
    if ((groups_.size() + 1) * 4 > groupSlots_.size() * 3) growGroups();
    groups_.push_back(g);
    size_t mask = groupSlots_.size() - 1;
    size_t slot = groupHash(name) & mask;
    while (groupSlots_[slot] != 0) slot = (slot + 1) & mask;
    groupSlots_[slot] = static_cast<uint32_t>(groups_.size());
    return kAdded;
}

Catalogue::Added Catalogue::addAttribute(std::string_view name, char type, int32_t size,
                                         std::string_view help) {
    if (groups_.empty()) return kNoGroup;
    uint32_t group = static_cast<uint32_t>(groups_.size() - 1);
    if (at(group).find(name) != Group::kNone) return kTwice;
    if (name.size() > std::numeric_limits<uint8_t>::max() ||
        help.size() > std::numeric_limits<uint16_t>::max() || size < 0 ||
        size > std::numeric_limits<uint16_t>::max() ||
        groups_.back().count == std::numeric_limits<uint16_t>::max() ||
        attributes_.size() >= std::numeric_limits<uint32_t>::max() - 1)
        return kTooLarge;
    AttributeEntry a{};
    if (!keep(name, a.nameAt) || !keep(help, a.helpAt)) return kTooLarge;
    a.nameLength = static_cast<uint8_t>(name.size());
    a.helpLength = static_cast<uint16_t>(help.size());
    a.size = static_cast<uint16_t>(size);
    a.type = type;
    if ((attributes_.size() + 1) * 4 > attributeSlots_.size() * 3) growAttributes();
    attributes_.push_back(a);
    ++groups_.back().count;
    size_t mask = attributeSlots_.size() - 1;
    size_t slot = attributeHash(group, name) & mask;
    while (attributeSlots_[slot] != 0) slot = (slot + 1) & mask;
    attributeSlots_[slot] = static_cast<uint32_t>(attributes_.size());
    return kAdded;
}

void Catalogue::compact() {
    text_.shrink_to_fit();
    groups_.shrink_to_fit();
    attributes_.shrink_to_fit();
}

size_t Catalogue::requestBytes(std::string_view appl, std::string_view help) const {
    // Length word and request code, the application's name and help, each
    // group's, and each attribute's name, type, size and help.
    return 4 + kShortField + 2 * kStringField + appl.size() + help.size() +
           groups_.size() * 2 * kStringField +
           attributes_.size() * (2 * kStringField + kShortField + kIntField) + textBytes_;
}

size_t Catalogue::heapBytes() const {
    return text_.capacity() + groups_.capacity() * sizeof(GroupEntry) +
           attributes_.capacity() * sizeof(AttributeEntry) +
           (groupSlots_.capacity() + attributeSlots_.capacity()) * sizeof(uint32_t);
}

}  // namespace zevd::dch
