/// @file
/// A place where demonstrations and tests may create namespaces, interfaces and mounts without
/// changing the machine, and tools for building small networks in it. The tools throw
/// std::runtime_error, with the failing step and its error as the text.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sandbox/Process.h"

namespace PavoSandbox {

/// The process in mount and network namespaces of its own: nothing that is mounted, bound or
/// configured inside is visible outside, and all of it ends with the process. An ordinary user gets
/// a user namespace too, and is root in it.
class Sandbox {
  public:
    /// Puts the process into a sandbox: own namespaces, private mounts, an empty /run with
    /// "/var/run/netns" in it, `lo` up. On success the program is executed again inside (the same
    /// process, its arguments unchanged), so that libraries are loaded in the sandbox; there the
    /// call returns true at once. Returns false with the reason in `*why` when the machine does not
    /// allow it. Call it first in `main`, before threads exist.
    static bool enter(std::string* why);

    /// Whether the process is inside.
    static bool isEntered();
    /// The reason that `enter` returned.
    static const std::string& whyNot();
};

/// Creates an empty namespace with `lo` up, reachable under "/var/run/netns/<name>".
void makeNetns(const std::string& name);
/// Removes the name, if it exists; the namespace ends with its last socket and thread. The first
/// `ip netns add` binds the run directory onto itself, and names that were created before it can no
/// longer be removed: run that tool first.
void removeNetns(const std::string& name);

/// The inode numbers, which identify network namespaces, of the calling thread's and of a name's.
uint64_t threadNetnsInode();
uint64_t netnsInode(const std::string& name);

/// @name Interfaces, through ip(8)
/// The empty namespace name is the sandbox's own.
/// @{
/// Two connected interfaces, both down, in namespaces that may differ. They are created in the
/// sandbox's own, where the calling thread has to be and where neither name may be in use.
void makeVethPair(const std::string& a, const std::string& nsA, const std::string& b,
                  const std::string& nsB);
/// Adds an address such as "10.0.0.1/24" or "fd00::1/64", usable as soon as the interface is up.
void addAddress(const std::string& ns, const std::string& device, const std::string& address);
void setUp(const std::string& ns, const std::string& device);
/// Two namespaces, "left" and "right", connected by a veth pair: veth-left, at 192.0.2.1/24, and
/// veth-right, at 192.0.2.2/24, both up. `removeWire` removes all of it.
void makeWire();
void removeWire();
/// Adds 2001:db8::1 and fe80::1 to the left end, 2001:db8::2 and fe80::2 to the right end, and
/// returns when packets to them are delivered.
void addWire6();
/// Removes the pair with its addresses, and creates it again.
void cutWire();
void connectWire();
/// @}

/// The process's open descriptors and their files ("socket:[4711]"). Equal results before and after
/// show that nothing leaked.
std::map<int, std::string> openDescriptors();

}  // namespace PavoSandbox
