// One reading with llhttp, and how it is made to agree with the message readers.
#pragma once

#include <llhttp/llhttp.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "llhttp_reading.h"

namespace tolvane::fuzz {

inline bool isVisible(char c) {
    return static_cast<unsigned char>(c) > ' ';
}
inline std::string reasonOf(const llhttp_t& parser) {
    const char* const reason = llhttp_get_error_reason(&parser);
    return reason != nullptr ? reason : "";
}

// Reads byte by byte, so that the place of every event is known.
class LlhttpRun {
  public:
    LlhttpRun(std::string_view text, llhttp_type_t type, const std::vector<Method>& methods);
    LlhttpReading read();

  private:
    template <int (LlhttpRun::*kHandle)()>
    static int call(llhttp_t* parser) {
        return (static_cast<LlhttpRun*>(parser->data)->*kHandle)();
    }
    // Adds the byte that llhttp is given a byte for.
    template <std::string LlhttpRun::*kText>
    static int append(llhttp_t* parser, const char*, std::size_t length) {
        LlhttpRun& run = *static_cast<LlhttpRun*>(parser->data);
        (run.*kText).append(length, run.text_[run.at_]);
        return 0;
    }
    static int onBody(llhttp_t* parser, const char*, std::size_t) {
        static_cast<LlhttpRun*>(parser->data)->inData_ = true;
        return 0;
    }
    int onMessageBegin();
    int onVersion();
    int onStatus();
    int onName();
    int onValue();
    void endHost();
    int onHead();
    int onChunkHeader();
    int onChunk();
    int onEnd();
    int beginBody();

    // False: the reading stops at the present byte.
    bool readByte();
    bool feed(std::string_view bytes);
    bool feedRepaired(std::string bytes);

    // What llhttp is given in place of the present byte. Nothing: the reading stops.
    std::optional<std::string> given();
    std::string givenForReturn();
    void noteFold();
    bool isBlankBeforeStatus() const;
    bool endsWrongStatus() const;
    // The same for the byte `c` at which llhttp has stopped.
    std::optional<std::string> repaired(char c);
    std::optional<std::string> repairedName(char c);
    std::optional<std::string> repairedChunkLine(char c, std::string_view reason);
    std::optional<std::string> repairedRequestLine();

    // llhttp accepts less, and is given `bytes` instead.
    std::string note(const char* difference, std::string bytes = {}) {
        result_.differences.insert(difference);
        return bytes;
    }
    // llhttp accepts more, and is stopped.
    int refuse(const char* difference) {
        result_.differences.insert(difference);
        refused_ = true;
        return -1;
    }
    void addEvent(std::string what) {
        result_.reading.events.push_back({std::move(what), at_ + 1});
    }
    Method method() const { return ended_ < methods_.size() ? methods_[ended_] : Method::kOther; }
    bool interim() const { return parser_.status_code < 200 && parser_.status_code != 101; }
    bool isField(std::string_view name) const;
    bool framesBody() const { return isField("content-length") || isField("transfer-encoding"); }
    bool inTrailer() const { return headDone_ && (parser_.flags & F_TRAILING) != 0; }
    char before() const { return at_ != 0 ? text_[at_ - 1] : '\0'; }

    const std::string_view text_;
    const std::vector<Method>& methods_;
    LlhttpReading result_;
    llhttp_settings_t settings_;
    llhttp_t parser_;
    llhttp_t messageStart_;      // the parser in front of the present message
    std::size_t messageAt_ = 0;  // offset of the present message
    std::size_t at_ = 0;         // offset of the present byte
    std::size_t ended_ = 0;      // final responses
    char fed_ = '\0';            // the byte that llhttp was given last
    bool refused_ = false;
    bool inMessage_ = false;  // a message has begun and is not complete
    bool hasVersion_ = false;
    bool headDone_ = false;
    bool inFields_ = false;  // behind the first line of the head
    bool inValue_ = false;
    bool inData_ = false;       // the byte read last is data
    bool inExtension_ = false;  // behind the size of a chunk
    bool emptyCoding_ = false;
    bool endsDataWithFeed_ = false;
    bool unframed_ = false;  // the fields contradict each other
    std::string url_;
    std::string host_;
    std::string field_;
    std::string value_;
    bool hasHost_ = false;
};

}  // namespace tolvane::fuzz
