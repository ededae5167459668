#include "http_client/response_reader.h"

#include <cstdlib>
#include <stdexcept>

namespace tolvane::http_client {

void ResponseReader::feed(std::string_view bytes) {
    size_ += bytes.size();
    if (bodyLeft_ < 0) {
        head_ += bytes;
        const std::size_t end = head_.find("\r\n\r\n");
        if (end != std::string::npos) readHead(end);
    } else {
        const auto count = static_cast<std::int64_t>(bytes.size());
        if (count > bodyLeft_) throw std::runtime_error("bytes after the end of a response");
        bodyLeft_ -= count;
    }
}

void ResponseReader::readHead(std::size_t end) {
    const std::string_view head = std::string_view(head_).substr(0, end);
    if (!head.starts_with("HTTP/1.")) throw std::runtime_error("not a response");
    status_ = std::atoi(head_.c_str() + 9);
    constexpr std::string_view kLength = "Content-Length: ";
    const std::size_t length = head.find(kLength);
    hasLength_ = length != std::string_view::npos;
    closing_ = head.find("Connection: close") != std::string_view::npos;
    const auto rest = static_cast<std::int64_t>(head_.size() - end - 4);
    const std::int64_t body =
        hasLength_ ? std::strtoll(head_.c_str() + length + kLength.size(), nullptr, 10) : 0;
    if (rest > body) throw std::runtime_error("bytes after the end of a response");
    bodyLeft_ = body - rest;
}

}  // namespace tolvane::http_client
