// VELEventLoops: the threads on which serial queues run.
#pragma once

#include <cstddef>
#include <memory>

#include "corvane/export.h"

namespace vel {
class LoopPool;
}

/// A fixed number of event loops, each with a thread that drives it.
///
/// ```cpp
/// auto loops = std::make_shared<VELEventLoops>(2);
/// auto queue = std::make_shared<VELSerialQueue>("org.example.work", loops);
/// queue->sync([] {});
/// ```
/// A handler may block or compute for long: spare threads then drive the loop that it holds up, so
/// that other queues go on.
/// Owner:   queues hold their loops; the object can go away before them.
/// Queue:   any.
class CORVANE_EXPORT VELEventLoops {
 public:
  /// Starts `count` loops.
  /// Default: 0 stands for one per core.
  explicit VELEventLoops(size_t count = 0);
  VELEventLoops(const VELEventLoops&) = delete;
  VELEventLoops& operator=(const VELEventLoops&) = delete;
  /// Stops and joins the threads once no queue uses them any more.
  ~VELEventLoops();

  /// The loops that queues use when none are given: one per core, never stopped.
  static const std::shared_ptr<VELEventLoops>& sharedLoops();

  size_t count() const;

  /// Stops and joins the threads; work that is still posted is dropped. Call it after the servers
  /// and queues of these loops are gone; calling it on one of its own threads is a programming error
  /// that raises.
  void stop();

  /// For the library's own use.
  explicit VELEventLoops(std::shared_ptr<vel::LoopPool> pool);
  const std::shared_ptr<vel::LoopPool>& pool() const { return pool_; }

 private:
  std::shared_ptr<vel::LoopPool> pool_;
};
