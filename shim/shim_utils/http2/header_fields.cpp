#include "shim_utils/http2/header_fields.h"

#include <cstring>

namespace tolvane {
namespace {

template <std::size_t N>
bool isText(Bytes text, const char (&wanted)[N]) {
    return text.length == N - 1 && std::memcmp(text.data, wanted, N - 1) == 0;
}

}  // namespace

// ------------------------------------------------------------------ requests

void RequestFields::beginBlock() {
    copies_ = 0;
    method_ = Method::kOther;
    authority_.clear();
    host_.clear();
    path_.clear();
}

FieldName RequestFields::nameOf(Bytes name) {
    if (isText(name, ":path")) return FieldName::kPath;
    if (isText(name, ":method")) return FieldName::kMethod;
    if (isText(name, ":authority")) return FieldName::kAuthority;
    return isText(name, "host") ? FieldName::kHost : FieldName::kOther;
}

template <typename Use>
void RequestFields::withText(FieldName name, Use use) {
    if (name == FieldName::kAuthority) use(authority_);
    if (name == FieldName::kHost) use(host_);
    if (name == FieldName::kPath) use(path_);
}

ValueBuffer RequestFields::bufferFor(FieldName name) {
    if (name == FieldName::kMethod) return {methodText_, sizeof methodText_};
    ValueBuffer buffer = {};
    withText(name, [&](auto& text) { buffer = {text.buffer(), text.kCapacity}; });
    return buffer;
}

void RequestFields::setValue(FieldName name, std::uint32_t length) {
    if (name == FieldName::kMethod) {
        const Bytes text = {methodText_, length};
        method_ = isText(text, "HEAD")      ? Method::kHead
                  : isText(text, "CONNECT") ? Method::kConnect
                                            : Method::kOther;
    }
    withText(name, [length](auto& text) { text.setLength(length); });
}

void RequestFields::setStatic(std::uint32_t index) {
    static constexpr char kIndexPath[] = "/index.html";
    constexpr std::uint32_t kRootIndex = 4;
    const FieldName name = kStaticTable.fields[index].name;
    std::uint32_t length = 0;
    if (name == FieldName::kPath) {
        length = index == kRootIndex ? 1 : sizeof kIndexPath - 1;
        std::memcpy(path_.buffer(), kIndexPath, length);
    }
    if (name == FieldName::kMethod) {
        method_ = Method::kOther;  // GET or POST
    } else {
        setValue(name, length);
    }
}

void RequestFields::setFrom(const Field& field) {
    if (field.fieldName() == FieldName::kMethod) method_ = static_cast<Method>(field.detail);
    withText(field.fieldName(), [&](auto& text) {
        // A block mentions a field once. Each further mention is a byte that costs a copy.
        constexpr std::uint8_t kMostCopies = 32;
        if (copies_ == kMostCopies) return text.setUnknown();
        ++copies_;
        if (field.valueLength <= text.kCapacity &&
            values_.copy(field.position, text.buffer(), field.valueLength)) {
            text.setLength(field.valueLength);
        } else {
            text.setUnknown();
        }
    });
}

void RequestFields::keepValue(Field& field) {
    if (field.fieldName() == FieldName::kMethod) {
        field.detail = static_cast<std::uint16_t>(method_) & 3U;
    }
    withText(field.fieldName(), [&](auto& text) {
        if (field.valueLength > text.kCapacity) return;
        field.position = values_.add(text.buffer(), field.valueLength);
    });
}

// ----------------------------------------------------------------- responses

FieldName ResponseFields::nameOf(Bytes name) {
    return isText(name, ":status") ? FieldName::kStatus : FieldName::kOther;
}

ValueBuffer ResponseFields::bufferFor(FieldName name) {
    if (name != FieldName::kStatus) return {};
    return {digits_, sizeof digits_};
}

void ResponseFields::setValue(FieldName name, std::uint32_t length) {
    if (name != FieldName::kStatus) return;
    status_ = 0;
    if (length != sizeof digits_) return;
    for (const char digit : digits_) {
        if (!isDigit(digit)) status_ = 0;
        if (!isDigit(digit)) return;
        status_ = static_cast<std::uint16_t>(status_ * 10 + (digit - '0'));
    }
}

void ResponseFields::setStatic(std::uint32_t index) {
    constexpr std::uint16_t kStatuses[] = {200, 204, 206, 304, 400, 404, 500};
    constexpr std::uint32_t kFirst = 8;
    if (kStaticTable.fields[index].name == FieldName::kStatus) status_ = kStatuses[index - kFirst];
}

void ResponseFields::setFrom(const Field& field) {
    if (field.fieldName() == FieldName::kStatus) status_ = field.detail;
}

void ResponseFields::keepValue(Field& field) const {
    if (field.fieldName() == FieldName::kStatus) field.detail = status_ & TableField::kLongestName;
}

}  // namespace tolvane
