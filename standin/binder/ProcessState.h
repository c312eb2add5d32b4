// The process's binder state, as far as the daemon uses it.
#pragma once

#include <utils/RefBase.h>

namespace android {

class ProcessState : public RefBase {
  public:
    /** The one state of this process. */
    static sp<ProcessState> self();

    /** Starts the pool's first thread; later calls do nothing. */
    void startThreadPool();

  private:
    constexpr ProcessState() = default;
    static ProcessState process;

    [[maybe_unused]] bool started = false; // atomic
};

} // namespace android
