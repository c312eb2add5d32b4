// Strong pointer of the platform's libutils: whoever has one keeps the object alive.
#pragma once

namespace android {

template <typename T> class sp {
  public:
    constexpr sp() = default;
    sp(T* other) : object(other) // NOLINT: implicit on the platform as well
    {
        hold();
    }
    sp(const sp& other) : object(other.object) { hold(); }
    sp(sp&& other) noexcept : object(other.object) { other.object = nullptr; }
    ~sp() { clear(); }

    sp& operator=(const sp& other)
    {
        sp copy(other);
        T* mine = object;
        object = copy.object;
        copy.object = mine;
        return *this;
    }

    void clear()
    {
        if (object != nullptr) {
            object->decStrong(this);
            object = nullptr;
        }
    }

    T* get() const { return object; }
    T* operator->() const { return object; }
    T& operator*() const { return *object; }

  private:
    void hold()
    {
        if (object != nullptr) {
            object->incStrong(this);
        }
    }

    T* object = nullptr;
};

} // namespace android
