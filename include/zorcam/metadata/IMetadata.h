#pragma once
// IMetadata: the container in which camera components pass settings, controls and results.
// A map from 32-bit tags to typed arrays of values, cheap to copy (copy-on-write at three
// levels: storage, content, blob), mergeable, and flattenable into one byte buffer.
//
// Thread safety: IMetadata and IEntry are thread-safe (each guards itself with its own
// mutex). Memory handles are thread-compatible (one handle, one thread; handles that share
// bytes may live on different threads). Storage is not thread-safe: it is used under the lock
// of the container that holds it (burst callbacks), or only read once shared.
//
// What this header lays out is the interface: IMetadata, IEntry and Memory are held by value
// in every component, so their members stay where they are. Content, Storage's table and the
// storage's insides live on the heap and are defined inside the library, where they may change
// without changing this header (a storage keeps only its size and alignment here).
#include <zorcam/metadata/Export.h>
#include <zorcam/metadata/FlatForm.h>
#include <zorcam/metadata/MetadataTypes.h>
#include <zorcam/metadata/ThreadSafety.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace NSCam {

struct MetadataInspector;  // test access to internals; defined by the tests only
struct StorageState;       // a storage's insides; defined inside the library

class ZORCAM_EXPORT IMetadata {
public:
    // The library's own operations on containers and entries: defined inside it, of no use
    // to a caller (an incomplete type here), and not exported.
    struct ZORCAM_LOCAL Core;

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
        friend struct IMetadata::Core;

        // Read without the lock by tag() while an assignment may write it: atomic, so that
        // the race is defined.
        std::atomic<uint32_t> mTag;
        std::shared_ptr<Content> mContentPtr ZORCAM_GUARDED_BY(mLock);
        mutable Mutex mLock;
    };

    //------------------------------------------------------------------------------------
    // Storage: one table of rows (tag -> content), the shared flag that drives the
    // container's copy-on-write, and the flat block form.
    class Storage {
    public:
        // The table of rows (tag -> values) and one row of it, defined inside the library.
        class ItemTable;
        struct Item;

        Storage();
        ~Storage();
        Storage(const Storage&) = delete;
        Storage& operator=(const Storage&) = delete;

        size_t size() const;
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

    private:
        friend struct ::NSCam::StorageState;
        // The storage's insides (its table, its shared flag, its markers), built in place by
        // the constructor. Only the size and alignment are part of the interface: callers may
        // make storages themselves (std::make_shared), so they must know how large one is.
        // Room is left for the insides to grow without changing it.
        static constexpr size_t kStateBytes = 96;
        alignas(16) unsigned char mState[kStateBytes];
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

    uint32_t mHeadMarker = kHeadMarker;
    // Read before locking (entryFor, operator=) while a destructor may clear it: atomic, so
    // that the race a use after destruction makes is defined.
    std::atomic<uint32_t> mValidNum{0};
    uint32_t mValidNumBackup = 0;
    mutable std::shared_ptr<Storage> mStorage ZORCAM_GUARDED_BY(mLock);
    // What readers without the lock follow: the storage, and a count that is odd while a
    // writer changes the container and moves on with each change.
    mutable std::atomic<Storage*> mStorageRaw{nullptr};
    mutable std::atomic<uint32_t> mSequence{0};
    uint32_t mLockMarker = kLockMarker;
    mutable Mutex mLock;
    uint32_t mTailMarker = kTailMarker;
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
    std::vector<BufferSP> mList ZORCAM_GUARDED_BY(mLock);  // newest last
    Mutex mLock;
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
