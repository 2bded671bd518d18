// VELProgress: a task that is under way, and the means to call it off.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "corvane/export.h"

/// Stands for something that was begun and can be cancelled.
///
/// ```cpp
/// auto progress = VELProgress::discreteProgress(-1);
/// progress->setCancellationHandler([] { /* stop the work */ });
/// progress->setUserInfoObjectForKey(std::string("nightly"), "job");
/// progress->cancel();
/// bool cancelled = progress->isCancelled();
/// ```
/// Owner:   shared by whoever does the work and whoever may cancel it.
/// Queue:   every operation may be called on any thread.
class CORVANE_EXPORT VELProgress {
 public:
  /// Shape:   the units of work in all; negative when nobody knows.
  static std::shared_ptr<VELProgress> discreteProgress(int64_t totalUnitCount);

  explicit VELProgress(int64_t totalUnitCount) noexcept : total_unit_count_(totalUnitCount) {}
  VELProgress(const VELProgress&) = delete;
  VELProgress& operator=(const VELProgress&) = delete;
  ~VELProgress() = default;

  int64_t totalUnitCount() const noexcept { return total_unit_count_; }
  bool isIndeterminate() const noexcept { return total_unit_count_ < 0; }

  /// Cancels; the cancellation handler runs before the call returns. Further calls do nothing.
  void cancel();
  bool isCancelled() const;
  /// The handler of the cancellation, which replaces the one before it. It runs once: on the thread that
  /// cancels, or at once on this one when that has happened.
  /// Owner:   held until it has run, or as long as the progress lives.
  void setCancellationHandler(std::function<void()> handler);

  /// What was stored under `key`; empty when nothing was.
  std::any userInfoObject(const std::string& key) const;
  /// Stores `object`; an empty one removes what was stored.
  void setUserInfoObjectForKey(std::any object, const std::string& key);

 private:
  const int64_t total_unit_count_;

  mutable std::mutex mutex_;
  // Guarded by mutex_, which is never held around a call out.
  bool cancelled_ = false;
  std::function<void()> handler_;
  std::map<std::string, std::any> user_info_;
};
