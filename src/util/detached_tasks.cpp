#include "util/detached_tasks.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "util/log.h"

namespace qm {
namespace {

struct Job {
    std::string name;
    std::function<void()> task;
};

}  // namespace

/// Shared with every thread, because threads may outlive the DetachedTasks object.
struct DetachedTasks::State {
    std::mutex mutex;
    std::condition_variable handedOver;
    std::condition_variable allDone;
    std::deque<Job> handed;
    /// Threads that wait, less the jobs handed over: a thread is counted out when a job is handed to it, not when it
    /// wakes, and whichever waiting thread comes first takes the job. So each job handed over finds a thread.
    std::size_t idleThreads = 0;
    std::size_t runningTasks = 0;
    std::chrono::milliseconds idleTime{0};
    bool closing = false;

    void countOut() {
        if (--runningTasks == 0) allDone.notify_all();
    }
};

void runGuarded(const char* name, const std::function<void()>& task) noexcept {
    try {
        try {
            task();
        } catch (const std::exception& failure) {
            log(LogLevel::Error, std::string("后台任务 ") + name + " 异常已拦截: " + failure.what());
        } catch (...) {
            log(LogLevel::Error, std::string("后台任务 ") + name + " 抛出未知异常，已拦截");
        }
    } catch (...) {
        // No memory for the log line itself: nothing more can be said.
        return;
    }
}

DetachedTasks::DetachedTasks(std::chrono::milliseconds idleTime) : state_(std::make_shared<State>()) {
    state_->idleTime = idleTime;
}

DetachedTasks::~DetachedTasks() {
    const std::lock_guard lock(state_->mutex);
    state_->closing = true;
    state_->handedOver.notify_all();
}

void DetachedTasks::run(const char* name, std::function<void()> task) {
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->idleThreads > 0) {
            state_->handed.push_back({name, std::move(task)});
            --state_->idleThreads;
            ++state_->runningTasks;
            state_->handedOver.notify_one();
            return;
        }
        ++state_->runningTasks;
    }
    try {
        std::thread(&DetachedTasks::work, state_, std::string(name), std::move(task)).detach();
    } catch (const std::exception& failure) {
        log(LogLevel::Error, std::string("后台任务 ") + name + " 异常已拦截: " + failure.what());
        const std::lock_guard lock(state_->mutex);
        state_->countOut();
    }
}

std::size_t DetachedTasks::count() const {
    const std::lock_guard lock(state_->mutex);
    return state_->runningTasks;
}

bool DetachedTasks::waitUntilIdle(std::chrono::milliseconds limit) const {
    std::unique_lock lock(state_->mutex);
    return state_->allDone.wait_for(lock, limit, [this] { return state_->runningTasks == 0; });
}

void DetachedTasks::work(const std::shared_ptr<State>& state, std::string name, std::function<void()> task) {
    for (;;) {
        runGuarded(name.c_str(), task);
        task = nullptr;  // What the task holds goes before the count says that it has ended.

        std::unique_lock lock(state->mutex);
        state->countOut();
        ++state->idleThreads;
        state->handedOver.wait_for(lock, state->idleTime, [&] { return !state->handed.empty() || state->closing; });
        if (state->handed.empty()) {
            --state->idleThreads;
            return;
        }
        name = std::move(state->handed.front().name);
        task = std::move(state->handed.front().task);
        state->handed.pop_front();
    }
}

}  // namespace qm
