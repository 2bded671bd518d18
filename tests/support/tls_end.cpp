// Drives TLS sessions in memory.
#include "support/tls_end.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <stdexcept>

namespace vel::test {

using Status = TlsSession::Status;

TlsEnd::TlsEnd(const VELTLSSettings& settings, size_t capacity) : buffer_(capacity) {
  VELError error;
  session = TlsSession::create(settings, &error);
  if (!session) {
    throw std::runtime_error(error.description());
  }
}

void TlsEnd::take(std::string_view bytes) {
  if (!session->isHandshakeDone()) {
    status = session->handshake(&bytes, &toSend);
    if (status != Status::kOk) {
      EXPECT_TRUE(status != Status::kNeedsInput || bytes.empty());
      return;
    }
  }
  do {
    size_t length = 0;
    status = session->read(&bytes, buffer_.data(), buffer_.size(), &length, &toSend);
    EXPECT_EQ(length > 0, status == Status::kOk);
    received.append(reinterpret_cast<const char*>(buffer_.data()), length);
  } while (status == Status::kOk);
  EXPECT_TRUE(status != Status::kNeedsInput || bytes.empty());
}

ForeignClient::ForeignClient() : context(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
  ssl.reset(SSL_new(context.get()));
  input_ = BIO_new(BIO_s_mem());
  output_ = BIO_new(BIO_s_mem());
  SSL_set_bio(ssl.get(), input_, output_);
  SSL_set_connect_state(ssl.get());
}

void ForeignClient::take(std::string_view bytes) {
  BIO_write(input_, bytes.data(), static_cast<int>(bytes.size()));
  char buffer[4096];
  size_t length = 0;
  while (SSL_read_ex(ssl.get(), buffer, sizeof buffer, &length) == 1) {
    received.append(buffer, length);
  }
  ERR_clear_error();
  collect();
}

void ForeignClient::write(std::string_view data) {
  SSL_write(ssl.get(), data.data(), static_cast<int>(data.size()));
  collect();
}

void ForeignClient::collect() {
  char buffer[4096];
  for (int length; (length = BIO_read(output_, buffer, sizeof buffer)) > 0;) {
    toSend.append(buffer, static_cast<size_t>(length));
  }
}

}  // namespace vel::test
