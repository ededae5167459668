// Finds the end of a response by its Content-Length. Counts the bytes of the body and
// discards them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tolvane::http_client {

class ResponseReader {
  public:
    // Reads the next bytes of the connection. Throws std::runtime_error if they are not
    // a response, or continue after its end.
    void feed(std::string_view bytes);
    // Prepares for the next response.
    void clear() { *this = ResponseReader(); }

    bool empty() const { return size_ == 0; }
    bool complete() const { return bodyLeft_ == 0; }
    std::size_t size() const { return size_; }  // bytes so far
    // After the head is complete:
    int status() const { return status_; }
    bool hasLength() const { return hasLength_; }
    bool closing() const { return closing_; }  // "Connection: close"

  private:
    void readHead(std::size_t end);

    std::string head_;
    std::size_t size_ = 0;
    std::int64_t bodyLeft_ = -1;  // -1: the head is not complete
    int status_ = 0;
    bool hasLength_ = false;
    bool closing_ = false;
};

}  // namespace tolvane::http_client
