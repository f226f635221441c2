/// @file
/// Diagnostic output, by facility and level.
#pragma once

#include <cerrno>
#include <cstdint>
#include <sstream>
#include <string_view>

#include "Mox/Export.h"

namespace Mox {

/// A source of trace, named as the unit that writes it, with levels 0 (failures) to 9 (every call).
/// All levels are off until the environment or the program turns them on: the variable `MOX_TRACE`
/// holds a list such as "Pavo::SockBufUtils/1,Pavo::*/0-4", read when a facility is made.
///
/// One facility per unit, of static storage, in the unit's source.
class MOX_EXPORT TraceFacility {
  public:
    static constexpr int levels = 10;

    explicit TraceFacility(const char* name);
    ~TraceFacility();
    TraceFacility(const TraceFacility&) = delete;
    TraceFacility& operator=(const TraceFacility&) = delete;

    const char* name() const { return name_; }
    bool isEnabled(int level) const { return (enabled_ >> level & 1) != 0; }
    /// @pre `level` is 0 to 9.
    void enabledIs(int level, bool enabled);

  private:
    friend MOX_EXPORT void traceSettingsIs(std::string_view settings);
    void apply(std::string_view settings);

    const char* name_;
    uint32_t enabled_ = 0;
    TraceFacility* next_;
};

/// Applies a list of settings, in the form of `MOX_TRACE`, to every facility there is: an entry
/// "name/levels" turns exactly those levels on, "name/" turns all off; a "*" at the end of the name
/// stands for any rest. What cannot be read is left out.
MOX_EXPORT void traceSettingsIs(std::string_view settings);

/// Takes one whole message, without a line end.
using TraceSink = void (*)(const char* facility, int level, std::string_view message);

/// Replaces the sink, by default a line on standard error, and returns the one before; null stands
/// for the default one.
MOX_EXPORT TraceSink traceSinkIs(TraceSink sink);

MOX_EXPORT void traceWrite(const TraceFacility& facility, int level, std::string_view message);

/// Puts `errno` back as it was, whatever happens in between.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

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
