#include "http/connection_configuration.h"

#include <typeinfo>
#include <utility>

namespace vel {

struct ConnectionConfiguration::Copy {
  std::shared_ptr<VELConfiguration> configuration;
  const Copy* previous;
};

ConnectionConfiguration::ConnectionConfiguration(const VELConfiguration& source)
    : accepted_(source.snapshot()) {
  if (typeid(source) != typeid(VELConfiguration)) replace(source.copy());
}

ConnectionConfiguration::~ConnectionConfiguration() {
  const Copy* copy = copy_.load(std::memory_order_acquire);
  while (copy != nullptr) {
    delete std::exchange(copy, copy->previous);
  }
}

std::shared_ptr<VELConfiguration> ConnectionConfiguration::materialised() const {
  auto made = std::make_shared<VELConfiguration>();
  made->setRoutes(accepted_->routes);
  made->setMiddlewares(accepted_->middlewares);
  made->setVariables(accepted_->variables);
  made->setSSLCertificates(accepted_->certificates);
  made->setKeepAliveInterval(accepted_->keep_alive_interval);
  made->setLimits(accepted_->limits);
  made->setProfile(accepted_->profile);
  return made;
}

std::shared_ptr<VELConfiguration> ConnectionConfiguration::copy() const {
  const Copy* present = copy_.load(std::memory_order_acquire);
  if (present == nullptr) {
    auto made = std::make_unique<Copy>(Copy{materialised(), nullptr});
    // Whoever comes second takes the first one's.
    if (copy_.compare_exchange_strong(present, made.get(), std::memory_order_acq_rel)) {
      present = made.release();
    }
  }
  return present->configuration;
}

void ConnectionConfiguration::replace(std::shared_ptr<VELConfiguration> configuration) {
  auto made =
      std::make_unique<Copy>(Copy{std::move(configuration), copy_.load(std::memory_order_acquire)});
  while (!copy_.compare_exchange_weak(made->previous, made.get(), std::memory_order_acq_rel)) {
  }
  made.release();
}

const ConfigurationSnapshot& ConnectionConfiguration::current(
    std::shared_ptr<const ConfigurationSnapshot>* holder) const {
  const Copy* const copy = copy_.load(std::memory_order_acquire);
  if (copy == nullptr) return *accepted_;
  *holder = copy->configuration->snapshot();
  return **holder;
}

}  // namespace vel
