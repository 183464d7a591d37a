// objserial_corpus - writes the seed corpus of objserial_fuzz: the byte form
// of every type the library declares.
//
//     build-fuzz/bin/objserial_corpus fuzz/corpus/objserial_fuzz
//
// Each type gets "<name>.zero", the body of an instance whose components
// are all zero or empty, built from its magic and format (so types that the
// writer cannot encode, like the list and tree nodes, are there too), and
// the types that can be made through the interface also get "<name>.made",
// the writer's own encoding of a real object: pointers, callbacks and all, as a
// peer could send them. Two hand-made inputs stand beside them: a MAP whose
// release would call 0x41414141, and an OBJ_MAP whose entry array holds that
// address.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/fhcore.h"

namespace {

using Bytes = std::vector<unsigned char>;
std::string gDirectory;

void save(const std::string &name, const Bytes &bytes) {
    const std::string path = gDirectory + "/" + name;
    FILE *file = fopen(path.c_str(), "wb");
    if (file == nullptr || fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || fclose(file) != 0) abort();
}

void u32(Bytes &b, uint32_t v) {
    for (int shift = 0; shift < 32; shift += 8) b.push_back(static_cast<unsigned char>(v >> shift));
}

// Lead byte 1, the magic, the format, and each component at its smallest.
Bytes zeroInstance(uint32_t magic, const char *format) {
    Bytes b = {1};
    u32(b, magic);
    u32(b, static_cast<uint32_t>(strlen(format) + 1));
    b.insert(b.end(), format, format + strlen(format) + 1);
    for (const char *c = ObjFirstComponent(format); *c != '\0'; c = ObjNextComponent(c)) {
        switch (ObjComponentDatatype(c)) {
        case eObjBoolean: case eObjObject: case eObjStanza: b.push_back(0); break;
        case eObjInline:
            u32(b, static_cast<uint32_t>(ObjInlineSize(c)));
            b.insert(b.end(), static_cast<size_t>(ObjInlineSize(c)), 0);
            break;
        case eObjViewInfo: u32(b, 0), u32(b, 0), b.push_back(0); break;
        case eObjInt64: u32(b, 0), u32(b, 0); break;
        case eObjUnique: b.insert(b.end(), 32, 0); break;
        default: u32(b, 0); break; // b i s l d p: four bytes
        }
    }
    return b;
}

void saveEncoding(const std::string &name, void *object) {
    Bytes b(static_cast<size_t>(ObjSerializedSizeLocal(object)));
    int32_t length = 0;
    if (!ObjSerializeLocal(object, b.data(), &length)) abort();
    save(name + ".made", b);
    ObjReleaseInternal(&object);
}

int32_t compareWords(const void *a, const void *b) {
    return *static_cast<const int32_t *>(a) - *static_cast<const int32_t *>(b);
}

Stanza *sampleStanza() {
    Stanza *stanza = nullptr;
    StnzCreate(&stanza, "Net", "Port", 2);
    StnzSetKeywordFromString(&stanza, "value", "6000", FALSE);
    StnzSetKeywordFromString(&stanza, "k!x", nullptr, FALSE);
    return stanza;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2 || !ContextInitialize()) return 1;
    gDirectory = argv[1];
    const struct {
        const char *name;
        uint32_t magic;
        const char *format;
    } types[] = {
        {"obj_boolean", OBJ_BOOLEAN_MAGIC, OBJ_BOOLEAN_FORMAT},
        {"obj_integer", OBJ_INTEGER_MAGIC, OBJ_INTEGER_FORMAT},
        {"obj_int64", OBJ_INT64_MAGIC, OBJ_INT64_FORMAT},
        {"obj_string", OBJ_STRING_MAGIC, OBJ_STRING_FORMAT},
        {"obj_data_field", OBJ_DATA_FIELD_MAGIC, OBJ_DATA_FIELD_FORMAT},
        {"obj_stanza", OBJ_STANZA_MAGIC, OBJ_STANZA_FORMAT},
        {"obj_unique", OBJ_UNIQUE_MAGIC, OBJ_UNIQUE_FORMAT},
        {"obj_viewable", OBJ_VIEWABLE_MAGIC, OBJ_VIEWABLE_FORMAT},
        {"obj_dstring", OBJ_DSTRING_MAGIC, OBJ_DSTRING_FORMAT},
        {"list", LIST_MAGIC, LIST_FORMAT},
        {"listnode", LISTNODE_MAGIC, LISTNODE_FORMAT},
        {"tree", TREE_MAGIC, TREE_FORMAT},
        {"treenode", TREENODE_MAGIC, TREENODE_FORMAT},
        {"map", MAP_MAGIC, MAP_FORMAT},
        {"obj_map", OBJ_MAP_MAGIC, OBJ_MAP_FORMAT},
        {"time_timeout", TIME_TIMEOUT_MAGIC, TIME_TIMEOUT_FORMAT},
        {"time_offset", TIME_OFFSET_MAGIC, TIME_OFFSET_FORMAT},
        {"sys_stat", SYS_STAT_MAGIC, SYS_STAT_FORMAT},
        {"file_stream", FILE_STREAM_MAGIC, FILE_STREAM_FORMAT},
        {"file_stream_open_args", FILE_STREAM_OPEN_ARGS_MAGIC, FILE_STREAM_OPEN_ARGS_FORMAT},
        {"stnz_file", STNZ_FILE_MAGIC, STNZ_FILE_FORMAT},
        {"stnz_dynamic_list", STNZ_DYNAMIC_LIST_MAGIC, STNZ_DYNAMIC_LIST_FORMAT},
        {"dir_scan_dir", DIR_SCAN_DIR_MAGIC, DIR_SCAN_DIR_FORMAT},
        {"dir_scan_recursive_context", DIR_SCAN_RECURSIVE_CONTEXT_MAGIC, DIR_SCAN_RECURSIVE_CONTEXT_FORMAT},
        {"path_lock", PATH_LOCK_MAGIC, PATH_LOCK_FORMAT},
        {"path_fh_mount_point", PATH_FH_MOUNT_POINT_MAGIC, PATH_FH_MOUNT_POINT_FORMAT},
        {"cfg_util_remote_config_details", CFG_UTIL_REMOTE_CONFIG_DETAILS_MAGIC, "s;s;"},
    };
    for (const auto &type : types) save(std::string(type.name) + ".zero", zeroInstance(type.magic, type.format));

    // Real objects, as the writer encodes them.
    saveEncoding("obj_boolean", ObjBooleanNew(TRUE));
    saveEncoding("obj_integer", ObjIntegerNew(-5));
    saveEncoding("obj_int64", ObjInt64New(1, -2));
    saveEncoding("obj_string", ObjStringNew("text \x81\x40"));
    saveEncoding("obj_data_field", ObjDataFieldNew("\x00\x01\x02", 3));
    saveEncoding("obj_stanza", ObjStanzaNew(sampleStanza()));
    const char unique[33] = "0123456789abcdefghijklmnopqrstuv";
    saveEncoding("obj_unique", ObjUniqueNewInternal(unique));
    Stanza *stanza = sampleStanza();
    saveEncoding("obj_viewable", ObjViewableNew(3, "seen", stanza));
    StnzRelease(&stanza);
    saveEncoding("obj_dstring", ObjDStringNew("dynamic"));
    TIME_TIMEOUT *timeout = nullptr;
    TimeCreateAndSetTimeout(&timeout, 5, 250);
    saveEncoding("time_timeout", timeout);
    TIME_OFFSET *offset = nullptr;
    TimeCreateOffset(&offset, -1, -1);
    saveEncoding("time_offset", offset);

    LIST *list = ListNewFromPool(OBJ_STRING_MAGIC, nullptr);
    OBJ_STRING *shared = ObjStringNew("shared");
    ListAddLastItem(list, shared);
    ListAddLastItem(list, shared);
    ObjReleaseInternal(&shared);
    saveEncoding("list", list);

    TREE *tree = TreeNewFromPool(nullptr);
    OBJ_INTEGER *root = ObjIntegerNew(1), *child = ObjIntegerNew(2);
    TREENODE *node = TreePushRootItem(&root, tree);
    TreePushItem(&child, node, 0);
    saveEncoding("tree", tree);

    MAP *map = nullptr;
    MapCreate(&map, sizeof(int32_t), 4, compareWords, nullptr, nullptr);
    const int32_t entry = 7;
    MapInsertEntry(map, &entry);
    saveEncoding("map", map);

    OBJ_MAP *objects = nullptr;
    ObjMapCreateInternal(&objects, OBJ_INTEGER_MAGIC, 4, compareWords, nullptr, nullptr);
    OBJ_INTEGER *item = ObjIntegerNew(3);
    ObjMapInsert(objects, item);
    ObjReleaseInternal(&item);
    saveEncoding("obj_map", objects);

    // A MAP whose release would call 0x41414141; an OBJ_MAP holding that address.
    Bytes attack = zeroInstance(MAP_MAGIC, MAP_FORMAT);
    attack.resize(attack.size() - 4 * 8);
    for (uint32_t word : {8u, 1u, 1u, 1u, 0u, 0u, 0x41414141u, 8u}) u32(attack, word);
    for (unsigned char byte = 1; byte <= 8; ++byte) attack.push_back(byte);
    save("map_release_call", attack);
    attack = zeroInstance(OBJ_MAP_MAGIC, OBJ_MAP_FORMAT);
    attack.resize(attack.size() - 4 * 8);
    for (uint32_t word : {OBJ_INTEGER_MAGIC, 1u, 1u, 1u, 0u, 0u, 0u, 8u, 0x41414141u, 0u}) u32(attack, word);
    save("obj_map_entry_address", attack);
    ContextReleaseThread();
    return 0;
}
