#pragma once
// Checking a flat container that came from another process, before rebuilding it.
//
// The constructor IMetadata(buf, size) trusts the type codes it reads: a code outside the
// known ones in a record is a broken invariant and ends the process. A receiving process
// therefore checks foreign bytes first. The safe pattern:
//
//   1. copy the bytes into private memory (the sender may still be writing a shared buffer,
//      and what was checked must be what is rebuilt);
//   2. check the copy:        FlatCheck c = checkFlatMetadata(copy.data(), copy.size());
//   3. rebuild from the copy only when c.ok:  IMetadata meta(copy.data(), copy.size());
//
// receiveFlatMetadata() below does the three in one call.
//
// Thread safety: reentrant. The check has no side effects: it allocates nothing, logs
// nothing and never aborts, whatever the bytes.
#include <zorcam/metadata/Export.h>

#include <cstddef>
#include <cstdint>

namespace NSCam {

struct FlatCheck {
    // True when IMetadata(buf, size) would accept the bytes in full: every record and every
    // nested container decodes, and nothing in them would end the process.
    bool ok;
    // The first offending byte, counted from the start of the buffer (0 when ok).
    size_t offset;
    // Why the bytes were refused, a fixed text (empty when ok).
    const char* reason;
    // Bytes the constructor would consume when ok (spare bytes after them are ignored).
    size_t consumed;
};

ZORCAM_EXPORT FlatCheck checkFlatMetadata(const void* buf, size_t size);

class IMetadata;

// The three steps above in one call, for bytes from another process: `size` bytes at `buf`
// are copied into private memory, checked, and, when the check accepts them, rebuilt into
// `out` (its former entries replaced). It never aborts, whatever the bytes: the answer is the
// check's, and on a refusal (reason and byte offset) `out` is left as it was. Thread-safe as
// far as `out` is: the copy is the calling thread's own.
ZORCAM_EXPORT FlatCheck receiveFlatMetadata(const void* buf, size_t size, IMetadata& out);

}  // namespace NSCam
