// sizes.h - sizes computed from arguments or received values, and the pool
// bytes that a reader of bytes from elsewhere counts its allocations in.
#ifndef FHCORE_SIZES_H
#define FHCORE_SIZES_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "core/types.h"

namespace fh {

// The largest size computed from arguments or received values: what the
// 32-bit size fields of records and byte forms hold.
inline constexpr size_t kLargestComputedSize = INT32_MAX;

// The bytes of count things of unit bytes behind a head of extra bytes, or
// nothing for a negative count or a size beyond limit. The product and the
// sum are checked, so no overflow passes for a small size. Every size that
// is computed from arguments or received values goes through here.
constexpr std::optional<size_t> checkedSize(int64_t count, size_t unit, size_t extra = 0,
                                            size_t limit = kLargestComputedSize) {
    size_t product = 0, total = 0;
    if (count < 0 || __builtin_mul_overflow(static_cast<uint64_t>(count), unit, &product) ||
        __builtin_add_overflow(product, extra, &total) || total > limit)
        return std::nullopt;
    return total;
}

// Pool bytes: what a block of size user bytes takes (header, user area as
// the pool rounds it, guard word), the bytes of all blocks in use, and the
// highest that has been since the last reset of the peak. A reader of bytes
// from elsewhere counts its allocations in the same unit.
size_t memBlockBytes(size_t size);
size_t memBytesInUse();
size_t memBytesPeak();
void memResetBytesPeak();

// MemAllocateFromPool of size bytes that start as a copy of the filled bytes
// at from, zero behind them: a grown array is not cleared where the copy of
// the old one lands.
void *memAllocateFilled(size_t size, MemPool *pool, const void *from, size_t filled);

} // namespace fh

#endif // FHCORE_SIZES_H
