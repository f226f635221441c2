#include "Mox/Trace.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "Mox/Assert.h"

namespace Mox {

namespace {

// Facilities are static objects of many sources: the list must exist before the first of them.
constinit TraceFacility* firstFacility = nullptr;

void writeToStandardError(const char* facility, int level, std::string_view message) {
    std::fprintf(stderr, "%s/%d: %.*s\n", facility, level, static_cast<int>(message.size()),
                 message.data());
}

constinit std::atomic<TraceSink> currentSink = writeToStandardError;

bool isLevel(char c) {
    return c >= '0' && c <= '9';
}

// "3", "0-4" or "" as a bit mask.
bool readLevels(std::string_view text, uint32_t* mask) {
    *mask = 0;
    if (text.empty()) {
        return true;
    }
    const bool range = text.size() == 3 && text[1] == '-';
    if (!(range || text.size() == 1) || !isLevel(text.front()) || !isLevel(text.back()) ||
        text.front() > text.back()) {
        return false;
    }
    for (char level = text.front(); level <= text.back(); ++level) {
        *mask |= 1u << (level - '0');
    }
    return true;
}

bool nameMatches(std::string_view pattern, std::string_view name) {
    if (!pattern.empty() && pattern.back() == '*') {
        pattern.remove_suffix(1);
        return name.substr(0, pattern.size()) == pattern;
    }
    return name == pattern;
}

}  // namespace

TraceFacility::TraceFacility(const char* name) : name_(name), next_(firstFacility) {
    firstFacility = this;
    if (const char* settings = secure_getenv("MOX_TRACE")) {
        apply(settings);
    }
}

TraceFacility::~TraceFacility() {
    TraceFacility** link = &firstFacility;
    while (*link != nullptr && *link != this) {
        link = &(*link)->next_;
    }
    if (*link == this) {
        *link = next_;
    }
}

void TraceFacility::enabledIs(int level, bool enabled) {
    require(level >= 0 && level < levels, "level >= 0 && level < levels");
    const uint32_t bit = 1u << level;
    if (enabled) {
        enabled_ |= bit;
    } else {
        enabled_ &= ~bit;
    }
}

void TraceFacility::apply(std::string_view settings) {
    while (!settings.empty()) {
        const std::string_view entry = settings.substr(0, settings.find(','));
        settings.remove_prefix(entry.size() == settings.size() ? entry.size() : entry.size() + 1);
        const auto slash = entry.rfind('/');
        uint32_t mask = 0;
        if (slash != entry.npos && nameMatches(entry.substr(0, slash), name_) &&
            readLevels(entry.substr(slash + 1), &mask)) {
            enabled_ = mask;
        }
    }
}

void traceSettingsIs(std::string_view settings) {
    for (TraceFacility* each = firstFacility; each != nullptr; each = each->next_) {
        each->apply(settings);
    }
}

TraceSink traceSinkIs(TraceSink sink) {
    return currentSink.exchange(sink != nullptr ? sink : writeToStandardError);
}

void syslogTraceSink(const char* facility, int level, std::string_view message) {
    static constexpr int priorities[] = {LOG_ERR,  LOG_WARNING, LOG_NOTICE, LOG_INFO,  LOG_INFO,
                                         LOG_INFO, LOG_DEBUG,   LOG_DEBUG,  LOG_DEBUG, LOG_DEBUG};
    static_assert(std::size(priorities) == TraceFacility::levels);
    const ErrnoKeeper keeper;
    syslog(priorities[level], "%s: %.*s", facility, static_cast<int>(message.size()),
           message.data());
}

void traceWrite(const TraceFacility& facility, int level, std::string_view message) {
    const ErrnoKeeper keeper;
    currentSink.load()(facility.name(), level, message);
}

}  // namespace Mox
