// What the decoders of header blocks keep of the fields: HPACK's static and dynamic
// tables without the texts that nobody asks for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "shim_utils/platform/text.h"

namespace tolvane {

// The field names that the readers look for.
enum class FieldName : std::uint8_t { kOther, kMethod, kAuthority, kPath, kHost, kStatus };

// A field in a table. Its size has to be known to the byte, also where its texts are not.
struct TableField {
    static constexpr std::uint32_t kLongestName = (1U << 13) - 1;

    std::uint16_t name : 3;
    // Of kOther the length of the name; otherwise whatever the value stands for.
    std::uint16_t detail : 13;
    std::uint16_t valueLength;

    FieldName fieldName() const { return static_cast<FieldName>(name); }
    std::uint32_t nameLength() const {
        static constexpr std::uint8_t kLengths[] = {0, 7, 10, 5, 4, 7};
        return name == 0 ? detail : kLengths[name];
    }
};

// The names of the static table.
inline constexpr std::uint32_t kStaticFields = 61;
struct StaticField {
    FieldName name;
    std::uint8_t nameLength;
};
struct StaticTable {
    StaticField fields[kStaticFields + 1] = {};  // by their index, which begins with 1

    constexpr StaticTable() {
        constexpr std::uint8_t kLengths[kStaticFields] = {
            10, 7,  7,  5,  5,  7,  7,  7,  7,  7,  7,  7, 7,  7,  14, 15, 15, 13, 6,  27, 3,
            5,  13, 13, 19, 16, 16, 14, 16, 13, 12, 6,  4, 4,  6,  7,  4,  4,  8,  17, 13, 8,
            19, 13, 4,  8,  12, 18, 19, 5,  7,  7,  11, 6, 10, 25, 17, 10, 4,  3,  16};
        for (std::uint32_t i = 1; i <= kStaticFields; ++i) fields[i].nameLength = kLengths[i - 1];
        fields[1].name = FieldName::kAuthority;
        fields[2].name = fields[3].name = FieldName::kMethod;
        fields[4].name = fields[5].name = FieldName::kPath;
        for (std::uint32_t i = 8; i <= 14; ++i) fields[i].name = FieldName::kStatus;
        fields[38].name = FieldName::kHost;
    }
};
inline constexpr StaticTable kStaticTable;

// The dynamic table, of at most N fields: the newest ones. Peers that agree on a table
// of more than N * 32 bytes may mean a field that is older; it is not found.
template <typename Field, std::uint32_t N>
class DynamicTable {
    static_assert((N & (N - 1)) == 0);

  public:
    static constexpr std::uint32_t kUsualCapacity = 4096;

    void reset() {
        capacity_ = kUsualCapacity;
        clear();
    }
    void setCapacity(std::uint32_t capacity) {
        capacity_ = capacity;
        shrinkTo(capacity);
    }
    // The newest field is 0. Null: there is no such field.
    const Field* find(std::uint32_t position) const {
        if (position >= count_) return nullptr;
        return &fields_[(next_ - 1 - position) % N];
    }
    // Makes room for a field with texts of so many bytes. False: there is none even in
    // the empty table, which it then is.
    bool makeRoom(std::uint32_t textLength) {
        const std::uint32_t size = textLength + kOverhead;
        if (size > capacity_) {
            clear();
            return false;
        }
        shrinkTo(capacity_ - size);
        if (count_ == N) removeOldest();
        return true;
    }
    // There is room.
    void add(const Field& field) {
        fields_[next_++ % N] = field;
        ++count_;
        size_ += sizeOf(field);
    }

  private:
    static constexpr std::uint32_t kOverhead = 32;

    static std::uint32_t sizeOf(const TableField& field) {
        return field.nameLength() + field.valueLength + kOverhead;
    }
    void clear() { count_ = size_ = next_ = 0; }
    void removeOldest() {
        size_ -= sizeOf(fields_[(next_ - count_) % N]);
        --count_;
    }
    void shrinkTo(std::uint32_t size) {
        while (size_ > size) removeOldest();
    }

    std::uint32_t capacity_;
    std::uint32_t size_;   // of all fields as the peers count it
    std::uint32_t count_;  // fields
    std::uint32_t next_;   // where the next one goes, modulo N
    Field fields_[N];
};

// The values that the fields of a dynamic table have: the last N bytes of them. With
// a table of up to N bytes this is every value that is in use.
template <std::uint32_t N>
class ValueRing {
    static_assert((N & (N - 1)) == 0 && N <= 1U << 15);

  public:
    // The position to find the value by.
    std::uint16_t add(const char* value, std::uint32_t length) {
        const std::uint16_t position = next_;
        next_ = static_cast<std::uint16_t>(next_ + length);
        const std::uint32_t atEnd = bytesToEnd(position, length);
        std::memcpy(bytes_ + position % N, value, atEnd);
        std::memcpy(bytes_, value + atEnd, length - atEnd);
        return position;
    }
    // False: the value is no longer there. The fields between an old value and the
    // next one have less than 64 KB, so that its position is not ambiguous.
    bool copy(std::uint16_t position, char* to, std::uint32_t length) const {
        if (static_cast<std::uint16_t>(next_ - position) > N) return false;
        const std::uint32_t atEnd = bytesToEnd(position, length);
        std::memcpy(to, bytes_ + position % N, atEnd);
        std::memcpy(to + atEnd, bytes_, length - atEnd);
        return true;
    }

  private:
    static std::uint32_t bytesToEnd(std::uint16_t position, std::uint32_t length) {
        const std::uint32_t left = N - position % N;
        return length < left ? length : left;
    }

    std::uint16_t next_;
    char bytes_[N];
};

}  // namespace tolvane
