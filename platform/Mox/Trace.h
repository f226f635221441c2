/// @file
/// Diagnostic output, by facility and level.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string_view>

#include "Mox/Export.h"

namespace Mox {

/// A source of trace, named as the unit that writes it, with levels 0 (failures) to 9 (every call).
/// All levels are off until the environment or the program turns them on: the variable `MOX_TRACE`
/// holds a list such as "Pavo::SockBufUtils/1,Pavo::*/0-4", read when a facility is made. A program
/// that runs with more privileges than its user (setuid, setgid, file capabilities) ignores it.
///
/// One facility per unit, of static storage, in the unit's source. Levels and the sink may be
/// changed while other threads trace.
class MOX_EXPORT TraceFacility {
  public:
    /// The number of levels: 0 to 9.
    static constexpr int levels = 10;

    /// `name` is of static storage. The settings of `MOX_TRACE` apply from here on.
    explicit TraceFacility(const char* name);
    ~TraceFacility();
    TraceFacility(const TraceFacility&) = delete;
    TraceFacility& operator=(const TraceFacility&) = delete;

    /// As the settings and the sink have it: "Pavo::SockBufUtils".
    const char* name() const { return name_; }
    /// @pre `level` is 0 to 9.
    bool isEnabled(int level) const {
        return (enabled_.load(std::memory_order_relaxed) >> level & 1) != 0;
    }
    /// @pre `level` is 0 to 9.
    void enabledIs(int level, bool enabled);

  private:
    friend MOX_EXPORT void traceSettingsIs(std::string_view settings);
    void apply(std::string_view settings);

    const char* name_;
    std::atomic<uint32_t> enabled_ = 0;
    TraceFacility* next_;
};

/// Applies a list of settings, in the form of `MOX_TRACE`, to every facility that exists: an entry
/// "name/levels" turns exactly those levels on, "name/" turns all off; a "*" at the end of the name
/// stands for any rest. An entry that cannot be read is ignored.
MOX_EXPORT void traceSettingsIs(std::string_view settings);

/// Receives one whole message, without a line end, on the thread that traces.
using TraceSink = void (*)(const char* facility, int level, std::string_view message);

/// Replaces the sink, by default a line on standard error, and returns the one before; null stands
/// for the default one.
MOX_EXPORT TraceSink traceSinkIs(TraceSink sink);

/// A sink that writes "facility: message" to syslog(3): `Mox::traceSinkIs(Mox::syslogTraceSink)`.
/// Level 0 has the priority LOG_ERR, 1 LOG_WARNING, 2 LOG_NOTICE, 3 to 5 LOG_INFO, 6 to 9
/// LOG_DEBUG; ident, options and facility are those of the program's openlog(3). A message ends at
/// its first NUL. `errno` is unchanged, also when no logger listens.
MOX_EXPORT void syslogTraceSink(const char* facility, int level, std::string_view message);

/// Hands a message to the sink, whether the level is on or not. `errno` is unchanged.
MOX_EXPORT void traceWrite(const TraceFacility& facility, int level, std::string_view message);

/// Restores `errno` at the end of the scope.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

    /// The number that is restored.
    int saved() const { return saved_; }

  private:
    int saved_;
};

/// Joins the pieces as they stand and writes them.
template <class... Pieces>
void tracePieces(const TraceFacility& facility, int level, const Pieces&... pieces) {
    std::ostringstream message;
    (message << ... << pieces);
    traceWrite(facility, level, message.str());
}

}  // namespace Mox

/// Writes the pieces, joined as they stand. A level that is off costs one load and one branch: the
/// pieces are then not even evaluated, which is why this is a macro. `errno` is never changed.
#define MOX_TRACE(facility, level, ...)                         \
    do {                                                        \
        if (__builtin_expect((facility).isEnabled(level), 0)) { \
            const Mox::ErrnoKeeper moxErrnoKeeper;              \
            Mox::tracePieces((facility), (level), __VA_ARGS__); \
        }                                                       \
    } while (false)
