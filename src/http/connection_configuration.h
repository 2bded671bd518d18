// ConnectionConfiguration: the configuration that one connection works on. Nearly always that is
// the shared snapshot of the moment when it was accepted.
#pragma once

#include <atomic>
#include <memory>

#include "http/configuration_snapshot.h"

namespace vel {

/// A connection's own copy of a configuration, which is made only when somebody asks for it.
/// Queue:   any.
class ConnectionConfiguration {
 public:
  /// The state of `source` now. A configuration of a host's own class is copied at once, since its
  /// getters may say more than its state does.
  explicit ConnectionConfiguration(const VELConfiguration& source);
  ConnectionConfiguration(const ConnectionConfiguration&) = delete;
  ConnectionConfiguration& operator=(const ConnectionConfiguration&) = delete;
  ~ConnectionConfiguration();

  /// The copy that hosts may edit. From the first call on it rules.
  std::shared_ptr<VELConfiguration> copy() const;
  void replace(std::shared_ptr<VELConfiguration> configuration);

  /// What is in force now. `holder` holds it, unless this object does.
  const ConfigurationSnapshot& current(std::shared_ptr<const ConfigurationSnapshot>* holder) const;

 private:
  struct Copy;

  std::shared_ptr<VELConfiguration> materialised() const;

  const std::shared_ptr<const ConfigurationSnapshot> accepted_;
  // The newest copy, which holds those before it: another thread may still be reading them.
  mutable std::atomic<const Copy*> copy_{nullptr};
};

}  // namespace vel
