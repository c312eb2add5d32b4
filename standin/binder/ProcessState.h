// The process's binder state, as far as the daemon uses it.
#pragma once

#include <utils/RefBase.h>

namespace android {

class ProcessState : public virtual RefBase {
  public:
    /** The one state of this process. */
    static sp<ProcessState> self();

    /** Starts the pool's first thread; later calls do nothing. */
    void startThreadPool();

  private:
    ProcessState() = default;
    static ProcessState* const process; // never freed: threads use it until the process ends

    [[maybe_unused]] bool started = false; // atomic
};

} // namespace android
