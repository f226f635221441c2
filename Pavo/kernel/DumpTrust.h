/// @file
/// Whether dumps that the kernel makes by counting have named everything.
#pragma once

#include <algorithm>
#include <cstdint>

namespace Pavo {

/// The kernel lists some tables by counting: each datagram of a dump begins after as many objects
/// as were listed before. Where one of those was deleted meanwhile, another is skipped. So a dump
/// during which nothing was deleted is complete, and with the number of others it falls how likely
/// it is that all have skipped the same object.
class DumpTrust {
  public:
    /// A dump begins; with `isAgain` what the dumps before it have named counts too.
    void begin(bool isAgain) {
        chance_ = isAgain ? chance_ : 1;
        deletions_ = 0;
    }
    /// An object was deleted.
    void deleted() { ++deletions_; }
    /// The dump is complete, and the table has as many members now. True when it is less likely
    /// than one in a million that an object exists which no dump has named.
    bool end(uint32_t members) {
        const double datagrams = 1 + members / membersPerDatagram;
        chance_ *= std::min(1.0, deletions_ / datagrams);
        return datagrams * chance_ < 1e-6;
    }

  private:
    static constexpr double membersPerDatagram = 256;

    double chance_ = 1;  // That all dumps have skipped what follows a given datagram.
    uint32_t deletions_ = 0;
};

}  // namespace Pavo
