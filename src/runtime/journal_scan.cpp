#include "runtime/journal_scan.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "runtime/journal_batch.h"

namespace qm::runtime {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{256} * 1024;
/// How far the marks of a prefix stand apart: what a read has to parse in vain at most.
constexpr std::uint64_t kMarkDistance = std::uint64_t{64} * 1024;

class Scanner {
public:
    Scanner(JournalFile& file, const std::string& sessionId, ValidatedPrefix& prefix, std::uint64_t afterSequence)
        : file_(file), sessionId_(sessionId), prefix_(prefix), afterSequence_(afterSequence) {}

    JournalScan run() {
        if (prefix_.size() > 0) {
            if (prefixStands()) {
                collectRetained();
            } else {
                prefix_ = {};
                file_.rewind();
            }
        }
        validateRest();
        return std::move(scan_);
    }

private:
    /// Compares the file's beginning with the prefix, and retains the bytes in which wanted events stand.
    bool prefixStands() {
        const std::uint64_t retainedFrom =
            afterSequence_ < prefix_.lastSequence() ? prefix_.before(afterSequence_).offset : prefix_.size();
        Sha256 hash;
        std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(kBufferBytes, prefix_.size())));
        for (std::uint64_t offset = 0; offset < prefix_.size();) {
            const auto wanted = std::min<std::uint64_t>(buffer.size(), prefix_.size() - offset);
            const std::size_t count = file_.read({buffer.data(), static_cast<std::size_t>(wanted)});
            if (count == 0) return false;
            const std::string_view bytes(buffer.data(), count);
            hash.update(bytes);
            offset += count;
            if (offset <= retainedFrom) continue;
            const auto retained = std::min<std::uint64_t>(count, offset - retainedFrom);
            retained_.append(bytes.substr(count - static_cast<std::size_t>(retained)));
        }
        return hash.finish() == prefix_.digest();
    }

    void collectRetained() {
        if (retained_.empty()) return;
        std::uint64_t sequence = prefix_.before(afterSequence_).sequence;
        std::string_view rest = retained_;
        while (!rest.empty()) {
            const std::size_t length = rest.find('\n');
            sequence = collect(rest.substr(0, length), sequence);
            rest.remove_prefix(length + 1);
        }
        retained_ = {};
    }

    void validateRest() {
        std::string pending;
        bool isOverlong = false;
        while (true) {
            const std::size_t known = pending.size();
            pending.resize(known + kBufferBytes);
            pending.resize(known + file_.read({pending.data() + known, kBufferBytes}));
            if (pending.size() == known) break;
            if (isOverlong && pending.find('\n') == std::string::npos) pending.clear();
            if (isOverlong && !pending.empty()) throw std::runtime_error("agent journal batch exceeds 16 MiB");
            pending.erase(0, validateLines(pending, known));
            // What no line can hold isn't kept while its end is looked for.
            if (pending.size() > kMaxJournalBatchBytes) {
                isOverlong = true;
                pending.clear();
            }
        }
        scan_.hasTail = isOverlong || !pending.empty();
    }

    /// Validates the complete lines of `bytes`, whose first `known` ones hold no line feed; returns their length.
    std::size_t validateLines(std::string_view bytes, std::size_t known) {
        std::size_t done = 0;
        for (std::size_t end = bytes.find('\n', known); end != std::string_view::npos; end = bytes.find('\n', done)) {
            const std::uint64_t last = collect(bytes.substr(done, end - done), prefix_.lastSequence());
            prefix_.extend(bytes.substr(done, end + 1 - done), last);
            done = end + 1;
        }
        return done;
    }

    /// Validates a line that follows `lastSequence`, takes the events that are wanted, and returns the new last one.
    std::uint64_t collect(std::string_view line, std::uint64_t lastSequence) {
        if (line.empty()) return lastSequence;
        auto events = decodeJournalBatch(line, sessionId_, lastSequence + 1);
        const std::uint64_t last = lastSequence + events.size();
        if (last <= afterSequence_) return last;
        const std::uint64_t unwanted = afterSequence_ > lastSequence ? afterSequence_ - lastSequence : 0;
        scan_.events.insert(scan_.events.end(),
                            std::make_move_iterator(events.begin() + static_cast<std::ptrdiff_t>(unwanted)),
                            std::make_move_iterator(events.end()));
        return last;
    }

    JournalFile& file_;
    const std::string& sessionId_;
    ValidatedPrefix& prefix_;
    const std::uint64_t afterSequence_;
    std::string retained_;
    JournalScan scan_;
};

}  // namespace

ValidatedPrefix::Mark ValidatedPrefix::before(std::uint64_t sequence) const {
    const auto behind = std::upper_bound(marks_.begin(), marks_.end(), sequence,
                                         [](std::uint64_t wanted, const Mark& mark) { return wanted < mark.sequence; });
    return *std::prev(behind);
}

void ValidatedPrefix::extend(std::string_view bytes, std::uint64_t lastSequence) {
    hash_.update(bytes);
    end_ = {.offset = end_.offset + bytes.size(), .sequence = lastSequence};
    if (end_.offset - marks_.back().offset >= kMarkDistance) marks_.push_back(end_);
}

JournalScan scanJournal(JournalFile& file, const std::string& sessionId, ValidatedPrefix& prefix,
                        std::uint64_t afterSequence) {
    return Scanner(file, sessionId, prefix, afterSequence).run();
}

}  // namespace qm::runtime
