// unpage(): give back the memory held by this process's program code.
//
// A long-running agent touches much of its code once, at start-up, and
// never again; those pages stay resident. unpage() walks /proc/self/smaps
// and advises the kernel (madvise MADV_DONTNEED) that the pages of every
// executable, non-writable mapping of a file are not needed. The kernel
// drops them and reads them back from the file on the next use, so the call
// is safe for code that still runs, just slower on its next use.
//
// It only acts while the process has a single thread: another thread could
// unmap a region and map something else at the same address between the
// walk and the advice, and then lose that data. Mappings that are not file
// contents (anonymous, [vdso]) and mappings with modified (anonymous) pages,
// such as relocated code, are left alone, since dropping those pages would
// lose what was written. Call it from the event-loop thread when idle; it
// costs one pass over smaps and one system call per mapping.
#pragma once

#include "Olk/Types.h"

namespace Olk {

// Releases the pages described above and returns the bytes of address
// space advised; 0 when the process has more than one thread.
U64 unpage();

}  // namespace Olk
