// What llhttp finds in a conversation.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "conversations.h"

namespace tolvane::fuzz {

struct LlhttpReading {
    Reading reading;
    // In what llhttp was made to agree with the message readers: it was given other bytes
    // where it accepts less, or was stopped where it accepts more. docs/testing.md
    // says why they differ.
    std::set<std::string> differences;
    std::string error;  // by which it stopped of itself
};

LlhttpReading readRequestsWithLlhttp(std::string_view text);
LlhttpReading readResponsesWithLlhttp(std::string_view text, const std::vector<Method>& methods);

}  // namespace tolvane::fuzz
