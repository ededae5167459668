#include "shim_utils/http2/http2_reader.h"

#include <cstring>
#include <type_traits>

namespace tolvane {
namespace {

enum FrameType : std::uint8_t {
    kDataFrame = 0,
    kHeadersFrame = 1,
    kResetFrame = 3,
    kSettingsFrame = 4,
    kPromiseFrame = 5,
    kGoAwayFrame = 7,
    kContinuationFrame = 9,
};
enum FrameFlag : std::uint8_t {
    kAcknowledged = 0x01,
    kEndStream = 0x01,
    kEndHeaders = 0x04,
    kPadded = 0x08,
    kPriority = 0x20,
};

constexpr std::uint32_t kHeadLength = 9;
constexpr std::uint32_t kPriorityLength = 5;
constexpr std::uint32_t kStreamLength = 4;
constexpr std::uint32_t kResetLength = 4;
constexpr std::uint32_t kGoAwayLength = 8;
constexpr std::uint32_t kSettingLength = 6;
constexpr std::uint32_t kTableSizeSetting = 1;
constexpr std::uint32_t kStreamMask = 0x7FFF'FFFF;

template <typename Fields>
constexpr bool kOfClient = std::is_same_v<Fields, RequestFields>;

}  // namespace

template <typename Fields>
void Http2Reader<Fields>::reset(std::size_t prefaceBytes, bool upgraded) {
    state_ = kOfClient<Fields> ? State::kPreface : State::kFrameHead;
    begun_ = false;
    gatheredBytes_ = 0;
    unreported_ = static_cast<std::uint32_t>(prefaceBytes);
    blockStream_ = 0;
    lastStream_ = upgraded ? 1 : 0;
    announcedTable_ = 0;
    decoder_.reset();
    // The request to upgrade has the client's first settings, which are not read.
    if (upgraded) decoder_.allowTable(decoder_.kLargestTable);
}

template <typename Fields>
Http2Event Http2Reader<Fields>::read(const char*& p, const char* end) {
    event(Http2Event::kMore, 0, 0, false);
    for (;;) {
        const Http2Event read = readState(p, end);
        if (read == Http2Event::kNotHttp2) p = end;
        if (read != Http2Event::kMore) return read;
        // A frame without content is complete with its head.
        if (p == end && (state_ <= State::kFrameHead || left_ != 0)) return Http2Event::kMore;
    }
}

template <typename Fields>
Http2Event Http2Reader<Fields>::skip(std::uint64_t& n) {
    event(Http2Event::kMore, 0, 0, false);
    if (state_ != State::kData && state_ != State::kSkipped) return notHttp2();
    const std::uint32_t skipped = n < left_ ? static_cast<std::uint32_t>(n) : left_;
    n -= skipped;
    return state_ == State::kData ? skipData(skipped) : skipOther(skipped);
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readState(const char*& p, const char* end) {
    const std::uint32_t n = ofFrame(p, end);
    switch (state_) {
        case State::kPreface:
            return readPreface(p, end);
        case State::kFrameHead:
            return readFrameHead(p, end);
        case State::kBlockPrefix:
            return readBlockPrefix(p, end);
        case State::kBlock:
            return readBlock(p, end);
        case State::kSettings:
            return readSettings(p, end);
        case State::kReset:
            return readReset(p, end);
        case State::kGoAway:
            return readGoAway(p, end);
        case State::kData:
            p += n;
            return skipData(n);
        case State::kSkipped:
            p += n;
            return skipOther(n);
        default:
            return Http2Event::kNotHttp2;
    }
}

template <typename Fields>
Http2Event Http2Reader<Fields>::notHttp2() {
    stop();
    return Http2Event::kNotHttp2;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::event(Http2Event event, std::uint32_t stream, std::uint32_t bytes,
                                      bool ends) {
    eventStream_ = stream;
    eventBytes_ = bytes;
    eventEnds_ = ends;
    return event;
}

// Bytes of the input that belong to the present frame.
template <typename Fields>
std::uint32_t Http2Reader<Fields>::ofFrame(const char* p, const char* end) const {
    const auto available = static_cast<std::size_t>(end - p);
    return available < left_ ? static_cast<std::uint32_t>(available) : left_;
}

// ------------------------------------------------------- heads and numbers

// Gathers `count` bytes. False: more are to come.
template <typename Fields>
bool Http2Reader<Fields>::gather(std::uint32_t count, const char*& p, const char* end) {
    const auto available = static_cast<std::size_t>(end - p);
    const std::size_t missing = count - gatheredBytes_;
    const std::size_t n = available < missing ? available : missing;
    if (n != 0) std::memcpy(gathered_ + gatheredBytes_, p, n);
    p += n;
    gatheredBytes_ = static_cast<std::uint8_t>(gatheredBytes_ + n);
    if (n != missing) return false;
    gatheredBytes_ = 0;
    return true;
}

// The same of a frame that has so many bytes left.
template <typename Fields>
bool Http2Reader<Fields>::gatherContent(std::uint32_t count, const char*& p, const char* end) {
    const char* const from = p;
    const bool complete = gather(count, p, end);
    left_ -= static_cast<std::uint32_t>(p - from);
    return complete;
}

template <typename Fields>
std::uint32_t Http2Reader<Fields>::number(std::uint32_t from, std::uint32_t count) const {
    std::uint32_t value = 0;
    for (std::uint32_t i = from; i < from + count; ++i) {
        value = value << 8 | static_cast<unsigned char>(gathered_[i]);
    }
    return value;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readPreface(const char*& p, const char* end) {
    constexpr std::uint32_t kLength = sizeof kHttp2Preface - 1;
    for (; p != end && unreported_ != kLength; ++p, ++unreported_) {
        if (*p != kHttp2Preface[unreported_]) return notHttp2();
    }
    if (unreported_ == kLength) {
        unreported_ = 0;
        state_ = State::kFrameHead;
    }
    return Http2Event::kMore;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readFrameHead(const char*& p, const char* end) {
    if (!gather(kHeadLength, p, end)) return Http2Event::kMore;
    left_ = number(0, 3);
    type_ = static_cast<std::uint8_t>(gathered_[3]);
    flags_ = static_cast<std::uint8_t>(gathered_[4]);
    frameStream_ = number(5, 4) & kStreamMask;
    return beginFrame() ? Http2Event::kMore : notHttp2();
}

// ------------------------------------------------------------------- frames

template <typename Fields>
bool Http2Reader<Fields>::beginFrame() {
    // Both sides begin with their settings. An HTTP/1 answer does not.
    if (!begun_ && type_ != kSettingsFrame) return false;
    begun_ = true;
    if (blockStream_ != 0) return beginContinuation();
    switch (type_) {
        case kDataFrame:
            return beginData();
        case kHeadersFrame:
            blockEnds_ = flag(kEndStream);
            blockPromises_ = false;
            if (kOfClient<Fields> && frameStream_ % 2 == 0) return false;
            return beginHeaders(flag(kPriority) ? kPriorityLength : 0);
        case kPromiseFrame:
            blockPromises_ = true;
            return !kOfClient<Fields> && beginHeaders(kStreamLength);
        default:
            return beginOther();
    }
}

template <typename Fields>
bool Http2Reader<Fields>::beginData() {
    state_ = State::kData;
    unreported_ = kHeadLength;
    return frameStream_ != 0;
}

// `prefix`: bytes between the length of the padding and the header block.
template <typename Fields>
bool Http2Reader<Fields>::beginHeaders(std::uint32_t prefix) {
    state_ = State::kBlockPrefix;
    prefix_ = prefix + (flag(kPadded) ? 1 : 0);
    blockStream_ = frameStream_;
    unreported_ = kHeadLength;
    decoder_.beginBlock();
    return frameStream_ != 0 && prefix_ <= left_;
}

template <typename Fields>
bool Http2Reader<Fields>::beginContinuation() {
    state_ = State::kBlock;
    padding_ = 0;
    unreported_ += kHeadLength;
    return type_ == kContinuationFrame && frameStream_ == blockStream_;
}

template <typename Fields>
bool Http2Reader<Fields>::beginOther() {
    switch (type_) {
        case kResetFrame:
            state_ = State::kReset;
            return frameStream_ != 0 && left_ == kResetLength;
        case kSettingsFrame:
            state_ = State::kSettings;
            return left_ % kSettingLength == 0 && (left_ == 0 || !flag(kAcknowledged));
        case kGoAwayFrame:
            state_ = State::kGoAway;
            return left_ >= kGoAwayLength;
        default:
            state_ = State::kSkipped;
            return type_ != kContinuationFrame;
    }
}

template <typename Fields>
Http2Event Http2Reader<Fields>::skipData(std::uint32_t n) {
    left_ -= n;
    if (n == 0 && left_ != 0) return Http2Event::kMore;
    const std::uint32_t bytes = unreported_ + n;
    unreported_ = 0;
    if (left_ == 0) state_ = State::kFrameHead;
    return event(Http2Event::kData, frameStream_, bytes, left_ == 0 && flag(kEndStream));
}

template <typename Fields>
Http2Event Http2Reader<Fields>::skipOther(std::uint32_t n) {
    left_ -= n;
    if (left_ == 0) state_ = State::kFrameHead;
    return Http2Event::kMore;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readSettings(const char*& p, const char* end) {
    while (left_ != 0) {
        if (!gatherContent(kSettingLength, p, end)) return Http2Event::kMore;
        const std::uint32_t value = number(2, 4);
        if (number(0, 2) == kTableSizeSetting && value > announcedTable_) announcedTable_ = value;
    }
    state_ = State::kFrameHead;
    return Http2Event::kMore;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readReset(const char*& p, const char* end) {
    if (!gatherContent(kResetLength, p, end)) return Http2Event::kMore;
    state_ = State::kFrameHead;
    return event(Http2Event::kReset, frameStream_, 0, true);
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readGoAway(const char*& p, const char* end) {
    if (!gatherContent(kStreamLength, p, end)) return Http2Event::kMore;
    state_ = State::kSkipped;
    return event(Http2Event::kGoAway, number(0, 4) & kStreamMask, 0, false);
}

// ------------------------------------------------------------ header blocks

template <typename Fields>
Http2Event Http2Reader<Fields>::readBlockPrefix(const char*& p, const char* end) {
    const char* const from = p;
    const bool complete = gatherContent(prefix_, p, end);
    unreported_ += static_cast<std::uint32_t>(p - from);
    if (!complete) return Http2Event::kMore;
    padding_ = flag(kPadded) ? static_cast<std::uint8_t>(gathered_[0]) : 0;
    state_ = State::kBlock;
    return padding_ <= left_ ? Http2Event::kMore : notHttp2();
}

template <typename Fields>
Http2Event Http2Reader<Fields>::readBlock(const char*& p, const char* end) {
    const std::uint32_t n = ofFrame(p, end);
    const std::uint32_t fields = left_ > padding_ ? left_ - padding_ : 0;
    if (!decoder_.read(p, p + (n < fields ? n : fields))) return notHttp2();
    p += n;
    left_ -= n;
    unreported_ += n;
    return left_ == 0 ? endBlockFrame() : Http2Event::kMore;
}

template <typename Fields>
Http2Event Http2Reader<Fields>::endBlockFrame() {
    state_ = State::kFrameHead;
    if (!flag(kEndHeaders)) return Http2Event::kMore;
    if (!decoder_.endBlock()) return notHttp2();
    const std::uint32_t stream = blockStream_;
    const std::uint32_t bytes = unreported_;
    blockStream_ = unreported_ = 0;
    if (blockPromises_) return Http2Event::kMore;
    return event(blockEvent(stream), stream, bytes, blockEnds_);
}

template <typename Fields>
Http2Event Http2Reader<Fields>::blockEvent(std::uint32_t stream) {
    if constexpr (kOfClient<Fields>) {
        if (stream <= lastStream_) return Http2Event::kTrailers;
        lastStream_ = stream;
        return Http2Event::kRequest;
    } else {
        const int status = fields().status();
        if (status == 0) return Http2Event::kTrailers;
        return status < 200 ? Http2Event::kInterim : Http2Event::kResponse;
    }
}

template class Http2Reader<RequestFields>;
template class Http2Reader<ResponseFields>;

}  // namespace tolvane
