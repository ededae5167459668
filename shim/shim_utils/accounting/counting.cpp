#include "shim_utils/accounting/counting.h"

#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

constexpr Counting kByCalls = {callsAccepted, callsReceived, callsSent, callsClosed};
constexpr Counting kByMessages = {messagesAccepted, messagesReceived, messagesSent, messagesClosed};

}  // namespace

void chooseCounting() {
    counting = countsMessages ? &kByMessages : &kByCalls;
}

}  // namespace tolvane
