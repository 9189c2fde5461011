#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "util/json.h"

namespace qm::runtime::test {

/// What a session must do, told a second time: a small state machine over JSON in its wire form that shares no code
/// with the actor. Every operation returns the expected answer: `accepted`, `duplicate`, `error`, `firstSequence`,
/// `lastSequence`, `snapshot`, `events`, and `input` where the operation has one; `throws` holds the words of an
/// exception. Identifiers are counted for each prefix: "evt_1", "run_1".
class SessionModel {
public:
    explicit SessionModel(std::string sessionId) : session_(std::move(sessionId)) {}

    json command(const json& command);
    json update(const json& update);
    json complete(const json& update);
    json consume(const json& update);

    json snapshot() const;
    std::size_t waitingInputs() const { return queue_.size() + interjections_.size(); }
    const std::string& run() const { return run_; }
    const std::string& turn() const { return turn_; }
    const std::string& state() const { return state_; }
    const std::string& question() const { return question_; }
    const std::string& approval() const { return approval_; }

    std::int64_t nowMs = 1;

private:
    struct Input {
        std::string eventId;
        std::uint64_t sequence;
        std::string content;
        std::string mode;
    };

    json untraced(std::string_view words) const;
    json finish(const std::string& words);
    json duplicate(const std::string& key) const;
    void begin(const std::string& key);
    void emit(const std::string& type, json payload);
    void enter(const std::string& state, const std::string& reason);
    void apply(const json& event);
    void applyStart(const json& event);
    void applyInput(const json& event);
    void applyCancellation(const json& event);
    void applyQuestion(const json& event);
    void applyAnswer(const json& event);
    void applyJoin(const json& event);
    void applyTask(const json& event);
    void applyState(const json& event);
    json queuedTask(const json& payload) const;
    std::string makeId(const std::string& prefix) { return prefix + "_" + std::to_string(++ids_[prefix]); }
    bool isOver() const { return state_ == "COMPLETED" || state_ == "FAILED" || state_ == "CANCELLED"; }
    bool hasLivingTask() const;
    std::string commandWords(const json& command);
    std::string startWords(const json& payload);
    std::string inputWords(const json& payload);
    std::string cancelWords(const json& payload);
    std::string approvalWords(const json& payload);
    std::string updateWords(const json& update);
    std::string emitAndEnter(const std::string& type, const json& payload, const std::string& state = {},
                             const std::string& reason = {});
    std::string questionWords(const std::string& type, json payload);
    std::string taskWords(const std::string& type, const json& payload) const;
    std::string waitWords(const json& payload);
    std::string completeWords(const json& update);
    void takeInput(bool interjection, bool newTurn);
    static json inputOf(const json& events);

    const std::string session_;
    std::string run_, turn_, objective_, question_, approval_;
    std::string state_ = "IDLE";
    bool cancelled_ = false;
    json join_;
    std::map<std::string, json> tasks_;
    std::deque<Input> queue_, interjections_;
    std::uint64_t last_ = 0;
    std::map<std::string, json> answers_;
    std::map<std::string, int> ids_;
    std::string key_;
    json batch_;
};

}  // namespace qm::runtime::test
