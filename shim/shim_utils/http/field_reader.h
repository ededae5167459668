// Reads the header fields of a request or response.
#pragma once

#include <cstdint>

#include "shim_utils/http/body_reader.h"
#include "shim_utils/http/split_text.h"

namespace tolvane {

// A Host value that is longer matches no name.
using HostText = SplitText<256>;

// Reads the lines behind the first line of a message up to the empty line, however
// they are split. A zeroed object is ready. Names are compared without case.
// A line that is no field is skipped.
class FieldReader {
  public:
    // Moves `p` forward. True: it stands behind the empty line. False: it is `end`,
    // and the fields go on. `host`: receives the value of the first Host field; null:
    // the field is not looked at.
    bool read(const char*& p, const char* end, HostText* host);

    // How the body ends, once all fields have been read. `unchunked`: when it has a
    // coding but is not chunked. `unsaid`: when the fields do not say anything.
    Framing framing(Framing unchunked, Framing unsaid) const;
    std::uint64_t length() const { return length_; }

    // Whether an Upgrade field begins with "h2c". Only read where there is no `host`.
    bool upgradesToHttp2() const { return upgradesToHttp2_; }

    // Value of the last Tv-Status field, 0 without it.
    int overrideCode() const { return overrideCode_; }

  private:
    enum class State : std::uint8_t {
        kLineStart,
        kName,
        kBeforeValue,
        kHost,
        kDigits,
        kBehindDigits,
        kCoding,
        kFramingLineFeed,
        kStatus,
        kProtocol,
        kRestOfLine,
        kEmptyLine,
    };
    enum class Field : std::uint8_t { kOther, kHost, kLength, kCoding, kStatus, kUpgrade };

    bool readUsualLine(const char* line, const char* next, const char* partEnd, HostText* host);
    bool readLine(const char* p, const char* end, HostText* host);
    // Each reads at least one byte, from where `p` is not `end`. The first
    // returns whether it was the last line.
    bool readLineStart(const char*& p, bool ofResponse);
    void readName(const char*& p, const char* end);
    void readValue(const char*& p, const char* end, HostText* host);

    void beginName(Field field);
    void beginValue(const char* p, HostText* host);
    void readDigit(char c);
    void readCoding(char c);
    void endFramingValue(char c);
    void readStatusDigit(char c);
    void readProtocol(char c);
    bool framesBody() const { return field_ == Field::kLength || field_ == Field::kCoding; }

    std::uint64_t length_ = 0;
    int overrideCode_ = 0;
    State state_ = State::kLineStart;
    Field field_ = Field::kOther;  // of the present line, or of the line that it continues
    std::uint8_t matched_ = 0;     // characters of the name, or of "chunked"
    bool hasHost_ = false;
    bool hasLength_ = false;
    bool hasDigit_ = false;
    bool hasCoding_ = false;
    bool chunked_ = false;  // the last coding is
    bool upgradesToHttp2_ = false;
    bool invalid_ = false;  // the framing fields contradict themselves or each other
};

}  // namespace tolvane
