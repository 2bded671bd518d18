// The public face of a connection; what it does stands in the engine.
#include "corvane/http_connection.h"

#include <utility>

#include "corvane/error.h"
#include "http/connection_engine.h"
#include "http/transmitter.h"
#include "platform/http_date.h"

VELHTTPConnection::VELHTTPConnection() {
  throw VELException(VELInvalidArgumentException, "Connections should not be initialized directly");
}

VELHTTPConnection::VELHTTPConnection(std::shared_ptr<VELSocket> socket,
                                     const std::shared_ptr<VELServer>& server)
    : engine_(std::make_unique<vel::ConnectionEngine>(*this, std::move(socket), server)) {}

VELHTTPConnection::~VELHTTPConnection() = default;

void VELHTTPConnection::start() { engine_->start(); }

void VELHTTPConnection::close() { engine_->close(); }

void VELHTTPConnection::closeAtOnce() { engine_->closeAtOnce(); }

void VELHTTPConnection::closeWhenIdle() { engine_->closeWhenIdle(); }

std::shared_ptr<VELSocket> VELHTTPConnection::socket() const { return engine_->socket(); }

std::shared_ptr<VELServer> VELHTTPConnection::server() const { return engine_->server(); }

VELUUID VELHTTPConnection::identifier() const { return engine_->identifier(); }

bool VELHTTPConnection::isSecure() const {
  const std::shared_ptr<VELSocket> present = socket();
  return present && present->isSecure();
}

VELSocketAddress VELHTTPConnection::peerAddress() const {
  const std::shared_ptr<VELSocket> present = socket();
  return present ? present->peerAddress() : VELSocketAddress();
}

std::shared_ptr<VELConfiguration> VELHTTPConnection::configuration() const {
  return engine_->configuration().copy();
}

void VELHTTPConnection::setConfiguration(std::shared_ptr<VELConfiguration> configuration) {
  if (!configuration) {
    throw VELException(VELInvalidArgumentException, "A connection needs a configuration");
  }
  engine_->configuration().replace(std::move(configuration));
}

VELData VELHTTPConnection::chunkedTransferSizeLineForLength(uint64_t length) {
  return VELData(std::string(vel::ChunkSizeLine(length).view()));
}

const VELData& VELHTTPConnection::chunkedTransferFooter() {
  static const VELData footer = VELData::dataWithStaticBytes(vel::chunkedFooter());
  return footer;
}

std::string VELHTTPConnection::dateAsString(std::chrono::system_clock::time_point date) {
  return vel::httpDate(date);
}
