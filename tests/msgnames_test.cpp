// The message catalogue and the context's map of names: the ids that the
// family lists give against the rule they are written by (first id of the
// family, rising by 1, stepping only over unassigned ids), lookups both
// ways, the two forms of MsgNameWithBuffer, and names added at run time.
#include "fixture.h"

#include <cstring>
#include <string>

#include "messages/msgcatalogue.h"
#include "msgnames.h"

namespace {

using MsgNamesTest = LibraryTest;

std::string nameOf(int32_t id) { return MsgNameWithBuffer(id, nullptr, 0); }

int32_t idOf(const char *name) {
    int32_t id = -12345;
    return MsgTypeFromName(&id, name) ? id : -12345;
}

TEST_F(MsgNamesTest, CatalogueIsStrictlyAscendingWithNamesDistinctIgnoringCase) {
    const auto catalogue = fh::messageCatalogue();
    ASSERT_EQ(catalogue.size(), 449u);
    for (size_t i = 1; i < catalogue.size(); ++i) EXPECT_LT(catalogue[i - 1].id, catalogue[i].id) << catalogue[i].name;
    for (size_t i = 0; i < catalogue.size(); ++i)
        for (size_t j = i + 1; j < catalogue.size(); ++j)
            EXPECT_NE(StrCompareNoCase(catalogue[i].name, catalogue[j].name), 0) << catalogue[i].name;
    for (const fh::MessageName &row : catalogue) {
        EXPECT_EQ(MsgNameWithBuffer(row.id, nullptr, 0), row.name); // the row's own text, not a copy
        EXPECT_EQ(idOf(row.name), row.id) << row.name;
    }
}

TEST_F(MsgNamesTest, MapHoldsTheCatalogueInTwoWordEntries) {
    MsgReleaseThread(&gtLmContext);
    ASSERT_TRUE(MsgInitializeThread());
    EXPECT_TRUE(traced("MESSAGE", 1, "Initialize 449 message names"));
    const MAP *map = static_cast<const MAP *>(gtLmContext.pMsgNameMap);
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(MapSize(map), 449);
    EXPECT_EQ(map->iEntrySize, static_cast<int32_t>(2 * sizeof(void *)));
    EXPECT_EQ(map->iGrowBy, 469);
}

// Ids at each family's ends and on both sides of every gap, as the rule
// gives them; the constant of the header, the map and the walk by name must
// all agree.
TEST_F(MsgNamesTest, IdsFollowFromFirstIdsAndGaps) {
// clang-format off
#define ROW(name, id) {name, id, #name}
    const struct {
        int32_t constant, id;
        const char *name;
    } rows[] = {
        ROW(MSG_LOST_RECEIVE_QUEUE_MSG, 3), ROW(MSG_ERROR_MSG, 11),
        ROW(PMGR_KILL_YOURSELF_MSG, 1000), ROW(PMGR_TASK_MSG, 1010),
        ROW(PMGR_REGISTER_PROCESS_MSG, 1014), ROW(PMGR_ACCEPTING_MESSAGES_MSG, 1016),
        ROW(PMGR_CONNECTION_DROPPED_MSG, 1017), ROW(PMGR_ATTACH_TO_PROGRESS_MSG, 1019),
        ROW(PMGR_ABORT_ADOPT_MSG, 1026), ROW(PMGR_SET_LOCALE_MSG, 1029),
        ROW(PMGR_UNREGISTER_UNIX_SEM_MSG, 1031), ROW(PMGR_BECOME_CLIENT_REQUEST_MSG, 1034),
        ROW(PMGR_CANCEL_NOTIFY_ON_DEATH_MSG, 1044),
        ROW(CMGR_REQUEST_MESSAGE_MSG, 1100), ROW(CMGR_DROPPED_CHANNEL_MSG, 1104),
        ROW(NMGR_CONNECTION_DROPPED_MSG, 1304), ROW(NMGR_MACHINE_UNREACHABLE_MSG, 1308),
        ROW(NMGR_CREATE_CLUSTERED_MACHINE_RESPONSE_MSG, 1325),
        ROW(PLUGIN_LISTENING_MSG, 1700), ROW(PLUGIN_SCREEN_CALLBACK_MSG, 1711), ROW(PLUGIN_JOB_FAILED_MSG, 1713),
        ROW(PLUGIN_ERROR_KEEP_CONNECTION_MSG, 1726),
        ROW(LOGD_LOG_MSG, 2600), ROW(LOGD_CLI_REPLY_MSG, 2622),
        ROW(MSG_PING_MSG, 2701), ROW(MSG_SET_TRACE_LEVEL_MSG, 2713), ROW(MSG_INHERITED_SOCKET_MSG, 2724),
        ROW(MSG_PROXY_STARTED_MSG, 2727),
        ROW(DB_BACKUP_SIZE_MSG, 2801), ROW(DB_GOT_END_MARKER_MSG, 2807), ROW(DB_DATABASE_MSG, 2810),
        ROW(DB_END_MARKER_MSG, 2814),
        ROW(NDMP_TAPE_READ_REPLY_MSG, 3050), ROW(NDMP_DATA_GET_STATE_REQUEST_MSG, 3053),
        ROW(NDMP_NOTIFY_DATA_HALTED_POST_MSG, 3069), ROW(NDMP_NOTIFY_CONNECTED_POST_MSG, 3071),
        ROW(NDMP_FH_ADD_NODE_POST_MSG, 3087), ROW(NDMP_MOVER_GET_STATE_REQUEST_MSG, 3089),
        ROW(NDMP_TAPE_EXECUTE_CDB_REQUEST_MSG, 3126),
        ROW(CFG_SVR_CONFIG_REQUEST_MSG, 4701), ROW(CFG_SVR_CONFIG_REPLY_MSG, 4702),
        ROW(TIMER_CALLBACK_MSG, 41001), ROW(TRACE_TO_FILE_MSG, 141001),
        ROW(NDMP_SNAP_CREATE_REQUEST_MSG, 1026001), ROW(NDMP_SNAP_DIR_LIST_REPLY_MSG, 1026028),
        ROW(NDMP_SNAP_NOTIFY_CREATE_END_POST_MSG, 1026051), ROW(NDMP_SNAP_NOTIFY_RECOVER_END_POST_MSG, 1026053),
        ROW(FH_MANAGER_ADDRESS_MSG, 1035001), ROW(FH_GOT_CHUNK_MSG, 1035008), ROW(FH_RESTORE_ACK_MSG, 1035010),
        ROW(FH_DBBACKUP_RESTORE_REPLY_MSG, 1035061),
        ROW(NDMP_FHS_CREATE_RELATIONSHIP_REQUEST_MSG, 1080021), ROW(NDMP_FHS_GET_DATA_ADDRESS_REPLY_MSG, 1080058),
        ROW(NDMP_FHP_CREATE_SNAP_REPLY_MSG, 1080060), ROW(NDMP_FHP_CREATE_SNAP_REQUEST_MSG, 1080069),
        ROW(NDMP_FHP_GET_STATUS_REQUEST_MSG, 1080071), ROW(NDMP_FHP_GET_DATA_ADDRESS_REPLY_MSG, 1080086),
        ROW(NDMP_FHS_NOTIFY_RELEASE_RELATIONSHIP_POST_MSG, 1080088),
        ROW(NDMP_FHP_NOTIFY_RELEASE_RELATIONSHIP_POST_MSG, 1080099),
    };
    // clang-format on
#undef ROW
    for (const auto &row : rows) {
        EXPECT_EQ(row.constant, row.id) << row.name;
        EXPECT_EQ(nameOf(row.id), row.name);
        EXPECT_EQ(idOf(row.name), row.id) << row.name;
    }
    const int32_t unassigned[] = {0,    2,       12,      999,     1015,    1018,    1027,    1028,    1032,
                                  1033, 1045,    1712,    2808,    2809,    3051,    3052,    3070,    3088,
                                  4700, 1026029, 1026050, 1035009, 1080059, 1080070, 1080087, 1080100, -1};
    for (int32_t id : unassigned) EXPECT_EQ(nameOf(id), "Unknown message type " + std::to_string(id));
}

TEST_F(MsgNamesTest, NameLookupIgnoresCaseButNothingElse) {
    EXPECT_EQ(idOf("pmgr_task_msg"), 1010);
    EXPECT_EQ(idOf("Pmgr_Task_Msg"), 1010);
    for (const char *miss :
         {"PMGR_TASK_MSG ", " PMGR_TASK_MSG", "PMGR_TASK", "PMGR_TASK_MSGS", "", "Unknown message type 5"})
        EXPECT_EQ(idOf(miss), -12345) << '"' << miss << '"';
    int32_t id = 7;
    EXPECT_FALSE(MsgTypeFromName(&id, nullptr));
    EXPECT_FALSE(MsgTypeFromName(nullptr, "PMGR_TASK_MSG"));
    EXPECT_EQ(id, 7);
}

TEST_F(MsgNamesTest, BufferIsClearedInFullAndHoldsAtMostSizeLessOne) {
    const struct {
        int32_t id, size;
        const char *text;
    } cases[] = {
        {1010, 64, "PMGR_TASK_MSG"}, {1010, 14, "PMGR_TASK_MSG"}, {1010, 13, "PMGR_TASK_MS"}, {1010, 5, "PMGR"},
        {1010, 1, ""}, {999999, 64, "Unknown message type 999999"}, {999999, 10, "Unknown m"},
        {-5, 40, "Unknown message type -5"},
    };
    for (const auto &c : cases) {
        char buffer[80];
        memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(MsgNameWithBuffer(c.id, buffer, c.size), buffer);
        EXPECT_STREQ(buffer, c.text) << c.id << " in " << c.size;
        for (int32_t i = static_cast<int32_t>(strlen(c.text)); i < c.size; ++i) EXPECT_EQ(buffer[i], '\0') << i;
        EXPECT_EQ(buffer[c.size], 'x') << "written beyond " << c.size;
    }
    // Without a buffer an unknown name lands in the context's field.
    EXPECT_EQ(MsgNameWithBuffer(4242, nullptr, 0), gtLmContext.szMsgUnknownName);
    EXPECT_STREQ(gtLmContext.szMsgUnknownName, "Unknown message type 4242");
    // A buffer of no size is a fault of the caller: untouched, answered as without one.
    char untouched[4] = "abc";
    EXPECT_STREQ(MsgNameWithBuffer(1010, untouched, 0), "PMGR_TASK_MSG");
    EXPECT_STREQ(untouched, "abc");
    char expected[80];
    snprintf(expected, sizeof expected, "MsgNameWithBuffer(1010, %p, 0) - bad buffer", static_cast<void *>(untouched));
    EXPECT_TRUE(traced("MESSAGE", 3, expected));
}

TEST_F(MsgNamesTest, NamesAddedAtRunTimeNeverReplaceAndAreFreedWithTheMap) {
    const int32_t blocksBefore = MemUsedCount();
    EXPECT_TRUE(MsgSetMsgName(5000, "MY_APP_MSG"));
    EXPECT_FALSE(MsgSetMsgName(5000, "AGAIN_MSG"));
    EXPECT_FALSE(MsgSetMsgName(1010, "OTHER_MSG"));
    EXPECT_FALSE(MsgSetMsgName(5001, ""));
    EXPECT_FALSE(MsgSetMsgName(5001, nullptr));
    EXPECT_EQ(nameOf(5000), "MY_APP_MSG");
    EXPECT_EQ(nameOf(1010), "PMGR_TASK_MSG");
    EXPECT_EQ(idOf("my_app_msg"), 5000);
    EXPECT_EQ(MemUsedCount(), blocksBefore + 1) << "a refused name is freed";
    // The first match in id order wins, and a cut never splits a character.
    EXPECT_TRUE(MsgSetMsgName(1, "pmgr_task_msg"));
    EXPECT_EQ(idOf("PMGR_TASK_MSG"), 1);
    EXPECT_TRUE(MsgSetMsgName(2, "AB\x81\x41"
                                 "C"));
    char buffer[4];
    EXPECT_STREQ(MsgNameWithBuffer(2, buffer, sizeof buffer), "AB");
    // Release frees the added names and none of the catalogue's.
    MsgReleaseThread(&gtLmContext);
    EXPECT_EQ(gtLmContext.pMsgNameMap, nullptr);
    // Without a map the catalogue answers and nothing can be added.
    EXPECT_EQ(nameOf(1010), "PMGR_TASK_MSG");
    EXPECT_EQ(nameOf(5000), "Unknown message type 5000");
    EXPECT_EQ(idOf("PMGR_TASK_MSG"), 1010);
    EXPECT_FALSE(MsgSetMsgName(5000, "MY_APP_MSG"));
    ASSERT_TRUE(MsgInitializeThread());
    EXPECT_EQ(MemUsedCount(), blocksBefore) << "added names outlived their map";
}

} // namespace
