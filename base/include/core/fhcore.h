/*
 * fhcore.h - the whole interface of the library.
 */
#ifndef FHCORE_FHCORE_H
#define FHCORE_FHCORE_H

#include "types.h"
#include "machine.h"
#include "memory.h"
#include "trace.h"
#include "context.h"
#include "strbase.h"
#include "objviewinfo.h"
#include "object.h"
#include "map.h"
#include "objmap.h"
#include "objserial.h"
#include "objwalk.h"
#include "list.h"
#include "tree.h"
#include "objwrappers.h"
#include "stanza.h"
#include "dstring.h"
#include "strwrap.h"
#include "strparse.h"
#include "timeout.h"
#include "locale.h"
#include "sys.h"
#include "syssignal.h"
#include "filesys.h"
#include "file.h"
#include "filestream.h"
#include "strstream.h"
#include "stanzafile.h"
#include "cfglocal.h"
#include "config.h"
#include "path.h"
#include "net.h"
#include "nethost.h"
#include "msg.h"
#include "msgpacket.h"

#endif /* FHCORE_FHCORE_H */
