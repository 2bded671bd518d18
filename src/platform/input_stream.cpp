// Streams over memory and over files.
#include "corvane/input_stream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/file.h"

namespace {

/// The states that both kinds share: not open, then open, then at the end or failed, then closed.
class StreamBase : public VELInputStream {
 public:
  void open() final {
    if (status_ == VELStreamStatus::kNotOpen) {
      status_ = openSource() ? VELStreamStatus::kOpen : VELStreamStatus::kError;
    }
  }

  void close() final {
    closeSource();
    status_ = VELStreamStatus::kClosed;
  }

  ptrdiff_t read(uint8_t* buffer, size_t length) final {
    if (status_ == VELStreamStatus::kAtEnd) return 0;
    if (status_ != VELStreamStatus::kOpen) return -1;
    if (length == 0) return 0;
    const ptrdiff_t count = readSource(buffer, length);
    if (count < 0) {
      status_ = VELStreamStatus::kError;
    } else if (isExhausted(count)) {
      status_ = VELStreamStatus::kAtEnd;
    }
    return count;
  }

  VELStreamStatus streamStatus() const final { return status_; }

 protected:
  virtual bool openSource() = 0;
  virtual void closeSource() = 0;
  virtual ptrdiff_t readSource(uint8_t* buffer, size_t length) = 0;
  virtual bool isExhausted(ptrdiff_t lastCount) const = 0;

 private:
  VELStreamStatus status_ = VELStreamStatus::kNotOpen;
};

class DataStream final : public StreamBase {
 public:
  explicit DataStream(std::string data) : data_(std::move(data)) {}
  std::optional<uint64_t> length() const override { return data_.size(); }

 protected:
  bool openSource() override { return true; }
  void closeSource() override { data_ = std::string(); }

  ptrdiff_t readSource(uint8_t* buffer, size_t length) override {
    const size_t count = std::min(length, data_.size() - offset_);
    std::memcpy(buffer, data_.data() + offset_, count);
    offset_ += count;
    return static_cast<ptrdiff_t>(count);
  }

  bool isExhausted(ptrdiff_t) const override { return offset_ == data_.size(); }

 private:
  std::string data_;
  size_t offset_ = 0;
};

class FileStream final : public StreamBase {
 public:
  explicit FileStream(std::string path) : path_(std::move(path)) {}
  std::optional<uint64_t> length() const override { return vel::fileSize(file_); }

 protected:
  bool openSource() override {
    file_ = vel::openForReading(path_);
    return static_cast<bool>(file_);
  }

  void closeSource() override { file_.reset(); }

  ptrdiff_t readSource(uint8_t* buffer, size_t length) override {
    const ptrdiff_t count = vel::readAt(file_, buffer, length, offset_);
    if (count > 0) offset_ += static_cast<uint64_t>(count);
    return count;
  }

  bool isExhausted(ptrdiff_t lastCount) const override { return lastCount == 0; }

 private:
  const std::string path_;
  vel::FileDescriptor file_;
  uint64_t offset_ = 0;
};

}  // namespace

VELInputStream::~VELInputStream() = default;

std::shared_ptr<VELInputStream> VELInputStream::inputStreamWithData(std::string data) {
  return std::make_shared<DataStream>(std::move(data));
}

std::shared_ptr<VELInputStream> VELInputStream::inputStreamWithFileAtPath(std::string path) {
  return std::make_shared<FileStream>(std::move(path));
}
