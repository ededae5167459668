// What is kept of the header fields of requests and of responses.
#pragma once

#include <cstdint>

#include "shim_utils/http/request_reader.h"
#include "shim_utils/http2/header_table.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// Where the value of the present field goes; capacity 0: it is not kept.
struct ValueBuffer {
    char* to;
    std::uint32_t capacity;
};

// A value of at most N bytes.
template <std::uint32_t N>
class FieldText {
  public:
    static constexpr std::uint32_t kCapacity = N;

    void clear() { length_ = kNone; }
    bool present() const { return length_ != kNone; }
    // A value whose text is not known.
    void setUnknown() { length_ = N + 1; }
    void setLength(std::uint32_t length) { length_ = length; }
    char* buffer() { return buffer_; }
    // Null when there is no value, an empty one, or one of more than N bytes.
    Bytes text() const {
        if (length_ == 0 || length_ > N) return {};
        return {buffer_, length_};
    }

  private:
    static constexpr std::uint32_t kNone = ~0U;

    std::uint32_t length_;
    char buffer_[N];
};

// Of a request: method, authority or host, and path.
class RequestFields {
  public:
    struct Field : TableField {
        std::uint16_t position;  // of the value in the ring
    };
    static constexpr std::uint32_t kTableFields = 128;

    void beginBlock();

    Method method() const { return method_; }
    // The authority, else the value of the host field.
    Bytes host() const { return authority_.present() ? authority_.text() : host_.text(); }
    Bytes path() const { return path_.text(); }

    // The names that are not of interest are kOther.
    static FieldName nameOf(Bytes name);
    static FieldName nameOf(FieldName name) {
        return name == FieldName::kStatus ? FieldName::kOther : name;
    }
    ValueBuffer bufferFor(FieldName name);
    // The value is in its buffer as far as it fits.
    void setValue(FieldName name, std::uint32_t length);
    void setStatic(std::uint32_t index);
    void setFrom(const Field& field);
    // Keeps the value that has been set with `field`, which goes into the table.
    void keepValue(Field& field);

  private:
    // Calls `use` with the text of `name`, if it has one.
    template <typename Use>
    void withText(FieldName name, Use use);

    char methodText_[8];
    std::uint8_t copies_;  // out of the table, for the present block
    Method method_;
    FieldText<256> authority_;
    FieldText<256> host_;
    FieldText<3072> path_;  // a longer path matches no category
    ValueRing<4096> values_;
};

// Of a response: the status.
class ResponseFields {
  public:
    using Field = TableField;
    static constexpr std::uint32_t kTableFields = 512;

    void beginBlock() { status_ = 0; }

    // 0: there is none.
    int status() const { return status_; }

    static FieldName nameOf(Bytes name);
    static FieldName nameOf(FieldName name) {
        return name == FieldName::kStatus ? name : FieldName::kOther;
    }
    ValueBuffer bufferFor(FieldName name);
    void setValue(FieldName name, std::uint32_t length);
    void setStatic(std::uint32_t index);
    void setFrom(const Field& field);
    void keepValue(Field& field) const;

  private:
    std::uint16_t status_;
    char digits_[3];
};

}  // namespace tolvane
