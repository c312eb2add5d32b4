// Reference counts as the platform's libutils has them, as far as the daemon needs them.
#pragma once

#include <utils/StrongPointer.h>

#include <stdint.h>

namespace android {

/**
 * An object that lives while strong references to it exist. Here its library holds one reference of
 * its own for good, so the count never falls to 0.
 *
 * As on the platform it is a virtual base of what derives from it: the way from an object to its
 * count leads through the object's table, and a caller built with this header takes the same one.
 */
class RefBase {
  public:
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

    void incStrong(const void* id) const;
    void decStrong(const void* id) const;

  protected:
    RefBase() = default;
    virtual ~RefBase() = default;

  private:
    mutable int32_t strong = 1; // atomic
};

} // namespace android
