// What readers without the lock may reach is made by the reclamation module only. Each case
// below makes such an object another way and must not compile; case 0 makes them the module's
// way and must. The build of each case is a test (tests/CMakeLists.txt).
#include <memory>

#include "ItemTable.h"
#include "Readers.h"
#include "Storage.h"

using namespace NSCam;
using Table = IMetadata::Storage::ItemTable;

void make([[maybe_unused]] void* block, [[maybe_unused]] const Table::Chunk* existing,
          [[maybe_unused]] IMetadata::Storage& storage) {
#if ZORCAM_CASE == 0
    // The module's way: a chunk in a block, a storage through the deferring allocator.
    readers::emplace<Table::Chunk>(block, 64u);
    std::allocate_shared<IMetadata::Storage>(readers::DeferredAllocator<IMetadata::Storage>());
#elif ZORCAM_CASE == 1
    ::new (block) Table::Chunk(readers::Made(), 64u);  // a token of one's own
#elif ZORCAM_CASE == 2
    Table::Directory directory(readers::Made{}, 4u);  // nor braced
#elif ZORCAM_CASE == 3
    std::make_shared<Table::Index>(readers::Made(), uint16_t{1});
#elif ZORCAM_CASE == 4
    StorageState::of(storage).admitReaders(readers::Made());  // a caller's storage, admitted
#elif ZORCAM_CASE == 5
    ::new (block) Table::Chunk(*existing);  // a copy of one the module made
#endif
}
