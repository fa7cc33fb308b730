// OpenXR handles to the layer's state about them. Lookups happen on render
// threads, so they take no lock: a fixed table of atomic slots, scanned.
// Adding and removing take a mutex among themselves. OpenXR makes the
// application keep a handle out of other calls while it destroys it, so a
// lookup never races the removal of the entry it finds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace orvxr {

template <typename T, size_t N>
class HandleTable {
public:
    // False when the table is full; the caller then treats the handle as
    // one it does not know.
    bool add(uint64_t handle, T* value) {
        if (handle == 0) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < N; ++i) {
            if (keys_[i].load(std::memory_order_relaxed) == 0) {
                values_[i].store(value, std::memory_order_relaxed);
                keys_[i].store(handle, std::memory_order_release);
                return true;
            }
        }
        return false;
    }

    T* find(uint64_t handle) const {
        if (handle == 0) return nullptr;
        for (size_t i = 0; i < N; ++i)
            if (keys_[i].load(std::memory_order_acquire) == handle)
                return values_[i].load(std::memory_order_relaxed);
        return nullptr;
    }

    // The entry's value, now out of the table (the caller frees it), or null.
    T* remove(uint64_t handle) {
        if (handle == 0) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < N; ++i) {
            if (keys_[i].load(std::memory_order_relaxed) == handle) {
                T* v = values_[i].load(std::memory_order_relaxed);
                keys_[i].store(0, std::memory_order_release);
                return v;
            }
        }
        return nullptr;
    }

    // Removes every entry for which pred(value) holds, handing each to drop.
    template <typename Pred, typename Drop>
    void removeIf(Pred pred, Drop drop) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < N; ++i) {
            if (keys_[i].load(std::memory_order_relaxed) == 0) continue;
            T* v = values_[i].load(std::memory_order_relaxed);
            if (pred(v)) {
                keys_[i].store(0, std::memory_order_release);
                drop(v);
            }
        }
    }

private:
    std::atomic<uint64_t> keys_[N] = {};
    std::atomic<T*> values_[N] = {};
    std::mutex mutex_;
};

}  // namespace orvxr
