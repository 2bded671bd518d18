#include "platform/outgoing.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "platform/file_region.h"

namespace vel {
namespace {

// Starts a time-out unless it runs already.
MonotonicTime started(MonotonicTime due, std::chrono::milliseconds timeout, MonotonicTime now) {
  if (due != kNever || timeout.count() < 0) return due;
  return timeAfter(now, timeout);
}

}  // namespace

void Outgoing::append(VELData data, std::chrono::milliseconds timeout, int64_t tag) {
  size_t length = data.length();
  const size_t small = FileRegion::of(data) != nullptr ? kSmallRegion : kSmall;
  // Copied, not moved: borrowed bytes must not wait here.
  if (isInLine() || length > small || gathered() + length > kGather) {
    return line(VELData(data), timeout, tag);
  }
  const uint64_t begin = gather_base_ + gather_.size();
  length = gather(data);
  // Counted as soon as it is here, so that memory that runs out leaves what can be sent.
  unsent_ += length;
  if (timeout.count() >= 0) marks_.push_back({begin, begin + length, timeout, kNever});
  done_.push_back(tag);
}

void Outgoing::append(std::string_view head, const VELData& data,
                      std::chrono::milliseconds timeout) {
  const size_t length = head.size() + data.length();
  if (head.empty() && gathered() == 0) return line(data, timeout, std::nullopt);
  if (isInLine() && gathered() == 0 && item_sent_ == 0 && unsent_ + length <= kSmall) gatherItems();
  if (!isInLine() && length <= kSmall && gathered() + length <= kGather) {
    return gather(head, data, timeout);
  }
  if (isInLine() && length <= kSmall) return join(head, data.view(), timeout);
  std::string joined(head);
  joined += data.view();
  line(VELData(std::move(joined)), timeout, std::nullopt);
}

void Outgoing::appendLent(std::string_view head, const VELData& data,
                          std::chrono::milliseconds timeout) {
  if (!isInLine() && gathered() + head.size() <= kGather) {
    gather(head, VELData(), timeout);
  } else {
    line(VELData::dataWithBytes(head.data(), head.size()), timeout, std::nullopt);
  }
  line(data.subdata(0, data.length()), timeout, std::nullopt);
}

void Outgoing::keepLent() {
  if (!isInLine()) return;
  Item& last = items_.back();
  if (first_item_ + 1 == items_.size() && item_sent_ > 0) {
    last.data = last.data.subdata(item_sent_, last.data.length());
    item_sent_ = 0;
  }
  last.data = VELData(last.data);
}

void Outgoing::line(VELData data, std::chrono::milliseconds timeout, std::optional<int64_t> tag) {
  const size_t length = data.length();
  endTail();
  items_.push_back({std::move(data), timeout, kNever, tag});
  unsent_ += length;
  if (length == 0) didSend(0);
}

void Outgoing::join(std::string_view head, std::string_view bytes,
                    std::chrono::milliseconds timeout) {
  const size_t length = head.size() + bytes.size();
  const bool goes_on =
      !tail_.empty() && tail_.size() + length <= kSmall && items_.back().timeout == timeout;
  if (!goes_on) endTail();
  tail_.reserve(tail_.size() + length);
  if (!goes_on) items_.push_back({VELData(), timeout, kNever, std::nullopt, true});
  tail_.append(head).append(bytes);
  items_.back().data = VELData::dataWithStaticBytes(tail_);
  unsent_ += length;
}

// Gives the last item its bytes for good.
void Outgoing::endTail() {
  if (tail_.empty()) return;
  const auto bytes = std::make_shared<std::string>();
  bytes->swap(tail_);
  items_.back().data = VELData::dataWithOwner(bytes, bytes->data(), bytes->size());
}

void Outgoing::gather(std::string_view head, const VELData& data,
                      std::chrono::milliseconds timeout) {
  const uint64_t begin = gather_base_ + gather_.size();
  const size_t length = head.size() + data.length();
  uint8_t* room = gather_.room(length);
  if (!head.empty()) std::memcpy(room, head.data(), head.size());
  if (!data.isEmpty()) std::memcpy(room + head.size(), data.bytes(), data.length());
  gather_.add(length);
  unsent_ += length;
  if (timeout.count() >= 0) marks_.push_back({begin, begin + length, timeout, kNever});
}

// Lets what waits in line leave with what comes behind it.
void Outgoing::gatherItems() {
  for (size_t i = first_item_; i < items_.size(); ++i) {
    const Item& item = items_[i];
    const uint64_t begin = gather_base_ + gather_.size();
    const size_t length = gather(item.data);
    unsent_ -= item.data.length() - length;
    if (item.timeout.count() >= 0) {
      marks_.push_back({begin, begin + length, item.timeout, item.due});
    }
    if (item.tag) done_.push_back(*item.tag);
  }
  items_.clear();
  first_item_ = 0;
  tail_.clear();
}

// Returns how many bytes there were: a file may have become shorter.
size_t Outgoing::gather(const VELData& data) {
  const size_t length = data.length();
  const FileRegion* region = FileRegion::of(data);
  if (region == nullptr) {
    gather_.append(data.bytes(), length);
    return length;
  }
  const size_t read = region->read(0, gather_.room(length), length);
  gather_.add(read);
  return read;
}

int Outgoing::vectorsOfLine(iovec* vectors, int most, RegionRest* region) const noexcept {
  int count = 0;
  if (gathered() > 0) {
    vectors[count].iov_base = const_cast<uint8_t*>(gather_.data() + gather_sent_);
    vectors[count++].iov_len = gathered();
  }
  size_t sent = item_sent_;
  for (size_t i = first_item_; i < items_.size() && count < most; ++i, sent = 0) {
    if ((region->region = FileRegion::of(items_[i].data)) != nullptr) {
      region->location = sent;
      region->length = items_[i].data.length() - sent;
      break;
    }
    vectors[count].iov_base = const_cast<uint8_t*>(items_[i].data.bytes() + sent);
    vectors[count++].iov_len = items_[i].data.length() - sent;
  }
  return count;
}

void Outgoing::didSendPart(size_t length) {
  unsent_ -= length;
  const size_t from_gather = std::min(length, gathered());
  gather_sent_ += from_gather;
  length -= from_gather;
  if (gather_sent_ == gather_.size()) emptyGather();
  if (gathered() > 0) return;
  while (first_item_ < items_.size()) {
    Item& item = items_[first_item_];
    const size_t rest = item.data.length() - item_sent_;
    if (length < rest) {
      item_sent_ += length;
      if (item.is_joined && length > 0) item.due = kNever;
      return;
    }
    length -= rest;
    item_sent_ = 0;
    if (item.tag) done_.push_back(*item.tag);
    item.data = VELData();
    ++first_item_;
  }
  items_.clear();
  first_item_ = 0;
  tail_.clear();
}

MonotonicTime Outgoing::due(MonotonicTime now) {
  if (gathered() > 0) {
    const uint64_t sent = gather_base_ + gather_sent_;
    while (first_mark_ < marks_.size() && marks_[first_mark_].end <= sent) ++first_mark_;
    if (first_mark_ == marks_.size() || marks_[first_mark_].begin > sent) return kNever;
    Mark& mark = marks_[first_mark_];
    return mark.due = started(mark.due, mark.timeout, now);
  }
  if (first_item_ == items_.size()) return kNever;
  Item& item = items_[first_item_];
  return item.due = started(item.due, item.timeout, now);
}

void Outgoing::copyTo(std::string* text) const {
  text->append(reinterpret_cast<const char*>(gather_.data()) + gather_sent_, gathered());
  size_t sent = item_sent_;
  for (size_t i = first_item_; i < items_.size(); ++i, sent = 0) {
    text->append(items_[i].data.view().substr(sent));
  }
}

void Outgoing::clear() noexcept {
  gather_.clear();
  gather_sent_ = 0;
  gather_base_ = 0;
  marks_.clear();
  first_mark_ = 0;
  items_.clear();
  first_item_ = 0;
  item_sent_ = 0;
  tail_.clear();
  done_.clear();
  told_ = 0;
  unsent_ = 0;
}

void Outgoing::shrink() {
  if (gather_sent_ > 0) {
    gather_.erase(gather_sent_);
    gather_base_ += gather_sent_;
    gather_sent_ = 0;
  }
  if (gather_.capacity() > 2 * gather_.size() + 1024) gather_.shrinkToFit();
  if (tail_.empty() && tail_.capacity() > 1024) std::string().swap(tail_);
  if (first_mark_ > marks_.size() / 2) {
    marks_.erase(marks_.begin(), marks_.begin() + static_cast<ptrdiff_t>(first_mark_));
    first_mark_ = 0;
  }
  if (first_item_ > items_.size() / 2) {
    items_.erase(items_.begin(), items_.begin() + static_cast<ptrdiff_t>(first_item_));
    first_item_ = 0;
  }
  done_.erase(done_.begin(), done_.begin() + static_cast<ptrdiff_t>(told_));
  told_ = 0;
}

}  // namespace vel
