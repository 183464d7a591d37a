/*
 * settings - writes settings by file, section and item into a fresh home
 * directory, reads them back with their defaults, adds entries to a value
 * list, and lists the whole file stanza by stanza, as it stands on disk.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "core/fhcore.h"

static void printFile(const char *file) {
    LIST *stanzas = NULL;
    if (!CfgGetStanzaList(&stanzas, file)) return;
    for (const LISTNODE *node = stanzas->oFirst; node != NULL; node = node->oNext) {
        const Stanza *stanza = ((const OBJ_STANZA *)node->oItem)->pStanza;
        printf("  [%s%s%s]\n", stanza->category ? stanza->category : "", stanza->category ? ":" : "", stanza->title);
        for (int32_t k = 0; k < stanza->keyCount; ++k) {
            printf("    %s =", stanza->keys[k]->keyword);
            for (int32_t v = 1; v <= StnzKeyValueCount(stanza->keys[k]); ++v) {
                const char *value = StnzKeyValue(stanza->keys[k], v);
                printf(" '%s'", value ? value : "");
            }
            printf("\n");
        }
    }
    ObjReleaseInternal(&stanzas);
}

int main(void) {
    char home[] = "/tmp/fhcore-settings-XXXXXX";
    if (mkdtemp(home) == NULL || setenv("FHHOME", home, 1) != 0 || !ContextInitialize()) return 1;
    char *config = PathHomeBuild("config", (char *)NULL);
    mkdir(config, 0755);
    MemFreeInternal(&config);

    int ok = CfgSetString("configure.cfg", "Details", "Description", "backup server, first floor") &&
             CfgSetInteger("configure.cfg", "Trace", "Lines per File", 1000) &&
             CfgSetBoolean("configure.cfg", "Trace", "Trace To File", TRUE) &&
             CfgAddEntryToValueList(NULL, "lmnmgr.cfg", "Network", "Barred Addresses", "10.0.0.7", TRUE, FALSE) &&
             CfgAddEntryToValueList(NULL, "lmnmgr.cfg", "Network", "Barred Addresses", "10.0.0.9", TRUE, FALSE);
    printf("settings written: %s\n", ok ? "yes" : "no");

    char *description = NULL;
    int32_t lines = 0, keep = 0;
    BOOL toFile = FALSE;
    CfgGetString(&description, "configure.cfg", "details", "description", "<no description>");
    CfgGetInteger(&lines, "configure.cfg", "Trace", "Lines per File", 0);
    BOOL found = CfgGetInteger(&keep, "configure.cfg", "Trace", "Files to Keep", 5);
    CfgGetBoolean(&toFile, "configure.cfg", "Trace", "Trace To File", FALSE);
    printf("Description = '%s'\nLines per File = %d\nTrace To File = %s\n", description, lines, toFile ? "TRUE" : "FALSE");
    printf("Files to Keep = %d (%s)\n", keep, found ? "set" : "missing: the default");
    MemFreeInternal(&description);
    LIST *barred = NULL;
    if (CfgGetValueList(&barred, "lmnmgr.cfg", "Network", "Barred Addresses"))
        printf("Barred Addresses: %d entries\n", (int)barred->iCount);
    ObjReleaseInternal(&barred);

    printf("configure.cfg:\n");
    printFile("configure.cfg");
    printf("lmnmgr.cfg:\n");
    printFile("lmnmgr.cfg");

    BOOL removed = PathRemoveDirectory(home);
    ContextReleaseThread();
    return ok && removed ? 0 : 1;
}
