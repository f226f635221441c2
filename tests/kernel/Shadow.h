/// @file
/// What observers of `KernelInfo` alone know of a namespace.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Pavo/KernelInfo.h"
#include "kernel/KernelText.h"

namespace PavoTest {

/// Whether something came or went: "+-+" for what came, went and came. Further messages about what
/// is there, or gone, are no change.
struct Comings : std::map<std::string, std::string> {
    void note(const std::string& what, bool isThere) {
        std::string& signs = (*this)[what];
        const char sign = isThere ? '+' : '-';
        signs += signs.empty() || signs.back() != sign ? std::string(1, sign) : "";
    }
};

/// A notification of a collection is one change, and of the net difference: what has come was not
/// there, and what has gone was.
class Shadow {
  public:
    explicit Shadow(const Mox::Ptr<Pavo::KernelInfo>& info) : info_(info) {}

    Lines lines() const {
        Lines all;
        for (const auto& [name, each] : members_) {
            all.insert(each.lines.begin(), each.lines.end());
        }
        all.erase("");
        return all;
    }

    Comings comings;

  private:
    struct Known {
        Lines lines;
        std::vector<Pavo::Route> routes;  // In the kernel's order.
        std::shared_ptr<void> watch = nullptr;
    };

    // Members are named as `ip monitor` does: kind, link, address or prefix. What follows a '|' is
    // not in the name of their coming.
    void linesAre(const std::string& name, const Lines& lines) {
        members_[name].lines = lines;
        comings.note(name.substr(0, name.find('|')), !lines.empty());
    }
    template <class T>
    void memberIs(const std::string& name, const Mox::Ptr<T>& member) {
        EXPECT_EQ(members_[name].lines.empty(), member != nullptr) << "no difference";
        linesAre(name, member ? Lines{lineOf(*member)} : Lines());
        Known& known = members_[name];
        const auto change = [&known, object = member.ptr()](const Mox::Change&) {
            known.lines = {lineOf(*object)};
        };
        known.watch = std::make_shared<Mox::Watch<T>>(member, Mox::allAttributes, change);
    }
    void routesAre(const Pavo::RouteKey& key) {
        const std::vector<Pavo::Route> routes = info_->routes()->route(key);
        Lines lines;
        for (const Pavo::Route& each : routes) {
            lines.insert(lineOf(each));
        }
        const std::string name = "ROUTE ," + textOf(key.prefix) + '|' +
                                 joined(key.prefix, key.table, key.metric, int{key.tos});
        EXPECT_NE(std::exchange(members_[name].routes, routes), routes) << "no difference";
        linesAre(name, lines);
    }
    template <class T>
    using Watch = Mox::Watch<T>;
    using Info = Pavo::KernelInfo;

    const Mox::Ptr<Info> info_;
    std::map<std::string, Known> members_;
    Watch<Info> links_{info_, Info::linkByIndexAttr, [this](uint32_t index) {
                           memberIs("LINK " + std::to_string(index) + ',',
                                    info_->linkByIndex(index));
                       }};
    Watch<Info> addresses_{
        info_, Info::addressAttr, [this](const Pavo::LinkAddressKey& key) {
            memberIs("ADDR " + std::to_string(key.ifIndex) + ',' + textOf(key.address),
                     info_->address(key));
        }};
    Watch<Info> neighbours_{
        info_, Info::neighbourAttr, [this](const Pavo::NeighbourKey& key) {
            memberIs("NEIGH ," + textOf(key.address) + '|' + std::to_string(key.ifIndex),
                     info_->neighbour(key));
        }};
    Watch<Pavo::RouteTable> routes_{info_->routes(), Pavo::RouteTable::routeAttr,
                                    [this](const Pavo::RouteKey& key) { routesAre(key); }};
};

}  // namespace PavoTest
