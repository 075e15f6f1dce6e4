// The catalogue of one application: its groups and their attributes in the
// order they were registered. Every name and help text lives in one block of
// text per application, the entries hold offsets into it, and two hash
// indexes of 32-bit slots find a group by its name and an attribute by its
// group and name, so a lookup never scans and a catalogue costs less memory
// than the dp_register request that declared it (docs/zevdchd.md gives the
// figures). The hash is keyed per process: names chosen to collide with each
// other cannot turn the indexes into scans.
#ifndef ZEVD_DCH_ZEVDCHD_CATALOGUE_H
#define ZEVD_DCH_ZEVDCHD_CATALOGUE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace zevd::dch {

// Limits of one application's catalogue.
inline constexpr size_t kMaxGroups = 1024;      // groups of an application
inline constexpr size_t kMaxAttributes = 4096;  // attributes of a group

// An attribute as the catalogue gives it. The texts are views into the
// catalogue's block: valid while the catalogue is neither changed nor gone.
struct Attribute {
    std::string_view name;
    char type = 0;
    int32_t size = 0;
    std::string_view help;
};

class Catalogue;

// Items [0, size) of an owner, read one by one through its at(). The owner
// is held as given: a view by value, a catalogue by pointer.
template <class Owner, class Item>
class IndexRange {
public:
    IndexRange(Owner owner, size_t size) : owner_(owner), size_(size) {}
    class iterator {
    public:
        iterator(Owner owner, size_t at) : owner_(owner), at_(at) {}
        Item operator*() const {
            if constexpr (std::is_pointer_v<Owner>)
                return owner_->at(at_);
            else
                return owner_.at(at_);
        }
        iterator &operator++() {
            ++at_;
            return *this;
        }
        bool operator!=(const iterator &other) const { return at_ != other.at_; }

    private:
        Owner owner_;
        size_t at_;
    };
    iterator begin() const { return iterator(owner_, 0); }
    iterator end() const { return iterator(owner_, size_); }

private:
    Owner owner_;
    size_t size_;
};

// A group of a catalogue: a view, valid as its attributes are.
class Group {
public:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    std::string_view name() const;
    std::string_view help() const;
    size_t size() const;                   // its attributes
    Attribute at(size_t attribute) const;  // attribute < size()
    IndexRange<Group, Attribute> attributes() const { return {*this, size()}; }
    // The index of the attribute of that name in the group, kNone when the
    // group has none.
    size_t find(std::string_view attribute) const;
    // Which group of its catalogue it is, and of which catalogue.
    size_t index() const { return index_; }
    const Catalogue &catalogue() const { return *catalogue_; }

private:
    friend class Catalogue;
    Group(const Catalogue &catalogue, uint32_t index) : catalogue_(&catalogue), index_(index) {}
    const Catalogue *catalogue_;
    uint32_t index_;
};

class Catalogue {
public:
    // Why an addition was refused.
    enum Added { kAdded, kTwice, kNoGroup, kTooLarge };

    // Adds a group after the others; its attributes follow with
    // addAttribute. kTwice when the catalogue has a group of that name.
    Added addGroup(std::string_view name, std::string_view help);
    // Adds an attribute to the last group added: kNoGroup before any,
    // kTwice when that group has an attribute of that name.
    Added addAttribute(std::string_view name, char type, int32_t size, std::string_view help);
    // Gives back what the additions reserved beyond their needs: called once
    // the catalogue is whole.
    void compact();

    size_t groupCount() const { return groups_.size(); }
    Group at(size_t group) const { return Group(*this, static_cast<uint32_t>(group)); }
    IndexRange<const Catalogue *, Group> groups() const { return {this, groupCount()}; }
    std::optional<Group> find(std::string_view group) const;
    // Attributes in every group together.
    size_t attributeCount() const { return attributes_.size(); }

    // The bytes of the dp_register request the library builds for this
    // catalogue and an application named and helped so: what the catalogue
    // weighs against --max-catalogue, whatever request carried it.
    size_t requestBytes(std::string_view appl, std::string_view help) const;
    // The heap the catalogue holds.
    size_t heapBytes() const;

private:
    friend class Group;
    struct GroupEntry {
        uint32_t nameAt, helpAt;
        uint32_t first;  // its first attribute in attributes_
        uint16_t helpLength;
        uint16_t count;  // its attributes
        uint8_t nameLength;
    };
    struct AttributeEntry {
        uint32_t nameAt, helpAt;
        uint16_t helpLength;
        uint16_t size;
        uint8_t nameLength;
        char type;
    };
    std::string_view text(uint32_t at, size_t length) const { return {text_.data() + at, length}; }
    // Appends to the block; false when the block would pass 4 GiB.
    bool keep(std::string_view value, uint32_t &at);
    uint64_t groupHash(std::string_view name) const;
    uint64_t attributeHash(uint32_t group, std::string_view name) const;
    // Index slots hold an entry's index + 1, 0 when free; at most three in
    // four are taken, and linear probing finds the rest.
    void growGroups();
    void growAttributes();

    std::string text_;
    std::vector<GroupEntry> groups_;
    std::vector<AttributeEntry> attributes_;
    std::vector<uint32_t> groupSlots_;
    std::vector<uint32_t> attributeSlots_;
    size_t textBytes_ = 0;  // the names and help texts, for requestBytes()
};

}  // namespace zevd::dch

#endif  // ZEVD_DCH_ZEVDCHD_CATALOGUE_H
