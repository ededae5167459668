#include "request_mix.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tolvane::bench {

std::vector<std::string> readRequestMix(const std::string& path, bool keepAlive) {
    std::vector<std::string> requests;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string host, url, cached;
        words >> host >> url >> cached;
        if (url.empty()) continue;
        requests.push_back(
            "GET " + url + " HTTP/1.1\r\nHost: " + host +
            "\r\nConnection: " + (keepAlive ? "keep-alive" : "close") +
            "\r\nsec-ch-ua: \"Chromium\";v=\"140\", \"Not=A?Brand\";v=\"24\"\r\n"
            "sec-ch-ua-mobile: ?0\r\nsec-ch-ua-platform: \"Linux\"\r\n"
            "Upgrade-Insecure-Requests: 1\r\n"
            "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
            "Chrome/140.0.0.0 Safari/537.36\r\n"
            "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,"
            "image/apng,*/*;q=0.8\r\nSec-Fetch-Site: same-origin\r\nSec-Fetch-Mode: navigate\r\n"
            "Sec-Fetch-User: ?1\r\nSec-Fetch-Dest: document\r\nReferer: http://" +
            host +
            "/\r\nAccept-Encoding: gzip, deflate, br, zstd\r\n"
            "Accept-Language: en-GB,en;q=0.9,de;q=0.8\r\n" +
            (cached.empty() ? "" : "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT\r\n") +
            "Cookie: session=0f3a6c1e9d2b4f7788aa55c3d1e0b9f2; consent=essential; theme=dark\r\n"
            "\r\n");
    }
    if (requests.empty()) throw std::runtime_error(path + ": no requests");
    return requests;
}

}  // namespace tolvane::bench
