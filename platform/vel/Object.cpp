#include "platform/vel/Object.h"

#include <vector>

namespace Vel {

U32 Hold::depth = 0;
bool Hold::pending = false;

namespace {
// Never destroyed: objects with static storage may still let go of theirs at exit.
std::vector<Object*>& graveyard() {
    static auto* objects = new std::vector<Object*>;
    return *objects;
}
}  // namespace

void Object::dispose(Object* object) {
    if (object->buried_) return;
    object->buried_ = true;
    if (Hold::depth == 0) {
        delete object;
    } else {
        graveyard().push_back(object);
        Hold::pending = true;
    }
}

void Hold::bury() {
    pending = false;
    std::vector<Object*> objects;
    objects.swap(graveyard());
    for (Object* object : objects) {
        if (object->refs_ == 0)
            delete object;
        else
            object->buried_ = false;  // somebody took it up again
    }
}

}  // namespace Vel
