#include "util/detached_tasks.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <list>
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
    /// The handles of all threads, until they retire or the object ends.
    std::list<std::thread> threads;

    /// Called by a thread that waited in vain: nobody will join it any more.
    void retireThisThread() {
        const auto self = std::find_if(threads.begin(), threads.end(), [](const std::thread& thread) {
            return thread.get_id() == std::this_thread::get_id();
        });
        if (self == threads.end()) return;
        self->detach();
        threads.erase(self);
    }

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
    std::list<std::thread> threads;
    bool allIdle = false;
    {
        const std::lock_guard lock(state_->mutex);
        state_->closing = true;
        state_->handedOver.notify_all();
        threads.swap(state_->threads);
        allIdle = state_->runningTasks == 0;
    }
    // Idle threads end at once. They are waited for, because what libraries keep for each thread is freed with it, and
    // the end of the process may be near.
    for (auto& thread : threads) {
        if (allIdle) {
            thread.join();
        } else {
            thread.detach();
        }
    }
}

void DetachedTasks::run(const char* name, std::function<void()> task) {
    try {
        const std::lock_guard lock(state_->mutex);
        if (state_->idleThreads > 0) {
            state_->handed.push_back({name, std::move(task)});
            --state_->idleThreads;
            state_->handedOver.notify_one();
        } else {
            // Started under the lock, which the thread takes before it looks for its handle.
            std::list<std::thread> started(1);
            started.front() = std::thread(&DetachedTasks::work, state_, std::string(name), std::move(task));
            state_->threads.splice(state_->threads.end(), started);
        }
        ++state_->runningTasks;
    } catch (const std::exception& failure) {
        log(LogLevel::Error, std::string("后台任务 ") + name + " 异常已拦截: " + failure.what());
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
            state->retireThisThread();
            return;
        }
        name = std::move(state->handed.front().name);
        task = std::move(state->handed.front().task);
        state->handed.pop_front();
    }
}

}  // namespace qm
