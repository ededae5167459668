// Random conversations: mostly usual messages, some odd or damaged.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "shim_utils/http/request_reader.h"

namespace tolvane::fuzz {

struct Conversation {
    std::string requests;
    std::string responses;
    std::vector<Method> methods;  // of the requests that are answered
};

Conversation randomConversation(std::mt19937_64& random);

}  // namespace tolvane::fuzz
