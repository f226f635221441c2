// Messages of the kernel about links, addresses, neighbours and routes, in dumps and outside. The
// tables agree with each other and with what observers alone know, and what is read gives a request
// that is read as the same.

#include <linux/rtnetlink.h>

#include <map>
#include <set>
#include <vector>

#include "Mox/Assert.h"
#include "Pavo/KernelInfo.h"
#include "Pavo/KernelRequests.h"
#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

void requireRead(const Route& route) {
    Mox::require(routeOf(*routeAddRequest(route).header()) == route, "a route is read again");
}
void requireRead(const LinkAddress& address) {
    LinkAddress::Properties properties{address.key(),       address.len(),   address.peer(),
                                       address.broadcast(), address.scope(), address.flags()};
    const auto reader = kernelInfoFactory("reader", nullptr);
    reader->callback(addressAddRequest(properties).header());
    const auto again = reader->address(properties.key);
    Mox::require(again && again->len() == properties.len && again->peer() == properties.peer &&
                     again->flags() == properties.flags,
                 "an address is read again");
}
void requireRead(const Neighbour& neighbour) {
    const auto reader = kernelInfoFactory("reader", nullptr);
    reader->callback(
        neighbourReplaceRequest(neighbour.key(), neighbour.ethAddr(), neighbour.state()).header());
    const auto again = reader->neighbour(neighbour.key());
    Mox::require(
        again && again->ethAddr() == neighbour.ethAddr() && again->state() == neighbour.state(),
        "a neighbour is read again");
}

class Agent {
  public:
    void run(fuzz::Input input) {
        info_->followsRoutesIs(true);
        while (!input.atEnd()) {
            const uint8_t operation = input.u8();
            const uint16_t table = tables_[input.u8() % 4];
            if (operation == 1) {
                info_->handleDumpBegin(table);
            } else if (operation == 2) {
                info_->handleDumpEnd(table);
            } else {
                give(static_cast<uint16_t>(table - 2 + operation % 2), &input);
            }
        }
        check();
        for (const uint16_t each : tables_) {
            info_->handleDumpBegin(each);
            info_->handleDumpEnd(each);
        }
        Mox::require(links_.empty() && addresses_.empty() && neighbours_.empty() &&
                         info_->routes()->members() == 0,
                     "nothing is left");
    }

  private:
    void give(uint16_t type, fuzz::Input* input) {
        NetlinkMessage message(type, static_cast<uint16_t>(input->u8() << 8 | input->u8() % 16));
        const std::string_view bytes = input->bytes(input->u16() % 4096);
        std::vector<uint32_t> words((message.bytes().size() + bytes.size() + 3) / 4);
        std::memcpy(words.data(), message.bytes().data(), message.bytes().size());
        std::memcpy(reinterpret_cast<char*>(words.data()) + message.bytes().size(), bytes.data(),
                    bytes.size());
        auto* const header = reinterpret_cast<nlmsghdr*>(words.data());
        header->nlmsg_len = static_cast<uint32_t>(sizeof(nlmsghdr) + bytes.size());
        info_->callback(header);
    }
    // Between the beginning and the end of a dump, the last routes may not be there yet.
    void check() {
        uint32_t routes = 0;
        std::set<RouteKey> keys;
        info_->routes()->forEach([&](const Route& route) {
            ++routes;
            keys.insert(route.key);
            requireRead(route);
        });
        Mox::require(routes == info_->routes()->members() && keys == routes_, "routes");
        for (const auto& [index, link] : info_->linkByIndex()) {
            Mox::require(link->exists() && link->index() == index && links_.count(index) != 0,
                         "links");
        }
        for (const auto& [name, link] : info_->linkByName()) {
            Mox::require(link->name() == name && info_->linkByIndex(link->index()) == link,
                         "names");
        }
        for (const auto& [key, address] : info_->address()) {
            Mox::require(address->exists() && addresses_.count(key) != 0, "addresses");
            requireRead(*address);
        }
        for (const auto& [key, neighbour] : info_->neighbour()) {
            Mox::require(neighbour->exists() && neighbours_.count(key) != 0, "neighbours");
            requireRead(*neighbour);
        }
        Mox::require(links_.size() == info_->linkByIndex().members() &&
                         addresses_.size() == info_->address().members() &&
                         neighbours_.size() == info_->neighbour().members(),
                     "observers know all");
    }
    // A notification of a collection says that a member came or went.
    template <class Key, class Object>
    static void toggle(std::set<Key>* keys, const Key& key, const Object& object) {
        const bool changed = object ? keys->insert(key).second : keys->erase(key) != 0;
        Mox::require(changed, "a change");
    }

    static constexpr uint16_t tables_[] = {RTM_GETLINK, RTM_GETADDR, RTM_GETNEIGH, RTM_GETROUTE};

    Mox::Ptr<KernelInfo> info_ = kernelInfoFactory("fuzz", nullptr);
    std::set<uint32_t> links_;
    std::set<LinkAddressKey> addresses_;
    std::set<NeighbourKey> neighbours_;
    std::set<RouteKey> routes_;
    Mox::Watch<KernelInfo> linkWatch_{info_, KernelInfo::linkByIndexAttr, [this](uint32_t index) {
                                          toggle(&links_, index, info_->linkByIndex(index));
                                      }};
    Mox::Watch<KernelInfo> addressWatch_{
        info_, KernelInfo::addressAttr,
        [this](const LinkAddressKey& key) { toggle(&addresses_, key, info_->address(key)); }};
    Mox::Watch<KernelInfo> neighbourWatch_{
        info_, KernelInfo::neighbourAttr,
        [this](const NeighbourKey& key) { toggle(&neighbours_, key, info_->neighbour(key)); }};
    Mox::Watch<RouteTable> routeWatch_{
        info_->routes(), RouteTable::routeAttr, [this](const RouteKey& key) {
            info_->routes()->route(key).empty() ? routes_.erase(key) : routes_.insert(key).second;
        }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Agent().run(fuzz::Input({reinterpret_cast<const char*>(data), size}));
    return 0;
}
