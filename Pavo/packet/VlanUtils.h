/// @file
/// VLAN tags of Ethernet frames: in the frame, and beside it (`Pkt::hasSeparateVlanTag`).
///
/// A tag is the four bytes after the two MAC addresses, TPID and TCI, and counts only where a type
/// field follows it: in frames of 18 bytes or more. Where a frame is too short for what is asked,
/// these functions leave it unchanged. The two pieces of the packet may meet at any byte. Shared
/// data is changed in place, so the packet must be the only one in use that holds its buffer.
#pragma once

#include <cstdint>
#include <set>

#include "Mox/Ptr.h"

#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"

namespace Pavo {

/// Puts a tag with the identifier `vlanId & 0x0fff`, priority and DEI zero, after the MAC
/// addresses; the shared head data grows by 4 bytes. A frame of fewer than 14 bytes, or without a
/// shared buffer, stays as it is.
PAVO_EXPORT void addTagToSharedHeadData(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId, uint16_t tpid);

/// Makes a tag with TPID 0x8100 the outermost. A separate tag there is moves into the frame, where
/// only its TPID and identifier are kept, and `vlanId` becomes the TCI of the separate tag; without
/// one the new tag goes into the frame. A frame that cannot take a tag (`addTagToSharedHeadData`)
/// stays as it is, its separate tag too.
PAVO_EXPORT void addPktVlanTag(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId);

/// Removes the outermost tag if its TPID is one of `tpids`: the separate tag, or where there is
/// none the first one in the frame.
PAVO_EXPORT void stripPktVlanTagSet(const Mox::Ptr<Pkt>& pkt, const std::set<uint16_t>& tpids);
/// The same for TPID 0x8100.
PAVO_EXPORT void stripPktVlanTag(const Mox::Ptr<Pkt>& pkt);

/// Takes the first tag out of the frame and makes it the separate tag, whole, if its TPID is 0x8100
/// or 0x88a8 and the packet has no separate tag yet.
PAVO_EXPORT void maybeOffloadAnyVlanTag(const Mox::Ptr<Pkt>& pkt);

/// The frame with its separate tag, whole, in its bytes, as devices send it: a new packet that
/// shares the data of `pkt`, which is unchanged. A packet without a separate tag, or of fewer than
/// 14 bytes, is returned itself. A frame with more than 60 private bytes is copied.
PAVO_EXPORT Mox::Ptr<Pkt> pktWithTagInFrame(const Mox::Ptr<Pkt>& pkt);

/// With `rewrite`, replaces the identifier in the outermost tag, if its TPID is 0x8100; priority
/// and DEI stay. Without it nothing changes. Fatal for an identifier above 12 bits where there is
/// such a tag: "( _tciVlanId & ~0x0fff) == 0".
PAVO_EXPORT void fixupPktVlanTag(const Mox::Ptr<Pkt>& pkt, uint16_t vlanId, bool rewrite);

/// The identifier in the outermost tag if its TPID is 0x8100, else 0.
PAVO_EXPORT uint16_t vlanIdFromEthPkt(const Mox::Ptr<Pkt>& pkt);

}  // namespace Pavo
