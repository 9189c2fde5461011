#include "runtime/session_model.h"

#include <algorithm>
#include <set>
#include <utility>

namespace qm::runtime::test {
namespace {

using Words = std::set<std::string>;

const Words kWaits{"WAITING_USER", "WAITING_APPROVAL", "WAITING_TASKS"};
const Words kDeadTasks{"SUCCEEDED", "FAILED", "CANCELLED", "LOST"};
const Words kPlainFacts{"wake_scheduled",  "assistant_message", "model_started", "model_delta",
                        "model_completed", "model_failed",      "tool_proposed", "tool_started",
                        "tool_progress",   "tool_completed",    "tool_failed"};

const Words kTaskFacts{"task_queued", "task_started", "task_cancellation_requested", "task_completed"};

bool blank(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
}

}  // namespace

json SessionModel::snapshot() const {
    json value{{"sessionId", session_},
               {"state", state_},
               {"lastSequence", last_},
               {"queuedInputs", queue_.size()},
               {"bufferedInterjections", interjections_.size()},
               {"cancellationRequested", cancelled_},
               {"childTasks", json::array()}};
    const std::pair<const char*, const std::string*> optional[] = {{"runId", &run_},
                                                                   {"turnId", &turn_},
                                                                   {"objective", &objective_},
                                                                   {"pendingUserRequestId", &question_},
                                                                   {"pendingApprovalId", &approval_}};
    for (const auto& [key, text] : optional) {
        if (!text->empty()) value[key] = *text;
    }
    for (const auto& [id, task] : tasks_)
        value["childTasks"].push_back(task);
    if (!join_.is_null()) value["pendingTaskJoin"] = join_;
    return value;
}

json SessionModel::untraced(std::string_view words) const {
    return {{"accepted", false}, {"duplicate", false},     {"error", words},         {"firstSequence", 0},
            {"lastSequence", 0}, {"snapshot", snapshot()}, {"events", json::array()}};
}

json SessionModel::duplicate(const std::string& key) const {
    json answer = answers_.at(key);
    answer["duplicate"] = true;
    answer["snapshot"] = snapshot();
    return answer;
}

void SessionModel::begin(const std::string& key) {
    key_ = key;
    batch_ = json::array();
}

/// Ends an operation whose events were emitted, or that is refused with these words.
json SessionModel::finish(const std::string& words) {
    if (!words.empty()) emit("command_rejected", {{"error", words}});
    json answer{{"accepted", words.empty()},
                {"duplicate", false},
                {"error", words},
                {"firstSequence", batch_.front()["sequence"]},
                {"lastSequence", last_},
                {"snapshot", snapshot()},
                {"events", batch_}};
    answers_[key_] = answer;
    return answer;
}

void SessionModel::emit(const std::string& type, json payload) {
    json event{{"v", 1},
               {"eventId", makeId("evt")},
               {"sessionId", session_},
               {"operationId", key_},
               {"sequence", last_ + 1},
               {"timestampMs", nowMs},
               {"type", type},
               {"payload", std::move(payload)}};
    if (!run_.empty()) event["runId"] = run_;
    if (!turn_.empty()) event["turnId"] = turn_;
    apply(event);
    batch_.push_back(std::move(event));
    ++last_;
}

void SessionModel::enter(const std::string& state, const std::string& reason) {
    emit("run_state_changed", {{"from", state_}, {"to", state}, {"reason", reason}});
}

bool SessionModel::hasLivingTask() const {
    return std::any_of(tasks_.begin(), tasks_.end(),
                       [](const auto& task) { return !kDeadTasks.contains(task.second["state"]); });
}

json SessionModel::command(const json& command) {
    const std::string key = command["commandId"];
    if (blank(key)) return untraced("commandId must not be blank");
    if (command["sessionId"] != session_) return untraced("command belongs to another session");
    if (answers_.contains(key)) return duplicate(key);
    begin(key);
    if (command["v"] != 1) return finish("unsupported agent command protocol version");
    if (!command["payload"].is_object()) return finish("command payload must be an object");
    return finish(commandWords(command));
}

std::string SessionModel::commandWords(const json& command) {
    const std::string type = command["type"];
    const std::string run = stringMember(command, "runId");
    const json& payload = command["payload"];
    if (type == "start_run") {
        if (!run.empty() && run != run_) return "command targets a stale or unknown run";
        return startWords(payload);
    }
    if (blank(run)) return "runId is required for an active-run command";
    if (run != run_) return "command targets a stale or unknown run";
    if (type == "append_user_input") return inputWords(payload);
    return type == "cancel_run" ? cancelWords(payload) : approvalWords(payload);
}

std::string SessionModel::startWords(const json& payload) {
    if (state_ != "IDLE" && !isOver()) return "session already has an active run";
    if (blank(stringMember(payload, "objective"))) return "objective must not be blank";
    run_ = makeId("run");
    turn_ = makeId("turn");
    emit("run_started", payload);
    emit("user_input_accepted", {{"content", payload["objective"]}, {"initial", true}});
    enter("RUNNING", "user_start");
    return "";
}

std::string SessionModel::inputWords(const json& payload) {
    if (isOver()) return "active run is already terminal";
    if (blank(stringMember(payload, "content"))) return "content must not be blank";
    const std::string mode = payload.value("mode", "queue");
    if (mode != "queue" && mode != "interject") return "input mode must be queue or interject in protocol v1";
    if (state_ == "WAITING_APPROVAL") return "approval must be answered with resolve_approval";
    const bool answers = state_ == "WAITING_USER";
    if (answers && (question_.empty() || stringMember(payload, "requestId") != question_)) {
        return "requestId is required and must match the pending question";
    }
    json input{{"content", payload["content"]}, {"mode", mode}};
    if (!kWaits.contains(state_)) {
        emit(state_ == "RUNNING" && mode == "interject" ? "user_interjection_buffered" : "user_input_queued", input);
        return "";
    }
    input.update({{"requestId", stringMember(payload, "requestId")},
                  {"answersRequest", answers},
                  {"fromWaitingTasks", !answers}});
    emit("user_input_accepted", input);
    enter("RUNNING", answers ? "user_answered" : "user_interrupted_wait");
    return "";
}

std::string SessionModel::cancelWords(const json& payload) {
    const std::string scope = payload.value("scope", "turn");
    if (!Words{"turn", "foreground_tools", "child_tasks", "all"}.contains(scope)) return "unknown cancellation scope";
    const std::string before = state_;
    emit("cancellation_requested", {{"scope", scope}, {"alreadyRequested", cancelled_}, {"alreadyTerminal", isOver()}});
    if (scope == "child_tasks" || scope == "all") {
        for (const auto& [id, task] : tasks_) {
            if (kDeadTasks.contains(task["state"]) || boolMember(task, "cancellationRequested", false)) continue;
            emit("task_cancellation_requested", {{"taskId", id}, {"reason", "run_cancelled"}});
        }
    }
    if (before == "RUNNING") enter("CANCELLING", "user_cancelled");
    if (!kWaits.contains(before)) return "";
    enter("CANCELLING", "checkpoint_cancelled");
    emit("run_cancelled", {{"reason", "checkpoint_cancelled"}});
    enter("CANCELLED", "checkpoint_cancelled");
    return "";
}

std::string SessionModel::approvalWords(const json& payload) {
    static const std::map<std::string, std::string> kReasons{
        {"approve", "approval_granted"}, {"revise", "plan_revision_requested"}, {"cancel", "approval_cancelled"}};
    if (state_ != "WAITING_APPROVAL") return "run is not waiting for approval";
    const std::string decision = stringMember(payload, "decision");
    if (blank(decision)) return "decision must not be blank";
    const std::string approval = stringMember(payload, "approvalId");
    if (!approval.empty() && approval != approval_) return "approvalId is stale";
    if (!kReasons.contains(decision)) return "approval decision must be approve, revise, or cancel";
    json resolved{{"approvalId", approval_}, {"decision", decision}};
    if (payload.contains("comment")) resolved["comment"] = payload["comment"];
    emit("approval_resolved", resolved);
    if (decision == "cancel") {
        emit("run_cancelled",
             {{"reason", "approval_cancelled"},
              {"content", payload.value("comment", "Execution was cancelled at the plan checkpoint.")}});
    }
    enter(decision == "cancel" ? "CANCELLED" : "RUNNING", kReasons.at(decision));
    return "";
}

json SessionModel::update(const json& update) {
    if (blank(update["updateId"])) return untraced("runtime updateId must not be blank");
    if (update["runId"] == "") return untraced("runtime update runId must not be blank");
    const std::string key =
        "runtime/" + update["runId"].get<std::string>() + "/" + update["updateId"].get<std::string>();
    if (answers_.contains(key)) return duplicate(key);
    begin(key);
    if (!update["payload"].is_object()) return finish("runtime update payload must be an object");
    if (update["runId"] != run_ || (update["turnId"] != "" && update["turnId"] != turn_)) {
        return finish("runtime update targets a stale run or turn");
    }
    if (isOver() && update["type"] != "task_completed") return finish("session has no active run");
    return finish(updateWords(update));
}

std::string SessionModel::updateWords(const json& update) {
    const std::string type = update["type"];
    const json& payload = update["payload"];
    if (kPlainFacts.contains(type)) return emitAndEnter(type, payload);
    if (type == "task_waiting") return waitWords(payload);
    if (kTaskFacts.contains(type)) {
        const std::string words = taskWords(type, payload);
        return words.empty() ? emitAndEnter(type, payload) : words;
    }
    if (type == "user_input_requested" || type == "approval_requested") return questionWords(type, payload);
    if (type == "wake_fired") {
        if (state_ != "WAITING_TASKS") return "task wake requires WAITING_TASKS";
        if (stringMember(payload, "joinId") != join_["joinId"]) return "task wake targets a stale join";
        return emitAndEnter(type, payload, "RUNNING", "task_wake");
    }
    if (type == "run_completed") {
        if (state_ != "RUNNING" || cancelled_) return "run cannot complete from the current control state";
        if (waitingInputs() > 0) return "pending input requires atomic completeTurn promotion";
        if (hasLivingTask()) return "active child tasks require an explicit task join";
        return emitAndEnter(type, payload, "COMPLETED", "runtime_completed");
    }
    if (type == "run_failed") {
        for (const auto& [id, child] : tasks_) {
            if (kDeadTasks.contains(child["state"])) continue;
            emit("task_completed", {{"taskId", id},
                                    {"state", "LOST"},
                                    {"error", "parent run failed before the child task settled"},
                                    {"finishedAtMs", nowMs}});
        }
        return emitAndEnter(type, payload, "FAILED", "runtime_failed");
    }
    if (type == "run_cancelled") return emitAndEnter(type, payload, "CANCELLED", "cancellation_confirmed");
    return type == "user_input_accepted" ? "buffered input must be selected by SessionActor at a safe point"
                                         : "runtime cannot directly emit this control event type";
}

/// An accepted fact and, if it changes the state, that change.
std::string SessionModel::emitAndEnter(const std::string& type, const json& payload, const std::string& state,
                                       const std::string& reason) {
    emit(type, payload);
    if (!state.empty()) enter(state, reason);
    return "";
}

std::string SessionModel::questionWords(const std::string& type, json payload) {
    const bool isApproval = type == "approval_requested";
    const char* const key = isApproval ? "approvalId" : "requestId";
    if (state_ != "RUNNING") {
        return std::string(isApproval ? "approval" : "user input") + " can only be requested while running";
    }
    if (blank(stringMember(payload, key))) payload[key] = makeId(isApproval ? "approval" : "question");
    return emitAndEnter(type, payload, isApproval ? "WAITING_APPROVAL" : "WAITING_USER",
                        isApproval ? "approval_required" : "user_input_required");
}

std::string SessionModel::taskWords(const std::string& type, const json& payload) const {
    const auto task = tasks_.find(stringMember(payload, "taskId"));
    const bool isKnown = task != tasks_.end();
    const bool lives = isKnown && !kDeadTasks.contains(task->second["state"]);
    if (type == "task_started") {
        return isKnown && task->second["state"] == "QUEUED" ? "" : "child task is not queued";
    }
    if (type == "task_cancellation_requested") {
        return lives && !boolMember(task->second, "cancellationRequested", false) ? ""
                                                                                  : "child task cannot be cancelled";
    }
    if (type == "task_completed") {
        return lives && kDeadTasks.contains(stringMember(payload, "state")) ? "" : "invalid child task completion fact";
    }
    const bool isOpen = state_ == "RUNNING" || kWaits.contains(state_);
    if (!isOpen || stringMember(payload, "taskId").empty() || isKnown || blank(stringMember(payload, "task")) ||
        stringMember(payload, "parentTaskId").empty() || integerMember(payload, "depth", 0) < 2) {
        return "invalid child task admission fact";
    }
    return Words{"none", "read", "write"}.contains(payload.value("access", "none"))
               ? ""
               : "unknown child task workspace access";
}

std::string SessionModel::waitWords(const json& payload) {
    if (state_ != "RUNNING") return "task wait can only begin while running";
    if (stringMember(payload, "joinId").empty() || stringMember(payload, "callId").empty()) {
        return "task wait requires joinId and callId";
    }
    const std::string policy = payload.value("policy", "all");
    if (!Words{"all", "any", "idle", "condition"}.contains(policy)) return "unknown task join policy";
    const json ids = payload.value("taskIds", json::array());
    if (ids.empty()) return "task wait requires at least one task";
    for (const json& id : ids) {
        if (!tasks_.contains(id)) return "task wait references an unknown child task";
    }
    if (policy == "condition" && integerMember(payload, "minSucceeded", 0) < 1) {
        return "condition join requires minSucceeded greater than zero";
    }
    emit("task_waiting", payload);
    emit("wake_scheduled", payload);
    enter("WAITING_TASKS", "waiting_for_tasks");
    return "";
}

void SessionModel::takeInput(bool interjection, bool newTurn) {
    const Input input = interjection ? interjections_.front() : queue_.front();
    emit("user_input_accepted", {{"content", input.content},
                                 {"mode", input.mode},
                                 {"sourceEventId", input.eventId},
                                 {"sourceSequence", input.sequence},
                                 {"fromQueue", !interjection},
                                 {"fromInterjection", interjection},
                                 {"startsNewTurn", newTurn}});
}

/// The input that a batch handed out, or null.
json SessionModel::inputOf(const json& events) {
    for (const json& event : events) {
        const json& payload = event["payload"];
        if (event["type"] != "user_input_accepted") continue;
        if (!boolMember(payload, "fromQueue", false) && !boolMember(payload, "fromInterjection", false)) continue;
        return {{"content", payload["content"]},
                {"mode", payload["mode"]},
                {"sourceEventId", payload["sourceEventId"]},
                {"sourceSequence", payload["sourceSequence"]},
                {"startsNewTurn", payload["startsNewTurn"]}};
    }
    return nullptr;
}

json SessionModel::complete(const json& update) {
    if (blank(update["updateId"])) return untraced("runtime updateId must not be blank");
    if (update["runId"] == "") return untraced("runtime update runId must not be blank");
    const std::string key =
        "runtime/" + update["runId"].get<std::string>() + "/" + update["updateId"].get<std::string>();
    json answer;
    if (answers_.contains(key)) {
        answer = duplicate(key);
    } else {
        begin(key);
        answer = finish(completeWords(update));
    }
    answer["input"] = inputOf(answer["events"]);
    return answer;
}

std::string SessionModel::completeWords(const json& update) {
    if (update["type"] != "run_completed") return "completeTurn requires a run_completed update";
    if (!update["payload"].is_object()) return "runtime update payload must be an object";
    if (update["runId"] != run_ || (update["turnId"] != "" && update["turnId"] != turn_)) {
        return "runtime update targets a stale run or turn";
    }
    if (state_ != "RUNNING" || cancelled_) return "run cannot complete from the current control state";
    if (hasLivingTask()) return "active child tasks require an explicit task join";
    if (waitingInputs() == 0) {
        emit("run_completed", update["payload"]);
        enter("COMPLETED", "runtime_completed");
        return "";
    }
    const bool interjection = !interjections_.empty();
    json answer = update["payload"];
    answer["intermediate"] = true;
    emit("assistant_message", answer);
    const std::string previous = std::exchange(turn_, makeId("turn"));
    emit("turn_started",
         {{"previousTurnId", previous}, {"reason", interjection ? "pending_interjection" : "queued_user_input"}});
    takeInput(interjection, true);
    return "";
}

json SessionModel::consume(const json& update) {
    const std::string key =
        "runtime/" + update["runId"].get<std::string>() + "/" + update["updateId"].get<std::string>();
    if (key.back() == '/') return {{"throws", "safe-point updateId must not be blank"}};
    json answer;
    if (answers_.contains(key)) {
        answer = duplicate(key);
    } else {
        if (update["runId"] != run_ || update["turnId"] != turn_) {
            return {{"throws", "safe point targets a stale run or turn"}};
        }
        if (state_ != "RUNNING" || cancelled_) {
            return {{"throws", "interjections can only be consumed by a running turn"}};
        }
        if (interjections_.empty()) return nullptr;
        begin(key);
        takeInput(true, false);
        answer = finish("");
    }
    answer["input"] = inputOf(answer["events"]);
    return answer["input"].is_null() ? json() : answer;
}

}  // namespace qm::runtime::test
