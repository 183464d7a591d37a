// objcontainer.h - what a container type does for the object core, the
// serialiser and the walker.
//
// Most types are copied, written, read and walked by their components. A
// container (a list, a tree) holds its items through nodes instead, so its
// module gives its type a table of those four operations, the way a file
// layer is a table of operations; the core, the serialiser and the walker
// look the table up by magic and know no container by name. Each operation
// works through the small interface that its caller hands it.
#ifndef FHCORE_OBJCONTAINER_H
#define FHCORE_OBJCONTAINER_H

#include <cstddef>
#include <cstdint>

namespace fh {

// The object core's deep copy, for the items of a container.
class ObjectCopier {
  public:
    // A copy of object (null for null), shared where the original is.
    virtual void *copy(const void *object) = 0;
};

// The serialiser's writer, for a container's own layout.
class ObjectWriter {
  public:
    virtual bool byte(uint8_t value) = 0;
    virtual bool u32(uint32_t value) = 0;
    virtual bool object(const void *object) = 0; // with its lead byte
};

// The serialiser's reader. Every count read is checked with plausible, and
// every instance made is paid for with charge, before it is made.
class ObjectReader {
  public:
    virtual bool byte(uint8_t &value) = 0;
    virtual bool u32(uint32_t &value) = 0;
    virtual bool object(void **out) = 0;
    virtual bool plausible(uint64_t count) = 0;
    // The pool bytes of an instance of the declared type of magic, and the
    // charge of such bytes against what the input justifies.
    virtual size_t instanceBytes(uint32_t magic) = 0;
    virtual bool charge(size_t poolBytes) = 0;
    // The id of a shared object, entered before its items are read.
    virtual bool remember(int32_t id, void *object) = 0;
    virtual void forget(int32_t id) = 0;
    // An object whose body is being read; nesting is bounded.
    virtual bool enter(void *object) = 0;
    virtual void leave() = 0;
    // The end of a container's read: *out = container when ok; else the
    // container is released and its id forgotten. Gives ok.
    virtual bool settle(bool ok, int32_t id, void *container, void **out) = 0;
};

// The walker, for the nodes of a container.
class ObjectVisitor {
  public:
    // What a container does with a node after visiting it.
    enum class NodeStep { kKeep, kRemove, kDescend, kStop };
    struct NodeResult {
        NodeStep step;
        int32_t result; // what the walk ends with, for kStop
    };
    // Visits the object in *slot (a cookie, say); a walk result.
    virtual int32_t slot(void **slot) = 0;
    // Hands node to the callback, which may not replace it (modifyId and
    // modifyText report that it did), then visits its item in *item.
    virtual NodeResult node(void *node, void **item, int32_t modifyId, const char *modifyText) = 0;
};

// Where a container keeps its items when they hang in one chain of nodes:
// the offset of the first node's pointer in the container, of the next
// node's pointer in a node and of the item's pointer in a node.
struct NodeChain {
    size_t first;
    size_t next;
    size_t item;
};

// The items of the chain from the first node of container, in order.
template <typename Visit> bool forEachChainItem(const NodeChain &chain, const void *container, Visit visit) {
    auto pointerAt = [](const void *base, size_t offset) {
        return *reinterpret_cast<void *const *>(static_cast<const char *>(base) + offset);
    };
    for (const void *node = pointerAt(container, chain.first); node != nullptr; node = pointerAt(node, chain.next))
        if (!visit(pointerAt(node, chain.item))) return false;
    return true;
}

struct ContainerOperations {
    void (*copy)(ObjectCopier &copier, const void *from, void *to);
    bool (*write)(ObjectWriter &writer, const void *container);
    bool (*read)(ObjectReader &reader, int32_t id, void **out);
    int32_t (*walk)(ObjectVisitor &visitor, void *container);
    // Null, or the chain of a container whose byte form is a head, its items
    // and its magic again: write then writes the head only, and the writer
    // writes the items and the magic itself, with no call per item.
    const NodeChain *items;
};

// The container types and their operations, as their declarations register
// them when their templates are made (object.cpp). Looked up inline, since
// the serialiser asks for every object it writes or reads.
struct ContainerType {
    uint32_t magic;
    const ContainerOperations *operations;
};
inline constexpr int32_t kMaxContainerTypes = 4;
inline ContainerType gContainerTypes[kMaxContainerTypes] = {};
inline int32_t gContainerTypeCount = 0;

// The operations of the container type of magic, or null for a type that is
// handled by its components.
inline const ContainerOperations *containerOperations(uint32_t magic) {
    for (int32_t i = 0; i < gContainerTypeCount; ++i)
        if (gContainerTypes[i].magic == magic) return gContainerTypes[i].operations;
    return nullptr;
}

} // namespace fh

#endif // FHCORE_OBJCONTAINER_H
