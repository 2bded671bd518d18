// The header fields that the loads and the benchmarks of single parts send as a browser does.
#pragma once

#include <string_view>

namespace bench {

/// What a desktop browser sends for a page behind its "Host": about 700 bytes.
inline constexpr std::string_view kBrowserFields =
    "Connection: keep-alive\r\n"
    "Cache-Control: max-age=0\r\n"
    "sec-ch-ua: \"Chromium\";v=\"124\", \"Not-A.Brand\";v=\"99\"\r\n"
    "sec-ch-ua-mobile: ?0\r\n"
    "sec-ch-ua-platform: \"Linux\"\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/124.0.0.0 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,"
    "image/apng,*/*;q=0.8\r\n"
    "Sec-Fetch-Site: none\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-User: ?1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Accept-Encoding: gzip, deflate, br, zstd\r\n"
    "Accept-Language: en-GB,en;q=0.9,de;q=0.8\r\n"
    "Referer: http://127.0.0.1:8080/start\r\n"
    "Cookie: theme=dark; session=4f1c6b0a9d2e\r\n";

}  // namespace bench
