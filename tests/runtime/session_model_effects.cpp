#include <map>
#include <string>

#include "runtime/session_model.h"

namespace qm::runtime::test {

void SessionModel::apply(const json& event) {
    using Effect = void (SessionModel::*)(const json&);
    static const std::map<std::string, Effect> kEffects{
        {"run_started", &SessionModel::applyStart},
        {"turn_started", &SessionModel::applyAnswer},
        {"user_input_accepted", &SessionModel::applyInput},
        {"user_input_queued", &SessionModel::applyInput},
        {"user_interjection_buffered", &SessionModel::applyInput},
        {"cancellation_requested", &SessionModel::applyCancellation},
        {"user_input_requested", &SessionModel::applyQuestion},
        {"approval_requested", &SessionModel::applyQuestion},
        {"approval_resolved", &SessionModel::applyAnswer},
        {"wake_fired", &SessionModel::applyJoin},
        {"task_waiting", &SessionModel::applyJoin},
        {"task_queued", &SessionModel::applyTask},
        {"task_started", &SessionModel::applyTask},
        {"task_cancellation_requested", &SessionModel::applyTask},
        {"task_completed", &SessionModel::applyTask},
        {"run_state_changed", &SessionModel::applyState},
    };
    const auto effect = kEffects.find(event["type"]);
    if (effect != kEffects.end()) (this->*effect->second)(event);
}

void SessionModel::applyStart(const json& event) {
    objective_ = event["payload"]["objective"];
    question_ = approval_ = "";
    cancelled_ = false;
    join_ = nullptr;
    tasks_.clear();
    queue_.clear();
    interjections_.clear();
}

void SessionModel::applyInput(const json& event) {
    const json& payload = event["payload"];
    if (event["type"] != "user_input_accepted") {
        auto& buffer = event["type"] == "user_input_queued" ? queue_ : interjections_;
        buffer.push_back({event["eventId"], event["sequence"], payload["content"], payload["mode"]});
        return;
    }
    if (boolMember(payload, "fromQueue", false)) queue_.pop_front();
    if (boolMember(payload, "fromInterjection", false)) interjections_.pop_front();
    if (boolMember(payload, "fromWaitingTasks", false)) join_ = nullptr;
    question_ = "";
}

void SessionModel::applyCancellation(const json& event) {
    cancelled_ = cancelled_ || !boolMember(event["payload"], "alreadyTerminal", false);
}

void SessionModel::applyQuestion(const json& event) {
    if (event["type"] == "user_input_requested") {
        question_ = event["payload"]["requestId"];
    } else {
        approval_ = event["payload"]["approvalId"];
    }
}

void SessionModel::applyAnswer(const json& event) {
    if (event["type"] == "turn_started") question_ = "";
    approval_ = "";
}

void SessionModel::applyJoin(const json& event) {
    const json& payload = event["payload"];
    join_ = nullptr;
    if (event["type"] == "wake_fired") return;
    join_ = {{"joinId", payload["joinId"]},
             {"callId", payload["callId"]},
             {"policy", payload.value("policy", "all")},
             {"taskIds", payload["taskIds"]},
             {"minSucceeded", integerMember(payload, "minSucceeded", 0)},
             {"timeoutMs", integerMember(payload, "timeoutMs", 0)}};
}

void SessionModel::applyTask(const json& event) {
    const json& payload = event["payload"];
    const std::string type = event["type"];
    json& task = tasks_[payload["taskId"]];
    if (type == "task_queued") {
        task = queuedTask(payload);
    } else if (type == "task_started") {
        task["state"] = "RUNNING";
        task["startedAtMs"] = integerMember(payload, "startedAtMs", nowMs);
    } else if (type == "task_cancellation_requested") {
        task["cancellationRequested"] = true;
    } else {
        task["state"] = payload["state"];
        task["rounds"] = integerMember(payload, "rounds", 0);
        task["finishedAtMs"] = integerMember(payload, "finishedAtMs", nowMs);
        task["completionSequence"] = event["sequence"];
        for (const char* const key : {"result", "error"}) {
            if (!stringMember(payload, key).empty()) task[key] = payload[key];
        }
    }
}

json SessionModel::queuedTask(const json& payload) const {
    json task{{"taskId", payload["taskId"]},
              {"parentTaskId", payload["parentTaskId"]},
              {"objective", payload["task"]},
              {"origin", stringMember(payload, "origin")},
              {"access", payload.value("access", "none")},
              {"state", "QUEUED"},
              {"depth", payload["depth"]},
              {"maxRounds", integerMember(payload, "maxRounds", 0)},
              {"rounds", 0},
              {"timeoutMs", integerMember(payload, "timeoutMs", 0)},
              {"createdAtMs", integerMember(payload, "createdAtMs", nowMs)},
              {"cancellationRequested", false}};
    if (!stringMember(payload, "workspace").empty()) task["workspace"] = payload["workspace"];
    return task;
}

void SessionModel::applyState(const json& event) {
    state_ = event["payload"]["to"];
    if (!isOver()) return;
    question_ = approval_ = "";
    join_ = nullptr;
}

}  // namespace qm::runtime::test
