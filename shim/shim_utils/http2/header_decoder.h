// Decodes header blocks (HPACK), one after the other as they are on the connection.
#pragma once

#include <cstdint>

#include "shim_utils/http2/header_fields.h"
#include "shim_utils/http2/header_table.h"
#include "shim_utils/http2/huffman.h"

namespace tolvane {

// Decodes the blocks of one direction, however they are split. Behind an error nothing
// can be decoded any more.
template <typename Fields>
class HeaderDecoder {
  public:
    static constexpr std::uint32_t kLargestTable = 65536;

    // Ready for a new connection.
    void reset();

    // The other side has announced that its table may have so many bytes. A smaller
    // value than before is not enforced: the peer's next block says what it uses, and
    // it may be on its way before the peer has got the announcement.
    void allowTable(std::uint32_t size);

    void beginBlock();
    // Decodes all of [p, end). False: an error.
    bool read(const char* p, const char* end);
    // False: the block ends within a field.
    bool endBlock() const { return state_ == State::kField; }

    // Of the block that has been decoded.
    const Fields& fields() const { return fields_; }

  private:
    enum class State : std::uint8_t {
        kField,
        kIndex,
        kNameLength,
        kMoreNameLength,
        kName,
        kValueLength,
        kMoreValueLength,
        kValue,
    };
    enum class Form : std::uint8_t { kIndexed, kAdded, kNotAdded, kTableSize };

    bool readByte(std::uint8_t byte);
    bool beginField(std::uint8_t byte);
    bool beginLength(std::uint8_t byte);
    bool addToInteger(std::uint8_t byte);
    bool useIndex();
    bool useIndexedField();
    bool useIndexedName();
    bool changeTableSize();
    bool beginString();
    bool readString(const char*& p, const char* end);
    bool endName();
    bool endField();
    bool addToTable();

    State state_;
    Form form_;
    bool sizeMayChange_;  // no field of the block has been read
    bool huffman_;
    FieldName name_;
    std::uint8_t shift_;     // of the next byte of the integer
    std::uint32_t integer_;  // an index or a length, as far as it has been read
    std::uint32_t left_;     // bytes of the string
    std::uint32_t nameLength_;
    std::uint32_t largestTable_;  // that has been announced
    HuffmanDecoder code_;
    HuffmanDecoder::Output text_;  // the present string
    char nameText_[10];
    Fields fields_;
    DynamicTable<typename Fields::Field, Fields::kTableFields> table_;
};

using RequestDecoder = HeaderDecoder<RequestFields>;
using ResponseDecoder = HeaderDecoder<ResponseFields>;
extern template class HeaderDecoder<RequestFields>;
extern template class HeaderDecoder<ResponseFields>;

}  // namespace tolvane
