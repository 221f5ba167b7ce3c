#pragma once
// IMetadata: the container in which camera components pass settings, controls and results.
// A map from 32-bit tags to typed arrays of values, cheap to copy (copy-on-write at three
// levels: storage, content, blob), mergeable, and flattenable into one byte buffer.
//
// Thread safety: IMetadata and IEntry are thread-safe (each guards itself with its own
// mutex). Memory handles are thread-compatible (one handle, one thread; handles that share
// bytes may live on different threads). Storage and ItemTable are not thread-safe: they are
// used under the lock of the container that holds them, or only read once shared.
#include <zorcam/metadata/Export.h>
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/MetadataTypes.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace NSCam {

struct MetadataInspector;  // test access to internals; defined by the tests only
struct RowView;            // what one row of a table holds (private to the library)
struct RowValue;           // a value to file in a row (private to the library)

class ZORCAM_EXPORT IMetadata {
public:
    class Memory;
    class IEntry;
    class Content;  // the values of one entry; defined inside the library
    class Storage;
    // Burst callbacks see the container's storage itself.
    using BurstEntry = Storage;

    //------------------------------------------------------------------------------------
    // Memory: a byte blob value (type code TYPE_Memory). Copies share the bytes; every edit
    // that another holder could see copies them first. Buffers come from sAllocator.
    class Memory {
    public:
        class MemorySlot;
        class BufferAllocator;
        // The process-wide pool of blob buffers, built at load and released at exit.
        static BufferAllocator sAllocator;

        using Buffer = std::vector<uint8_t>;
        using BufferSP = std::shared_ptr<Buffer>;

        Memory();
        Memory(const BufferSP& data);  // shares `data` (implicit, as handles convert freely)
        Memory(const void* data, size_t size);
        Memory(const Memory& other);
        // Shares like the copy: `other` keeps its bytes.
        Memory(Memory&& other);
        ~Memory();

        Memory& operator=(const Memory& other);
        Memory& operator=(Memory&& other);  // like the copy assignment; `other` keeps its bytes
        bool operator==(const Memory& other) const;
        bool operator!=(const Memory& other) const { return !(*this == other); }

        BufferSP getDataSP() const;
        size_t size() const;
        void resize(size_t size);      // new bytes are 0
        void fastResize(size_t size);  // new bytes are whatever the reused storage held
        size_t append(const Memory& other);
        size_t appendVector(const Memory& other);
        // Read-only view; a caller must not write through it.
        const uint8_t* array(size_t& size) const;
        const uint8_t* array() const;
        // Writable bytes, unshared first.
        uint8_t* editArray(size_t& size);
        uint8_t* editArray();
        uint8_t itemAt(size_t index) const;
        void clear();

    private:
        friend struct ::NSCam::MetadataInspector;
        template <bool kZeroNewBytes>
        void resizeImpl(size_t size);
        void release();  // offers the buffer to the pool, then drops it

        BufferSP mData;
    };

    //------------------------------------------------------------------------------------
    // IEntry: one tag and a shared, copy-on-write reference to its values.
    class IEntry {
    public:
        explicit IEntry(uint32_t tag = 0xFFFFFFFFu);
        IEntry(uint32_t tag, std::shared_ptr<Content> content);
        IEntry(const IEntry& other);
        IEntry& operator=(const IEntry& other);
        ~IEntry();

        uint32_t tag() const;
        int32_t type() const;
        uint32_t count() const;
        bool isEmpty() const;
        void clear();
        int32_t removeAt(uint32_t index);
        // Address of element 0 of a basic-type entry; the content becomes read-only. The
        // address is valid only until the next edit through any entry that shares the values:
        // the edit goes to a copy, and the values behind the address may be released.
        const void* data() const;
        std::shared_ptr<Content> getContentSP() const;

        // Typed families. Offered for the eleven value types (T = U); push_back of one value
        // also converts the sixteen argument types listed in Entry.cpp. Pairings that are
        // not offered fail at link time.
        template <typename T, typename U>
        void push_back(const T& item, Type2Type<U>);
        // Appending zero elements to an entry of a basic type that holds 0 or 1 element ends
        // the process ("size should be 1"): the one-element form has no room for "nothing".
        // An empty std::vector's data(), size() is enough to get there; test for empty first.
        template <typename T, typename U>
        void push_back(const T* array, size_t count, Type2Type<U>);
        template <typename T, typename U>
        void replaceItemAt(uint32_t index, const T& item, Type2Type<U>);
        template <typename T, typename U>
        void replaceItemAt(uint32_t index, const T* array, size_t count, Type2Type<U>);
        template <typename T>
        T itemAt(uint32_t index, Type2Type<T>) const;
        // Copies `count` elements; for Memory and IMetadata the copies share the stored data
        // (each one a proper handle the caller owns). 1 on success, 0 on failure.
        template <typename T>
        int32_t itemAt(uint32_t index, T* array, size_t count, Type2Type<T>) const;
        // First index holding `item`, or -1. Not offered for MRational and IMetadata.
        template <typename T>
        static int32_t indexOf(IEntry& entry, const T& item);

    private:
        friend struct ::NSCam::MetadataInspector;
        friend class IMetadata;
        // The tag and the values in one look under the lock, as a container files them, the
        // values marked shared: basic values of up to `room` bytes copied to `buffer`, any
        // other content shared. An entry without a tag gives no values unless `untagged`.
        RowValue toFile(uint32_t& tag, bool untagged, uint8_t* buffer, size_t room) const;
        // Under mLock, before every edit: a missing content is created, a read-only one
        // replaced by a private copy. Returns the replaced content, to be held until the
        // edit is done.
        std::shared_ptr<Content> _ContentMakeWritable();
        bool _ContentUpdate(int32_t index, const void* data, size_t count, int32_t type);
        void noteFailure() const;  // lowers mErrorTypeTag to this entry's tag
        // The bodies the typed families forward to, with the type code of their values.
        void writeElements(const char* operation, int32_t index, const void* data, size_t count,
                           int32_t type);
        bool readElements(uint32_t index, void* out, size_t count, int32_t type) const;
        template <typename T>
        bool readHandles(uint32_t index, T* out, size_t count) const;

        // Read without the lock by tag() while an assignment may write it: atomic, so that
        // the race is defined.
        std::atomic<uint32_t> mTag;
        std::shared_ptr<Content> mContentPtr;
        mutable std::mutex mLock;
    };

    //------------------------------------------------------------------------------------
    // Storage: one table of rows (tag -> content), the shared flag that drives the
    // container's copy-on-write, and the flat block form.
    class Storage {
    public:
        struct Item {
            uint32_t tag;
            std::shared_ptr<Content> content;  // may be empty
        };

        // Rows in insertion order (a removal moves the last row into the hole), found in
        // constant time: through a fixed slot map of the known tags (a small side index for
        // the others), or, in a table of a few rows, by looking at them. Basic values live
        // beside their rows in the flat form's record layout; copies share rows until one side
        // changes them. Not thread-safe: used under the lock of the container that holds it
        // (readers without the lock use readValue(), see below).
        class ItemTable {
        public:
            static constexpr uint32_t kSlotCount = 1610;
            static constexpr uint16_t kNoRow = 0xFFFF;
            // Row numbers are 16-bit and the flat form counts records in 15 bits.
            static constexpr size_t kMaxRows = static_cast<size_t>(flat::kMaxRecords);
            // Tables of up to this many rows need no index.
            static constexpr size_t kScanRows = 16;

            struct Chunk;
            struct Directory;
            struct Index;
            struct Side;
            struct BufferQueue;
            static BufferQueue sBufferQueue;

            ItemTable();
            ~ItemTable();
            ItemTable(const ItemTable&) = delete;
            // Shares the other's rows and index; each side copies what it changes later.
            ItemTable& operator=(const ItemTable& other);

            void clear();
            bool remove(uint32_t tag);
            uint16_t getIndexByTag(uint32_t tag) const;
            // Inserts or replaces; false only when a new row would exceed kMaxRows. An
            // allocation failure leaves the table as it was. Basic values of a content marked
            // shared are copied into the row; any other content is kept by the row.
            bool update(uint32_t tag, const std::shared_ptr<Content>& content);
            bool update(uint32_t tag, std::shared_ptr<Content>&& content);
            bool update(const Item& item);

            size_t size() const { return mSize.load(std::memory_order_relaxed); }
            // Row `row` (below size()): its tag, its content (made from the row's values the
            // first time one is asked for, and the row's until the row changes) read in place,
            // or shared.
            uint32_t tagAt(size_t row) const;
            Content* contentAt(size_t row) const;
            std::shared_ptr<Content> contentSPAt(size_t row) const;

            // The library's own paths (defined with the table's insides): the row of a tag
            // (kNoRow), a row's tag and what it holds, every row in order as fn(RowView).
            inline uint16_t rowOf(uint32_t tag) const;
            inline uint32_t rowTag(size_t row) const;
            inline RowView rowAt(size_t row) const;
            template <typename Fn>
            void forEachRow(Fn&& fn) const;
            // Inserts or replaces the row of `tag` (see update); a value of the same type and
            // count as the row's is written in place.
            bool put(uint32_t tag, RowValue&& value);
            // Rows of `other` laid over this table's, as a merge does: false for a tag that
            // would exceed kMaxRows (reported by `refused(tag)`; the others still merge).
            template <typename Refused>
            void merge(const ItemTable& other, Refused&& refused);
            // Bytes of the records of every row when no row is held by a content (the block's
            // size less its header), else kHeldByContents.
            static constexpr size_t kHeldByContents = SIZE_MAX;
            size_t recordBytes() const;
            // Those records, back to back at `out`, when they fit `room`: false (nothing
            // written) when a row is held by a content or they do not fit.
            bool copyRecords(uint8_t* out, size_t room, size_t& written) const;
            // fn(content) for each row held by a content, in row order, until fn answers
            // other than its type's default; that answer.
            template <typename Fn>
            auto forEachObject(Fn&& fn) const -> decltype(fn(nullptr));

            // For a reader without the container's lock, inside a readers::Section and a
            // check of the container's sequence count: element `index` of `tag`, `size` bytes
            // of basic type `type`, copied to `out`. kAbsent: no such tag or element (or a row
            // without values); kUnsure: take the lock (also for what the locked path must
            // report). Reads only what writers replace or write under the count.
            enum class Found { kValue, kAbsent, kUnsure };
            inline Found readValue(uint32_t tag, int32_t type, size_t index, void* out,
                                   size_t size) const;
            // From now on readers without a lock may be following this table: what it drops
            // is retired (readers::retire), not released at once.
            void publish() { mPublished.store(true, std::memory_order_relaxed); }
            bool published() const { return mPublished.load(std::memory_order_relaxed); }

            // Decoding into an empty table, from the records of a storage block at
            // buf[begin, size): the rows, or false when a record needs the sequential decoder
            // (one that is refused, or that it must report on). `end` receives where the
            // block ended.
            bool decode(const uint8_t* buf, size_t size, size_t begin, size_t records,
                        size_t& end);

            struct Impl;  // the table's insides, in ItemTable.cpp

        private:
            friend struct ::NSCam::MetadataInspector;
            bool mergeRow(const ItemTable& other, size_t row);

            std::atomic<Directory*> mDirectory;  // null until the first row
            std::atomic<uint32_t> mSize;
            // Set by every container that holds the table (copies of one container on other
            // threads too): atomic.
            std::atomic<bool> mPublished;
        };

        static constexpr uint32_t kHeadMarker = 0x12345678;
        static constexpr uint32_t kTailMarker = 0x87654321;

        Storage();
        ~Storage();
        Storage(const Storage&) = delete;
        Storage& operator=(const Storage&) = delete;

        size_t size() const { return mItemTable.size(); }
        bool getTagByIndex(size_t index, uint32_t& tag) const;
        bool getContentSPByIndex(size_t index, std::shared_ptr<Content>& content,
                                 uint32_t& tag) const;
        long flattenSize(const uint32_t* tags, long count) const;
        long flatten(void* buf, size_t size, const uint32_t* tags, long count) const;
        long unflatten(const void* buf, size_t size);

        // Typed one-call access on this layer (no lock: burst callbacks run under the
        // container's). Offered for the eleven value types.
        template <typename T>
        int readEntry(uint32_t tag, T& value, uint32_t index = 0) const;
        template <typename T>
        T read(uint32_t index, Type2Type<T>, std::shared_ptr<Content>& content) const;
        template <typename T>
        int readEntries(uint32_t tag, std::vector<T>& values) const;
        template <typename T>
        void writeEntry(uint32_t tag, const T& value, uint32_t index = 0xFFFFFFFFu);
        template <typename T, typename U>
        std::shared_ptr<Content> write(const T& value, Type2Type<U>, uint32_t index = 0xFFFFFFFFu);
        template <typename T, typename U>
        std::shared_ptr<Content> write(const T* values, size_t count, Type2Type<U>,
                                       uint32_t index = 0xFFFFFFFFu);
        template <typename T>
        void writeEntries(uint32_t tag, const T* values, size_t count,
                          uint32_t index = 0xFFFFFFFFu);

        static std::atomic<int64_t> mStatNum;
        static std::atomic<int64_t> mStatSize;

        uint32_t mHeadMarker;
        ItemTable mItemTable;
        // Set once the storage may be visible outside its container; never cleared.
        std::atomic<uint32_t> mShared;
        // Made by the library, whose storages are destroyed only once no reader without the
        // lock can be in them: only such a storage is read without the container's lock. One
        // a caller made (and may destroy at once) is read under the lock.
        bool mReleasedLate;
        // While a burst callback on this storage waits to store another container: a copy of
        // the storage as it is, for a burst of that container waiting in turn (see
        // IMetadata::storageToStore). Read and written with std::atomic_load/atomic_store.
        std::shared_ptr<Storage> mOffer;
        uint32_t mTailMarker;
    };

    //------------------------------------------------------------------------------------
    static constexpr uint32_t kHeadMarker = 0x56781234;
    static constexpr uint32_t kLockMarker = 0x24542454;  // "T$T$"
    static constexpr uint32_t kTailMarker = 0x43218765;

    IMetadata();
    IMetadata(const IMetadata& other);
    // A container over `storage` as it is. A storage nobody marked shared is written in place
    // by this container: two containers made over one such storage (IMetadata p1(sp), p2(sp)
    // with sp from std::make_shared<Storage>()) write and read it under two different locks,
    // which is a data race (wrong values, crashes). Pass storages from getStorageSP(), which
    // marks them shared: then each container copies before it writes.
    explicit IMetadata(const std::shared_ptr<Storage>& storage);
    // Rebuilds a container from its flat form; a bad buffer gives an empty container.
    IMetadata(const void* buf, size_t size);
    ~IMetadata();

    IMetadata& operator=(const IMetadata& other);
    IMetadata& operator+=(const IMetadata& other);
    IMetadata operator+(const IMetadata& other) const;

    std::shared_ptr<Storage> getStorageSP() const;
    bool isEmpty() const;
    uint32_t count() const;
    void clear();
    int remove(uint32_t tag);
    int sort();  // rows stay in the order they are in (no sorting); always 0
    int update(uint32_t tag, const IEntry& entry);
    int update(const IEntry& entry);
    IEntry entryFor(uint32_t tag, int take = 0) const;
    IEntry takeEntryFor(uint32_t tag);
    IEntry entryAt(uint32_t index) const;
    // The callbacks run under this container's lock: they must not call back into it. Two
    // callbacks that each store one container into the other, on two threads, do not wait for
    // each other: each stores the other container as it is at that moment (which may be in the
    // middle of the other's callback). Only containers over a storage the caller made
    // (IMetadata(storage) with std::make_shared) still wait for the other's lock.
    int burstRead(const std::function<int(const BurstEntry&)>& fn) const;
    void burstWrite(const std::function<void(BurstEntry&)>& fn);

    // The flat form of every entry, in row order.
    long flattenSize() const { return flattenSize(nullptr, -1); }
    long flatten(void* buf, size_t size) const { return flatten(buf, size, nullptr, -1); }
    // The flat form of the listed tags only, in list order: `count` tags are read from
    // `tags` (absent ones are skipped, repeated ones repeated); with `tags` null, all rows.
    // Only the low 32 bits of `count` are read: -1 means four billion tags, not "all".
    // A form that a receiver would refuse (containers nested deeper than 64 levels, more
    // than 8192 nested containers, more than 32767 records, a record of 4 GiB or more) is
    // refused by flatten: -1, with an error line naming the limit. flattenSize answers its
    // size all the same; -1 only for a storage that contains itself, which has none.
    long flattenSize(const uint32_t* tags, long count) const;
    long flatten(void* buf, size_t size, const uint32_t* tags, long count) const;
    long unflatten(void* buf, size_t size);

    // Writes every entry to the debug log; only when mLogLevel is set or `force`.
    void dump(int layer = 0, bool force = false) const;

    // One-call access for the eleven value types.
    template <typename T>
    static int setEntry(IMetadata* metadata, uint32_t tag, const T& value);
    template <typename T>
    static bool getEntry(const IMetadata* metadata, uint32_t tag, T& value, size_t index = 0);

    // Racy by design (a statistic and a diagnostic); atomics so that the races are defined.
    static std::atomic<uint32_t> mSerialNum;
    static int32_t mLogLevel;
    // Smallest tag whose typed edit or read failed; only ever lowered.
    static std::atomic<uint32_t> mErrorTypeTag;
    static void lowerErrorTypeTag(uint32_t tag);

private:
    friend struct ::NSCam::MetadataInspector;
    // Under mLock: a storage that may be shared is replaced by a private clone first.
    void makeWritableLocked() const;
    // Under mLock: the storage, marked shared, for whoever asked for it.
    std::shared_ptr<Storage> shareLocked() const;
    // The storage to store as a value into another container (getStorageSP's, marked shared),
    // without waiting for this container's lock from inside another's burst callback.
    std::shared_ptr<Storage> storageToStore() const;
    // Under mLock, in a burst callback waiting to store another container: a copy of the
    // storage offered to that container's burst, and taken back.
    void offerLocked() const;
    void withdrawOfferLocked() const;
    // Under mLock, as a write: `storage` becomes this container's; the old one is released
    // once no reader without the lock can still be in it.
    void installLocked(std::shared_ptr<Storage> storage) const;
    // Files `value` under `tag` under the lock: the one store behind both public updates and
    // setEntry (an overload, so that its log lines name "update" as callers grep for).
    int update(uint32_t tag, RowValue&& value);
    // Reads element `index` of `tag`, of basic type `type` and `size` bytes, without the lock:
    // 1 stored in `out`, 0 absent (or fewer elements), -1 when the locked path must answer
    // (a writer was busy, or the read would fail and report).
    int readWithoutLock(uint32_t tag, int32_t type, size_t index, void* out, size_t size) const;
    void assignValidNumber();
    uint32_t validNum() const { return mValidNum.load(std::memory_order_relaxed); }
    // Ends the process when this container was destroyed, naming `operation`.
    void checkValid(const char* operation) const;
    uint32_t lockedRowCount() const;

    uint32_t mHeadMarker;
    // Read before locking (entryFor, operator=) while a destructor may clear it: atomic, so
    // that the race a use after destruction makes is defined.
    std::atomic<uint32_t> mValidNum;
    uint32_t mValidNumBackup;
    mutable std::shared_ptr<Storage> mStorage;
    // What readers without the lock follow: the storage, and a count that is odd while a
    // writer changes the container and moves on with each change.
    mutable std::atomic<Storage*> mStorageRaw;
    mutable std::atomic<uint32_t> mSequence;
    uint32_t mLockMarker;
    mutable std::mutex mLock;
    uint32_t mTailMarker;
};

template <>
struct TypeCode<IMetadata> {
    static constexpr int32_t value = TYPE_IMetadata;
};
template <>
struct TypeCode<IMetadata::Memory> {
    static constexpr int32_t value = TYPE_Memory;
};

//----------------------------------------------------------------------------------------
// The blob pool: 12 size classes of 8 slots, each slot keeping up to 5 spare buffers of one
// nominal capacity, last in first out. Thread-safe: one mutex per slot.
class ZORCAM_EXPORT IMetadata::Memory::MemorySlot {
public:
    static constexpr uint32_t kMaxBuffers = 5;
    static constexpr uint32_t kReserved = 6;

    MemorySlot();
    // Takes the buffer when the slot holds fewer than kMaxBuffers; else leaves it.
    void push(BufferSP&& buffer);
    BufferSP pop();  // empty when the slot is empty
    // The count without the lock: a racy hint, exact when nobody else uses the slot.
    uint32_t count() const { return mCount.load(std::memory_order_relaxed); }

private:
    std::vector<BufferSP> mList;  // newest last
    std::mutex mLock;
    // Mirrors mList.size() so that the capacity tests and statistics read it without the
    // lock and without a data race.
    std::atomic<uint32_t> mCount{0};
};

class ZORCAM_EXPORT IMetadata::Memory::BufferAllocator {
public:
    static constexpr uint32_t kClasses = 12;
    static constexpr uint32_t kSlotsPerClass = 8;
    static constexpr uint64_t kMinSize = 32;
    static constexpr uint64_t kMaxSize = 122880;

    // Where a size (or a capacity) is pooled: class, slot and the slot's nominal capacity.
    struct Place {
        uint32_t cls;
        uint32_t slot;
        uint32_t capacity;
    };

    BufferAllocator();
    ~BufferAllocator();
    BufferAllocator(const BufferAllocator&) = delete;
    BufferAllocator& operator=(const BufferAllocator&) = delete;

    // A buffer whose size is exactly `size`; pooled sizes come with their slot's capacity.
    BufferSP allocate(size_t size);
    // Takes the buffer into the pool when this caller is its last owner and its capacity
    // belongs to a slot with room; then `buffer` is left empty.
    void recycle(BufferSP&& buffer);
    // Nominal bytes held by the pool (a statistic; read without locks).
    uint32_t memoryDosage() const;
    // False for sizes outside [kMinSize, kMaxSize].
    bool locate(uint64_t size, Place& place) const;
    uint32_t spareCount(uint32_t cls, uint32_t slot) const { return mSlots[cls][slot].count(); }

private:
    struct ClassLimit {
        uint32_t limit;
        uint32_t step;
    };

    uint64_t mMinSize;
    uint64_t mMaxSize;
    MemorySlot mSlots[kClasses][kSlotsPerClass];
    ClassLimit mClassTable[kClasses];
};

}  // namespace NSCam
