// cfg.cpp - the front end of configuration: each call decides between
// this machine's files and the configuration server.
//
// Every exported call is one line over forward(), which asks CfgUtilDoRemote
// and runs the local operation unless the call goes remote. A call goes
// remote only from a task whose context names a configuration server; until
// this library gives processes task contexts none does, and a remote call
// would fail cleanly. The front end keeps no state between calls. The
// settings of a stanza list held in memory are the utilities' (cfgutil.cpp).
#include "core/config.h"

#include "core/cfglocal.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/objviewinfo.h"
#include "core/stanza.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"CONFIG        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdReturnedFalse = 1,
    kIdNoRemote = 2,
};

// Runs local() unless the call is to go remote. There is no server side in
// this library yet: a remote call fails, traced, and never falls back.
template <typename Local> BOOL forward(const char *file, Local local) {
    char *client = nullptr, *server = nullptr;
    if (!CfgUtilDoRemote(&client, &server, file, nullptr)) return local();
    trace(kIdNoRemote, 0, 1, "No configuration server for '%s' from '%s'", server, client);
    MemFreeInternal(&client);
    MemFreeInternal(&server);
    return FALSE;
}

// The same, tracing a failure by the operation's name.
template <typename Local> BOOL forwardTraced(const char *name, const char *file, Local local) {
    const BOOL result = forward(file, local);
    if (!result) trace(kIdReturnedFalse, 0, 2, "%s returned FALSE", name);
    return result;
}

} // namespace

// ---- Stanzas and files ------------------------------------------------------

BOOL CfgGetStanza(Stanza **out, const char *file, const char *title) {
    return forwardTraced("CfgGetStanza", file, [&] { return CfgLocalGetStanza(out, file, title, nullptr); });
}

BOOL CfgGetStanzaList(LIST **out, const char *file) {
    return forwardTraced("CfgGetStanzaList", file, [&] { return CfgLocalGetStanzaList(out, file, nullptr); });
}

BOOL CfgReplaceStanzaList(const char *file, const LIST *list) {
    return forwardTraced("CfgReplaceStanzaList", file,
                         [&] { return CfgLocalReplaceStanzaList(file, list, nullptr); });
}

BOOL CfgAddStanza(const Stanza *stanza, const char *file) {
    return forwardTraced("CfgAddStanza", file, [&] { return CfgLocalAddStanza(stanza, file, nullptr); });
}

BOOL CfgReplaceStanza(const Stanza *stanza, const char *file) {
    return forwardTraced("CfgReplaceStanza", file, [&] { return CfgLocalReplaceStanza(stanza, file, nullptr); });
}

BOOL CfgRemoveStanza(const char *category, const char *title, const char *file) {
    return forward(file, [&] { return CfgLocalRemoveStanza(category, file, title, nullptr); });
}

// ---- Settings ---------------------------------------------------------------

BOOL CfgGetKey(const char *file, const char *section, const char *item, StanzaKey **out) {
    return forward(file, [&] { return CfgLocalGetKey(out, file, section, item, nullptr); });
}

BOOL CfgGetBoolean(BOOL *out, const char *file, const char *section, const char *item, BOOL defaultValue) {
    return forward(file, [&] { return CfgLocalGetBoolean(out, file, section, item, nullptr, defaultValue); });
}

BOOL CfgGetInteger(int32_t *out, const char *file, const char *section, const char *item, int32_t defaultValue) {
    return forward(file, [&] { return CfgLocalGetInteger(out, file, section, item, nullptr, defaultValue); });
}

BOOL CfgGetInt64(int64_t *out, const char *file, const char *section, const char *item, int64_t defaultValue) {
    return forward(file, [&] { return CfgLocalGetInt64(out, file, section, item, nullptr, defaultValue); });
}

BOOL CfgGetString(char **out, const char *file, const char *section, const char *item, const char *defaultValue) {
    return forward(file, [&] { return CfgLocalGetString(out, file, section, item, nullptr, defaultValue); });
}

BOOL CfgGetValueList(LIST **out, const char *file, const char *section, const char *item) {
    return forward(file, [&] { return CfgLocalGetValueList(out, file, section, item, nullptr); });
}

BOOL CfgSetInteger(const char *file, const char *section, const char *item, int32_t value) {
    return forward(file, [&] { return CfgLocalSetInteger(file, section, item, value, nullptr); });
}

BOOL CfgSetInt64(const char *file, const char *section, const char *item, int64_t value) {
    return forward(file, [&] { return CfgLocalSetInt64(file, section, item, value, nullptr); });
}

BOOL CfgSetString(const char *file, const char *section, const char *item, const char *string) {
    return forward(file, [&] { return CfgLocalSetString(file, section, item, string, nullptr); });
}

BOOL CfgSetValueList(const char *file, const char *section, const char *item, const LIST *list) {
    return forward(file, [&] { return CfgLocalSetValueList(file, section, item, list, nullptr); });
}

BOOL CfgSetBoolean(const char *file, const char *section, const char *item, BOOL value) {
    return forward(file, [&] { return CfgLocalSetBoolean(file, section, item, value, nullptr); });
}

BOOL CfgAddEntryToValueList(LIST **out, const char *file, const char *category, const char *title,
                            const char *entry, BOOL noDuplicates, BOOL noCase) {
    return forward(file, [&] {
        return CfgLocalAddEntryToValueList(out, file, category, title, entry, noDuplicates, noCase, nullptr);
    });
}

BOOL CfgRemoveEntryFromValueList(LIST **out, const char *file, const char *category, const char *title,
                                 const char *entry, BOOL noCase) {
    return forward(file, [&] {
        return CfgLocalRemoveEntryFromValueList(out, file, category, title, entry, noCase, nullptr);
    });
}

BOOL CfgAddValueToKey(const char *file, const char *title, const char *keyword, const char *value) {
    return forward(file, [&] { return CfgLocalAddValueToKey(file, title, keyword, value, nullptr); });
}

BOOL CfgRemoveValueFromKey(const char *file, const char *title, const char *keyword, const char *value) {
    return forward(file, [&] { return CfgLocalRemoveValueFromKey(file, title, keyword, value, nullptr); });
}

BOOL CfgRemoveKey(const char *file, const char *title, const char *keyword) {
    return CfgLocalRemoveKey(file, title, keyword, nullptr);
}

// ---- Paths ------------------------------------------------------

char *CfgBuildPath(const char *file) { return CfgLocalBuildPath(file); }

// ---- Settings in a stanza list ----------------------------------------------

BOOL CfgGetKeyFromList(const LIST *list, const char *section, const char *item, StanzaKey **out) {
    return CfgUtilGetKeyFromList(list, section, item, out);
}

BOOL CfgGetBooleanFromList(BOOL *out, const LIST *list, const char *section, const char *item, BOOL defaultValue) {
    return CfgUtilGetBooleanFromList(out, list, section, item, defaultValue);
}

BOOL CfgGetIntegerFromList(int32_t *out, const LIST *list, const char *section, const char *item,
                           int32_t defaultValue) {
    return CfgUtilGetIntegerFromList(out, list, section, item, defaultValue);
}

BOOL CfgGetInt64FromList(int64_t *out, const LIST *list, const char *section, const char *item,
                         int64_t defaultValue) {
    return CfgUtilGetInt64FromList(out, list, section, item, defaultValue);
}

BOOL CfgGetValueListFromList(LIST **out, const LIST *list, const char *section, const char *item) {
    return CfgUtilGetValueListFromList(out, list, section, item);
}

BOOL CfgParseValueList(LIST **out, const LIST *list) { return CfgUtilParseValueList(out, list); }
