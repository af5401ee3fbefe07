#include "HVLoggerReassembly.h"

#include "QELloggerSyslogFmt.h"

#include <algorithm>
#include <utility>

namespace {

// Header or not, the longest one ends within a piece of this size.
constexpr std::size_t longestHeader = 16;
// Pieces of a listing end anywhere; a single message is cut only where a segment ends.
constexpr std::size_t largestWholeBatch = 1500;

bool beginsMessage(std::string_view text) {
    std::size_t offset = 0;
    std::size_t length = 0;
    return QELloggerSyslogFmt::findHeader(text.substr(0, longestHeader), offset, length) &&
           offset == 0;
}

/// Whether a text may begin a message that has no header: its priority is not followed by a
/// version.
bool beginsHeaderless(std::string_view text) {
    const std::size_t end = text.find_first_not_of("0123456789", 1);
    return text.starts_with('<') && end != std::string_view::npos && end > 1 && text[end] == '>';
}

/// Where the last message of the text starts, looked for from its end back to @p from; 0 if none
/// starts there.
std::size_t lastMessageStart(std::string_view text, std::size_t from = 0) {
    std::size_t start = text.size();
    while (start > from && (start = text.rfind('<', start - 1)) != std::string_view::npos &&
           start >= from) {
        if (beginsMessage(text.substr(start))) {
            return start;
        }
    }
    return 0;
}

} // namespace

bool HVLoggerReassembly::isEndedBy(std::string_view batch) const {
    return !kept.empty() && beginsMessage(batch);
}

std::string HVLoggerReassembly::take(std::string_view batch, const Link& link, std::int64_t nowUs) {
    const bool continues = !beginsMessage(batch) && !(kept.empty() && beginsHeaderless(batch));
    // A continuation of what counted as whole: segments are smaller than was thought.
    segment = continues && kept.empty() ? link.segment : std::max(segment, link.segment);
    pauseUs -= pauseUs / 8;
    if (const std::int64_t pause = nowUs - quietSinceUs; continues && pause <= longestSilenceUs) {
        pauseUs = std::max(pauseUs, pause);
    }
    silenceUs = std::clamp(std::max(link.roundTripUs * 5 / 2, pauseUs * 2), shortestSilenceUs,
                           longestSilenceUs);

    // A header may begin in what is kept and end in the batch.
    const std::size_t searched = kept.size() - std::min(kept.size(), longestHeader);
    std::string text = release();
    text.append(batch);
    if (continues || !isWhole(batch)) {
        const std::size_t last = lastMessageStart(text, searched);
        if (last == 0 && text.size() <= keptLimit) {
            kept.swap(text);
        } else if (text.size() - last <= keptLimit) {
            kept.assign(text, last);
            text.resize(last);
        }
    }
    return text;
}

bool HVLoggerReassembly::isWhole(std::string_view batch) const {
    const bool single = lastMessageStart(batch) == 0;
    return batch.size() < (single ? segment : std::min(segment, largestWholeBatch));
}

void HVLoggerReassembly::listen(std::int64_t nowUs) {
    quietSinceUs = nowUs;
    due = nowUs + silenceUs;
}

std::int64_t HVLoggerReassembly::dueUs() const {
    return kept.empty() ? 0 : due;
}

bool HVLoggerReassembly::isDue(bool missing, std::int64_t nowUs) {
    if (!missing || nowUs - quietSinceUs >= longestRepairUs) {
        return true;
    }
    due = nowUs + silenceUs;
    return false;
}

std::string HVLoggerReassembly::release() {
    return std::exchange(kept, {});
}
