// objwalk.cpp - the walker over object graphs.
//
// The walker visits each object once, keeping in a private index of visited
// objects those with more than one reference (only those can be met twice;
// the index costs O(1) an object where the sorted map of ObjWalkMapNew
// would move its tail); it walks lists and trees by their own code and every
// other object by its components.
#include "core/objwalk.h"

#include "core/context.h"
#include "core/map.h"
#include "core/object.h"
#include "objcontainer.h"
#include "objcore.h"
#include "seenindex.h"
#include "tracer.h"

namespace {

using fh::entriesOf;
using fh::field;
using fh::refCount;

constexpr fh::ModuleTracer trace{"OBJECT        "};

int32_t comparePointers(const void *a, const void *b) {
    const auto x = *static_cast<const uintptr_t *>(a), y = *static_cast<const uintptr_t *>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

struct Walk {
    ObjWalkFunction callback;
    void *cookie;
    fh::SeenIndex visited; // address to 1
    bool seen(const void *object) const {
        uintptr_t ignored = 0;
        return visited.find(reinterpret_cast<uintptr_t>(object), ignored);
    }
    void enter(const void *object) { visited.put(reinterpret_cast<uintptr_t>(object), 1); }
    void leave(const void *object) { visited.erase(reinterpret_cast<uintptr_t>(object)); }
};

int32_t visitSlot(Walk &walk, void **slot);

int32_t walkComponents(Walk &walk, void *object) {
    for (const ComponentEntry &e : entriesOf(fh::objectHeader(object)->Template)) {
        switch (e.Datatype) {
        case eObjObject:
            if (const int32_t result = visitSlot(walk, &field<void *>(object, e)); result != eObjWalkEnter)
                return result;
            break;
        case eObjNone:
            return trace.fault(eObjWalkAbort, 121, 1, "ObjWalker - Invalid component");
        case eObjBackLink:
            return trace.fault(eObjWalkAbort, 120, 1, "ObjWalker - Invalid component: BackwardLink");
        default: break;
        }
    }
    return eObjWalkEnter;
}

// The walker as a container's walk operation sees it. A node goes to the
// callback, which may not replace it, and then its item is visited.
class Visitor : public fh::ObjectVisitor {
  public:
    explicit Visitor(Walk &walk) : walk_(walk) {}
    int32_t slot(void **slot) override { return visitSlot(walk_, slot); }
    NodeResult node(void *node, void **item, int32_t modifyId, const char *modifyText) override {
        void *variable = node;
        switch (const int32_t result = walk_.callback(walk_.cookie, &variable)) {
        case eObjWalkEnter: {
            if (variable != node) {
                trace(modifyId, 1, -1, "%s", modifyText);
                ProcCrash(1);
                return {NodeStep::kStop, eObjWalkAbort};
            }
            const int32_t visited = visitSlot(walk_, item);
            if (visited < eObjWalkEnter || visited > eObjWalkRelease) return {NodeStep::kStop, visited};
            return {*item == nullptr ? NodeStep::kRemove : NodeStep::kDescend, eObjWalkEnter};
        }
        case eObjWalkSkip: return {NodeStep::kKeep, eObjWalkEnter};
        case eObjWalkRelease: return {NodeStep::kRemove, eObjWalkEnter};
        default: return {NodeStep::kStop, result};
        }
    }

  private:
    Walk &walk_;
};

int32_t visitSlot(Walk &walk, void **slot) {
    void *object = *slot;
    if (object == nullptr) return eObjWalkEnter;
    if (walk.seen(object)) return eObjWalkEnter;
    if (refCount(object) >= 2) walk.enter(object);
    switch (const int32_t result = walk.callback(walk.cookie, slot)) {
    case eObjWalkAbort: return eObjWalkAbort;
    case eObjWalkSkip: return eObjWalkEnter;
    case eObjWalkRelease:
        walk.leave(object);
        ObjReleaseInternal(slot);
        return eObjWalkEnter;
    case eObjWalkEnter: break;
    default: return result;
    }
    if (*slot != object) {
        walk.leave(object);
        object = *slot;
        if (object == nullptr) return eObjWalkEnter;
        walk.enter(object);
    }
    uint32_t magic = 0;
    if (!ObjGetMagic(object, &magic)) {
        trace(127, 1, 0, "Failed to read magic from object at %p", object);
        return eObjWalkAbort;
    }
    if (const fh::ContainerOperations *operations = fh::containerOperations(magic)) {
        Visitor visitor(walk);
        return operations->walk(visitor, object);
    }
    return walkComponents(walk, object);
}

} // namespace

BOOL ObjWalk(void **objectVariable, ObjWalkFunction callback, void *cookie, int32_t reserved) {
    if (objectVariable == nullptr || callback == nullptr || reserved != 0) return FALSE;
    Walk walk{callback, cookie, {}};
    return visitSlot(walk, objectVariable) != eObjWalkAbort;
}

MAP *ObjWalkMapNew(void) {
    MAP *map = nullptr;
    MapCreate(&map, sizeof(void *), 16, comparePointers, nullptr, nullptr);
    return map;
}

void ObjWalkMapRelease(MAP **mapAddress) {
    if (mapAddress != nullptr && *mapAddress != nullptr) ObjReleaseInternal(mapAddress);
}

BOOL ObjWalkMapAddObject(MAP *map, void *object) { return MapUpdateEntry(map, &object); }

BOOL ObjWalkMapRemoveObject(MAP *map, void *object) { return MapDeleteEntry(map, &object); }
