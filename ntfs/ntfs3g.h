// The libntfs-3g headers, made includable from C++.
//
// They expect the autoconf HAVE_* macros of the library's own build and
// declare BOOL, TRUE and FALSE themselves, which clash with the Win32
// vocabulary of platform/wintypes.h. So only the .cc files of ntfs/ that talk
// to the library include this header, and those never include wintypes.h.
#ifndef GLIDEWELL_NTFS_NTFS3G_H_
#define GLIDEWELL_NTFS_NTFS3G_H_

#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#ifndef HAVE_STDINT_H
#define HAVE_STDINT_H 1
#endif
#ifndef HAVE_STDDEF_H
#define HAVE_STDDEF_H 1
#endif
#ifndef HAVE_STDLIB_H
#define HAVE_STDLIB_H 1
#endif
#ifndef HAVE_STRING_H
#define HAVE_STRING_H 1
#endif
#ifndef HAVE_ERRNO_H
#define HAVE_ERRNO_H 1
#endif
#ifndef HAVE_SYS_TYPES_H
#define HAVE_SYS_TYPES_H 1
#endif
#ifndef HAVE_SYS_STAT_H
#define HAVE_SYS_STAT_H 1
#endif

#ifdef TRUE
#error "ntfs3g.h must not be included after platform/wintypes.h"
#endif

extern "C" {
#include <ntfs-3g/types.h>
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/layout.h>
#include <ntfs-3g/lcnalloc.h>
#include <ntfs-3g/logfile.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/runlist.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}

// The library's support.h defines min and max as macros, which break <limits>
// and <algorithm>.
#undef min
#undef max

#endif  // GLIDEWELL_NTFS_NTFS3G_H_
