/// @file
/// A place where demonstrations and tests may make namespaces, interfaces and mounts without
/// changing the machine, and tools for building small networks in it. The tools throw
/// std::runtime_error with the story when they fail.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace PavoSandbox {

/// The process in mount and network namespaces of its own: nothing that is mounted, bound or
/// configured inside is seen outside, and all of it goes with the process. For an ordinary user
/// there is a user namespace around it, in which the user is root.
class Sandbox {
  public:
    /// Puts the process into a sandbox: own namespaces, private mounts, an empty /run with
    /// "/var/run/netns" in it, `lo` up. On success the program starts again from the top inside
    /// (the same process, its arguments unchanged), so that what libraries note at load time is
    /// the sandbox already; there the call gives true at once. Gives false with the reason in
    /// `*why` when the machine does not allow it. Call it first in `main`, before threads exist.
    static bool enter(std::string* why);

    /// Whether the process is inside.
    static bool isEntered();
    /// The reason that `enter` gave.
    static const std::string& whyNot();
};

/// Makes an empty namespace with `lo` up, reachable under "/var/run/netns/<name>".
void makeNetns(const std::string& name);
/// Takes the name away, if it is there; the namespace goes when its last socket and thread have
/// left. The first `ip netns add` binds the run directory onto itself, and a name that was there
/// before it can no longer be removed: let that tool go first.
void removeNetns(const std::string& name);

/// Moves the calling thread into a named namespace ("default": the sandbox's own) until the end of
/// the scope, when it returns to the one it came from or ends the process.
class ScopedNetns {
  public:
    explicit ScopedNetns(const std::string& name);
    ScopedNetns(const ScopedNetns&) = delete;
    ScopedNetns& operator=(const ScopedNetns&) = delete;
    ~ScopedNetns();

  private:
    int wayBack_;
};

/// The inode number that tells network namespaces apart: of the calling thread's, and of a name's.
uint64_t threadNetnsInode();
uint64_t netnsInode(const std::string& name);

/// Runs a program (no shell; looked for in PATH and the system directories) and gives what it wrote
/// to its outputs.
std::string run(const std::vector<std::string>& command);

/// @name Interfaces, through ip(8)
/// The empty namespace name is the sandbox's own.
/// @{
/// Two interfaces joined by a wire, both down, in namespaces that may differ. They are made in the
/// sandbox's own, where the calling thread has to be and where neither name may be taken.
void makeVethPair(const std::string& a, const std::string& nsA, const std::string& b,
                  const std::string& nsB);
/// Adds an address such as "10.0.0.1/24" or "fd00::1/64", usable as soon as the interface is up.
void addAddress(const std::string& ns, const std::string& device, const std::string& address);
void setUp(const std::string& ns, const std::string& device);
/// Two namespaces, "left" and "right", joined by a wire from veth-left, at 192.0.2.1/24, to
/// veth-right, at 192.0.2.2/24, both up; and the end of it all.
void makeWire();
void removeWire();
/// Gives the left end 2001:db8::1 and fe80::1, the right end 2001:db8::2 and fe80::2, and returns
/// when packets to them are delivered.
void addWire6();
/// Takes the wire away, with its ends and their addresses, and brings it back.
void cutWire();
void connectWire();
/// @}

/// The process's open descriptors and what they stand for ("socket:[4711]"). A state
/// before that equals the state after shows that nothing leaked.
std::map<int, std::string> openDescriptors();

}  // namespace PavoSandbox
