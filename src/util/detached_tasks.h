#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace qm {

/// Runs tasks on threads that nobody joins, keeps count of them, and lets nothing that they throw escape.
///
/// A thread whose task has ended waits a while for the next one, so that short tasks don't pay for a thread each. No
/// task ever waits for a free thread: when none is idle a new one is started.
class DetachedTasks {
public:
    /// `idleTime`: how long a thread without a task stays.
    explicit DetachedTasks(std::chrono::milliseconds idleTime = std::chrono::seconds(10));
    /// Ends and joins idle threads, unless tasks are running: these are left alone, and what they use must be theirs or
    /// outlive them. Not from a task.
    ~DetachedTasks();
    DetachedTasks(const DetachedTasks&) = delete;
    DetachedTasks& operator=(const DetachedTasks&) = delete;

    /// Starts `task`; `name` says in the log whose exception it was. If the system gives no thread, the task doesn't
    /// run, is destroyed, and that is logged as its exception. Any thread.
    void run(const char* name, std::function<void()> task);

    /// How many tasks are running or about to. Any thread.
    std::size_t count() const;

    /// Waits until no task is left, at most `limit`; whether that came true. Any thread but a task's own.
    bool waitUntilIdle(std::chrono::milliseconds limit) const;

private:
    struct State;
    static void work(const std::shared_ptr<State>& state, std::string name, std::function<void()> task);

    std::shared_ptr<State> state_;
};

/// Runs `task`, logs what it throws as a failure of the background task `name`, and throws nothing.
void runGuarded(const char* name, const std::function<void()>& task) noexcept;

}  // namespace qm
