// Reference-counted objects, and the rule that keeps alive what the call stack still uses.
//
// Every object of the runtime is an Object held by Ptr. The count is not atomic: all objects belong
// to the event thread. While a Hold exists (a notification, an iteration, an operation of the host)
// an object whose last Ptr is released is not destroyed but kept until the last Hold ends. So a
// handler may delete the entity that is notifying it, the collection being iterated, or itself.
//
// The event thread is the first thread that uses an object; eventThreadIsThis() moves the objects
// to another thread. Debug builds assert that no other thread makes or copies a Ptr, changes an
// entity, begins or ends a subscription, notifies, iterates or takes a Hold. Getters and lookups by
// key are not checked.
#pragma once

#include <cstdint>
#include <typeinfo>
#include <utility>

#include "platform/Export.h"
#include "platform/netz/Assert.h"
#include "platform/trace/Ringlog.h"
#include "platform/vel/Types.h"

namespace Vel {

#ifdef NDEBUG
inline void assertEventThread() {}
#else
VEL_EXPORT void assertEventThread();
#endif
// For a host that starts on one thread and runs on another. The previous event thread may not use
// objects any more.
VEL_EXPORT void eventThreadIsThis();

template <class T>
class Ptr;
template <class T, class... Args>
Ptr<T> make(Args&&... args);

class VEL_EXPORT Object {
  public:
    Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    // Whether no Ptr is left: the object waits for the stack to unwind and is no longer called.
    bool gone() const { return buried_ && refs_ == 0; }

  protected:
    // A constructor that throws while a Ptr to the object exists would leave that Ptr dangling.
    virtual ~Object() { VEL_ASSERT(refs_ == 0, "an object is destroyed while a Ptr to it exists"); }

  private:
    template <class>
    friend class Ptr;
    friend class Hold;
    template <class T, class... Args>
    friend Ptr<T> make(Args&&... args);

    void retain() {
        assertEventThread();
        ++refs_;
    }
    void release() {
        if (--refs_ == 0) dispose(this);
    }
    static void dispose(Object* object);  // destroys it now, or when the last Hold ends
    static void destroy(Object* object);
    void made() {
        VEL_ASSERT(refs_ == 0, "a Ptr to an object under construction");
        made_ = true;
    }

    U32 refs_ = 0;         // Ptrs to it
    bool made_ = false;    // its constructor has returned
    bool buried_ = false;  // waits for the last Hold, or is being destroyed
};

// Intrusive counted pointer. A move costs nothing, a copy an increment. REQUIRES: the constructor
// of the object has returned.
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
    T* object = new T(std::forward<Args>(args)...);
    static_cast<Object*>(object)->made();
    return Ptr<T>(object);
}

// While one exists, objects without a Ptr are kept. Take one around an operation made of several
// mutations whose results are used afterwards. It is an event of the trace.
class VEL_EXPORT Hold {
  public:
    Hold() {
        assertEventThread();
        Ringlog::beginEvent();
    }
    ~Hold() {
        if (Ringlog::endEvent() && pending) [[unlikely]]
            destroyPending();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

  private:
    friend class Object;
    static bool exists() { return Ringlog::state.events != 0; }
    static void destroyPending();
    static bool pending;  // an object waits for the end of the last Hold
};

// The object whose destructor runs, or null. An error caused by a destructor has no caller to
// reach.
VEL_EXPORT const Object* objectBeingDestroyed();

// Stops the process because a handler threw where nothing can be thrown: "Nav::NavRootSm::doCleanup
// threw: not found". Called while the exception is being handled.
[[noreturn, gnu::cold]] VEL_EXPORT void handlerThrew(const std::type_info& type,
                                                     const char* handler);

}  // namespace Vel
