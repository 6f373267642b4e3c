// Counted objects, and the rule that keeps what stands on the call stack alive.
//
// Everything the runtime hands out is an Object held by Ptr. The count is not atomic: all objects
// belong to the one event thread. While any Hold exists (a notification round, a walk over a
// collection, an operation of the host) an object whose last Ptr goes is not destroyed but kept
// until the last Hold goes. So a handler may delete the entity that is notifying it, the collection
// being walked, or itself: nothing on the stack below it vanishes.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/Export.h"
#include "platform/vel/Types.h"

namespace Vel {

class VEL_EXPORT Object {
  public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    // Nobody owns it any more: it only waits for the stack to unwind, and is no longer called.
    bool gone() const { return buried_ && refs_ == 0; }

  protected:
    virtual ~Object() = default;

  private:
    template <class>
    friend class Ptr;
    friend class Hold;

    void retain() { ++refs_; }
    void release() {
        if (--refs_ == 0) dispose(this);
    }
    static void dispose(Object* object);  // destroys now, or when the last Hold goes

    U32 refs_ = 0;
    bool buried_ = false;  // waits for the last Hold, or is being destroyed
};

// Intrusive counted pointer. Moving is free, copying an increment.
template <class T>
class Ptr {
  public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    explicit Ptr(T* object) : object_(object) { retain(); }
    Ptr(T& object) : object_(&object) { retain(); }
    Ptr(const Ptr& other) : object_(other.object_) { retain(); }
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other) : object_(other.get()) {
        retain();
    }
    ~Ptr() { release(); }
    Ptr& operator=(Ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    T* get() const { return object_; }
    T& operator*() const { return *object_; }
    T* operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }
    friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
    friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }

  private:
    using Base = const Object;
    void retain() const {
        if (object_) static_cast<Object*>(object_)->retain();
    }
    void release() const {
        if (object_) static_cast<Object*>(object_)->release();
    }
    T* object_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
    return Ptr<T>(new T(std::forward<Args>(args)...));
}

// While one exists, objects without an owner wait. Take one around an operation made of several
// mutations whose results are still used afterwards.
class VEL_EXPORT Hold {
  public:
    Hold() { ++depth; }
    ~Hold() {
        if (--depth == 0 && pending) bury();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

  private:
    friend class Object;
    static void bury();  // destroys what waits
    static U32 depth;
    static bool pending;
};

}  // namespace Vel
