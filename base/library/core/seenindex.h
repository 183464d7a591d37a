// seenindex.h - a private table of the objects an operation has met: an
// object's address with its id (the serialiser's writer, the copier, the
// walker) or an id with its object (the serialiser's reader).
//
// The public maps of these operations are sorted arrays, where an entry
// inserted at a random place moves the tail: n objects met in address order
// would cost O(n^2). This table hashes its keys (Fibonacci hashing into a
// power of two of slots, linear probing, deletion by shifting back), so an
// insertion costs O(1) amortised: the table doubles before it is half full.
// Key 0 marks a free slot, so no key is 0. The slots are one pool block,
// freed with the table.
#ifndef FHCORE_SEENINDEX_H
#define FHCORE_SEENINDEX_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/memory.h"

namespace fh {

class SeenIndex {
  public:
    struct Slot {
        uintptr_t key; // 0: free
        uintptr_t value;
    };
    static constexpr size_t kFirstSlots = 64;

    SeenIndex() = default;
    SeenIndex(const SeenIndex &) = delete;
    SeenIndex &operator=(const SeenIndex &) = delete;
    ~SeenIndex() { MemFreeInternal(&slots_); }

    // The pool bytes of the table at its peak, while it doubles (old and new
    // slots at once), are at most those of its first slots three times over
    // and kPeakBytesPerKey for each key: it doubles from c slots to 2c
    // before it holds c/2 keys.
    static constexpr size_t kPeakBytesPerKey = 6 * sizeof(Slot);

    bool find(uintptr_t key, uintptr_t &value) const {
        if (count_ == 0) return false;
        for (size_t i = home(key);; i = (i + 1) & mask_) {
            if (slots_[i].key == key) {
                value = slots_[i].value;
                return true;
            }
            if (slots_[i].key == 0) return false;
        }
    }

    // Enters key with value, or gives an entered key the new value; false,
    // with nothing changed, when the table could not grow.
    bool put(uintptr_t key, uintptr_t value) {
        if (2 * (count_ + 1) > capacity_ && !grow()) return false;
        size_t i = home(key);
        while (slots_[i].key != 0 && slots_[i].key != key) i = (i + 1) & mask_;
        count_ += slots_[i].key == 0;
        slots_[i] = {key, value};
        return true;
    }

    void erase(uintptr_t key) {
        if (count_ == 0) return;
        size_t i = home(key);
        while (slots_[i].key != key) {
            if (slots_[i].key == 0) return;
            i = (i + 1) & mask_;
        }
        // Shift back each later entry of the run that may sit at the gap.
        size_t gap = i;
        for (size_t j = (gap + 1) & mask_; slots_[j].key != 0; j = (j + 1) & mask_) {
            if (((j - home(slots_[j].key)) & mask_) >= ((j - gap) & mask_)) {
                slots_[gap] = slots_[j];
                gap = j;
            }
        }
        slots_[gap].key = 0;
        --count_;
    }

    size_t size() const { return count_; }

    // Calls visit(key, value) for each entry, in no particular order.
    template <typename Visit> void forEach(Visit visit) const {
        for (size_t i = 0; i < capacity_; ++i)
            if (slots_[i].key != 0) visit(slots_[i].key, slots_[i].value);
    }

  private:
    size_t home(uintptr_t key) const { return static_cast<size_t>((uint64_t{key} * 0x9E3779B97F4A7C15ull) >> shift_); }

    bool grow() {
        const size_t capacity = capacity_ == 0 ? kFirstSlots : 2 * capacity_;
        auto *grown = static_cast<Slot *>(MemAllocateFromPool(capacity * sizeof(Slot), nullptr));
        if (grown == nullptr) return false;
        Slot *old = slots_;
        const size_t oldCapacity = capacity_;
        slots_ = grown;
        capacity_ = capacity;
        mask_ = capacity - 1;
        shift_ = 64 - static_cast<unsigned>(__builtin_ctzll(capacity));
        count_ = 0;
        for (size_t i = 0; i < oldCapacity; ++i)
            if (old[i].key != 0) put(old[i].key, old[i].value);
        MemFreeInternal(&old);
        return true;
    }

    Slot *slots_ = nullptr;
    size_t capacity_ = 0, count_ = 0, mask_ = 0;
    unsigned shift_ = 64;
};

} // namespace fh

#endif // FHCORE_SEENINDEX_H
