// records.h - the message-like object of the serialisation benchmarks: a
// list of 100 records, each of two integers, a 64-bit integer and a 16-byte
// string, and the same values packed by the peer serialiser as an array of
// 100 arrays of four.
#ifndef FHCORE_BENCH_RECORDS_H
#define FHCORE_BENCH_RECORDS_H

#include <msgpack.h>

#include "core/fhcore.h"

namespace records {

constexpr int kCount = 100;
constexpr uint32_t kMagic = 0xC9000301u;
struct Record {
    int32_t first;
    int32_t second;
    int64_t wide;
    char *text;
};
inline const char kText[] = "sixteen bytes ok";
static_assert(sizeof kText == 17, "a 16-byte string");

// The list; the record type is declared here, and may arrive from elsewhere.
inline LIST *make() {
    ObjTemplateSetReceivable(ObjTemplateNewInternal(sizeof(Record), kMagic, "i;i;I;s;", nullptr), nullptr);
    LIST *list = ListNewFromPool(kMagic, nullptr);
    for (int i = 0; i < kCount; ++i) {
        auto *record = static_cast<Record *>(ObjNewInternal(sizeof(Record), kMagic, "i;i;I;s;", nullptr, nullptr));
        *record = {i, -i * 1000, int64_t{i} << 40, StrDuplicateIntoPool(kText, nullptr)};
        ListPushLastItemInternal(list, &record);
    }
    return list;
}

// The same values through the peer's packer into buffer.
inline void pack(msgpack_sbuffer *buffer, const LIST *list) {
    msgpack_packer packer;
    msgpack_packer_init(&packer, buffer, msgpack_sbuffer_write);
    msgpack_pack_array(&packer, kCount);
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const auto *record = static_cast<const Record *>(node->oItem);
        msgpack_pack_array(&packer, 4);
        msgpack_pack_int32(&packer, record->first);
        msgpack_pack_int32(&packer, record->second);
        msgpack_pack_int64(&packer, record->wide);
        msgpack_pack_str(&packer, 16);
        msgpack_pack_str_body(&packer, record->text, 16);
    }
}

} // namespace records

#endif // FHCORE_BENCH_RECORDS_H
