#include "shim_utils/http2/header_decoder.h"

#include <cstring>

namespace tolvane {
namespace {

// No server accepts longer texts.
constexpr std::uint32_t kLongestString = 65536;
constexpr std::uint8_t kContinued = 0x80;

}  // namespace

template <typename Fields>
void HeaderDecoder<Fields>::reset() {
    state_ = State::kField;
    table_.reset();
    largestTable_ = table_.kUsualCapacity;
}

template <typename Fields>
void HeaderDecoder<Fields>::allowTable(std::uint32_t size) {
    if (size > kLargestTable) size = kLargestTable;
    if (size > largestTable_) largestTable_ = size;
}

template <typename Fields>
void HeaderDecoder<Fields>::beginBlock() {
    sizeMayChange_ = true;
    fields_.beginBlock();
}

template <typename Fields>
bool HeaderDecoder<Fields>::read(const char* p, const char* end) {
    while (p != end) {
        if (state_ == State::kName || state_ == State::kValue) {
            if (!readString(p, end)) return false;
        } else if (!readByte(static_cast<std::uint8_t>(*p++))) {
            return false;
        }
    }
    return true;
}

// ------------------------------------------------------------------ integers

template <typename Fields>
bool HeaderDecoder<Fields>::readByte(std::uint8_t byte) {
    switch (state_) {
        case State::kField:
            return beginField(byte);
        case State::kIndex:
            return addToInteger(byte) && (byte >= kContinued || useIndex());
        case State::kNameLength:
        case State::kValueLength:
            return beginLength(byte);
        default:
            return addToInteger(byte) && (byte >= kContinued || beginString());
    }
}

template <typename Fields>
bool HeaderDecoder<Fields>::beginField(std::uint8_t byte) {
    std::uint8_t mask = 0x0F;
    form_ = Form::kNotAdded;
    if (byte >= 0x80) {
        mask = 0x7F;
        form_ = Form::kIndexed;
    } else if (byte >= 0x40) {
        mask = 0x3F;
        form_ = Form::kAdded;
    } else if (byte >= 0x20) {
        mask = 0x1F;
        form_ = Form::kTableSize;
    }
    integer_ = byte & mask;
    if (integer_ != mask) return useIndex();
    shift_ = 0;
    state_ = State::kIndex;
    return true;
}

template <typename Fields>
bool HeaderDecoder<Fields>::beginLength(std::uint8_t byte) {
    huffman_ = byte >= 0x80;
    integer_ = byte & 0x7F;
    if (integer_ != 0x7F) return beginString();
    shift_ = 0;
    state_ = state_ == State::kNameLength ? State::kMoreNameLength : State::kMoreValueLength;
    return true;
}

// False: the integer has more than 32 bits.
template <typename Fields>
bool HeaderDecoder<Fields>::addToInteger(std::uint8_t byte) {
    if (shift_ >= 32) return false;
    const std::uint64_t sum =
        integer_ + (std::uint64_t{static_cast<std::uint8_t>(byte & 0x7F)} << shift_);
    integer_ = static_cast<std::uint32_t>(sum);
    shift_ += 7;
    return sum <= ~0U;
}

// ------------------------------------------------------------------- indices

template <typename Fields>
bool HeaderDecoder<Fields>::useIndex() {
    if (form_ == Form::kTableSize) return changeTableSize();
    sizeMayChange_ = false;
    if (form_ == Form::kIndexed) return useIndexedField();
    if (integer_ != 0) return useIndexedName();
    state_ = State::kNameLength;
    return true;
}

template <typename Fields>
bool HeaderDecoder<Fields>::changeTableSize() {
    if (!sizeMayChange_ || integer_ > largestTable_) return false;
    table_.setCapacity(integer_);
    state_ = State::kField;
    return true;
}

template <typename Fields>
bool HeaderDecoder<Fields>::useIndexedField() {
    state_ = State::kField;
    if (integer_ == 0) return false;
    if (integer_ <= kStaticFields) {
        fields_.setStatic(integer_);
        return true;
    }
    const auto* field = table_.find(integer_ - kStaticFields - 1);
    if (field == nullptr) return false;
    fields_.setFrom(*field);
    return true;
}

template <typename Fields>
bool HeaderDecoder<Fields>::useIndexedName() {
    state_ = State::kValueLength;
    if (integer_ <= kStaticFields) {
        const StaticField field = kStaticTable.fields[integer_];
        name_ = Fields::nameOf(field.name);
        nameLength_ = field.nameLength;
        return true;
    }
    const auto* field = table_.find(integer_ - kStaticFields - 1);
    if (field == nullptr) return false;
    name_ = field->fieldName();
    nameLength_ = field->nameLength();
    return true;
}

// ------------------------------------------------------------------- strings

template <typename Fields>
bool HeaderDecoder<Fields>::beginString() {
    if (integer_ > kLongestString) return false;
    left_ = integer_;
    code_ = {};
    if (state_ <= State::kMoreNameLength) {
        state_ = State::kName;
        text_ = {nameText_, sizeof nameText_, 0};
        return left_ != 0 || endName();
    }
    const ValueBuffer buffer = fields_.bufferFor(name_);
    state_ = State::kValue;
    text_ = {buffer.to, buffer.capacity, 0};
    return left_ != 0 || endField();
}

template <typename Fields>
bool HeaderDecoder<Fields>::readString(const char*& p, const char* end) {
    const auto available = static_cast<std::size_t>(end - p);
    const auto n = available < left_ ? static_cast<std::uint32_t>(available) : left_;
    if (huffman_) {
        if (!code_.read(p, p + n, text_)) return false;
    } else {
        const std::uint32_t room =
            text_.capacity > text_.length ? text_.capacity - text_.length : 0;
        const std::uint32_t kept = n < room ? n : room;
        if (kept != 0) std::memcpy(text_.to + text_.length, p, kept);
        text_.length += n;
    }
    p += n;
    left_ -= n;
    if (left_ != 0) return true;
    if (huffman_ && !code_.mayEnd()) return false;
    return state_ == State::kName ? endName() : endField();
}

template <typename Fields>
bool HeaderDecoder<Fields>::endName() {
    nameLength_ = text_.length;
    name_ = nameLength_ <= sizeof nameText_ ? Fields::nameOf(Bytes{nameText_, nameLength_})
                                            : FieldName::kOther;
    state_ = State::kValueLength;
    return true;
}

template <typename Fields>
bool HeaderDecoder<Fields>::endField() {
    fields_.setValue(name_, text_.length);
    state_ = State::kField;
    return form_ != Form::kAdded || addToTable();
}

// False: the name is longer than any name that makes sense.
template <typename Fields>
bool HeaderDecoder<Fields>::addToTable() {
    if (!table_.makeRoom(nameLength_ + text_.length)) return true;
    if (nameLength_ > TableField::kLongestName) return false;
    typename Fields::Field field = {};
    field.name = static_cast<std::uint16_t>(name_) & 7U;
    field.detail = nameLength_ & TableField::kLongestName;
    field.valueLength = static_cast<std::uint16_t>(text_.length);
    fields_.keepValue(field);
    table_.add(field);
    return true;
}

template class HeaderDecoder<RequestFields>;
template class HeaderDecoder<ResponseFields>;

}  // namespace tolvane
