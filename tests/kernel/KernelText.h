/// @file
/// What `KernelInfo` and ip(8) say of a namespace, in lines of one form.
#pragma once

#include <net/if.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Mox/Enum.h"
#include "Pavo/KernelInfo.h"
#include "sandbox/Process.h"

namespace PavoTest {

using Lines = std::multiset<std::string>;

template <class... Parts>
std::string joined(const Parts&... parts) {
    std::ostringstream out;
    (((out << parts) << ' '), ...);
    return out.str();
}

inline std::string textOf(const Pavo::IpGenAddr& address) {
    return address.af() == Pavo::ipunknown ? "-" : address.stringValue().c_str();
}

inline std::string textOf(const Pavo::IpGenPrefix& prefix) {
    return prefix.len() == 0 ? "default"
           : prefix.len() == Pavo::addressBits(prefix.af())
               ? textOf(prefix.ipGenAddr())
               : std::string(prefix.stringValue().c_str());
}
inline std::string sorted(std::vector<std::string> texts) {
    std::sort(texts.begin(), texts.end());
    std::string all;
    for (const std::string& each : texts) {
        all += each + ", ";
    }
    return all;
}

/// @name What `KernelInfo` has
/// @{
inline std::string lineOf(const Pavo::Link& link) {
    static const std::pair<uint32_t, const char*> names[] = {
        {IFF_UP, "UP"},           {IFF_BROADCAST, "BROADCAST"},     {IFF_LOOPBACK, "LOOPBACK"},
        {IFF_PROMISC, "PROMISC"}, {IFF_POINTOPOINT, "POINTOPOINT"}, {IFF_NOARP, "NOARP"},
        {1u << 16, "LOWER_UP"},   {IFF_MULTICAST, "MULTICAST"},     {IFF_ALLMULTI, "ALLMULTI"}};
    std::vector<std::string> flags(link.isUp() && !link.isRunning() ? 1 : 0, "NO-CARRIER");
    for (const auto& [bit, name] : names) {
        flags.insert(flags.end(), (link.flags() & bit) != 0 ? 1 : 0, name);
    }
    return joined("link", link.index(), link.name(), link.ethAddr(), link.mtu(), sorted(flags),
                  link.operState(), "in", link.master(), link.kind());
}
inline std::string lineOf(const Pavo::LinkAddress& address) {
    return joined("address", address.ifIndex(), textOf(address.address()), address.len(),
                  textOf(address.peer()), textOf(address.broadcast()), address.scope(),
                  address.isTentative(), address.isDuplicate());
}
/// Empty for what ip(8) does not show: the kernel makes those for groups, in silence.
inline std::string lineOf(const Pavo::Neighbour& neighbour) {
    if (neighbour.state() == Pavo::NeighbourState::noArp ||
        neighbour.state() == Pavo::NeighbourState::none) {
        return "";
    }
    return joined("neighbour", neighbour.ifIndex(), textOf(neighbour.address()),
                  neighbour.ethAddr(), neighbour.state());
}
inline std::string lineOf(const Pavo::Route& route) {
    std::vector<std::string> hops;
    for (const Pavo::RouteHop& each : route.hops) {
        hops.push_back(joined(textOf(each.gateway), each.ifIndex, each.weight, each.isOnLink));
    }
    return joined("route", textOf(route.key.prefix), route.key.table, route.key.metric,
                  int{route.key.tos}, int{route.type}, int{route.protocol}, int{route.scope},
                  textOf(route.source), "via", sorted(hops));
}
inline Lines linesOf(const Pavo::KernelInfo& info) {
    Lines lines;
    const auto addAll = [&lines](const auto& members) {
        for (const auto& [key, each] : members) {
            lines.insert(lineOf(*each));
        }
    };
    addAll(info.linkByIndex());
    addAll(info.address());
    addAll(info.neighbour());
    info.routes()->forEach([&](const Pavo::Route& route) { lines.insert(lineOf(route)); });
    lines.erase("");
    return lines;
}
/// @}

/// What ip(8) has of a namespace.
inline Lines linesOfIp(const std::string& netNs) {
    std::istringstream shown(PavoSandbox::run({"/usr/bin/python3", PAVO_IP_LINES, netNs}));
    Lines lines;
    for (std::string line; std::getline(shown, line);) {
        lines.insert(line);
    }
    return lines;
}

/// What only one of both has; empty for equal ones.
inline std::string differenceOf(const Lines& ours, const Lines& theirs) {
    const auto onlyIn = [](const char* where, const Lines& some, const Lines& others) {
        std::vector<std::string> only;
        std::set_difference(some.begin(), some.end(), others.begin(), others.end(),
                            std::back_inserter(only));
        only.resize(std::min<std::size_t>(only.size(), 20));
        return only.empty() ? "" : where + sorted(only);
    };
    return onlyIn("only here: ", ours, theirs) + onlyIn("only there: ", theirs, ours);
}

}  // namespace PavoTest
