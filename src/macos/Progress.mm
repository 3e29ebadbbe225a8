#include "macos/Progress.h"

#include "macos/Retained.h"

namespace kestrune::macos {

namespace {

using CancellationBlock = void (^)(void);

/// What our progress owns of the platform's. It goes with our progress.
class Display {
 public:
  explicit Display(const std::shared_ptr<platform::NSProgress>& progress)
      : display_(Retained<::NSProgress*>::adopt([[::NSProgress alloc] initWithParent:nil
                                                                            userInfo:nil])),
        cancellation_(cancellationOf(progress)) {
    [display_.get() setCancellationHandler:cancellation_.get()];
  }
  Display(const Display&) = delete;
  Display& operator=(const Display&) = delete;
  ~Display() {
    @autoreleasepool {
      [display_.get() setCancellationHandler:^{
      }];  // nobody is left to be told
      display_ = {};
    }
  }

  void show(const platform::NSProgress::Snapshot& counts) const {
    @autoreleasepool {
      if ([display_.get() totalUnitCount] != counts.totalUnitCount)
        [display_.get() setTotalUnitCount:counts.totalUnitCount];
      [display_.get() setCompletedUnitCount:counts.completedUnitCount];
    }
  }

  ::NSProgress* object() const { return display_.get(); }

 private:
  static RetainedBlock<CancellationBlock> cancellationOf(
      const std::shared_ptr<platform::NSProgress>& progress) {
    const std::weak_ptr<platform::NSProgress> weak = progress;
    return RetainedBlock<CancellationBlock>(^{
      if (const auto alive = weak.lock()) alive->cancel();
    });
  }

  Retained<::NSProgress*> display_;
  RetainedBlock<CancellationBlock> cancellation_;
};

}  // namespace

::NSProgress* shown(const std::shared_ptr<platform::NSProgress>& progress) {
  const auto display = std::make_shared<Display>(progress);
  ::NSProgress* const object = [[display->object() retain] autorelease];
  progress->mirror(
      [display](const platform::NSProgress::Snapshot& counts) { display->show(counts); });
  return object;
}

}  // namespace kestrune::macos
