#pragma once
// The one seam through which contents and storages recurse for nested containers: a content
// holding containers sizes and writes their storage blocks through these, and the limits a
// receiver puts on nesting are judged here before a sender writes anything.
#include <zorcam/metadata/IMetadata.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "FlatBytes.h"

namespace NSCam {
namespace nested {

// The storage block of `s` (the rows of `tags`, or every row when `tags` is null) at the
// writer's position: its length, or -1 after the failure was reported.
long flatten(const IMetadata::Storage& s, flat::Writer& w, const uint32_t* tags, long count);
// The bytes that block takes, whatever a receiver would say of it (flatten refuses what it
// would refuse; its size is still a size), or kNoSize when a storage contains itself. Nested
// blocks are sized without a call per level.
constexpr size_t kNoSize = SIZE_MAX;
size_t flattenSize(const IMetadata::Storage& s, const uint32_t* tags, long count);
// The same for the record of a content of its own.
size_t recordSize(const IMetadata::Content& c);

// The storage of a nested container decoded from its block, as the container decoder makes
// it (a failure reported under its name); empty when the block does not decode.
std::shared_ptr<IMetadata::Storage> unflatten(const void* buf, size_t size);

// Lets go of a content's nested containers (a vector of storages, or one storage). Past a few
// levels, a chain of containers nested in each other is released level after level in a loop
// of this thread, not by one destructor calling the next: a chain of any length costs a
// bounded call depth.
void release(std::shared_ptr<void>&& nested);

// A limit of the receiver that a form would break.
enum class Limit { kNone, kRecords, kDepth, kContainers };
// For the storage block of `s` (rows as above) or, when `s` is null, the lone content `c`.
// Walks the nesting with a stack of its own, so a chain of any depth costs no call depth.
Limit brokenLimit(const IMetadata::Storage* s, const IMetadata::Content* c, const uint32_t* tags,
                  long count);
// What a form that breaks `limit` breaks, in words, into out[0, room): the one text of every
// site that refuses such a form. Returns `out`.
const char* describe(Limit limit, char* out, size_t room);

// The storage of a container, marked shared, to store as a nested value: taken without waiting
// for the container's lock from inside another container's burst callback (MetadataV2.cpp).
std::shared_ptr<IMetadata::Storage> storageToStore(const IMetadata& m);

}  // namespace nested
}  // namespace NSCam
