// Redirects: the request that follows an answer with a new location.
#pragma once

#include <cstdint>

#include "corvane/url.h"
#include "corvane/url_request.h"

namespace vel {

/// Whether an answer with `status` and a "Location" field sends the client elsewhere.
bool redirects(uint64_t status) noexcept;

/// Turns `request` into the one that `status` asks for at `location` (RFC 9110 §15.4): 303, and 301 and 302
/// after POST, make it a GET without a body. Credentials do not go along to another origin (§11.6.2).
void redirect(VELURLRequest* request, uint64_t status, const VELURL& location);

/// The value of "Host" for requests to `url`: with the port where the URL names one (RFC 9110 §7.2).
std::string hostFieldOf(const VELURL& url);

}  // namespace vel
