#include "KestruneMCPKit/Shim/MCPRequestQueue.h"

#include <pthread.h>

#include <cstdio>

namespace mcpkit {

MCPRequestQueue::MCPRequestQueue(std::string label, std::size_t maxWorkers)
    : label_(std::move(label)), maxWorkers_(maxWorkers == 0 ? 1 : maxWorkers) {}

MCPRequestQueue::~MCPRequestQueue() {
    wait();
    std::vector<std::thread> workers;
    {
        std::lock_guard guard(lock_);
        stopping_ = true;
        workers.swap(workers_);
    }
    wake_.notify_all();
    for (auto& w : workers) w.join();
}

void MCPRequestQueue::submit(std::function<void()> task) {
    std::lock_guard guard(lock_);
    tasks_.push_back(std::move(task));
    const std::size_t idleWorkers = workers_.size() - busy_;
    if (idleWorkers < tasks_.size() && workers_.size() < maxWorkers_) {
        workers_.emplace_back([this] { work(); });
    }
    wake_.notify_one();
}

void MCPRequestQueue::wait() {
    std::unique_lock guard(lock_);
    idle_.wait(guard, [&] { return tasks_.empty() && busy_ == 0; });
}

void MCPRequestQueue::work() {
    // Linux allows 15 characters; the label is cut there.
    const std::string name = label_.substr(0, 15);
#if defined(__APPLE__)
    pthread_setname_np(name.c_str());
#else
    pthread_setname_np(pthread_self(), name.c_str());
#endif
    std::unique_lock guard(lock_);
    for (;;) {
        wake_.wait(guard, [&] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) return;  // stopping and nothing left
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        ++busy_;
        guard.unlock();
        try {
            task();
        } catch (...) {
            // A task's failure must not take the helper down.
        }
        task = nullptr;
        guard.lock();
        --busy_;
        if (tasks_.empty() && busy_ == 0) idle_.notify_all();
    }
}

}  // namespace mcpkit
