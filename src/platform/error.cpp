// The texts of errors and exceptions.
#include "corvane/error.h"

#include <utility>

VELError::VELError(std::string domain, int64_t code, std::string description)
    : domain_(std::move(domain)), code_(code), localizedDescription_(std::move(description)) {}

void VELError::setLocalizedFailureReason(std::string reason) {
  localizedFailureReason_ = std::move(reason);
}

void VELError::setLocalizedRecoverySuggestion(std::string suggestion) {
  localizedRecoverySuggestion_ = std::move(suggestion);
}

void VELError::setUserInfo(std::map<std::string, std::string> userInfo) {
  userInfo_ = std::move(userInfo);
}

std::string VELError::description() const {
  std::string text = "Error Domain=" + domain_ + " Code=" + std::to_string(code_);
  if (!localizedDescription_.empty()) text += " \"" + localizedDescription_ + "\"";
  if (!localizedFailureReason_.empty()) text += " (" + localizedFailureReason_ + ")";
  return text;
}

VELException::VELException(std::string name, std::string reason)
    : name_(std::move(name)), reason_(std::move(reason)), text_(name_ + ": " + reason_) {}

VELException::~VELException() = default;
