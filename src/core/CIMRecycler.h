// A process-wide recycler of small blocks for the memory of the hot
// asynchronous paths (requests posted to a strand, read completions), and an
// allocator and handler wrapper that draw from it. Not installed.
//
// Blocks come in four sizes (64 to 512 bytes); each size keeps at most
// kKeptPerSize freed blocks for reuse, and anything larger than 512 bytes, or
// freed when the list is full, goes to the heap as usual. Blocks are taken on
// one thread and given back on another (a request is posted by the owner's
// thread and freed on the task's), hence one lock per size. The recycler is
// never destroyed, so handlers destroyed late (by a static destructor) can
// still give their memory back.
#ifndef CIMCORE_SRC_CORE_CIMRECYCLER_H
#define CIMCORE_SRC_CORE_CIMRECYCLER_H

#include <cstddef>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
// A kept block is poisoned but for its link word, so a use after its release
// is still reported.
#define CIM_RECYCLER_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define CIM_RECYCLER_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define CIM_RECYCLER_POISON(p, n) ((void)(p), (void)(n))
#define CIM_RECYCLER_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace CIM {
namespace Recycler {

constexpr std::size_t kSmallest = 64;
constexpr std::size_t kSizes = 4;  // 64, 128, 256, 512
constexpr std::size_t kKeptPerSize = 256;

class TCBlockLists {
public:
    void* Allocate(std::size_t size) {
        const std::size_t index = IndexOf(size);
        if (index == kSizes) {
            return ::operator new(size);
        }
        TSList& list = m_lists[index];
        {
            std::lock_guard<std::mutex> lock(list.mutex);
            if (TSLink* block = list.head) {
                CIM_RECYCLER_UNPOISON(block, kSmallest << index);
                list.head = block->next;
                --list.count;
                return block;
            }
        }
        return ::operator new(kSmallest << index);
    }

    void Deallocate(void* pointer, std::size_t size) noexcept {
        const std::size_t index = IndexOf(size);
        if (index == kSizes) {
            ::operator delete(pointer);
            return;
        }
        TSList& list = m_lists[index];
        {
            std::lock_guard<std::mutex> lock(list.mutex);
            if (list.count < kKeptPerSize) {
                TSLink* block = static_cast<TSLink*>(pointer);
                block->next = list.head;
                list.head = block;
                ++list.count;
                CIM_RECYCLER_POISON(reinterpret_cast<char*>(block) + sizeof(TSLink),
                                    (kSmallest << index) - sizeof(TSLink));
                return;
            }
        }
        ::operator delete(pointer);
    }

private:
    struct TSLink {
        TSLink* next;
    };
    struct TSList {
        std::mutex mutex;
        TSLink* head = nullptr;  // guarded by mutex
        std::size_t count = 0;   // guarded by mutex
    };

    static std::size_t IndexOf(std::size_t size) {
        std::size_t index = 0;
        for (std::size_t limit = kSmallest; limit < size; limit <<= 1) {
            if (++index == kSizes) {
                break;
            }
        }
        return index;
    }

    TSList m_lists[kSizes];
};

inline TCBlockLists& Blocks() {
    // Deliberately leaked: see the head of this file.
    static TCBlockLists* const blocks = new TCBlockLists;
    return *blocks;
}

}  // namespace Recycler

// A standard allocator over the recycler, for Asio's operations (as a
// handler's associated allocator) and for allocate_shared.
template <typename T>
class TCRecyclingAllocator {
public:
    using value_type = T;

    TCRecyclingAllocator() noexcept = default;
    template <typename U>
    TCRecyclingAllocator(const TCRecyclingAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(Recycler::Blocks().Allocate(count * sizeof(T)));
    }
    void deallocate(T* pointer, std::size_t count) noexcept {
        Recycler::Blocks().Deallocate(pointer, count * sizeof(T));
    }

    template <typename U>
    bool operator==(const TCRecyclingAllocator<U>&) const noexcept {
        return true;
    }
    template <typename U>
    bool operator!=(const TCRecyclingAllocator<U>&) const noexcept {
        return false;
    }
};

// A handler whose Asio operation memory comes from the recycler.
template <typename Handler>
class TCRecycled {
public:
    using allocator_type = TCRecyclingAllocator<void>;

    explicit TCRecycled(Handler handler) : m_handler(std::move(handler)) {}

    allocator_type get_allocator() const noexcept { return allocator_type(); }

    template <typename... Args>
    void operator()(Args&&... args) {
        m_handler(std::forward<Args>(args)...);
    }

private:
    Handler m_handler;
};

template <typename Handler>
TCRecycled<typename std::decay<Handler>::type> Recycled(Handler&& handler) {
    return TCRecycled<typename std::decay<Handler>::type>(std::forward<Handler>(handler));
}

}  // namespace CIM

#endif
