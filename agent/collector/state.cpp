#include "collector/state.h"

namespace tolvane::agent {

const char* watchStateName(WatchState state) {
    switch (state) {
        case WatchState::kLive:
            return "live";
        case WatchState::kEnding:
            return "ending";
        case WatchState::kStale:
            return "stale";
        case WatchState::kHeld:
            return "held";
        case WatchState::kUnreadable:
            break;
    }
    return "unreadable";
}

}  // namespace tolvane::agent
