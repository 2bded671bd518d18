// The public view of the temporary directory.
#include "corvane/file_manager.h"

#include <string>

#include "platform/file.h"
#include "platform/log.h"

VELURL vel_temporaryItemsURL() {
  std::string path;
  VELError error;
  if (!vel::makeTemporaryItemsDirectory(&path, &error)) {
    vel::logLine("Unable to use the temporary directory " + path + ": " + error.description());
  }
  return VELURL::fileURLWithPath(path);
}
