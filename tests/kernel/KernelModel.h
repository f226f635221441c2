/// @file
/// A kernel with two tables, for the ports of a netlink session. It loses, interrupts and keeps
/// silent as the kernel does, or on request.
#pragma once

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "Mox/Clock.h"
#include "Pavo/NetlinkAttributes.h"
#include "Pavo/NetlinkMessage.h"
#include "Pavo/NetlinkPort.h"

namespace PavoTest {

using namespace Pavo;

/// The body of the messages: something of an id that has a value.
struct Item {
    uint32_t family = 0;
    uint32_t id = 0;
    uint32_t value = 0;
};

class KernelModel {
  public:
    /// Of table 0 and 1; the following ones are those of DEL and GET. So are the groups.
    static constexpr uint16_t types[] = {RTM_NEWLINK, RTM_NEWADDR};
    static constexpr uint32_t groups[] = {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR};
    static std::size_t tableOf(uint16_t type) { return type / 4 == types[0] / 4 ? 0 : 1; }
    using Table = std::map<uint32_t, uint32_t>;  // Value by id.

    explicit KernelModel(Mox::Clock* clock) : clock_(clock) {}

    NetlinkPortOpener opener() {
        return [this](NetlinkPortUse use) {
            return Mox::make<Port>(this, use, &ports_[static_cast<std::size_t>(use)]);
        };
    }

    /// A change by another process; a value of 0 deletes. Returns an `errno`.
    int set(std::size_t table, uint32_t id, uint32_t value, uint32_t pid = 99, uint32_t seq = 5) {
        const bool wasThere = tables[table].count(id) != 0;
        if (value == refused || (value == 0 && !wasThere)) {
            return value == refused ? EINVAL : ENODEV;
        }
        value == 0 ? (void)tables[table].erase(id) : (void)(tables[table][id] = value);
        ++changes_;
        if (Port* const port = ports_[1]; port != nullptr && port->groups.count(groups[table])) {
            const auto type = static_cast<uint16_t>(types[table] + (value == 0 ? 1 : 0));
            port->put(message(type, 0, pid, seq, Item{0, id, value}), /*mayBeLost=*/true);
        }
        return 0;
    }
    /// A process sends a change that is none.
    void forge() {
        for (Port* const port : ports_) {
            port ? port->put(message(types[0], 0, 99, 5, Item{0, 1, 4711}), false, 99) : void();
        }
    }
    /// A value that no item may have.
    static constexpr uint32_t refused = 13;
    static constexpr const char* refusedText = "unlucky";

    Table tables[2];
    std::size_t room = 1000;          ///< Datagrams in a receive buffer.
    std::size_t sndBuf = 1000;        ///< The largest datagram that can be sent.
    bool isSilent = false;            ///< Requests get lost.
    bool isHuge = false;              ///< The next datagram is too large to be received.
    uint32_t requestLosses = 0;       ///< Requests and answers that got lost.
    std::vector<double> dumpsAt;      ///< When dumps of table 0 began on the monitor.
    std::map<uint32_t, int> results;  ///< Of the requests, by number.
    /// The result of a request that got lost. Those after it say, wrongly, that it is done.
    static constexpr int swallowed = -1;

  private:
    struct Dump {
        std::size_t table;
        uint32_t seq;
        uint32_t nextId;
        uint64_t changes;
    };

    class Port final : public Mox::Described<Port, NetlinkPort> {
      public:
        static constexpr auto description() { return Mox::classRecord("PavoTest::Port"); }

        Port(KernelModel* model, NetlinkPortUse portUse, Port** self)
            : use(portUse), model_(model), self_(self), timer_(model->clock_, [this] {
                  const auto readable = readable_;
                  readable ? readable() : void();
              }) {
            *self = this;
        }

        uint32_t portId() const override { return use == NetlinkPortUse::monitor ? 8 : 7; }
        uint32_t rcvBufBytes() const override { return 40 << 10; }
        int send(std::span<const uint8_t> messages) override {
            if (messages.size() > model_->sndBuf) {
                return EMSGSIZE;
            }
            for (std::size_t at = 0; at < messages.size();) {
                const auto* const each = reinterpret_cast<const nlmsghdr*>(&messages[at]);
                model_->isSilent ? model_->swallow(*each) : model_->handle(*this, *each);
                at += each->nlmsg_len;
            }
            return 0;
        }
        ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
            if (error_ != 0 || queue_.empty()) {
                errno = error_ != 0 ? std::exchange(error_, 0) : EAGAIN;
                return -1;
            }
            const auto [bytes, from] = std::move(queue_.front());
            queue_.pop_front();
            if (dump && queue_.size() <= model_->room / 2) {
                model_->continueDump(*this);
            }
            isCongested_ = isCongested_ && !queue_.empty();
            *sender = from;
            std::copy_n(bytes.begin(), std::min(bytes.size(), buffer.size()), buffer.begin());
            const std::size_t more = std::exchange(model_->isHuge, false) ? 2 << 20 : 0;
            model_->requestLosses += more != 0 ? 1 : 0;
            return static_cast<ssize_t>(bytes.size() + more);
        }
        void receiveTried(bool moreMayWait) override { moreMayWait ? wake() : void(); }
        void groupIs(uint32_t group, bool isMember) override {
            isMember ? (void)groups.insert(group) : (void)groups.erase(group);
        }
        void readableIs(std::function<void()> readable) override {
            readable_ = std::move(readable);
        }
        // The kernel drops what finds no room, and from then on everything until all was read.
        void put(std::vector<uint8_t> datagram, bool mayBeLost, uint32_t sender = 0) {
            if (mayBeLost && (isCongested_ || isFull())) {
                error_ = isCongested_ ? error_ : ENOBUFS;
                isCongested_ = true;
                model_->requestLosses += use == NetlinkPortUse::requests ? 1 : 0;
            } else {
                queue_.emplace_back(std::move(datagram), sender);
            }
            wake();
        }

        bool isFull() const { return queue_.size() >= model_->room; }

        const NetlinkPortUse use;
        std::set<uint32_t> groups;
        std::optional<Dump> dump;

      protected:
        ~Port() override { *self_ = *self_ == this ? nullptr : *self_; }

      private:
        void wake() { timer_.expiryIs(model_->clock_->now()); }

        KernelModel* model_;
        Port** self_;
        Mox::Timer timer_;
        std::function<void()> readable_;
        std::deque<std::pair<std::vector<uint8_t>, uint32_t>> queue_;  // With their senders.
        int error_ = 0;
        bool isCongested_ = false;
    };

    template <class Body>
    static std::vector<uint8_t> message(uint16_t type, uint16_t flags, uint32_t pid, uint32_t seq,
                                        const Body& body, const char* text = nullptr) {
        NetlinkMessage made(type, flags);
        made.bodyIs(body);
        if (text != nullptr) {
            made.attributeIs(NLMSGERR_ATTR_MSG, text);
        }
        made.header()->nlmsg_seq = seq;
        made.header()->nlmsg_pid = pid;
        return {made.bytes().begin(), made.bytes().end()};
    }
    void acknowledge(Port& port, const nlmsghdr& request, int error, bool mayBeLost = true) {
        const bool hasText = error == EINVAL;
        const uint16_t flags = NLM_F_CAPPED | (hasText ? NLM_F_ACK_TLVS : 0);
        port.put(message(NLMSG_ERROR, flags, port.portId(), request.nlmsg_seq,
                         nlmsgerr{-error, request}, hasText ? refusedText : nullptr),
                 mayBeLost);
    }
    void swallow(const nlmsghdr& request) {
        ++requestLosses;
        results[request.nlmsg_seq] = swallowed;
    }
    void handle(Port& port, const nlmsghdr& request) {
        const std::size_t table = tableOf(request.nlmsg_type);
        const int operation = request.nlmsg_type % 4;
        int error = 0;
        if ((request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP && operation == 2) {
            error = port.dump ? EBUSY : 0;
            if (error == 0) {
                if (port.use == NetlinkPortUse::monitor && table == 0) {
                    dumpsAt.push_back(clock_->now());
                }
                // It goes on when something is received, also where it cannot begin now.
                port.dump = Dump{table, request.nlmsg_seq, 0, changes_};
                port.isFull() ? acknowledge(port, request, ENOBUFS, false) : continueDump(port);
                return;
            }
        } else {
            const auto& item = *netlinkBody<Item>(request);
            const auto found = tables[table].find(item.id);
            if (operation == 2 && found == tables[table].end()) {
                error = ENODEV;
            } else if (operation == 2) {
                port.put(message(types[table], 0, port.portId(), request.nlmsg_seq,
                                 Item{0, item.id, found->second}),
                         /*mayBeLost=*/true);
            } else {
                error = set(table, item.id, operation == 1 ? 0 : item.value, port.portId(),
                            request.nlmsg_seq);
            }
            results[request.nlmsg_seq] = error;
        }
        if (error != 0 || (request.nlmsg_flags & NLM_F_ACK) != 0) {
            acknowledge(port, request, error);
        }
    }
    // Up to two items. A dump during which the tables changed misses every third, and says so.
    void continueDump(Port& port) {
        Dump& dump = *port.dump;
        const bool isInterrupted = dump.changes != changes_;
        const uint16_t flags = NLM_F_MULTI | (isInterrupted ? NLM_F_DUMP_INTR : 0);
        std::vector<uint8_t> datagram;
        const Table& table = tables[dump.table];
        auto each = table.lower_bound(dump.nextId);
        for (int count = 0; count < 2 && each != table.end(); ++each, ++count) {
            dump.nextId = each->first + 1;
            if (!isInterrupted || each->first % 3 != 0) {
                const auto bytes = message(types[dump.table], flags, port.portId(), dump.seq,
                                           Item{0, each->first, each->second});
                datagram.insert(datagram.end(), bytes.begin(), bytes.end());
            }
        }
        if (each == table.end()) {
            const auto done = message(NLMSG_DONE, flags, port.portId(), dump.seq, int{0});
            datagram.insert(datagram.end(), done.begin(), done.end());
            port.dump.reset();
        }
        port.put(std::move(datagram), /*mayBeLost=*/false);
    }

    Mox::Clock* const clock_;
    uint64_t changes_ = 0;
    Port* ports_[2] = {};  // By their use.
};

}  // namespace PavoTest
