#pragma once
// Runs `fn` on a thread of its own with a stack of `bytes`, as camera threads often have: what
// takes a frame per level of nesting or per link of a chain overflows it.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>

namespace zorcam_test {

inline void onSmallStack(size_t bytes, const std::function<void()>& fn) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, bytes);
    pthread_t thread;
    auto run = [](void* f) -> void* {
        (*static_cast<const std::function<void()>*>(f))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&fn)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

}  // namespace zorcam_test
