/// @file
/// What `KernelInfo` and ip(8) say of a namespace, in lines of one form.
#pragma once

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <nlohmann/json.hpp>
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
    addAll(info.addresses());
    addAll(info.neighbours());
    info.routes()->forEach([&](const Pavo::Route& route) { lines.insert(lineOf(route)); });
    lines.erase("");
    return lines;
}
/// @}

/// What ip(8) has of a namespace.
class IpLines {
  public:
    explicit IpLines(std::string netNs) : netNs_(std::move(netNs)) {
        const Json links = ask({"-d", "-j", "link", "show"});
        for (const Json& each : links) {
            indices_[each["ifname"]] = each["ifindex"];
        }
        for (const Json& each : links) {
            addLink(each);
        }
        for (const Json& link : ask({"-j", "address", "show"})) {
            for (const Json& each : link["addr_info"]) {
                addAddress(link["ifindex"], each);
            }
        }
        for (const Json& each : ask({"-j", "neigh", "show"})) {
            lines_.insert(joined("neighbour", index(each["dev"]), text(each, "dst"),
                                 each.value("lladdr", "00:00:00:00:00:00"),
                                 lower(each["state"][0])));
        }
        for (const char* family : {"-4", "-6"}) {
            for (const Json& each :
                 ask({family, "-N", "-d", "-j", "route", "show", "table", "all"})) {
                addRoute(each);
            }
        }
    }
    const Lines& lines() const { return lines_; }

  private:
    using Json = nlohmann::json;

    Json ask(std::vector<std::string> question) const {
        question.insert(question.begin(), {"ip", "-n", netNs_});
        const std::string answer = PavoSandbox::run(question);
        return answer.empty() ? Json::array() : Json::parse(answer);
    }
    uint32_t index(const std::string& name) const { return indices_.at(name); }
    static std::string text(const Json& object, const char* field) {
        return object.value(field, "-");
    }
    static uint32_t number(const Json& object, const char* field, uint32_t otherwise = 0) {
        return object.contains(field) && object[field].is_string()
                   ? static_cast<uint32_t>(std::stoul(object[field].get<std::string>(), nullptr, 0))
                   : object.value(field, otherwise);
    }

    static std::string lower(std::string name) {
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        return name;
    }

    void addLink(const Json& each) {
        std::vector<std::string> flags = each["flags"];
        std::erase(flags, "M-DOWN");  // Of the other end.
        lines_.insert(joined(
            "link", each["ifindex"].get<uint32_t>(), text(each, "ifname"), text(each, "address"),
            each["mtu"].get<uint32_t>(), sorted(flags), lower(each["operstate"]), "in",
            each.contains("master") ? index(each["master"]) : 0,
            each.contains("linkinfo") ? each["linkinfo"].value("info_kind", "") : ""));
    }
    void addAddress(uint32_t link, const Json& each) {
        static const std::map<std::string, int> scopes = {
            {"global", RT_SCOPE_UNIVERSE}, {"link", RT_SCOPE_LINK}, {"host", RT_SCOPE_HOST}};
        lines_.insert(joined("address", link, text(each, "local"), number(each, "prefixlen"),
                             text(each, "address"), text(each, "broadcast"),
                             scopes.at(each["scope"]), each.value("tentative", false),
                             each.value("dadfailed", false)));
    }
    std::string hop(const Json& each) const {
        const std::vector<std::string> flags = each.value("flags", std::vector<std::string>());
        return joined(each.contains("via") ? text(each["via"], "host") : text(each, "gateway"),
                      each.contains("dev") ? index(each["dev"]) : 0, number(each, "weight", 1),
                      std::count(flags.begin(), flags.end(), "onlink") != 0);
    }
    void addRoute(const Json& each) {
        std::vector<std::string> hops(each.contains("dev") ? 1 : 0, hop(each));
        for (const Json& next : each.value("nexthops", Json::array())) {
            hops.push_back(hop(next));
        }
        lines_.insert(joined("route", text(each, "dst"), number(each, "table", RT_TABLE_MAIN),
                             number(each, "metric"), number(each, "tos"),
                             number(each, "type", RTN_UNICAST), number(each, "protocol"),
                             number(each, "scope"), text(each, "prefsrc"), "via", sorted(hops)));
    }

    std::string netNs_;
    std::map<std::string, uint32_t> indices_;
    Lines lines_;
};

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
