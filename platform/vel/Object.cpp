#include "platform/vel/Object.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace Vel {
namespace {

// Never destroyed: objects with static storage may still release their Ptrs at exit.
std::vector<Object*>& graveyard() {
    static auto* objects = new std::vector<Object*>;
    return *objects;
}

const Object* beingDestroyed = nullptr;

// The address of a thread-local variable identifies the thread, also in a forked child.
thread_local char thread;
std::atomic<const char*> eventThread = nullptr;  // set by the first use

}  // namespace

#ifndef NDEBUG
void assertEventThread() {
    const char* owner = eventThread.load(std::memory_order_relaxed);
    if (owner == &thread) return;
    const bool first = !owner && eventThread.compare_exchange_strong(owner, &thread);
    VEL_ASSERT(first, "an object is used by another thread than the event thread");
}
#endif
void eventThreadIsThis() {
    eventThread = &thread;
}

bool Hold::pending = false;

const Object* objectBeingDestroyed() {
    return beingDestroyed;
}

void Object::dispose(Object* object) {
    if (object->buried_) return;
    VEL_ASSERT(object->made_, "a Ptr to an object under construction");
    object->buried_ = true;
    if (Hold::exists()) {  // each is an event of the trace, and nothing else begins one
        graveyard().push_back(object);
        Hold::pending = true;
    } else {
        destroy(object);
    }
}

void Object::destroy(Object* object) {
    const Object* const outer = std::exchange(beingDestroyed, object);
    delete object;
    beingDestroyed = outer;
}

void Hold::destroyPending() {
    pending = false;
    std::vector<Object*> objects;
    objects.swap(graveyard());
    for (Object* object : objects) {
        if (object->refs_ == 0)
            Object::destroy(object);
        else
            object->buried_ = false;  // a Ptr to it was made since
    }
}

void handlerThrew(const std::type_info& type, const char* handler) {
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
    std::string text = name ? name.get() : type.name();
    text.append(handler).append(" threw");
    try {
        throw;
    } catch (const std::exception& error) {
        text.append(": ").append(error.what());
    } catch (...) {
    }
    assertionFailed(text.c_str(), __FILE__, __LINE__);
}

}  // namespace Vel
