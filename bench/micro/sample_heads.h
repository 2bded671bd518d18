// Request heads as programs and browsers send them.
#pragma once

#include <string>
#include <string_view>

#include "../browser_fields.h"

namespace vel::bench {

inline constexpr std::string_view kSmallHead = "GET / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n";

inline const std::string kBrowserHead =
    "GET / HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n" + std::string(::bench::kBrowserFields) + "\r\n";

}  // namespace vel::bench
