// MCPRequestQueue: the helper's concurrent queue for requests. Tasks run on
// worker threads that are started on demand, up to `maxWorkers`; a task that
// finds every worker busy waits for the next free one. A request may block
// for minutes (a send waits for the user), so the queue never runs tasks on
// the submitting thread. Thread-safe. The destructor waits for every task.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace mcpkit {

class MCPRequestQueue {
public:
    explicit MCPRequestQueue(std::string label, std::size_t maxWorkers = 64);
    ~MCPRequestQueue();

    MCPRequestQueue(const MCPRequestQueue&) = delete;
    MCPRequestQueue& operator=(const MCPRequestQueue&) = delete;

    void submit(std::function<void()> task);

    // Blocks until every submitted task has finished.
    void wait();

private:
    void work();

    std::string label_;
    std::size_t maxWorkers_;
    std::mutex lock_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<std::function<void()>> tasks_;  // guarded by lock_
    std::vector<std::thread> workers_;         // guarded by lock_
    std::size_t busy_ = 0;                     // guarded by lock_
    bool stopping_ = false;                    // guarded by lock_
};

}  // namespace mcpkit
