// A thread's side of binder, as far as the daemon uses it.
#pragma once

namespace android {

class IPCThreadState {
  public:
    /** The calling thread's state. */
    static IPCThreadState* self();

    /**
     * Makes the calling thread one of the pool, which serves calls until the pool is left.
     *
     * @param isMain  true for the thread that stays for the life of the process
     */
    void joinThreadPool(bool isMain = true);

  private:
    constexpr IPCThreadState() = default;
    static IPCThreadState state;
};

} // namespace android
