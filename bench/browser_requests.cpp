#include "browser_requests.h"

namespace tolvane::bench {
namespace {

constexpr char kChromeHeaders[] =
    "Connection: keep-alive\r\n"
    "sec-ch-ua: \"Chromium\";v=\"142\", \"Google Chrome\";v=\"142\", \"Not_A Brand\";v=\"99\"\r\n"
    "sec-ch-ua-mobile: ?0\r\n"
    "sec-ch-ua-platform: \"Windows\"\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/142.0.0.0 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,"
    "image/apng,*/*;q=0.8,application/signed-exchange;v=b3;q=0.7\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-User: ?1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Referer: https://www.example.com/catalogue/2026/autumn/index.html?page=3\r\n"
    "Accept-Encoding: gzip, deflate, br, zstd\r\n"
    "Accept-Language: en-GB,en;q=0.9,de-DE;q=0.8,de;q=0.7\r\n"
    "Cookie: session=8d2f6a51c07e4b9d9a35f1e60c84b27a; consent=necessary.statistics; "
    "basket=3f9c; _visits=GS1.1.1762387261.7.1.1762389433.0.0.0\r\n";

constexpr char kFirefoxHeaders[] =
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:145.0) Gecko/20100101 Firefox/145.0\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
    "Accept-Language: en-GB,en;q=0.7,de;q=0.3\r\n"
    "Accept-Encoding: gzip, deflate, br, zstd\r\n"
    "Referer: https://www.example.com/catalogue/2026/autumn/index.html?page=3\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: session=8d2f6a51c07e4b9d9a35f1e60c84b27a; consent=necessary.statistics; "
    "basket=3f9c; _visits=GS1.1.1762387261.7.1.1762389433.0.0.0\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Sec-Fetch-User: ?1\r\n"
    "Priority: u=0, i\r\n";

}  // namespace

std::string browserRequest(Browser browser, HostLine place, const std::string& host,
                           const std::string& url) {
    const std::string hostLine = "Host: " + host + "\r\n";
    const std::string headers = browser == Browser::kChrome ? kChromeHeaders : kFirefoxHeaders;
    return "GET " + url + " HTTP/1.1\r\n" +
           (place == HostLine::kFirst ? hostLine + headers : headers + hostLine) + "\r\n";
}

}  // namespace tolvane::bench
