// Who may use a route, by the words of the command line.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "corvane/authentication.h"
#include "options.h"

/// An authenticator for the scheme "Basic" that knows these users. Their passwords are not kept, only
/// digests of them.
std::shared_ptr<VELAuthenticator> makeAuthenticator(const std::vector<UserOption>& users,
                                                    const std::optional<std::string>& realm);
