// The streams of a connection that are in use.
#pragma once

#include <cstdint>
#include <cstring>

namespace tolvane {

// The two sides of a stream.
enum class StreamSide : std::uint8_t { kRequest = 1, kResponse = 2 };

// A value for each stream that a client has opened and that has not ended. Clients
// number their streams in steps of two, so that the streams in use are seldom searched
// for in a wrong place. A pointer to a value is valid until a stream is removed.
template <typename Value>
class StreamTable {
  public:
    static constexpr std::uint32_t kCapacity = 256;

    // Empty. A table whose streams have all been removed is at no cost.
    void reset() {
        if (count_ != 0) std::memset(streams_, 0, sizeof streams_);
        count_ = 0;
    }
    bool full() const { return count_ == kCapacity; }
    std::uint32_t count() const { return count_; }

    // Null: there is no such stream.
    Value* find(std::uint32_t stream) {
        const std::uint32_t place = placeOf(stream);
        return place != kNowhere ? &values_[place] : nullptr;
    }
    // The stream is odd and not in the table, and there is room.
    void add(std::uint32_t stream, const Value& value) {
        std::uint32_t place = firstPlace(stream);
        while (streams_[place] != 0) place = next(place);
        streams_[place] = stream;
        ended_[place] = 0;
        values_[place] = value;
        ++count_;
    }
    // Removes the stream once both sides have ended.
    void end(std::uint32_t stream, StreamSide side) {
        constexpr std::uint8_t kBoth = 3;
        const std::uint32_t place = placeOf(stream);
        if (place == kNowhere) return;
        ended_[place] |= static_cast<std::uint8_t>(side);
        if (ended_[place] == kBoth) removeAt(place);
    }
    void remove(std::uint32_t stream) {
        const std::uint32_t place = placeOf(stream);
        if (place != kNowhere) removeAt(place);
    }
    // Calls `use` with each stream and its value, in no order.
    template <typename Use>
    void forEach(Use use) {
        if (count_ == 0) return;
        for (std::uint32_t place = 0; place < kCapacity; ++place) {
            if (streams_[place] != 0) use(streams_[place], values_[place]);
        }
    }

  private:
    static constexpr std::uint32_t kNowhere = kCapacity;

    static std::uint32_t firstPlace(std::uint32_t stream) { return stream / 2 % kCapacity; }
    static std::uint32_t next(std::uint32_t place) { return (place + 1) % kCapacity; }

    std::uint32_t placeOf(std::uint32_t stream) const {
        if (stream == 0) return kNowhere;
        std::uint32_t place = firstPlace(stream);
        for (std::uint32_t i = 0; i < kCapacity; ++i, place = next(place)) {
            if (streams_[place] == stream) return place;
            if (streams_[place] == 0) break;
        }
        return kNowhere;
    }
    // Moves streams that are behind their first place towards it.
    void removeAt(std::uint32_t hole) {
        --count_;
        streams_[hole] = 0;
        for (std::uint32_t place = next(hole); streams_[place] != 0; place = next(place)) {
            const std::uint32_t behindFirst = (place - firstPlace(streams_[place])) % kCapacity;
            if (behindFirst < (place - hole) % kCapacity) continue;
            streams_[hole] = streams_[place];
            ended_[hole] = ended_[place];
            values_[hole] = values_[place];
            hole = place;
            streams_[hole] = 0;
        }
    }

    std::uint32_t count_;
    std::uint32_t streams_[kCapacity];  // 0: none
    std::uint8_t ended_[kCapacity];     // sides that have ended
    Value values_[kCapacity];
};

}  // namespace tolvane
