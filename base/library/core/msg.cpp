// msg.cpp - messaging: the names of message ids.
//
// The catalogue is one list: the family lists of base/include/messages,
// expanded here in id order (msgcatalogue.h) into kCatalogue, a static table
// of {name, id} rows. MsgInitializeThread copies the rows into the
// context's name map, a MAP of the same rows sorted by id, to which
// MsgSetMsgName adds names at run time, their text in the module's pool.
// A name is found by id with a binary search, of the catalogue first and
// then of the map's array, and an id by name with a walk of the map in id
// order.
//
// Invariant: every id of the catalogue is in the map with the catalogue's
// own text, so the text of an entry is the module's to free exactly when it
// is not the catalogue's text for its id.
#include "core/msg.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "core/context.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/net.h"
#include "core/object.h"
#include "core/strbase.h"
#include "messages/msgcatalogue.h"
#include "msgchannel.h"
#include "msgnames.h"
#include "text.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdLoaded = 1,
    kIdMapFailed = 2,
    kIdBadBuffer = 3,
    kIdNameTaken = 4,
    kIdBadName = 5,
    kIdReleaseStart = 6,
    kIdReleaseField = 7,
    kIdReleaseEnd = 8,
};

// The objects of the context that go in the fifth step of a release, in
// their order, with the names their traces give.
struct ReleasedField {
    const char *name;
    void *LmContext::*field;
};
// The context's timeout belongs to the timers, which release it in their
// own step of the ladder; its row keeps its place in the order.
constexpr ReleasedField kReleasedFields[] = {
    {"oTimeout", nullptr},
    {"oChannels", &LmContext::oMsgChannels},
    {"oConnectingList", &LmContext::oMsgConnectingList},
    {"oLingerList", &LmContext::oMsgLingerList},
    {"oLocalAddress", &LmContext::oMsgLocalAddress},
    {"oNotifyOnDeathList", &LmContext::oMsgNotifyOnDeathList},
};

using fh::MessageName;

#define FH_MSG_ROW(name) {#name, name},
#define FH_MSG_FIRST_ROW(name, id) FH_MSG_ROW(name)
#define FH_MSG_NOTHING(...)
#define FH_MSG_CHECK_GAP(first, last)                                                                                  \
    static_assert(fhMsgUnassigned##first == (first) && (first) <= (last), "a gap begins after the id before it");

constexpr MessageName kCatalogue[] = {FH_MSG_CATALOGUE(FH_MSG_FIRST_ROW, FH_MSG_ROW, FH_MSG_NOTHING)};
FH_MSG_CATALOGUE(FH_MSG_NOTHING, FH_MSG_NOTHING, FH_MSG_CHECK_GAP)

constexpr bool strictlyAscending() {
    return std::adjacent_find(std::begin(kCatalogue), std::end(kCatalogue),
                              [](const MessageName &a, const MessageName &b) { return a.id >= b.id; }) ==
           std::end(kCatalogue);
}
static_assert(std::size(kCatalogue) == 449, "the catalogue has 449 names");
static_assert(strictlyAscending(), "the families stand in ascending order of ids");

// The first allocation of the map holds the catalogue and a few names more.
constexpr int32_t kMapGrowth = 469;

MemPool *gPool = nullptr;

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

MAP *nameMap() { return static_cast<MAP *>(gtLmContext.pMsgNameMap); }

// The rows to search: the map's, or the catalogue's where there is no map.
std::span<const MessageName> rows() {
    const MAP *map = nameMap();
    if (map == nullptr) return kCatalogue;
    return {static_cast<const MessageName *>(map->oData.pData), static_cast<size_t>(map->iCount)};
}

const MessageName *find(std::span<const MessageName> in, int32_t id) {
    auto at =
        std::lower_bound(in.begin(), in.end(), id, [](const MessageName &row, int32_t key) { return row.id < key; });
    return at != in.end() && at->id == id ? &*at : nullptr;
}

// The row of id in the map. An id of the catalogue has the catalogue's own
// row there (the invariant), so the catalogue answers it without a load of
// the map: a name is looked up in the trace of every message.
const MessageName *findById(int32_t id) {
    if (const MessageName *row = find(kCatalogue, id); row != nullptr) return row;
    return nameMap() != nullptr ? find(rows(), id) : nullptr;
}

int32_t compareIds(const void *a, const void *b) {
    const int32_t x = static_cast<const MessageName *>(a)->id, y = static_cast<const MessageName *>(b)->id;
    return x < y ? -1 : x > y ? 1 : 0;
}

void releaseName(void *entry) {
    auto *row = static_cast<MessageName *>(entry);
    const MessageName *own = find(kCatalogue, row->id);
    if (own == nullptr || own->name != row->name) {
        char *text = const_cast<char *>(row->name);
        MemFreeInternal(&text);
    }
}

// Copies whole characters of text into buffer, at most limit bytes.
void copyCut(char *buffer, const char *text, int32_t limit) {
    int32_t used = 0;
    for (int32_t bytes; text[used] != '\0' && used + (bytes = fh::charBytes(text + used)) <= limit;) used += bytes;
    memcpy(buffer, text, static_cast<size_t>(used));
}

constexpr const char *kUnknownFormat = "Unknown message type %ld";

// MsgNameWithBuffer apart from a known name without a buffer: the text of
// row (null for an unknown id) in buffer, or in the context's field.
__attribute__((noinline)) const char *nameIntoText(int32_t type, const MessageName *row, char *buffer, int32_t size) {
    if (buffer != nullptr && size < 1) {
        trace(kIdBadBuffer, 0, -1, "MsgNameWithBuffer(%ld, %p, %ld) - bad buffer", static_cast<long>(type),
              static_cast<void *>(buffer), static_cast<long>(size));
        ProcCrash(0);
        if (row != nullptr) return row->name;
        buffer = nullptr;
    }
    if (buffer == nullptr) {
        char *field = gtLmContext.szMsgUnknownName;
        snprintf(field, sizeof gtLmContext.szMsgUnknownName, kUnknownFormat, static_cast<long>(type));
        return field;
    }
    memset(buffer, 0, static_cast<size_t>(size));
    if (row != nullptr)
        copyCut(buffer, row->name, size - 1);
    else
        snprintf(buffer, static_cast<size_t>(size), kUnknownFormat, static_cast<long>(type));
    return buffer;
}

} // namespace

std::span<const MessageName> fh::messageCatalogue() { return kCatalogue; }

const char *MsgNameWithBuffer(int32_t type, char *buffer, int32_t size) {
    const MessageName *row = findById(type);
    if (buffer == nullptr && row != nullptr) return row->name;
    return nameIntoText(type, row, buffer, size);
}

BOOL MsgTypeFromName(int32_t *type, const char *name) {
    if (type == nullptr || name == nullptr) return FALSE;
    const std::span<const MessageName> in = rows();
    auto match = std::find_if(in.begin(), in.end(),
                              [&](const MessageName &row) { return StrCompareNoCase(row.name, name) == 0; });
    if (match == in.end()) return FALSE;
    *type = match->id;
    return TRUE;
}

BOOL MsgSetMsgName(int32_t type, const char *name) {
    if (name == nullptr || name[0] == '\0' || nameMap() == nullptr) {
        trace(kIdBadName, 0, 1, "MsgSetMsgName(%ld, %s) - no name or no map", static_cast<long>(type),
              name != nullptr ? name : "(null)");
        return FALSE;
    }
    MessageName row{StrDuplicateIntoPool(name, pool()), type};
    if (MapInsertEntry(nameMap(), &row)) return TRUE;
    trace(kIdNameTaken, 0, 1, "MsgSetMsgName(%ld, %s) - the id is named %s", static_cast<long>(type), name,
          MsgNameWithBuffer(type, nullptr, 0));
    char *text = const_cast<char *>(row.name);
    MemFreeInternal(&text);
    return FALSE;
}

// The templates and the well-known addresses (msgaddress.cpp, msgpacket.cpp).
BOOL MsgInitialize(void) {
    return fh::msgAddressesInitialize() && fh::msgPacketsInitialize() && fh::msgChannelsInitialize() &&
           fh::msgConnectInitialize() && fh::msgReceiveInitialize();
}

BOOL MsgInitializeThread(void) {
    MsgReleaseThread(&gtLmContext);
    MAP *map = nullptr;
    if (!MapCreate(&map, sizeof(MessageName), kMapGrowth, compareIds, nullptr, releaseName)) {
        trace(kIdMapFailed, 0, -1, "MsgInitializeThread - no map of message names");
        return FALSE;
    }
    for (const MessageName &row : kCatalogue) MapInsertEntry(map, &row);
    trace(kIdLoaded, 0, 2, "Initialize %ld message names", static_cast<long>(MapSize(map)));
    gtLmContext.pMsgNameMap = map;
    return fh::msgAddressesInitializeThread() && fh::msgChannelsInitializeThread() &&
           fh::msgReceiveInitializeThread();
}

// Lingering channels wait for their peers before they go; until the
// process has them, every channel goes down at once, as with a quick exit.
void MsgReleaseThread(LmContext *context) {
    trace(kIdReleaseStart, 0, 2, "MsgReleaseThread()");
    fh::msgChannelsShutDown(context);
    for (const ReleasedField &row : kReleasedFields) {
        trace(kIdReleaseField, 0, 2, "Release %s", row.name);
        if (row.field != nullptr) ObjReleaseInternal(&(context->*row.field));
    }
    ObjReleaseInternal(&context->oMsgIpcChannel);
    context->bMsgIpcConnected = FALSE;
    ObjReleaseInternal(&context->pMsgNameMap);
    for (void **mask : {&context->pMsgWorkingMask, &context->pMsgSelectMask})
        NetReleaseSelectMask(reinterpret_cast<NetSelectMask **>(mask));
    fh::msgReceiveReleaseThread(context);
    trace(kIdReleaseEnd, 0, 2, "Finished MsgReleaseThread");
}
