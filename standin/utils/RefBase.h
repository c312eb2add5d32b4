// Reference counts as the platform's libutils has them, as far as the daemon needs them.
#pragma once

#include <utils/StrongPointer.h>

#include <stdint.h>

namespace android {

/**
 * An object that lives while strong references to it exist. Here every such object is static and
 * its library holds one reference of its own, so the count never falls to 0.
 */
class RefBase {
  public:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    void incStrong(const void* id) const;
    void decStrong(const void* id) const;

  protected:
    constexpr RefBase() = default;

  private:
    mutable int32_t strong = 1; // atomic
};

} // namespace android
