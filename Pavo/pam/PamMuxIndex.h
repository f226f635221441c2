/// @file
/// The clients of a multiplexer by what they match. For the multiplexer itself; an agent does not
/// need it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "Mox/Assert.h"
#include "Mox/Ptr.h"
#include "Pavo/base/FirstException.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/CaptureFile.h"
#include "Pavo/pam/PamMuxMatch.h"
#include "Pavo/pam/RxInfo.h"

namespace Pavo {

class PamMuxPam;

/// The numbers of a packet by which clients are looked up. A key is a number with its kind; 0
/// stands for none.
struct PamMuxKeys {
    using Number = PamMuxMatch::Number;

    static constexpr uint32_t keyOf(Number number, uint16_t value) {
        return (static_cast<uint32_t>(number) + 1) << 16 | value;
    }
    void add(Number number, uint16_t value) {
        keys[static_cast<uint32_t>(number)] = keyOf(number, value);
    }

    std::array<uint32_t, 3> keys{};
};

/// Reads the numbers of a packet that begins with a header of `linkType`, or with what follows the
/// headers that the kernel removed.
PamMuxKeys pamMuxKeysOf(const Pkt& pkt, const RxInfo& info, CaptureLinkType linkType);

/// The clients in their order. Those that match a number are looked up by it, and those that have a
/// function are called in their order.
class PamMuxIndex {
  public:
    /// Clients in the order in which they are asked.
    void clientsAre(std::span<const Mox::Ptr<PamMuxPam>> clients);
    /// Lets go of all clients, unless a match is under way.
    void clientsDel() {
        if (!isMatching_) {
            clientsAre({});
        }
    }

    /// Calls `take(client)` for the clients that want the packet, in order, until it returns false.
    /// An exception from a function is collected.
    /// @pre not inside such a call (assertion "!isMatching_").
    template <class Take>
    void match(const Mox::Ptr<Pkt>& pkt, const RxInfo& info, CaptureLinkType linkType,
               FirstException* exception, Take take);

  private:
    struct Entry {
        uint32_t key;  // 0 for a function.
        uint32_t rank;
        Mox::Ptr<PamMuxPam> client;
    };
    using Entries = std::vector<Entry>;
    struct Cursor {
        Entries::const_iterator next;
        uint32_t key = 0;
    };
    struct Guard {
        explicit Guard(bool* flag) : isMatching(flag) {
            Mox::require(!*flag, "!isMatching_");
            *flag = true;
        }
        ~Guard() { *isMatching = false; }
        bool* isMatching;
    };

    bool isAt(const Cursor& cursor) const {
        return cursor.key != 0 && cursor.next != keyed_.end() && cursor.next->key == cursor.key;
    }
    std::array<Cursor, 3> cursorsOf(const PamMuxKeys& keys) const;
    Cursor* first(std::array<Cursor, 3>& cursors) const;
    static bool isMatch(const PamMuxPam& client, const Mox::Ptr<Pkt>& pkt, const RxInfo& info,
                        FirstException* exception);

    Entries keyed_;           // By key, then by rank.
    Entries functions_;       // By rank.
    bool hasNumber_[3] = {};  // Whether a client looks for a number of that kind.
    bool isMatching_ = false;
};

template <class Take>
void PamMuxIndex::match(const Mox::Ptr<Pkt>& pkt, const RxInfo& info, CaptureLinkType linkType,
                        FirstException* exception, Take take) {
    const Guard guard(&isMatching_);
    std::array<Cursor, 3> cursors;
    if (!keyed_.empty()) {
        cursors = cursorsOf(pamMuxKeysOf(*pkt, info, linkType));
    }
    auto function = functions_.begin();
    for (;;) {
        Cursor* const cursor = first(cursors);
        while (function != functions_.end() &&
               (cursor == nullptr || function->rank < cursor->next->rank)) {
            const PamMuxPam& client = *(function++)->client;
            if (isMatch(client, pkt, info, exception) && !take(std::prev(function)->client)) {
                return;
            }
        }
        if (cursor == nullptr || !take((cursor->next++)->client)) {
            return;
        }
    }
}

}  // namespace Pavo
