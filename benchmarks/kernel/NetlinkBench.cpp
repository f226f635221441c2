// Requests that the kernel acknowledges, beside the same bytes over a bare socket and beside
// libmnl: each puts `lo` into the group that it is in. Those of a session run on the event loop,
// beside a bare socket on epoll(7), and a thousand in a batch beside a thousand one by one. And the
// main function of the program.

#include <benchmark/benchmark.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/NetlinkSession.h"
#include "Pavo/NetlinkUtils.h"
#include "Pavo/SocketAt.h"
#include "sandbox/Sandbox.h"

namespace {

constexpr unsigned loIndex = 1;  // In every namespace.
constexpr uint32_t group = 0;

class PavoRequests {
  public:
    PavoRequests() { Pavo::createNetlinkSocket(&handle_, 0, "", SOCK_RAW, false, NETLINK_ROUTE); }
    ~PavoRequests() { Pavo::closeNetlinkSocket(&handle_); }
    PavoRequests(const PavoRequests&) = delete;
    PavoRequests& operator=(const PavoRequests&) = delete;

    bool acknowledged() { return Pavo::setDeviceGroup(&handle_, loIndex, group) == 0; }

  private:
    Pavo::netlinkHandle handle_;
};

class BareRequests {
  public:
    BareRequests() : fd_(Pavo::socketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, "")) {}
    ~BareRequests() { close(fd_); }
    BareRequests(const BareRequests&) = delete;
    BareRequests& operator=(const BareRequests&) = delete;

    bool acknowledged() { return isSent() && isAnswered(); }

  protected:
    int fd() const { return fd_; }
    bool isSent() {
        struct {
            nlmsghdr header;
            ifinfomsg link;
            rtattr attribute;
            uint32_t group;
        } request = {};
        request.header.nlmsg_len = sizeof(request);
        request.header.nlmsg_type = RTM_SETLINK;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
        request.header.nlmsg_seq = ++number_;
        request.link.ifi_index = loIndex;
        request.attribute.rta_len = sizeof(request.attribute) + sizeof(request.group);
        request.attribute.rta_type = IFLA_GROUP;
        request.group = group;
        return send(fd_, &request, sizeof(request), 0) == sizeof(request);
    }
    bool isAnswered() const {
        struct {
            nlmsghdr header;
            nlmsgerr body;
        } answer;
        return recv(fd_, &answer, sizeof(answer), 0) == sizeof(answer) &&
               answer.header.nlmsg_seq == number_ && answer.header.nlmsg_type == NLMSG_ERROR &&
               answer.body.error == 0;
    }

  private:
    int fd_;
    uint32_t number_ = 0;
};

class MnlRequests {
  public:
    MnlRequests() : socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC)) {
        mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID);
    }
    ~MnlRequests() { mnl_socket_close(socket_); }
    MnlRequests(const MnlRequests&) = delete;
    MnlRequests& operator=(const MnlRequests&) = delete;

    bool acknowledged() {
        alignas(nlmsghdr) char request[64];
        nlmsghdr* const header = mnl_nlmsg_put_header(request);
        header->nlmsg_type = RTM_SETLINK;
        header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
        header->nlmsg_seq = ++number_;
        auto* const link =
            static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg)));
        link->ifi_index = loIndex;
        mnl_attr_put_u32(header, IFLA_GROUP, group);
        char answer[256];  // Room for the kernel's copy of the request.
        if (mnl_socket_sendto(socket_, header, header->nlmsg_len) < 0) {
            return false;
        }
        const ssize_t bytes = mnl_socket_recvfrom(socket_, answer, sizeof(answer));
        return bytes > 0 &&
               mnl_cb_run(answer, static_cast<std::size_t>(bytes), number_,
                          mnl_socket_get_portid(socket_), nullptr, nullptr) == MNL_CB_STOP;
    }

  private:
    mnl_socket* socket_;
    uint32_t number_ = 0;
};

template <class Requests>
void requests(benchmark::State& state) {
    Requests requests;
    for (auto _ : state) {
        if (!requests.acknowledged()) {
            state.SkipWithError("a request was not acknowledged");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

// Waits in epoll(7) for each answer, as an agent does.
class EpollRequests : public BareRequests {
  public:
    EpollRequests() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{EPOLLIN | EPOLLET, {}};
        (void)epoll_ctl(epoll_, EPOLL_CTL_ADD, fd(), &event);
    }
    ~EpollRequests() { close(epoll_); }

    bool acknowledged() {
        epoll_event event;
        return isSent() && epoll_wait(epoll_, &event, 1, -1) == 1 && isAnswered();
    }

  private:
    int epoll_;
};

class SessionRequests {
  public:
    explicit SessionRequests(uint32_t requests = 1)
        : session_(Pavo::netlinkSessionFactory("bench", Pavo::NamespaceName(), loop_.clock())) {
        session_->enabledIs(true);
        Pavo::NetlinkMessage message(RTM_SETLINK);
        message.bodyIs<ifinfomsg>().ifi_index = loIndex;
        message.attributeIs(IFLA_GROUP, group);
        messages_.assign(requests, message);
    }

    bool acknowledged() {
        good_ = 0;
        ends_ = 0;
        if (messages_.size() == 1) {
            session_->requestIs(messages_[0],
                                [this](const Pavo::NetlinkAnswer& answer) { ended(answer); });
        } else {
            session_->requestsAre(
                messages_,
                [this](std::size_t, const Pavo::NetlinkAnswer& answer) { ended(answer); });
        }
        while (ends_ != messages_.size()) {
            loop_.turn();
        }
        return good_ == ends_;
    }

  private:
    void ended(const Pavo::NetlinkAnswer& answer) {
        ++ends_;
        good_ += answer.error == 0 ? 1 : 0;
    }

    Mox::EventLoop loop_;
    Mox::Ptr<Pavo::NetlinkSession> session_;
    std::vector<Pavo::NetlinkMessage> messages_;
    std::size_t good_ = 0;
    std::size_t ends_ = 0;
};

constexpr uint32_t batchSize = 1000;

class SessionBatches : public SessionRequests {
  public:
    SessionBatches() : SessionRequests(batchSize) {}
};

class BareOneByOne : public BareRequests {
  public:
    bool acknowledged() {
        uint32_t good = 0;
        while (good < batchSize && BareRequests::acknowledged()) {
            ++good;
        }
        return good == batchSize;
    }
};

BENCHMARK(requests<SessionRequests>)->Name("NetlinkSessionAck/pavo");
BENCHMARK(requests<EpollRequests>)->Name("NetlinkSessionAck/epoll");
BENCHMARK(requests<BareRequests>)->Name("NetlinkSessionAck/bare");
BENCHMARK(requests<SessionBatches>)->Name("NetlinkBatch1000/pavo");
BENCHMARK(requests<BareOneByOne>)->Name("NetlinkBatch1000/bare");

BENCHMARK(requests<PavoRequests>)->Name("NetlinkAck/pavo");
BENCHMARK(requests<BareRequests>)->Name("NetlinkAck/bare");
BENCHMARK(requests<MnlRequests>)->Name("NetlinkAck/libmnl");

}  // namespace

int main(int argc, char** argv) {
    std::string why;
    if (!PavoSandbox::Sandbox::enter(&why)) {
        std::fprintf(stderr, "no namespaces to measure in: %s\n", why.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
